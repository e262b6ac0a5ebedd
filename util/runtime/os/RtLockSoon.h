// RtLockSoon: for locks that are never held for long. Private to the library.
#pragma once

#include <mutex>

#include "RtOs.h"

/// Takes a lock that the other thread gives back within a moment: looks again before it lets this thread
/// be put to sleep, which takes both threads a hundred times as long.
inline std::unique_lock<std::mutex> RtLockSoon(std::mutex& mutex) {
    constexpr int looks = 100;
    for (int i = 0; i < looks; ++i) {
        if (mutex.try_lock())
            return {mutex, std::adopt_lock};
        RtOs::Pause();
    }
    return std::unique_lock(mutex);
}
