// Spin-waits for results that another thread produces within microseconds: parking a thread and waking it up
// takes longer than most events of the library run. Private to the library.
#pragma once

#include <chrono>
#include <mutex>
#include <thread>

#include "RtOs.h"

/// Spins until `condition()` is true, at most 50 microseconds; returns its last value.
template <class Condition>
bool SpinUntil(Condition condition) {
    constexpr std::chrono::microseconds longest(50);
    constexpr int testsPerYield = 100;
    const auto end = std::chrono::steady_clock::now() + longest;
    do {
        for (int i = 0; i < testsPerYield; ++i) {
            if (condition())
                return true;
            RtOs::Pause();
        }
        std::this_thread::yield(); // with a single processor, the other thread needs this one
    } while (std::chrono::steady_clock::now() < end);
    return condition();
}

/// Locks a mutex that every thread holds for less than a microsecond: spins before it parks. Either every
/// place that locks a mutex uses this function, or none.
inline std::unique_lock<std::mutex> SpinThenLock(std::mutex& mutex) {
    constexpr int attempts = 100;
    for (int i = 0; i < attempts; ++i) {
        if (mutex.try_lock())
            return {mutex, std::adopt_lock};
        RtOs::Pause();
    }
    return std::unique_lock(mutex);
}
