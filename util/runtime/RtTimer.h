// CRtTimerWrapper: calls its sink at an interval, on the thread that scheduled it, from that thread's
// queue loop. A thread without a queue schedules on thread number 3.
#pragma once

#include <cstdint>

#include "RtExport.h"
#include "RtTimeValue.h"

class CRtEventQueue;
class CRtTimerWrapper;

class RT_EXPORT CRtTimerWrapperSink {
public:
    virtual void OnTimer(CRtTimerWrapper* timer) = 0;
    virtual ~CRtTimerWrapperSink();
};

class RT_EXPORT CRtTimerWrapper {
public:
    CRtTimerWrapper() = default;
    ~CRtTimerWrapper();
    CRtTimerWrapper(const CRtTimerWrapper&) = delete;
    CRtTimerWrapper& operator=(const CRtTimerWrapper&) = delete;

    /// Fires `count` times, or until it is cancelled when `count` is 0; first after one interval.
    /// Intervals missed by a busy thread or a clock that jumped are not made up for. A timer that is
    /// scheduled already starts anew.
    /// 0; 10008 for a null sink or an interval that is not positive; 10015 without a thread to fire on.
    int Schedule(CRtTimerWrapperSink* sink, const CRtTimeValue& interval, uint32_t count);
    /// To be called on the thread that fires; a sink may cancel its own timer.
    void Cancel();

private:
    friend class CRtEventQueue;

    CRtEventQueue* m_pQueue = nullptr;
    CRtTimerWrapperSink* m_pSink = nullptr;
    uint64_t m_intervalMs = 0;
    uint64_t m_dueMs = 0;
    uint32_t m_left = 0;
    bool m_forever = false;
};
