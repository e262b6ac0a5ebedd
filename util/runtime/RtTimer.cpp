#include "RtTimer.h"

#include "RtEventQueue.h"
#include "RtResult.h"
#include "RtThreadManager.h"

CRtTimerWrapperSink::~CRtTimerWrapperSink() = default;

CRtTimerWrapper::~CRtTimerWrapper() { Cancel(); }

int CRtTimerWrapper::Schedule(CRtTimerWrapperSink* sink, const CRtTimeValue& interval,
                              uint32_t count) {
    if (!sink || interval.GetTotalInMs() <= 0)
        return RT_ERROR_INVALID_ARG;
    Cancel();
    CRtEventQueue* queue = CRtEventQueue::Current();
    if (!queue) {
        CRtThread* thread = CRtThreadManager::Instance()->GetThread(RT_CALLER_THREAD);
        if (!thread)
            return RT_ERROR_NOT_READY;
        queue = &thread->Queue();
    }
    m_pSink = sink;
    m_intervalMs = static_cast<uint64_t>(interval.GetTotalInMs());
    m_dueMs = GetTickCountEx() + m_intervalMs;
    m_left = count;
    m_forever = count == 0;
    m_pQueue = queue;
    m_pQueue->AddTimer(this);
    return RT_OK;
}

void CRtTimerWrapper::Cancel() {
    if (m_pQueue)
        m_pQueue->RemoveTimer(this);
    m_pQueue = nullptr;
}
