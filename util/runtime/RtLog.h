/// @addtogroup runtime
/// @{
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "RtExport.h"
#include "RtSid.h"
#include "RtString.h"

/// Levels of log lines. The text of a line is composed only if its level is enabled.
enum RtLogLevel : int {
    RT_LOG_SILENT = -1, ///< as the maximum level: no lines
    RT_LOG_ERROR = 0,   ///< failures and assertion lines
    RT_LOG_WARNING = 1, ///< conditions that the library handles, for example a failed store
    RT_LOG_TRACE = 2,   ///< normal operation
};

/// A function that receives one log line. The library calls it on any thread, one call at a time, possibly
/// while it holds locks. So a sink must not call RtSetLogSink, the file manager or `exit`, and must not
/// throw.
///
/// Arguments: `context` as passed to RtSetLogSink; `level`, an #RtLogLevel; `text`, without a line end, at
/// most #RT_LOG_BUFFER_SIZE - 1 bytes, valid during the call.
using RtLogSink = void (*)(void* context, int level, const char* text);

/// Replaces the log sink. Any thread. When RtSetLogSink returns, the former sink is not running and will not
/// be called again. Until the first call, lines up to #RT_LOG_WARNING go to standard error. The library
/// writes lines until process end: replace a sink before its context is destroyed.
/// @param sink the sink; null: standard error.
/// @param context passed to the sink.
/// @param maxLevel an #RtLogLevel; lines of higher levels are dropped.
RT_EXPORT void RtSetLogSink(RtLogSink sink, void* context, int maxLevel);

/// The log of the process. The library passes each line to TraceString. Thread-safe.
class CRtLog {
public:
    /// Composes a line in a buffer of the caller. Text that does not fit is truncated; the line always ends
    /// with a zero byte. Numbers are decimal, pointers hexadecimal, node identifiers
    /// `server.type.node.sequence`. A null text appends nothing. In a CRtString control characters are
    /// escaped as `\xNN`: it may be a file name or bytes of a file, and a log line must not control the
    /// terminal that shows it.
    class CRtLogRecorder {
    public:
        /// @param buffer the buffer.
        /// @param size its size in bytes, at least 1.
        RT_EXPORT CRtLogRecorder(char* buffer, size_t size);
        /// Append one item.
        ///@{
        RT_EXPORT CRtLogRecorder& operator<<(const char* text);
        RT_EXPORT CRtLogRecorder& operator<<(const CRtString& text);
        CRtLogRecorder& operator<<(int16_t value) { return *this << int64_t{value}; }
        CRtLogRecorder& operator<<(uint16_t value) { return *this << uint64_t{value}; }
        CRtLogRecorder& operator<<(int32_t value) { return *this << int64_t{value}; }
        CRtLogRecorder& operator<<(uint32_t value) { return *this << uint64_t{value}; }
        RT_EXPORT CRtLogRecorder& operator<<(int64_t value);
        RT_EXPORT CRtLogRecorder& operator<<(uint64_t value);
        RT_EXPORT CRtLogRecorder& operator<<(const void* pointer);
        RT_EXPORT CRtLogRecorder& operator<<(const CTavoSID& sid);
        ///@}
        /// The line so far.
        const char* c_str() const { return m_buffer; }

    private:
        void Append(const char* bytes, size_t length);

        char* m_buffer;
        size_t m_space; // bytes still free, the terminator not counted
        size_t m_length = 0;
    };

    /// The log of this process.
    RT_EXPORT static CRtLog* Instance();
    /// Returns whether lines of a level are passed to the sink.
    static bool IsEnabled(int level) { return level <= s_maxLevel.load(std::memory_order_relaxed); }
    /// Passes a line to the sink, if its level is enabled.
    /// @param level an #RtLogLevel.
    /// @param reserved 0.
    /// @param text the line.
    RT_EXPORT void TraceString(int level, int reserved, const char* text);
    /// Composes a line and passes it to TraceString.
    /// @param level an #RtLogLevel.
    /// @param compose a function that appends the items of the line to a CRtLogRecorder.
    template <class Compose>
    static void Write(int level, const Compose& compose) {
        const auto append = [](CRtLogRecorder& line, const void* items) {
            (*static_cast<const Compose*>(items))(line);
        };
        WriteLine(level, append, &compose);
    }
    /// Writes an assertion line, `SOURCE:LINE Assert failed: EXPRESSION`, at level #RT_LOG_ERROR. It does not
    /// end the process.
    RT_EXPORT static void AssertFailed(const char* source, int line, const char* expression);

private:
    friend struct CRtLogSlot; // stores the sink
    CRtLog() = default;
    RT_EXPORT static void WriteLine(int level,
                                    void (*append)(CRtLogRecorder& line, const void* items),
                                    const void* items);

    RT_EXPORT static std::atomic<int> s_maxLevel;
};

/// Size of the buffer for one line in bytes.
constexpr size_t RT_LOG_BUFFER_SIZE = 2048;

/// Writes a line: `RT_LOG(RT_LOG_TRACE, "name, value=" << value)`. `items` is evaluated only if the level is
/// enabled. The buffer of the line is not in the frame of the caller: calls that nest deeply need little stack.
#define RT_LOG(level, items)                                                                       \
    do {                                                                                           \
        if (CRtLog::IsEnabled(level))                                                              \
            CRtLog::Write(level,                                                                   \
                          [&](CRtLog::CRtLogRecorder& rtLogRecorder) { rtLogRecorder << items; }); \
    } while (0)

/// Evaluates to the value of a condition. If the condition is false, the macro writes an assertion line
/// (CRtLog::AssertFailed). `source` and `text` are arguments instead of `__FILE__` and the condition, because
/// programs that search the log expect fixed texts.
#define RT_CHECK(source, condition, text)                                                          \
    (static_cast<bool>(condition) || (CRtLog::AssertFailed(source, __LINE__, text), false))
/// @}
