#include "RtParts.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>

#include "RtSendTicket.h"
#include "os/RtLockSoon.h"
#include "os/RtLookFor.h"

namespace {

// One thread's work at a time. Another's, at the same moment, is not worth a queue.
class CRtOfferedWork {
public:
    bool Open(IRtParts& parts, uint32_t length, uint32_t partLength, const CRtSendTicket* ticket) {
        const std::unique_lock lock = RtLockSoon(m_mutex);
        if (m_pParts)
            return false;
        m_pParts = &parts;
        m_length = length;
        m_partLength = partLength;
        m_ticket = ticket;
        m_left = length;
        m_isForIdle = true;
        return true;
    }
    /// By whoever has opened it, when there are no parts left to take.
    void Close() {
        if (!RtLookFor([this] { return m_running.load(std::memory_order_acquire) == 0; })) {
            std::unique_lock lock(m_mutex);
            m_partEnded.wait(lock, [this] { return m_running == 0; });
        }
        if (m_refused.end > 0)
            m_pParts->RunPart(m_refused.begin, m_refused.end, true);
        const std::unique_lock lock = RtLockSoon(m_mutex);
        m_refused = {};
        m_ticket = nullptr;
        m_pParts = nullptr;
    }
    bool IsOpen() const { return m_isForIdle.load(std::memory_order_relaxed); }
    bool IsOpenFor(const CRtSendTicket* ticket) const { return m_left > 0 && m_ticket == ticket; }

    bool TakePartAsOwner() { return TakePart(nullptr, true); }
    bool TakePartAsHelper(const CRtSendTicket* ticket) { return TakePart(ticket, false); }

private:
    struct Part {
        uint32_t begin;
        uint32_t end;
        bool mayWait;
    };

    bool TakePart(const CRtSendTicket* ticket, bool isOwner) {
        Part part{};
        if (!Take(part, ticket, isOwner))
            return false;
        const bool done = m_pParts->RunPart(part.begin, part.end, part.mayWait);
        const std::unique_lock lock = RtLockSoon(m_mutex);
        if (!part.mayWait && done)
            m_isForIdle = m_left > 0;
        if (!done)
            m_refused = part;
        --m_running;
        m_partEnded.notify_one();
        return true;
    }
    bool Take(Part& part, const CRtSendTicket* ticket, bool isOwner) {
        const std::unique_lock lock = RtLockSoon(m_mutex);
        const bool mayWait = isOwner || (ticket && ticket == m_ticket);
        if (m_left == 0 || (!mayWait && !m_isForIdle))
            return false;
        part.begin = m_length - m_left;
        part.end = part.begin + std::min(m_partLength, m_left.load());
        part.mayWait = mayWait;
        m_left = m_length - part.end;
        // Of those that must not be kept there is one at a time, so that one part at most is refused.
        m_isForIdle = m_isForIdle && mayWait && m_left > 0;
        ++m_running;
        return true;
    }

    std::mutex m_mutex; // guards all that follows; the atomics are looked at without it
    std::condition_variable m_partEnded;
    IRtParts* m_pParts = nullptr;
    uint32_t m_length = 0;
    uint32_t m_partLength = 0;
    std::atomic<const CRtSendTicket*> m_ticket{nullptr}; // of who waits for the work
    std::atomic<uint32_t> m_left{0}; // of the length, that nobody has taken: its end
    std::atomic<bool> m_isForIdle{false};
    std::atomic<uint32_t> m_running{0}; // parts that have been taken and not ended
    Part m_refused{};                   // none when its end is 0
};

// Never destroyed: threads may read until the very end of the process.
CRtOfferedWork& g_work = *new CRtOfferedWork;

} // namespace

void RtRunParts(IRtParts& parts, uint32_t length, uint32_t partLength) {
    CRtSendTicket* const ticket = CRtSendTicket::GetRunning();
    if (length <= partLength || !g_work.Open(parts, length, partLength, ticket)) {
        parts.RunPart(0, length, true);
        return;
    }
    if (ticket)
        ticket->TellOfParts();
    while (g_work.TakePartAsOwner()) {
    }
    g_work.Close();
}

bool RtOffer::IsOpen() { return g_work.IsOpen(); }
bool RtOffer::IsOpenFor(const CRtSendTicket* ticket) { return g_work.IsOpenFor(ticket); }
void RtOffer::TakePart(const CRtSendTicket* ticket) { g_work.TakePartAsHelper(ticket); }
