#include "RtSendTicket.h"

#include <algorithm>

#include "os/RtLockSoon.h"
#include "os/RtLookFor.h"

namespace {
thread_local CRtSendTicket* t_running = nullptr;
}

void RtRunParts(IRtParts& parts, uint32_t length, uint32_t partLength) {
    if (t_running && length > partLength)
        t_running->Share(parts, length, partLength);
    else
        parts.RunPart(0, length);
}

CRtSendTicket::CRunning::CRunning(CRtSendTicket* ticket) : m_outer(t_running) {
    t_running = ticket;
}

CRtSendTicket::CRunning::~CRunning() { t_running = m_outer; }

void CRtSendTicket::Wait() {
    const auto isFinished = [this] { return m_finished.load(std::memory_order_acquire); };
    const auto hasNews = [&] { return isFinished() || m_left.load(std::memory_order_relaxed) > 0; };
    for (;;) {
        const bool isSoon = RtLookFor(hasNews);
        if (isFinished())
            return;
        if (isSoon) {
            TakePart();
            continue;
        }
        std::unique_lock lock(m_mutex);
        m_sleeps = true;
        m_news.wait(lock, hasNews);
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

void CRtSendTicket::Share(IRtParts& parts, uint32_t length, uint32_t partLength) {
    {
        const std::unique_lock lock = RtLockSoon(m_mutex);
        m_pParts = &parts;
        m_length = length;
        m_partLength = partLength;
        m_left = length;
        if (m_sleeps)
            m_news.notify_one();
    }
    while (TakePart()) {
    }
    const auto haveEnded = [this] { return m_running.load(std::memory_order_acquire) == 0; };
    if (RtLookFor(haveEnded))
        return;
    std::unique_lock lock(m_mutex);
    m_partsDone.wait(lock, haveEnded);
}

bool CRtSendTicket::TakePart() {
    IRtParts* parts = nullptr;
    uint32_t begin = 0;
    uint32_t end = 0;
    {
        const std::unique_lock lock = RtLockSoon(m_mutex);
        if (m_left == 0)
            return false;
        parts = m_pParts;
        begin = m_length - m_left;
        end = begin + std::min(m_partLength, m_left.load());
        m_left = m_length - end;
        ++m_running;
    }
    parts->RunPart(begin, end);
    const std::unique_lock lock = RtLockSoon(m_mutex);
    --m_running;
    m_partsDone.notify_one();
    return true;
}
