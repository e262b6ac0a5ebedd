#include "RtSendTicket.h"

#include "os/RtSpin.h"

namespace {
thread_local CRtSendTicket* t_running = nullptr;
}

CRtSendTicket* CRtSendTicket::GetRunning() { return t_running; }

CRtSendTicket::CRunning::CRunning(CRtSendTicket* ticket) : m_outer(t_running) {
    t_running = ticket;
}

CRtSendTicket::CRunning::~CRunning() { t_running = m_outer; }

void CRtSendTicket::Wait() {
    const auto isChanged = [this] {
        return m_state.load(std::memory_order_acquire) != State::Waiting;
    };
    for (;;) {
        const bool isSpinEnough = SpinUntil(isChanged);
        if (m_state.load(std::memory_order_acquire) == State::Finished)
            return;
        std::unique_lock lock = SpinThenLock(m_mutex);
        if (!isSpinEnough)
            ParkUntil(lock, isChanged);
        if (m_state != State::PartsLeft)
            continue;
        m_state = State::Helping;
        TakeParts(lock);
        SetState(State::Waiting);
    }
}

void CRtSendTicket::Finish(End end) {
    const std::unique_lock lock = SpinThenLock(m_mutex);
    m_isRefused = end == REFUSED;
    SetState(State::Finished);
}

int CRtSendTicket::RunParts(IRtParts& parts, uint32_t count) {
    const auto isHelpOver = [this] {
        return m_state.load(std::memory_order_acquire) != State::Helping;
    };
    std::unique_lock lock = SpinThenLock(m_mutex);
    m_parts = &parts;
    m_nextPart = 0;
    m_partCount = count;
    m_result = 0;
    SetState(State::PartsLeft);
    TakeParts(lock);
    if (m_state == State::PartsLeft)
        m_state = State::Waiting; // the sender has taken no part
    lock.unlock();
    if (!SpinUntil(isHelpOver)) {
        lock = SpinThenLock(m_mutex);
        ParkUntil(lock, isHelpOver);
    }
    return m_result;
}

void CRtSendTicket::TakeParts(std::unique_lock<std::mutex>& lock) {
    while (m_nextPart < m_partCount) {
        const uint32_t part = m_nextPart++;
        lock.unlock();
        const int result = m_parts->RunPart(part);
        lock = SpinThenLock(m_mutex);
        if (result == 0)
            continue;
        m_nextPart = m_partCount;
        if (m_result == 0)
            m_result = result;
    }
}

// Precondition: the mutex is locked. If the other thread spins, it may destroy the ticket as soon as it sees
// the state; a parked thread needs the mutex first.
void CRtSendTicket::SetState(State state) {
    const bool isOtherParked = m_parked > 0;
    m_state.store(state, std::memory_order_release);
    if (isOtherParked)
        m_changed.notify_one();
}

template <class Condition>
void CRtSendTicket::ParkUntil(std::unique_lock<std::mutex>& lock, Condition condition) {
    ++m_parked;
    m_changed.wait(lock, condition);
    --m_parked;
}
