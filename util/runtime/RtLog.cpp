#include "RtLog.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <mutex>

std::atomic<int> CRtLog::s_maxLevel{RT_LOG_WARNING};

namespace {

void WriteToStandardError(void*, int, const char* text) { std::fprintf(stderr, "%s\n", text); }

} // namespace

struct CRtLogSlot {
    // Never destroyed: lines are written until the very end of the process.
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
    if (IsEnabled(level)) // the listener may have changed while this thread waited
        slot.sink(slot.context, level, text);
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
    Append(text.data(), text.size());
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
