/// @addtogroup runtime
/// @{
#pragma once

#include <cstdint>

#include "RtExport.h"

/// A time or a duration in seconds and microseconds.
class CRtTimeValue {
public:
    /// Without arguments the value is zero, otherwise the sum of both arguments. The constructor normalises
    /// it: 0 <= microseconds < 1,000,000.
    ///@{
    CRtTimeValue() = default;
    RT_EXPORT CRtTimeValue(int64_t seconds, int64_t microseconds);
    ///@}

    /// Returns the time since 1970-01-01 00:00:00 UTC, read from the current clock (RtSetClock). Any thread.
    RT_EXPORT static CRtTimeValue GetTimeOfDay();

    /// The seconds, the microseconds within the second, and the whole value in milliseconds, rounded down.
    ///@{
    int64_t GetSec() const { return m_seconds; }
    int64_t GetUsec() const { return m_microseconds; }
    int64_t GetTotalInMs() const { return m_seconds * 1000 + m_microseconds / 1000; }
    ///@}

private:
    int64_t m_seconds = 0;
    int64_t m_microseconds = 0;
};

/// A replacement for the system's clock, for tests. The library calls it on any thread, possibly while it
/// holds locks. So a clock must be thread-safe, must not call the library, and must not throw.
class RT_EXPORT IRtClock {
public:
    /// Milliseconds since a fixed moment.
    virtual uint64_t TickCountMs() = 0;
    /// Time since 1970-01-01 00:00:00 UTC.
    virtual CRtTimeValue TimeOfDay() = 0;

protected:
    virtual ~IRtClock();
};

/// Replaces the clock of the process. A thread that waits for a timer reads the new clock when the next event
/// is posted to it, or when its wait ends.
/// @param clock the clock. It remains the caller's and must live until it is replaced. Null restores the
///     system's clock.
RT_EXPORT void RtSetClock(IRtClock* clock);

/// Returns the milliseconds since a fixed moment, read from the current clock. Any thread. Unless RtSetClock
/// has replaced it, the clock is monotonic.
RT_EXPORT uint64_t GetTickCountEx();
/// @}
