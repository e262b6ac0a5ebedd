#include "windowsretry.h"

#include <windows.h>

#include <algorithm>
#include <utility>

namespace {

using Clock = std::chrono::steady_clock;
using Ms = std::chrono::milliseconds;

// What a thread has waited for handles of other processes.
struct Waited {
    Ms limit{RtOs::RETRY_MS};
    const RtOs::RetryLimit* limited = nullptr;
    Clock::duration spent{};
    Clock::duration awaited{}; // while another thread waited for this one; all files
    Clock::time_point last;    // of the last failure

    void Forget() {
        if (Clock::now() - last > std::chrono::seconds(1))
            spent = awaited = {};
    }
};
thread_local Waited t_waited;
LONG volatile g_awaiting = 0; // number of Awaiting objects
LONG volatile g_delays = 0;   // number of delays during which a thread waited for the delayed one

} // namespace

namespace RtOs {

Delays::~Delays() {
    if (m_onHeldUp)
        m_onHeldUp(false);
}

bool Delays::Wait() {
    constexpr Ms longest(16); // another thread may begin to wait for this one
    t_waited.Forget();
    t_waited.last = Clock::now();
    const RetryLimit* const limited = t_waited.limited;
    const bool isLast = limited && limited->m_isLast && limited->m_isLast();
    auto& spent = isLast ? *limited->m_spent : t_waited.spent;
    Clock::duration left = t_waited.limit - spent;
    if (!isLast && g_awaiting > 0)
        left = std::min<Clock::duration>(left, Ms(RETRY_MS) - t_waited.awaited);
    const bool isOver = left < Ms(1);
    const Clock::time_point begin = Clock::now();
    if (!isOver)
        ::Sleep(static_cast<DWORD>(std::min(m_next, std::chrono::duration_cast<Ms>(left)).count()));
    m_next = std::min(2 * m_next, longest);
    t_waited.last = Clock::now();
    const Clock::duration slept = t_waited.last - begin;
    spent += slept;
    // Another thread may have begun to wait during the delay, which can be too long for a second one.
    if (g_awaiting > 0) {
        t_waited.awaited += slept;
        ::InterlockedIncrement(&g_delays);
    }
    // A waiting thread waits for the delays of all files.
    if (isLast && !isOver && !m_onHeldUp && std::max(spent, t_waited.awaited) >= Ms(RETRY_MS)) {
        m_onHeldUp = limited->m_onHeldUp;
        m_onHeldUp(true);
    }
    return !isOver;
}

RetryLimit::RetryLimit(uint32_t milliseconds, std::chrono::nanoseconds* spent,
                       std::function<bool()> isLast, void (*onHeldUp)(bool))
    : m_previousLimit(static_cast<uint32_t>(t_waited.limit.count())),
      m_previous(std::exchange(t_waited.limited, this)), m_spent(spent),
      m_isLast(std::move(isLast)), m_onHeldUp(onHeldUp) {
    Set(milliseconds);
}
RetryLimit::~RetryLimit() {
    Set(m_previousLimit);
    t_waited.limited = m_previous;
}
void RetryLimit::Set(uint32_t milliseconds) { t_waited.limit = Ms(milliseconds); }

Awaiting::Awaiting() : m_begin(Clock::now()), m_delaysBefore(g_delays) {
    ::InterlockedIncrement(&g_awaiting);
}

Awaiting::~Awaiting() {
    ::InterlockedDecrement(&g_awaiting);
    if (g_delays == m_delaysBefore)
        return;
    t_waited.Forget();
    t_waited.last = Clock::now();
    t_waited.spent += t_waited.last - m_begin;
}

} // namespace RtOs
