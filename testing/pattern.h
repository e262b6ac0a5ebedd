#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

/// Bytes that depend on the seed and the position.
inline std::string Pattern(uint32_t seed, size_t length) {
    std::string bytes(length, '\0');
    uint32_t state = seed * 2654435761u + 1;
    for (char& byte : bytes) {
        state = state * 1664525u + 1013904223u;
        byte = static_cast<char>(state >> 24);
    }
    return bytes;
}
