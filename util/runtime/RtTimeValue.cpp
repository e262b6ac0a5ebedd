#include "RtTimeValue.h"

#include <atomic>

#include "os/RtOs.h"

namespace {
std::atomic<IRtClock*> g_clock{nullptr};
}

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
    int64_t seconds = 0;
    int64_t microseconds = 0;
    RtOs::GetTimeOfDay(seconds, microseconds);
    return CRtTimeValue(seconds, microseconds);
}

void RtSetClock(IRtClock* clock) { g_clock.store(clock, std::memory_order_release); }

uint64_t GetTickCountEx() {
    if (IRtClock* clock = g_clock.load(std::memory_order_acquire))
        return clock->TickCountMs();
    return RtOs::GetMonotonicMs();
}
