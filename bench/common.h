// What all benchmarks share: blocks with bytes of their own, and a check that ends the program.
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

// A figure of work that was not done is worse than none.
inline void Require(bool condition, const char* what) {
    if (condition)
        return;
    std::fprintf(stderr, "benchmark: %s\n", what);
    std::exit(1);
}

// Each block is another stretch of the same noise, which stays in the processor's cache.
inline const char* BytesOf(uint32_t index) {
    constexpr uint32_t step = 64, stretches = 1024;
    static const std::vector<char> noise = [] {
        std::vector<char> bytes(BLOCK_LEN + step * stretches);
        std::minstd_rand random(1);
        std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random() >> 8); });
        return bytes;
    }();
    return noise.data() + step * (index % stretches);
}

} // namespace bench
