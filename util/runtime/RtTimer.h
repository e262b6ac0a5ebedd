/// @addtogroup runtime
/// @{
#pragma once

#include <cstdint>

#include "RtExport.h"
#include "RtTimeValue.h"

class CRtEventQueue;
class CRtTimerWrapper;

/// Receives the calls of a timer.
class RT_EXPORT CRtTimerWrapperSink {
public:
    /// Called each time the timer fires, from the event loop of its thread. It may cancel, reschedule or
    /// destroy the timer. It must not throw.
    virtual void OnTimer(CRtTimerWrapper* timer) = 0;
    virtual ~CRtTimerWrapperSink();
};

/// A timer. It fires on the thread that called Schedule, from the loop of that thread's event queue. If that
/// thread has no event queue, the timer fires on the caller thread.
class CRtTimerWrapper {
public:
    /// The constructor creates a timer that is not scheduled. The destructor cancels the timer.
    ///@{
    CRtTimerWrapper() = default;
    RT_EXPORT ~CRtTimerWrapper();
    ///@}
    CRtTimerWrapper(const CRtTimerWrapper&) = delete;
    CRtTimerWrapper& operator=(const CRtTimerWrapper&) = delete;

    /// Starts the timer. If the timer is running, it restarts. If the thread is busy or the clock jumps for
    /// longer than an interval, the timer fires once for the missed intervals.
    /// @param sink the object to call. It must live until the timer has fired `count` times or is cancelled.
    /// @param interval time between calls, and before the first; at least 1 ms.
    /// @param count number of calls; 0: until cancelled.
    /// @retval RT_OK
    /// @retval RT_ERROR_INVALID_ARG `sink` is null, or `interval` is less than 1 ms.
    /// @retval RT_ERROR_NOT_READY the calling thread has no event queue, and there is no caller thread.
    RT_EXPORT int Schedule(CRtTimerWrapperSink* sink, const CRtTimeValue& interval, uint32_t count);
    /// Stops the timer. Call it on the thread on which the timer fires: then the sink is not called after the
    /// call has returned. On another thread, a call of the sink may still be running.
    RT_EXPORT void Cancel();

private:
    friend class CRtEventQueue;

    CRtEventQueue* m_pQueue = nullptr;
    CRtTimerWrapperSink* m_pSink = nullptr;
    uint64_t m_intervalMs = 0;
    uint64_t m_dueMs = 0;
    uint32_t m_left = 0;
    bool m_forever = false;
};
/// @}
