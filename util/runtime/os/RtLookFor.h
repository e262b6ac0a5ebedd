// RtLookFor: for what another thread brings about within a moment. Private to the library.
#pragma once

#include <chrono>
#include <thread>

#include "RtOs.h"

/// Looks for a while whether it is there, and answers whether it is: work often follows work, and to put a
/// thread to sleep and wake it takes longer than most work does.
template <class Condition>
bool RtLookFor(Condition isThere) {
    constexpr std::chrono::microseconds patience(50);
    constexpr int looks = 100;
    const auto end = std::chrono::steady_clock::now() + patience;
    do {
        for (int i = 0; i < looks; ++i) {
            if (isThere())
                return true;
            RtOs::Pause();
        }
        std::this_thread::yield(); // where there is one processor, this is how the other gets on
    } while (std::chrono::steady_clock::now() < end);
    return isThere();
}
