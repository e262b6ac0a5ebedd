/// @addtogroup runtime
/// @{
#pragma once

#include <cstdint>
#include <memory>

#include "RtEvent.h"
#include "RtExport.h"
#include "RtTimeValue.h"

class CRtEventQueue;

/// A thread with an event queue. CRtThreadManager creates it.
class CRtThread {
public:
    /// The identifier that the system has given the thread. Any thread.
    RT_EXPORT uint32_t GetThreadId() const;
    /// The queue of the thread; it lives as long as this object. Any thread.
    RT_EXPORT IRtEventQueue* GetEventQueue();

    /// Makes the thread end when the queued events have run. The queue accepts no further events. The call
    /// does not wait. Any thread.
    /// @param timeout ignored.
    /// @retval RT_OK always.
    RT_EXPORT int Stop(const CRtTimeValue* timeout = nullptr);
    /// Waits until the thread has ended.
    /// @param milliseconds the longest time to wait, in ms.
    /// @retval RT_OK the thread has ended.
    /// @retval RT_ERROR_NOT_READY the thread is still running, or it called Join itself.
    RT_EXPORT int Join(uint32_t milliseconds);
    /// Stops the thread, waits without a limit until the thread has ended, and deletes this object.
    /// @param reserved 0.
    /// @retval RT_OK
    /// @retval RT_ERROR_NOT_READY the thread called Destory itself. Nothing changes.
    RT_EXPORT int Destory(uint32_t reserved);

private:
    friend class CRtThreadManager;
    friend class CRtCallerThread;
    friend class CRtTimerWrapper;

    CRtThread();
    ~CRtThread();
    int StartOwn();
    void AdoptCurrent();
    void ReleaseCurrent();
    bool End();
    CRtEventQueue& Queue();

    struct State;
    std::unique_ptr<State> m_state;
};
/// @}
