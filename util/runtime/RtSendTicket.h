// CRtSendTicket: of a thread that waits until its event has run. While it waits it takes parts of work
// that is offered. Private to the library.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>

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
    /// The receiver: there are parts to take of the event's work.
    void TellOfParts();

    /// The ticket of the event that the calling thread runs, or null.
    static CRtSendTicket* GetRunning();
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
    std::mutex& m_mutex; // guards all that follows
    // Looked at without the lock. The last that is touched of the ticket when the sender only looks; one
    // that sleeps is told under the lock.
    std::atomic<bool> m_finished{false};
    bool m_sleeps = false;
    std::condition_variable m_news; // for the sender: finished, or a part to take
};
