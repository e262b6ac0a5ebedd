#include "RtEventQueue.h"

#include <algorithm>
#include <utility>

#include "RtResult.h"
#include "RtSendTicket.h"
#include "RtTimeValue.h"
#include "RtTimer.h"
#include "os/RtOs.h"
#include "os/RtSpin.h"

namespace {
thread_local CRtEventQueue* t_current = nullptr;
}

IRtEvent::~IRtEvent() = default;
void IRtEvent::OnDestorySelf() { delete this; }
IRtEventQueue::~IRtEventQueue() = default;

// While it exists, the calling thread stands for the thread of the queue.
class CRtEventQueue::CBorrow {
public:
    explicit CBorrow(CRtEventQueue* queue) : m_outer(std::exchange(t_current, queue)) {}
    ~CBorrow() { t_current = m_outer; }
    CBorrow(const CBorrow&) = delete;
    CBorrow& operator=(const CBorrow&) = delete;

private:
    CRtEventQueue* const m_outer;
};

CRtEventQueue::CRtEventQueue() = default;

CRtEventQueue::~CRtEventQueue() {
    SetOwner(false);
    RunRemaining(std::chrono::milliseconds(0));
    if (s_stepped == this)
        s_stepped = nullptr;
    for (CRtTimerWrapper* timer : m_timers)
        timer->m_pQueue = nullptr; // the timer may be cancelled later
}

CRtEventQueue* CRtEventQueue::Current() { return t_current; }

uint32_t CRtEventQueue::CurrentThreadId() {
    return t_current && t_current->IsStepped() ? t_current->m_steppedId : RtOs::GetThreadId();
}

bool CRtEventQueue::IsCallerThread() { return t_current && t_current->m_isCallerQueue; }

void CRtEventQueue::SetOwner(bool owned) {
    if (owned)
        t_current = this;
    else if (t_current == this)
        t_current = nullptr;
}

void CRtEventQueue::SetWakeUp(std::function<void()> wakeUp) {
    const std::unique_lock lock = SpinThenLock(m_mutex);
    m_wakeUp = std::move(wakeUp);
}

int CRtEventQueue::PostEvent(IRtEvent* event, int priority) noexcept {
    if (!event)
        return RT_ERROR_NULL_OBJECT;
    return Enqueue(event, priority, nullptr);
}

int CRtEventQueue::SendEvent(IRtEvent* event, int priority, bool mayBeRefused) {
    if (!event)
        return RT_ERROR_NULL_OBJECT;
    if (t_current == this) { // waiting for its own queue would be a deadlock
        event->OnEventFire();
        event->OnDestorySelf();
        return RT_OK;
    }
    if (IsStepped())
        return SendStepped(event, priority);
    CRtSendTicket ticket(m_mutex, mayBeRefused);
    const int result = Enqueue(event, priority, &ticket);
    if (RT_FAILED(result))
        return result;
    ticket.Wait();
    return ticket.IsRefused() ? RT_ERROR_FAILURE : RT_OK;
}

void CRtEventQueue::RefuseSenders(bool isRefusing) {
    IRtEvent* refused = nullptr;
    std::unique_lock lock = SpinThenLock(m_mutex);
    m_isRefusing = isRefusing;
    for (Lane& lane : m_lanes) {
        IRtEvent** link = &lane.first;
        lane.last = nullptr;
        while (IRtEvent* const event = *link) {
            if (IsRefused(event->m_pTicket)) {
                *link = event->m_pNext;
                event->m_pNext = std::exchange(refused, event);
                --m_count;
            } else {
                lane.last = event;
                link = &event->m_pNext;
            }
        }
    }
    lock.unlock();
    while (IRtEvent* const event = refused) {
        refused = event->m_pNext;
        CRtSendTicket* const ticket = event->m_pTicket;
        event->OnDestorySelf();
        ticket->Finish(CRtSendTicket::REFUSED);
    }
}

// Precondition: the mutex is locked.
bool CRtEventQueue::IsRefused(const CRtSendTicket* ticket) const {
    return m_isRefusing && ticket && ticket->MayBeRefused();
}

int CRtEventQueue::SendStepped(IRtEvent* event, int priority) {
    class CSent final : public IRtEvent {
    public:
        explicit CSent(IRtEvent* sent) : m_event(sent) {}
        int OnEventFire() override { return m_event->OnEventFire(); }
        void OnDestorySelf() override {
            m_event->OnDestorySelf();
            isOver = true;
        }
        bool isOver = false;

    private:
        IRtEvent* const m_event;
    } sent(event);
    const int result = Enqueue(&sent, priority, nullptr);
    while (!sent.isOver)
        Step();
    return result;
}

void CRtEventQueue::BeginStepping(uint32_t threadId) {
    m_steppedId = threadId;
    s_stepped = this;
}

bool CRtEventQueue::Step() {
    const CBorrow borrow(this);
    return RunOne(GetTickCountEx());
}

void CRtEventQueue::StepAll() {
    while (IsStepped() && Step()) {
    }
}

int CRtEventQueue::Enqueue(IRtEvent* event, int priority, CRtSendTicket* ticket) {
    std::unique_lock lock = SpinThenLock(m_mutex);
    if (m_stopped || IsRefused(ticket)) {
        const int result = m_stopped ? RT_ERROR_NOT_READY : RT_ERROR_FAILURE;
        lock.unlock();
        event->OnDestorySelf();
        return result;
    }
    event->m_pTicket = ticket;
    event->m_pNext = nullptr;
    Lane& lane =
        m_lanes[static_cast<size_t>(std::clamp(priority, RT_PRIORITY_HIGH, RT_PRIORITY_LOW))];
    (lane.last ? lane.last->m_pNext : lane.first) = event;
    lane.last = event;
    ++m_count;
    if (m_wakeUp)
        m_wakeUp();
    // Notify after the unlock: an owner that wakes up under the lock parks again.
    const bool wake = m_ownerParked;
    lock.unlock();
    if (wake)
        m_somethingToDo.notify_one();
    return RT_OK;
}

// Precondition: the mutex is locked.
void CRtEventQueue::WakeOwner() {
    m_somethingToDo.notify_one();
    if (m_wakeUp)
        m_wakeUp();
}

// Precondition: the mutex is locked and an event is queued.
int CRtEventQueue::ChooseLane(uint64_t now) {
    const auto hasEvent = [this](int priority) {
        return m_lanes[static_cast<size_t>(priority)].first != nullptr;
    };
    if (hasEvent(RT_PRIORITY_LOW) && !m_wasLow && now - m_lowRanMs >= LOW_INTERVAL_MS)
        return RT_PRIORITY_LOW;
    if (hasEvent(RT_PRIORITY_NORMAL) &&
        (m_highInARow >= HIGH_IN_A_ROW || !hasEvent(RT_PRIORITY_HIGH)))
        return RT_PRIORITY_NORMAL;
    return hasEvent(RT_PRIORITY_HIGH) ? RT_PRIORITY_HIGH : RT_PRIORITY_LOW;
}

IRtEvent* CRtEventQueue::TakeNext(uint64_t now) {
    const std::unique_lock lock = SpinThenLock(m_mutex);
    if (m_count == 0)
        return nullptr;
    const int priority = ChooseLane(now);
    m_wasLow = priority == RT_PRIORITY_LOW;
    if (priority == RT_PRIORITY_HIGH)
        m_highInARow = std::min(m_highInARow + 1, HIGH_IN_A_ROW);
    else if (priority == RT_PRIORITY_NORMAL)
        m_highInARow = 0;
    else
        m_lowRanMs = now;
    Lane& lane = m_lanes[static_cast<size_t>(priority)];
    IRtEvent* const event = lane.first;
    lane.first = event->m_pNext;
    if (!lane.first)
        lane.last = nullptr;
    --m_count;
    return event;
}

bool CRtEventQueue::RunOne(uint64_t now) {
    const std::lock_guard running(m_running);
    IRtEvent* const event = TakeNext(now);
    if (!event)
        return false;
    CRtSendTicket* ticket = event->m_pTicket;
    {
        const CRtSendTicket::CRunning runs(ticket);
        event->OnEventFire();
        event->OnDestorySelf();
    }
    if (ticket)
        ticket->Finish();
    return true;
}

void CRtEventQueue::Run() {
    do {
        const uint64_t now = GetTickCountEx();
        FireDueTimers(now);
        RunOne(now);
    } while (WaitForWork());
}

// Returns false if the loop has to end.
bool CRtEventQueue::WaitForWork() {
    constexpr int64_t longestMs = 3'600'000; // a longer wait could overflow; the loop waits again
    SpinUntil([this] { return m_count.load(std::memory_order_relaxed) > 0; });
    std::unique_lock lock = SpinThenLock(m_mutex);
    for (;;) {
        if (m_quit) {
            m_quit = false;
            return false;
        }
        if (m_count > 0)
            return true;
        if (m_stopped)
            return false;
        lock.unlock();
        const int64_t due = GetNextDueMs(); // may call an application's clock: not under the lock
        lock = SpinThenLock(m_mutex);
        if (due == 0)
            return true;
        if (m_count > 0 || m_stopped || m_quit)
            continue;
        m_ownerParked = true;
        if (due < 0)
            m_somethingToDo.wait(lock);
        else
            m_somethingToDo.wait_for(lock, std::chrono::milliseconds(std::min(due, longestMs)));
        m_ownerParked = false;
    }
}

size_t CRtEventQueue::RunDue() {
    const uint64_t now = GetTickCountEx();
    size_t events = m_count;
    size_t done = FireDueTimers(now);
    while (events-- > 0 && RunOne(now))
        ++done;
    return done;
}

bool CRtEventQueue::IsIdle() {
    const std::unique_lock running(m_running, std::try_to_lock);
    return running.owns_lock() && m_count == 0;
}

bool CRtEventQueue::RunRemaining(std::chrono::milliseconds timeout) {
    constexpr std::chrono::milliseconds pause(5);
    const auto isOver = [end = std::chrono::steady_clock::now() + timeout] {
        return std::chrono::steady_clock::now() >= end;
    };
    std::unique_lock running(m_running, std::try_to_lock);
    while (!running.owns_lock() && !isOver()) {
        std::this_thread::sleep_for(pause);
        running.try_lock();
    }
    if (!running.owns_lock())
        return false;
    // The events find the queue that they belong to, as on their own thread.
    const CBorrow borrow(this);
    // Events that these events post run too. The time limit stops an event that always posts itself.
    const uint64_t now = GetTickCountEx();
    size_t queued = m_count;
    while ((queued > 0 || !isOver()) && RunOne(now))
        queued -= queued > 0 ? 1 : 0;
    return true;
}

void CRtEventQueue::Stop() {
    const std::unique_lock lock = SpinThenLock(m_mutex);
    m_stopped = true;
    WakeOwner();
}

void CRtEventQueue::Quit() {
    const std::unique_lock lock = SpinThenLock(m_mutex);
    m_quit = true;
    WakeOwner();
}

void CRtEventQueue::AddTimer(CRtTimerWrapper* timer) {
    const std::unique_lock lock = SpinThenLock(m_mutex);
    m_timers.push_back(timer);
    WakeOwner();
}

void CRtEventQueue::RemoveTimer(CRtTimerWrapper* timer) {
    const std::unique_lock lock = SpinThenLock(m_mutex);
    std::erase(m_timers, timer);
}

int64_t CRtEventQueue::GetNextDueMs() {
    const uint64_t now = GetTickCountEx();
    const std::unique_lock lock = SpinThenLock(m_mutex);
    int64_t next = -1;
    for (CRtTimerWrapper* timer : m_timers) {
        // If the clock was set back, the timer would not fire until the clock has caught up.
        timer->m_dueMs = std::min(timer->m_dueMs, now + timer->m_intervalMs);
        const int64_t due = timer->m_dueMs > now ? static_cast<int64_t>(timer->m_dueMs - now) : 0;
        next = next < 0 ? due : std::min(next, due);
    }
    return next;
}

size_t CRtEventQueue::FireDueTimers(uint64_t now) {
    size_t fired = 0;
    while (FireOneTimer(now))
        ++fired;
    return fired;
}

bool CRtEventQueue::FireOneTimer(uint64_t now) {
    const std::lock_guard running(m_running);
    CRtTimerWrapper* timer = nullptr;
    CRtTimerWrapperSink* sink = nullptr;
    {
        const std::unique_lock lock = SpinThenLock(m_mutex);
        const auto due = std::find_if(m_timers.begin(), m_timers.end(),
                                      [now](auto* each) { return each->m_dueMs <= now; });
        if (due == m_timers.end())
            return false;
        timer = *due;
        sink = timer->m_pSink;
        timer->m_dueMs = now + timer->m_intervalMs;
        if (!timer->m_forever && --timer->m_left == 0)
            m_timers.erase(due);
    }
    sink->OnTimer(timer); // may cancel, reschedule or destroy the timer
    return true;
}
