/// @addtogroup runtime
/// @{
#pragma once

#include <cstdint>

#include "RtExport.h"
#include "RtTimeValue.h"

class CRtEventQueue;
class CRtTimerWrapper;

/// Receives a timer's calls.
class RT_EXPORT CRtTimerWrapperSink {
public:
    /// Called from the event loop of the thread that fires. It may cancel, reschedule or destroy the timer.
    virtual void OnTimer(CRtTimerWrapper* timer) = 0;
    virtual ~CRtTimerWrapperSink();
};

/// A timer. It fires on the thread that scheduled it, from the loop of that thread's event queue; if that
/// thread has no queue, on the caller thread.
class CRtTimerWrapper {
public:
    /// Creates a timer that is not scheduled; the destructor cancels it.
    ///@{
    CRtTimerWrapper() = default;
    RT_EXPORT ~CRtTimerWrapper();
    ///@}
    CRtTimerWrapper(const CRtTimerWrapper&) = delete;
    CRtTimerWrapper& operator=(const CRtTimerWrapper&) = delete;

    /// Starts the timer; one that is running restarts. Intervals that are missed because the thread is busy
    /// or the clock jumps are skipped.
    /// @param sink must live until the timer has ended or is cancelled.
    /// @param interval time between calls, and before the first; at least 1 ms.
    /// @param count number of calls; 0: until cancelled.
    /// @retval RT_OK
    /// @retval RT_ERROR_INVALID_ARG `sink` is null, or `interval` is less than 1 ms.
    /// @retval RT_ERROR_NOT_READY there is no thread to fire on.
    RT_EXPORT int Schedule(CRtTimerWrapperSink* sink, const CRtTimeValue& interval, uint32_t count);
    /// Stops the timer. Call it on the thread that fires: then the sink is not called any more.
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
