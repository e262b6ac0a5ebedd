// A file of its own: the compiler must not see through these into their users, where it would find
// memory of operator new given to free.
#include "memory_count.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

std::atomic<bool> g_counting{false};
std::atomic<uint64_t> g_allocations{0};
std::atomic<uint64_t> g_allocated{0};
std::atomic<uint64_t> g_live{0};
std::atomic<uint64_t> g_peak{0};

// Before the bytes of each allocation; what follows it is aligned as its user expects.
struct alignas(std::max_align_t) Header {
    size_t counted; // 0 when nothing was counted
};

void Count(size_t size) {
    ++g_allocations;
    g_allocated += size;
    const uint64_t live = g_live += size;
    uint64_t peak = g_peak;
    while (live > peak && !g_peak.compare_exchange_weak(peak, live)) {
    }
}

} // namespace

CountedMemory::CountedMemory() {
    for (auto* count : {&g_allocations, &g_allocated, &g_live, &g_peak})
        *count = 0;
    g_counting = true;
}
CountedMemory::~CountedMemory() { g_counting = false; }
uint64_t CountedMemory::Allocations() const { return g_allocations; }
uint64_t CountedMemory::AllocatedBytes() const { return g_allocated; }
uint64_t CountedMemory::LiveBytes() const { return g_live; }
uint64_t CountedMemory::PeakBytes() const { return g_peak; }
void CountedMemory::RestartPeak() { g_peak = g_live.load(); }

// The other forms of new and delete come down to these, but for over-aligned types.
void* operator new(size_t size) {
    auto* header = static_cast<Header*>(std::malloc(sizeof(Header) + size));
    if (!header)
        throw std::bad_alloc();
    header->counted = g_counting.load(std::memory_order_relaxed) ? size : 0;
    if (header->counted > 0)
        Count(size);
    return header + 1;
}

void operator delete(void* memory) noexcept {
    if (!memory)
        return;
    Header* header = static_cast<Header*>(memory) - 1;
    if (header->counted > 0)
        g_live -= header->counted;
    std::free(header);
}

void operator delete(void* memory, size_t) noexcept { operator delete(memory); }
