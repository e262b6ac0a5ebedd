// CRtSendTicket: connects the thread that waits in SendEvent with the thread that runs its event. The
// waiting thread may run a share of that event's work. Private to the library.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

/// Work in parts that are independent of each other, so that two threads may run it.
class IRtParts {
public:
    /// Either thread; posts and sends nothing. If the result is not 0, parts not yet started are skipped.
    virtual int RunPart(uint32_t part) noexcept = 0;

protected:
    ~IRtParts() = default;
};

/// Lives on the stack of the sender. `mutex` is the mutex of the receiving queue.
class CRtSendTicket {
public:
    /// `mayBeRefused`: see CRtEventQueue::RefuseSenders.
    explicit CRtSendTicket(std::mutex& mutex, bool mayBeRefused = false)
        : m_mutex(mutex), m_mayBeRefused(mayBeRefused) {}
    CRtSendTicket(const CRtSendTicket&) = delete;
    CRtSendTicket& operator=(const CRtSendTicket&) = delete;

    bool MayBeRefused() const { return m_mayBeRefused; }

    /// Sender: returns when the event has run or was refused.
    void Wait();
    /// Sender, after Wait.
    bool IsRefused() const { return m_isRefused; }
    /// Receiver: marks the event as run, or as refused. The sender may destroy the ticket before this returns.
    enum End { RUN, REFUSED };
    void Finish(End end = RUN);
    /// Receiver: runs the parts 0 … count - 1 together with the sender, and returns when all have ended.
    /// The first result that is not 0, else 0.
    int RunParts(IRtParts& parts, uint32_t count);

    /// The ticket of the event that the calling thread runs, or null if no sender waits for it.
    static CRtSendTicket* GetRunning();
    /// Sets the ticket of the event that the calling thread runs, for the lifetime of this object.
    class CRunning {
    public:
        explicit CRunning(CRtSendTicket* ticket);
        ~CRunning();
        CRunning(const CRunning&) = delete;
        CRunning& operator=(const CRunning&) = delete;

    private:
        CRtSendTicket* const m_outer;
    };

private:
    enum class State {
        Waiting,   ///< the sender has nothing to do
        PartsLeft, ///< the sender may take parts
        Helping,   ///< the sender runs parts
        Finished,  ///< the event has run
    };
    void TakeParts(std::unique_lock<std::mutex>& lock);
    void SetState(State state);
    template <class Condition>
    void ParkUntil(std::unique_lock<std::mutex>& lock, Condition condition);

    std::mutex& m_mutex; // guards everything below
    const bool m_mayBeRefused;
    bool m_isRefused = false;
    std::atomic<State> m_state{State::Waiting}; // spin loops read it without the mutex
    int m_parked = 0; // threads; two at a time only if one of them has been notified already
    std::condition_variable m_changed;
    IRtParts* m_parts = nullptr;
    uint32_t m_nextPart = 0;
    uint32_t m_partCount = 0;
    int m_result = 0; // of the parts: the first failure
};
