#include "RtTimeValue.h"

#include <atomic>
#include <chrono>

namespace {

std::atomic<IRtClock*> g_clock{nullptr};

template <class Unit, class Clock>
int64_t Since() {
    return std::chrono::duration_cast<Unit>(Clock::now().time_since_epoch()).count();
}

} // namespace

IRtClock::~IRtClock() = default;

CRtTimeValue::CRtTimeValue(int64_t seconds, int64_t microseconds)
    : m_seconds(seconds + microseconds / 1'000'000), m_microseconds(microseconds % 1'000'000) {
    if (m_microseconds < 0) {
        m_microseconds += 1'000'000;
        --m_seconds;
    }
}

CRtTimeValue CRtTimeValue::GetTimeOfDay() {
    if (IRtClock* clock = g_clock.load(std::memory_order_acquire))
        return clock->TimeOfDay();
    return CRtTimeValue(0, Since<std::chrono::microseconds, std::chrono::system_clock>());
}

void RtSetClock(IRtClock* clock) { g_clock.store(clock, std::memory_order_release); }

uint64_t GetTickCountEx() {
    if (IRtClock* clock = g_clock.load(std::memory_order_acquire))
        return clock->TickCountMs();
    return static_cast<uint64_t>(Since<std::chrono::milliseconds, std::chrono::steady_clock>());
}
