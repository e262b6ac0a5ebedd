/// @addtogroup runtime
/// @{
#pragma once

#include "RtExport.h"

class CRtEventQueue;

/// Work for another thread. The queue owns an event from the call that posts or sends it, even if that call
/// fails. It disposes of each event exactly once: it calls OnDestorySelf.
class RT_EXPORT IRtEvent {
public:
    /// An event that is in no queue.
    IRtEvent() = default;
    IRtEvent(const IRtEvent&) = delete;
    IRtEvent& operator=(const IRtEvent&) = delete;

    /// Does the work, on the thread of the queue. It must not throw. The return value is ignored.
    virtual int OnEventFire() = 0;
    /// Called once: on the thread of the queue after the event has run, or on the thread of the call that
    /// failed to queue the event or withdrew it. The default implementation deletes the event.
    virtual void OnDestorySelf();
    virtual ~IRtEvent();

private:
    friend class CRtEventQueue;
    IRtEvent* m_pNext = nullptr; // intrusive link of the queue: posting allocates nothing
    class CRtSendTicket* m_pTicket = nullptr; // of the sender that waits, or null
};

/// Priorities of events. Events of the same priority run in the order in which they were posted.
///@{
constexpr int RT_PRIORITY_HIGH = 0;   ///< before all others; after 8 of them, one normal event runs
constexpr int RT_PRIORITY_NORMAL = 1; ///< the priority of SendEvent
constexpr int RT_PRIORITY_LOW =
    2; ///< when no other event is queued, and at least one event per second
///@}

/// The event queue of a thread. Thread-safe.
class RT_EXPORT IRtEventQueue {
public:
    /// Queues an event and returns.
    /// @param event the event; the queue owns it.
    /// @param priority one of the priorities above.
    /// @retval RT_OK
    /// @retval RT_ERROR_NULL_OBJECT `event` is null.
    /// @retval RT_ERROR_NOT_READY the thread is stopping or has stopped. The event has been disposed of.
    virtual int PostEvent(IRtEvent* event, int priority) = 0;
    /// Queues an event and returns when it has run and has been disposed of. If the calling thread is the
    /// thread of the queue, the event runs immediately, before the events that are queued.
    /// @param event the event; the queue owns it.
    /// @retval RT_OK
    /// @retval RT_ERROR_NULL_OBJECT `event` is null.
    /// @retval RT_ERROR_NOT_READY the thread is stopping or has stopped. The event has been disposed of.
    virtual int SendEvent(IRtEvent* event) = 0;

protected:
    virtual ~IRtEventQueue();
};
/// @}
