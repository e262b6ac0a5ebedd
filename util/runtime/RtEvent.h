// Events and the queue that a thread runs them from: the one means of moving work between threads.
#pragma once

#include "RtExport.h"

class CRtEventQueue;

/// A piece of work for another thread. The queue it is handed to owns it from then on, also when it
/// could not be queued, and disposes of it through OnDestorySelf.
class RT_EXPORT IRtEvent {
public:
    IRtEvent() = default;
    IRtEvent(const IRtEvent&) = delete;
    IRtEvent& operator=(const IRtEvent&) = delete;

    /// Runs the work, on the queue's thread. The result goes to nobody but a debugger.
    virtual int OnEventFire() = 0;
    /// Called once, after the event has run or instead of it. The default deletes the event.
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

/// The priority of an ordinary post. Events run in the order of their posts.
constexpr int RT_PRIORITY_NORMAL = 1;

/// The queue of a thread. All operations may be called from any thread.
class RT_EXPORT IRtEventQueue {
public:
    /// Queues the event and returns at once.
    /// 0; 10007 for a null event; 10015 when the thread is stopping or gone (the event is disposed of).
    virtual int PostEvent(IRtEvent* event, int priority) = 0;
    /// Queues the event and returns when it has run; on the queue's own thread it runs at once.
    /// Results as for PostEvent.
    virtual int SendEvent(IRtEvent* event) = 0;
    /// Takes a posted event back and disposes of it. False when it is no longer in the queue because
    /// it is about to run, or when somebody waits for it. The event must not have run yet: its poster has
    /// to know that.
    virtual bool WithdrawEvent(IRtEvent* event) = 0;
    /// For an event that does the work of those behind it as well: hands the next posted event over, to be
    /// disposed of by whoever takes it, if `isWanted`(last, next) says so; else null. The predicate is
    /// called under the queue's lock and must not call the queue.
    virtual IRtEvent* TakeNextIf(bool (*isWanted)(const IRtEvent& last, const IRtEvent& next),
                                 const IRtEvent& last) = 0;

protected:
    virtual ~IRtEventQueue();
};
