// Time: seconds and microseconds, the time of day, and the millisecond tick count. Both readings come
// from one clock that can be replaced, so that a test moves time instead of waiting for it.
#pragma once

#include <cstdint>

#include "RtExport.h"

class RT_EXPORT CRtTimeValue {
public:
    CRtTimeValue() = default;
    /// Normalised: 0 <= microseconds < 1,000,000.
    CRtTimeValue(int64_t seconds, int64_t microseconds);

    /// The time of day since 1970-01-01 00:00:00 UTC, from the clock in use. Any thread.
    static CRtTimeValue GetTimeOfDay();

    int64_t GetSec() const { return m_seconds; }
    int64_t GetUsec() const { return m_microseconds; }
    int64_t GetTotalInMs() const { return m_seconds * 1000 + m_microseconds / 1000; }

private:
    int64_t m_seconds = 0;
    int64_t m_microseconds = 0;
};

/// What a replacement for the system's clock answers. Any thread may ask at any time.
class RT_EXPORT IRtClock {
public:
    virtual uint64_t TickCountMs() = 0;
    virtual CRtTimeValue TimeOfDay() = 0;

protected:
    virtual ~IRtClock();
};

/// Replaces the clock of the whole process; null brings the system's back. The clock stays the
/// caller's and must live until it is replaced. A thread that sleeps until a timer is due notices a
/// clock that jumped when something is next posted to it.
RT_EXPORT void RtSetClock(IRtClock* clock);

/// Milliseconds since some fixed moment, from the clock in use; the system's never goes back.
RT_EXPORT uint64_t GetTickCountEx();
