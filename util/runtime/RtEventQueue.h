// CRtEventQueue: the event queue of one thread, its timers, and the loop that runs both. Any thread posts;
// only the owning thread runs the loop.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

#include "RtEvent.h"

class CRtTimerWrapper;

class CRtEventQueue final : public IRtEventQueue {
public:
    CRtEventQueue();
    ~CRtEventQueue() override;

    /// The queue whose owner is the calling thread, or null.
    static CRtEventQueue* Current();

    int PostEvent(IRtEvent* event, int priority) noexcept override;
    int SendEvent(IRtEvent* event) override;

    /// True: the calling thread becomes the owner. False: the queue has no owner.
    void SetOwner(bool owned);
    /// `wakeUp` is called under the queue's mutex after each post, new timer, Stop and Quit.
    void SetWakeUp(std::function<void()> wakeUp);

    /// Runs events and timers. After Stop, returns when the queue is empty; after Quit, returns before
    /// the next event and leaves the others queued.
    void Run();
    void Quit();
    /// Fires the timers that are due and runs the events that were queued at the time of the call.
    /// Returns the number of both. Never waits.
    size_t RunDue();
    /// Whether no event is queued; one that runs does not count.
    bool IsEmpty() const { return m_count == 0; }
    /// For the end of the process: runs the queued events on the calling thread, and until `timeout` events
    /// that are posted during the call. False if another thread runs an event for that long.
    bool RunRemaining(std::chrono::milliseconds timeout);
    /// From now on every post is refused. Run returns when the queue is empty.
    void Stop();

    void AddTimer(CRtTimerWrapper* timer);
    void RemoveTimer(CRtTimerWrapper* timer);
    /// Milliseconds until the next timer is due, 0 if one is due, -1 if there is none.
    int64_t GetNextDueMs();

private:
    int Enqueue(IRtEvent* event, class CRtSendTicket* ticket);
    void WakeOwner();
    IRtEvent* TakeFirst();
    bool RunOne();
    size_t FireDueTimers();
    bool FireOneTimer(uint64_t now);
    bool WaitForWork();

    std::mutex m_mutex; // SpinThenLock; guards everything below but m_running
    std::condition_variable m_somethingToDo;
    IRtEvent* m_pFirst = nullptr;
    IRtEvent* m_pLast = nullptr;
    std::atomic<size_t> m_count{0}; // spin loops read it without the mutex
    bool m_stopped = false;
    bool m_quit = false;
    bool m_ownerParked = false;
    std::vector<CRtTimerWrapper*> m_timers;
    std::function<void()> m_wakeUp;
    // Locked while an event or a timer runs: RunRemaining must not run events concurrently with the
    // owner. Recursive: an event may call RunDue of its own queue, or exit.
    std::recursive_mutex m_running;
};
