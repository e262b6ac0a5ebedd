// CRtSendTicket: of a thread that waits until its event has run. While it waits it can take parts of the
// event's work. Private to the library.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

/// Work over 0 … length - 1 that can be done in parts, at the same time and in any order.
class IRtParts {
public:
    /// Runs on either of the two threads. Neither runs events nor shares work of its own.
    virtual void RunPart(uint32_t begin, uint32_t end) noexcept = 0;

protected:
    ~IRtParts() = default;
};

/// Returns when all of it is done: at once when nobody waits for the event that calls this, else in parts
/// of `partLength`. The thread that waits takes some of them: it has nothing else to do, and would not come
/// back before the last has ended anyway. No other thread does, for none may be kept by this one's work.
void RtRunParts(IRtParts& parts, uint32_t length, uint32_t partLength);

/// Lives on the stack of the sender. `mutex` is the queue's.
class CRtSendTicket {
public:
    explicit CRtSendTicket(std::mutex& mutex) : m_mutex(mutex) {}
    CRtSendTicket(const CRtSendTicket&) = delete;
    CRtSendTicket& operator=(const CRtSendTicket&) = delete;

    /// The sender: returns when the event has run.
    void Wait();
    /// The receiver, in the end. The ticket may be gone when this returns.
    void Finish();

    /// What the calling thread runs, as long as this lives, is the event of that ticket, or of none.
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
    friend void RtRunParts(IRtParts& parts, uint32_t length, uint32_t partLength);
    void Share(IRtParts& parts, uint32_t length, uint32_t partLength);
    bool TakePart();

    std::mutex& m_mutex; // guards all that follows; the atomics are looked at without it
    // The last that is touched of the ticket when the sender only looks; one that sleeps is told under the
    // lock.
    std::atomic<bool> m_finished{false};
    bool m_sleeps = false;
    std::condition_variable m_news; // for the sender: finished, or a part to take

    IRtParts* m_pParts = nullptr;
    uint32_t m_length = 0;
    uint32_t m_partLength = 0;
    std::atomic<uint32_t> m_left{0};    // of the length, that nobody has taken: its end
    std::atomic<uint32_t> m_running{0}; // parts that have been taken and not ended
    std::condition_variable m_partsDone;
};
