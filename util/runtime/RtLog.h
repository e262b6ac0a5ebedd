// The log. Every line of the library goes through CRtLog::Instance()->TraceString. Where lines go and
// which levels are wanted is the application's choice; with no listener for a level the text of its
// lines is not even composed.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "RtExport.h"
#include "RtSid.h"
#include "RtString.h"

enum RtLogLevel : int {
    RT_LOG_SILENT = -1,
    RT_LOG_ERROR = 0,   ///< failures and broken assertions
    RT_LOG_WARNING = 1, ///< what the library copes with
    RT_LOG_TRACE = 2,   ///< the ordinary course of things
};

/// Receives one line without a line end. Any thread may call it, one at a time: calls are serialised.
/// It must not call RtSetLogSink, the file manager or exit: a line may come from under a lock.
using RtLogSink = void (*)(void* context, int level, const char* text);

/// Sends lines of levels up to `maxLevel` (an RtLogLevel) to `sink`, from any thread. When it returns,
/// the former sink is no longer running and will not be called again. A null `sink` stands for the
/// default, which writes to standard error. Before the first call: the default with RT_LOG_WARNING.
/// Lines may come as late as process end; a sink whose context dies earlier has to be replaced first.
RT_EXPORT void RtSetLogSink(RtLogSink sink, void* context, int maxLevel);

class RT_EXPORT CRtLog {
public:
    /// Composes a line in a buffer of its user's. What does not fit is cut; the text is always
    /// terminated.
    class RT_EXPORT CRtLogRecorder {
    public:
        CRtLogRecorder(char* buffer, size_t size);
        CRtLogRecorder& operator<<(const char* text);
        CRtLogRecorder& operator<<(const CRtString& text);
        CRtLogRecorder& operator<<(int16_t value) { return *this << int64_t{value}; }
        CRtLogRecorder& operator<<(uint16_t value) { return *this << uint64_t{value}; }
        CRtLogRecorder& operator<<(int32_t value) { return *this << int64_t{value}; }
        CRtLogRecorder& operator<<(uint32_t value) { return *this << uint64_t{value}; }
        CRtLogRecorder& operator<<(int64_t value);
        CRtLogRecorder& operator<<(uint64_t value);
        CRtLogRecorder& operator<<(const void* pointer);
        CRtLogRecorder& operator<<(const CTavoSID& sid);
        const char* c_str() const { return m_buffer; }

    private:
        void Append(const char* bytes, size_t length);

        char* m_buffer;
        size_t m_space; // bytes still free, the terminator not counted
        size_t m_length = 0;
    };

    static CRtLog* Instance();
    static bool IsEnabled(int level) { return level <= s_maxLevel.load(std::memory_order_relaxed); }
    /// Hands a finished line to the sink. The second argument is reserved and 0.
    void TraceString(int level, int reserved, const char* text);
    /// Writes the line of a broken assertion. Execution goes on.
    static void AssertFailed(const char* source, int line, const char* expression);

private:
    friend struct CRtLogSlot; // where the listener is kept
    CRtLog() = default;

    static std::atomic<int> s_maxLevel;
};

constexpr size_t RT_LOG_BUFFER_SIZE = 2048;

#define RT_LOG(level, items)                                                                       \
    do {                                                                                           \
        if (CRtLog::IsEnabled(level)) {                                                            \
            char rtLogBuffer[RT_LOG_BUFFER_SIZE];                                                  \
            CRtLog::CRtLogRecorder rtLogRecorder(rtLogBuffer, sizeof(rtLogBuffer));                \
            rtLogRecorder << items;                                                                \
            CRtLog::Instance()->TraceString(level, 0, rtLogRecorder.c_str());                      \
        }                                                                                          \
    } while (0)

/// Tests a condition that must hold; a broken one is logged with the given source path and text. Has
/// the condition's value. The text is given apart from the condition because log readers search for it
/// letter by letter.
#define RT_CHECK(source, condition, text)                                                          \
    (static_cast<bool>(condition) || (CRtLog::AssertFailed(source, __LINE__, text), false))
