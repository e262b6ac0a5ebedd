/// @addtogroup runtime
/// @{
#pragma once

#include <cstdint>
#include <memory>

#include "RtEvent.h"
#include "RtExport.h"
#include "RtTimeValue.h"

class CRtEventQueue;

/// A thread with an event queue. CRtThreadManager hands it out.
class CRtThread {
public:
    /// The system's identifier of the thread. Any thread.
    RT_EXPORT uint32_t GetThreadId() const;
    /// The queue; it lives as long as this object. Any thread.
    RT_EXPORT IRtEventQueue* GetEventQueue();

    /// Makes the thread end after the events that are queued; its queue accepts no more. Does not wait. Any
    /// thread.
    /// @param timeout ignored.
    /// @retval RT_OK always.
    RT_EXPORT int Stop(const CRtTimeValue* timeout = nullptr);
    /// Waits until the thread has ended, for at most `milliseconds`.
    /// @retval RT_OK it has ended.
    /// @retval RT_ERROR_NOT_READY it is still running, or the call came from this thread itself.
    RT_EXPORT int Join(uint32_t milliseconds);
    /// Stops the thread, waits without a limit until it has ended, and deletes this object.
    /// @param reserved 0.
    /// @retval RT_OK
    /// @retval RT_ERROR_NOT_READY the call came from this thread itself. Nothing has changed.
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
