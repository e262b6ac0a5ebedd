/// @addtogroup runtime
/// @{
#pragma once

#include "RtExport.h"

class CRtEventQueue;

/// Work for another thread. Posting an event passes it to the queue, even if posting fails; the queue
/// disposes of it exactly once, with OnDestorySelf.
class RT_EXPORT IRtEvent {
public:
    /// An event that is in no queue.
    IRtEvent() = default;
    IRtEvent(const IRtEvent&) = delete;
    IRtEvent& operator=(const IRtEvent&) = delete;

    /// Does the work, on the queue's thread. It must not throw. The result is ignored.
    virtual int OnEventFire() = 0;
    /// Called once: on the queue's thread after the event has run, or on the thread of the call that could not
    /// queue it or has withdrawn it. The default deletes the event.
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
    /// Queues an event and returns when it has run. On the queue's own thread it runs immediately.
    /// @param event the event; the queue owns it.
    /// @retval RT_OK
    /// @retval RT_ERROR_NULL_OBJECT `event` is null.
    /// @retval RT_ERROR_NOT_READY the thread is stopping or has stopped. The event has been disposed of.
    virtual int SendEvent(IRtEvent* event) = 0;
    /// Removes a posted event and disposes of it. Precondition: the event has not been disposed of; the
    /// caller has to know that.
    /// @returns false if the event is no longer queued because it is about to run, or if it was sent with
    ///     SendEvent. It is not disposed of then.
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
