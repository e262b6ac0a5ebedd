#include "RtLog.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <mutex>

std::atomic<int> CRtLog::s_maxLevel{RT_LOG_WARNING};

namespace {

void WriteToStandardError(void*, int, const char* text) { std::fprintf(stderr, "%s\n", text); }

// The length of the UTF-8 sequence at the start of the bytes; 1 if they are not valid UTF-8, as in other
// encodings.
size_t CharacterLength(std::string_view bytes) {
    const auto first = static_cast<uint8_t>(bytes[0]);
    if (first < 0xC2 || first > 0xF4)
        return 1;
    const size_t length = first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    const std::string_view rest = bytes.substr(1, length - 1);
    const bool isComplete = rest.size() == length - 1 && std::ranges::all_of(rest, [](char byte) {
                                return (static_cast<uint8_t>(byte) & 0xC0U) == 0x80U;
                            });
    return isComplete ? length : 1;
}

// Control characters: U+0000 to U+001F and U+007F to U+009F, as a single byte or in UTF-8.
bool IsControl(std::string_view character) {
    const auto last = static_cast<uint8_t>(character.back());
    if (character.size() == 1)
        return last < 0x20 || (last >= 0x7F && last < 0xA0);
    return character.size() == 2 && static_cast<uint8_t>(character[0]) == 0xC2 && last < 0xA0;
}

} // namespace

struct CRtLogSlot {
    // Never destroyed: destructors of static objects write log lines too.
    static CRtLogSlot& Instance() {
        static CRtLogSlot* slot = new CRtLogSlot;
        return *slot;
    }
    void Set(RtLogSink newSink, void* newContext, int maxLevel) {
        const std::lock_guard lock(mutex);
        sink = newSink ? newSink : WriteToStandardError;
        context = newContext;
        CRtLog::s_maxLevel.store(maxLevel, std::memory_order_relaxed);
    }

    std::recursive_mutex mutex; // recursive: a sink may call code that logs
    RtLogSink sink = WriteToStandardError;
    void* context = nullptr;
};

void RtSetLogSink(RtLogSink sink, void* context, int maxLevel) {
    CRtLogSlot::Instance().Set(sink, context, maxLevel);
}

CRtLog* CRtLog::Instance() {
    static CRtLog log;
    return &log;
}

void CRtLog::TraceString(int level, int, const char* text) {
    if (!IsEnabled(level))
        return;
    CRtLogSlot& slot = CRtLogSlot::Instance();
    const std::lock_guard lock(slot.mutex);
    if (IsEnabled(level)) // the listener may have changed during the wait
        slot.sink(slot.context, level, text);
}

void CRtLog::WriteLine(int level, void (*append)(CRtLogRecorder& line, const void* items),
                       const void* items) {
    char buffer[RT_LOG_BUFFER_SIZE];
    CRtLogRecorder line(buffer, sizeof(buffer));
    append(line, items);
    Instance()->TraceString(level, 0, line.c_str());
}

void CRtLog::AssertFailed(const char* source, int line, const char* expression) {
    RT_LOG(RT_LOG_ERROR, source << ":" << line << " Assert failed: " << expression);
}

CRtLog::CRtLogRecorder::CRtLogRecorder(char* buffer, size_t size)
    : m_buffer(buffer), m_space(size - 1) {
    m_buffer[0] = '\0';
}

void CRtLog::CRtLogRecorder::Append(const char* bytes, size_t length) {
    length = std::min(length, m_space);
    std::memcpy(m_buffer + m_length, bytes, length);
    m_length += length;
    m_space -= length;
    m_buffer[m_length] = '\0';
}

CRtLog::CRtLogRecorder& CRtLog::CRtLogRecorder::operator<<(const char* text) {
    if (text)
        Append(text, std::strlen(text));
    return *this;
}

CRtLog::CRtLogRecorder& CRtLog::CRtLogRecorder::operator<<(const CRtString& text) {
    const std::string_view bytes = text.view();
    for (size_t at = 0; at < bytes.size() && m_space > 0;) {
        const size_t length = CharacterLength(bytes.substr(at));
        if (!IsControl(bytes.substr(at, length))) {
            Append(bytes.data() + at, length);
        } else {
            char escaped[5];
            const unsigned code = static_cast<uint8_t>(bytes[at + length - 1]);
            std::snprintf(escaped, sizeof(escaped), "\\x%02X", code);
            Append(escaped, sizeof(escaped) - 1);
        }
        at += length;
    }
    return *this;
}

CRtLog::CRtLogRecorder& CRtLog::CRtLogRecorder::operator<<(int64_t value) {
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof(digits), value).ptr;
    Append(digits, static_cast<size_t>(end - digits));
    return *this;
}

CRtLog::CRtLogRecorder& CRtLog::CRtLogRecorder::operator<<(uint64_t value) {
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof(digits), value).ptr;
    Append(digits, static_cast<size_t>(end - digits));
    return *this;
}

CRtLog::CRtLogRecorder& CRtLog::CRtLogRecorder::operator<<(const void* pointer) {
    char digits[2 + 2 * sizeof(void*)] = {'0', 'x'};
    const auto end =
        std::to_chars(digits + 2, digits + sizeof(digits), reinterpret_cast<uintptr_t>(pointer), 16)
            .ptr;
    Append(digits, static_cast<size_t>(end - digits));
    return *this;
}

CRtLog::CRtLogRecorder& CRtLog::CRtLogRecorder::operator<<(const CTavoSID& sid) {
    return *this << sid.GetServerId() << "." << sid.GetType() << "." << sid.GetNodeSequence() << "."
                 << sid.GetSequence();
}
