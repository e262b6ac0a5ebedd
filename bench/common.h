// Shared by all benchmarks: block sizes and test bytes.
#pragma once

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "testing/require.h"

namespace bench {

constexpr uint32_t BLOCK_LEN = 256 * 1024;
constexpr uint32_t PIECE_LEN = 16 * 1024;

// The bytes of block `index`: a window into one 320 KiB array of noise. Neighbouring blocks differ, and the
// source of every copy stays in the CPU cache, so that the measured cost is that of the destination.
inline const char* BytesOf(uint32_t index) {
    constexpr uint32_t step = 64, windows = 1024;
    static const std::vector<char> noise = [] {
        std::vector<char> bytes(BLOCK_LEN + step * windows);
        std::minstd_rand random(1);
        std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random() >> 8); });
        return bytes;
    }();
    return noise.data() + step * (index % windows);
}

} // namespace bench
