// CHighWaterMark: notifies the application when the unstored bytes exceed a mark, and when they have dropped
// below half of it.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>

class CHighWaterMark {
public:
    /// Caller thread. See FMSetHighWaterMark.
    void Set(uint64_t bytes, std::function<void(bool)> callback);
    /// Any thread, after the count of unstored bytes has changed.
    void Check() {
        if (m_mark.load(std::memory_order_relaxed) != 0)
            Compare();
    }

private:
    void Compare();
    void Report();

    std::atomic<uint64_t> m_mark{0}; // 0: none
    std::atomic<bool> m_isAbove{false};
    // Caller thread.
    std::function<void(bool)> m_callback;
    bool m_isReported = false; // the last call reported that the mark is exceeded
};
