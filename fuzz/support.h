// Support for the fuzz targets: the input as numbers and bytes, and a meter of allocated memory.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>

#include "testing/require.h"

// Part of every sanitizer that replaces the allocator. GCC has the functions but does not install their header.
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*taken)(const volatile void*,
                                                                       size_t),
                                                         void (*given)(const volatile void*));
extern "C" size_t __sanitizer_get_allocated_size(const volatile void* memory);

namespace fuzz {

/// The input, read from the front. Past its end it yields zeros.
class Input {
public:
    Input(const uint8_t* data, size_t size) : m_rest(reinterpret_cast<const char*>(data), size) {}

    uint32_t Byte() { return static_cast<uint8_t>(Take(1)[0]); }
    uint32_t Word() {
        const uint32_t low = Byte();
        return low | Byte() << 8;
    }
    std::string Take(size_t length) {
        std::string bytes(m_rest.substr(0, length));
        m_rest.remove_prefix(bytes.size());
        bytes.resize(length);
        return bytes;
    }

private:
    std::string_view m_rest;
};

/// Measures the allocations of all threads during its lifetime. Only one meter may exist at a time.
class MemoryMeter {
public:
    MemoryMeter() {
        static const int installed =
            __sanitizer_install_malloc_and_free_hooks(&MemoryMeter::Taken, &MemoryMeter::Given);
        Require(installed > 0);
        s_live = s_peak = 0;
    }
    int64_t Peak() const { return s_peak.load(); }

private:
    static void Taken(const volatile void*, size_t size) {
        const int64_t live = s_live += static_cast<int64_t>(size);
        int64_t peak = s_peak.load();
        while (live > peak && !s_peak.compare_exchange_weak(peak, live)) {
        }
    }
    static void Given(const volatile void* memory) {
        s_live -= static_cast<int64_t>(__sanitizer_get_allocated_size(memory));
    }
    inline static std::atomic<int64_t> s_live{0};
    inline static std::atomic<int64_t> s_peak{0};
};

} // namespace fuzz
