// CRtEventQueue: the event queue of one thread, its timers, and the loop that runs both. Any thread posts;
// only the owning thread runs the loop.
//
// The queue has one lane per priority. Events within a lane run in the order of their posts. Between lanes:
//
//  - Events of the high lane run first. After HIGH_IN_A_ROW of them, one event of the normal lane runs, so
//    that the normal lane does not starve.
//  - An event of the low lane runs when the other lanes are empty, and once per LOW_INTERVAL_MS in any case.
#pragma once

#include <array>
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

    /// The queue whose owner is the calling thread, or the queue whose remaining events the calling thread runs
    /// at process end; or null.
    static CRtEventQueue* Current();
    /// The identifier of the calling thread, or of the thread whose events it steps.
    static uint32_t CurrentThreadId();
    /// Whether the calling thread is the caller thread (RtRuntime.h).
    static bool IsCallerThread();

    int PostEvent(IRtEvent* event, int priority) noexcept override;
    int SendEvent(IRtEvent* event) override { return SendEvent(event, RT_PRIORITY_NORMAL); }
    int SendEvent(IRtEvent* event, int priority, bool mayBeRefused = false);
    /// While `isRefusing`, SendEvent disposes of events that may be refused instead of running them, including those
    /// that are queued, and returns RT_ERROR_FAILURE. Only the owner calls it.
    void RefuseSenders(bool isRefusing);

    /// Marks the queue of the caller thread, before it has an owner.
    void SetCallerQueue() { m_isCallerQueue = true; }
    /// True: the calling thread becomes the owner. False: the queue has no owner.
    void SetOwner(bool owned);
    /// `wakeUp` is called under the queue's mutex after each post, new timer, Stop and Quit.
    void SetWakeUp(std::function<void()> wakeUp);

    // Stepping, for tests. While IsStepping, a new thread of the library runs no events by itself: its queue is
    // stepped on the caller thread, and a synchronous sender runs it until its event has run. Then a test chooses
    // the order in which the events of both threads run. One thread at a time.
    static bool IsStepping() { return s_isStepping; }
    static void SetStepping(bool isStepping) { s_isStepping = isStepping; }
    /// The stepped queue; null if there is none.
    static CRtEventQueue* Stepped() { return s_stepped; }
    /// Makes this the stepped queue. `threadId`: of the thread that it stands for.
    void BeginStepping(uint32_t threadId);
    /// Runs one event. False if there is none.
    bool Step();
    /// Runs events until there are none; a no-op if the queue is not stepped.
    void StepAll();
    bool IsStepped() const { return m_steppedId != 0; }

    /// Runs events and timers. After Stop, returns when the queue is empty; after Quit, returns before
    /// the next event and leaves the others queued.
    void Run();
    void Quit();
    /// Fires the timers that are due and runs the events that were queued at the time of the call.
    /// Returns the number of both. Never waits.
    size_t RunDue();
    /// The number of queued events; one that runs does not count.
    size_t GetCount() const { return m_count; }
    /// No event is queued, and neither an event nor a timer runs. Any thread.
    bool IsIdle();
    /// For the end of the process: runs the queued events on the calling thread. Until `timeout` has passed,
    /// it also runs events that are posted during the call. False if another thread runs an event for that long.
    bool RunRemaining(std::chrono::milliseconds timeout);
    /// From now on every post is refused. Run returns when the queue is empty.
    void Stop();

    void AddTimer(CRtTimerWrapper* timer);
    void RemoveTimer(CRtTimerWrapper* timer);
    /// Milliseconds until the next timer is due, 0 if one is due, -1 if there is none.
    int64_t GetNextDueMs();

private:
    static constexpr int HIGH_IN_A_ROW = 8;
    static constexpr uint64_t LOW_INTERVAL_MS = 1000;
    struct Lane {
        IRtEvent* first = nullptr;
        IRtEvent* last = nullptr;
    };
    static constexpr size_t LANES = RT_PRIORITY_LOW + 1;

    class CBorrow;
    int SendStepped(IRtEvent* event, int priority);
    int Enqueue(IRtEvent* event, int priority, class CRtSendTicket* ticket);
    bool IsRefused(const class CRtSendTicket* ticket) const;
    void WakeOwner();
    int ChooseLane(uint64_t now);
    IRtEvent* TakeNext(uint64_t now);
    bool RunOne(uint64_t now);
    size_t FireDueTimers(uint64_t now);
    bool FireOneTimer(uint64_t now);
    bool WaitForWork();

    static inline bool s_isStepping = false;
    static inline CRtEventQueue* s_stepped = nullptr;

    uint32_t m_steppedId = 0; // not 0: stepped
    std::mutex m_mutex;       // SpinThenLock; guards everything below but m_running
    std::condition_variable m_somethingToDo;
    std::array<Lane, LANES> m_lanes;
    int m_highInARow = 0;  // events of the high lane since the last one of the normal lane
    bool m_wasLow = false; // the last event: one of the low lane may take longer than its interval
    uint64_t m_lowRanMs = 0;        // tick count when an event of the low lane last ran
    std::atomic<size_t> m_count{0}; // of all lanes; spin loops read it without the mutex
    bool m_isCallerQueue = false;   // constant once the queue has an owner; without the mutex
    bool m_stopped = false;
    bool m_isRefusing = false;
    bool m_quit = false;
    bool m_ownerParked = false;
    std::vector<CRtTimerWrapper*> m_timers;
    std::function<void()> m_wakeUp;
    // Locked while an event or a timer runs: RunRemaining must not run events concurrently with the
    // owner. Recursive: an event may call RunDue of its own queue, or exit.
    std::recursive_mutex m_running;
};
