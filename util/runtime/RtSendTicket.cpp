#include "RtSendTicket.h"

#include "RtParts.h"
#include "os/RtLockSoon.h"
#include "os/RtLookFor.h"

namespace {
thread_local CRtSendTicket* t_running = nullptr;
}

CRtSendTicket* CRtSendTicket::GetRunning() { return t_running; }

CRtSendTicket::CRunning::CRunning(CRtSendTicket* ticket) : m_outer(t_running) {
    t_running = ticket;
}

CRtSendTicket::CRunning::~CRunning() { t_running = m_outer; }

void CRtSendTicket::Wait() {
    const auto isFinished = [this] { return m_finished.load(std::memory_order_acquire); };
    const auto hasOwnNews = [&] { return isFinished() || RtOffer::IsOpenFor(this); };
    for (;;) {
        const bool isSoon = RtLookFor([&] { return hasOwnNews() || RtOffer::IsOpen(); });
        if (isFinished())
            return;
        if (isSoon) {
            RtOffer::TakePart(this);
            continue;
        }
        std::unique_lock lock(m_mutex);
        m_sleeps = true;
        m_news.wait(lock, hasOwnNews);
        m_sleeps = false;
    }
}

void CRtSendTicket::Finish() {
    const std::lock_guard lock(m_mutex);
    const bool sleeps = m_sleeps;
    m_finished.store(true, std::memory_order_release);
    if (sleeps)
        m_news.notify_one();
}

void CRtSendTicket::TellOfParts() {
    const std::unique_lock lock = RtLockSoon(m_mutex);
    if (m_sleeps)
        m_news.notify_one();
}
