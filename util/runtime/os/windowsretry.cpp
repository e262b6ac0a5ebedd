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
    const std::function<bool()>* isLast = nullptr;
    Clock::duration spent{};
    Clock::duration awaited{}; // the part of `spent` while another thread waited for this one
    Clock::time_point last;    // of the last failure

    void Add(Clock::duration time) {
        last = Clock::now();
        spent += time;
    }
    void Forget() {
        if (Clock::now() - last > std::chrono::seconds(1))
            spent = awaited = {};
    }
};
thread_local Waited t_waited;
LONG volatile g_awaiting = 0; // number of Awaiting objects
LONG volatile g_delays = 0;   // number of delays during which a thread waited for the delayed one
LONG volatile g_heldUp = 0;   // number of threads for which IsHeldUp is true

} // namespace

namespace RtOs {

Delays::~Delays() {
    if (m_isHeldUp)
        ::InterlockedDecrement(&g_heldUp);
}

bool Delays::Wait() {
    constexpr Ms longest(16); // another thread may begin to wait for this one
    t_waited.Forget();
    const bool isLast = t_waited.isLast && *t_waited.isLast && (*t_waited.isLast)();
    const bool isAwaited = g_awaiting > 0 && !isLast;
    Clock::duration left = t_waited.limit - t_waited.spent;
    if (isAwaited)
        left = std::min<Clock::duration>(left, Ms(RETRY_MS) - t_waited.awaited);
    const Clock::time_point begin = Clock::now();
    if (left >= Ms(1))
        ::Sleep(static_cast<DWORD>(std::min(m_next, std::chrono::duration_cast<Ms>(left)).count()));
    m_next = std::min(2 * m_next, longest);
    const Clock::duration slept = Clock::now() - begin;
    t_waited.Add(slept);
    if (isAwaited) {
        t_waited.awaited += slept;
        ::InterlockedIncrement(&g_delays);
    }
    if (isLast && !m_isHeldUp && t_waited.spent >= Ms(RETRY_MS)) {
        m_isHeldUp = true;
        ::InterlockedIncrement(&g_heldUp);
    }
    return left >= Ms(1);
}

RetryLimit::RetryLimit(uint32_t milliseconds) : RetryLimit(milliseconds, {}) {}
RetryLimit::RetryLimit(uint32_t milliseconds, std::function<bool()> isLast)
    : m_previous(static_cast<uint32_t>(t_waited.limit.count())), m_isLast(std::move(isLast)),
      m_previousIsLast(std::exchange(t_waited.isLast, &m_isLast)) {
    Set(milliseconds);
}
RetryLimit::~RetryLimit() {
    Set(m_previous);
    t_waited.isLast = m_previousIsLast;
}
void RetryLimit::Set(uint32_t milliseconds) { t_waited.limit = Ms(milliseconds); }

bool IsHeldUp() { return g_heldUp > 0; }

Awaiting::Awaiting() : m_begin(Clock::now()), m_delaysBefore(g_delays) {
    ::InterlockedIncrement(&g_awaiting);
}

Awaiting::~Awaiting() {
    ::InterlockedDecrement(&g_awaiting);
    if (g_delays == m_delaysBefore)
        return;
    t_waited.Forget();
    t_waited.Add(Clock::now() - m_begin);
}

} // namespace RtOs
