// CRtEventQueue: the queue of one thread, its timers, and the loop that runs both. Posting is for any
// thread; the loop and what it runs belong to the one thread that owns the queue.
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
    bool WithdrawEvent(IRtEvent* event) override;
    IRtEvent* TakeNextIf(bool (*isWanted)(const IRtEvent& last, const IRtEvent& next),
                         const IRtEvent& last) override;

    /// Makes the calling thread the owner, or no thread.
    void SetOwner(bool owned);
    /// Called, under the queue's lock, when there is something to run that was not there before.
    void SetWakeUp(std::function<void()> wakeUp);

    /// Runs events and timers until Stop, then what is still queued, then returns. After Quit it
    /// returns at once and leaves the rest queued.
    void Run();
    void Quit();
    /// Fires the timers that are due and runs the events queued at the time of the call; answers how
    /// many of both. Never waits for work.
    size_t RunDue();
    /// Runs what is queued on whatever thread calls, for the end of the process, and for as long as
    /// `patience` what comes meanwhile, which is nothing after Stop. Answers false when another thread
    /// kept the queue busy for longer than that.
    bool RunRemaining(std::chrono::milliseconds patience);
    /// Refuses everything posted from now on; Run ends once the queue is empty.
    void Stop();

    void AddTimer(CRtTimerWrapper* timer);
    void RemoveTimer(CRtTimerWrapper* timer);
    /// Milliseconds until a timer is due, 0 when one is, -1 without timers.
    int64_t GetNextDueMs();

private:
    int Enqueue(IRtEvent* event, class CRtSendTicket* ticket);
    void WakeOwner();
    void Unlink(IRtEvent* event);
    bool RunOne();
    size_t FireDueTimers();
    bool FireOneTimer(uint64_t now);
    bool LookForWork();
    bool WaitForWork();

    std::mutex m_mutex; // guards everything below but m_running
    std::condition_variable m_somethingToDo;
    IRtEvent* m_pFirst = nullptr;
    IRtEvent* m_pLast = nullptr;
    std::atomic<size_t> m_count{0}; // read without the lock where it is no more than a hint
    bool m_stopped = false;
    bool m_quit = false;
    bool m_ownerWaits = false;
    std::vector<CRtTimerWrapper*> m_timers;
    std::function<void()> m_wakeUp;
    // Held while events run, so that the end of the process cannot run the queue beside its owner.
    // Recursive: an event may pump the queue it runs from.
    std::recursive_mutex m_running;
};
