// Shared by all benchmarks: block sizes, test bytes, and a check that ends the program.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

namespace bench {

constexpr uint32_t BLOCK_LEN = 256 * 1024;
constexpr uint32_t PIECE_LEN = 16 * 1024;

// A failed operation ends the benchmark: its time would be the time of work that was not done.
inline void Require(bool condition, const char* what) {
    if (condition)
        return;
    std::fprintf(stderr, "benchmark: %s\n", what);
    std::exit(1);
}

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
