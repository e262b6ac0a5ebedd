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
    // Links of the queue that holds the event: queuing allocates nothing.
    IRtEvent* m_pPrevious = nullptr;
    IRtEvent* m_pNext = nullptr;
    CRtEventQueue* m_pQueue = nullptr;        // null once the event has been taken out
    class CRtSendTicket* m_pTicket = nullptr; // of the sender that waits, or null
};

/// The only priority. Events run in the order in which they were posted.
constexpr int RT_PRIORITY_NORMAL = 1;

/// The event queue of a thread. Thread-safe.
class RT_EXPORT IRtEventQueue {
public:
    /// Queues an event and returns.
    /// @param event the event; the queue owns it.
    /// @param priority #RT_PRIORITY_NORMAL.
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
    /// Removes an event from the queue and disposes of it. Precondition: the event has not been disposed of
    /// yet; the caller has to ensure it.
    /// @param event an event that was posted to this queue.
    /// @returns true if the event was removed. False if it is about to run, or was sent with SendEvent; then
    ///     it is not disposed of by this call.
    virtual bool WithdrawEvent(IRtEvent* event) = 0;
    /// Takes the next event out of the queue if a predicate accepts it, so that the running event can do the
    /// work of several. The receiver disposes of it.
    /// @param isWanted the predicate, called with `last` and the next event, under the queue's lock: it must
    ///     not call the queue.
    /// @param last the first argument of the predicate.
    /// @returns the event; null if the queue is empty, the next event was sent with SendEvent, or the
    ///     predicate refused it.
    virtual IRtEvent* TakeNextIf(bool (*isWanted)(const IRtEvent& last, const IRtEvent& next),
                                 const IRtEvent& last) = 0;

protected:
    virtual ~IRtEventQueue();
};
/// @}
