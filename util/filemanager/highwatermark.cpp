#include "highwatermark.h"

#include <utility>

#include "fmfunctor.h"
#include "fmhost.h"
#include "statistics.h"

void CHighWaterMark::Set(uint64_t bytes, std::function<void(bool)> callback) {
    m_mark = 0; // stops comparisons with the former one
    m_callback = std::move(callback);
    m_isReported = false;
    m_isAbove = false;
    m_mark = bytes;
    Check();
}

// Both threads may change the count at the same time: each compares again after it has changed the state. The
// event reports the state at the time when it runs, so the order of two events does not matter.
void CHighWaterMark::Compare() {
    for (;;) {
        const uint64_t mark = m_mark;
        const uint64_t unstored = g_statistics.GetUnstored();
        bool isAbove = m_isAbove;
        const bool isCrossed = isAbove ? unstored < mark - mark / 2 : unstored > mark;
        if (mark == 0 || !isCrossed || !FMHost::HasCallerThread())
            return; // without a thread to report to, the next change compares again
        if (m_isAbove.compare_exchange_strong(isAbove, !isAbove))
            FMHost::PostToCallerThread(new CFMFunctor0(this, &CHighWaterMark::Report), 0);
    }
}

void CHighWaterMark::Report() {
    const bool isAbove = m_isAbove;
    if (!m_callback || std::exchange(m_isReported, isAbove) == isAbove)
        return;
    const auto callback = m_callback; // it may set another one
    callback(isAbove);
}
