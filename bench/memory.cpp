#include "memory.h"

#include <malloc.h>
#include <sys/mman.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <fstream>
#include <string>

#include "common.h"

// glibc's allocator under its internal names, because this file replaces the public ones.
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
}

namespace {

std::atomic<bool> g_counting{false};
std::atomic<uint64_t> g_allocations{0};

void Count() {
    if (g_counting.load(std::memory_order_relaxed))
        g_allocations.fetch_add(1, std::memory_order_relaxed);
}

} // namespace

extern "C" {

void* malloc(size_t size) noexcept {
    Count();
    return __libc_malloc(size);
}

void* calloc(size_t count, size_t size) noexcept {
    Count();
    return __libc_calloc(count, size);
}

void* realloc(void* memory, size_t size) noexcept {
    Count();
    return __libc_realloc(memory, size);
}

void* memalign(size_t alignment, size_t size) noexcept {
    Count();
    return __libc_memalign(alignment, size);
}

void* aligned_alloc(size_t alignment, size_t size) noexcept { return memalign(alignment, size); }

int posix_memalign(void** memory, size_t alignment, size_t size) noexcept {
    *memory = memalign(alignment, size);
    return *memory || size == 0 ? 0 : ENOMEM;
}
}

namespace bench {

void KeepFreedPages() {
    constexpr int neverTrim = 1 << 30, neverMapABlock = 32 << 20;
    Require(mallopt(M_ARENA_MAX, 1) != 0 && mallopt(M_TRIM_THRESHOLD, neverTrim) != 0 &&
                mallopt(M_MMAP_THRESHOLD, neverMapABlock) != 0,
            "mallopt failed");
}

void WarmFreeMemory(uint64_t bytes) {
    void* memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
    Require(memory != MAP_FAILED, "mmap failed");
    munmap(memory, bytes);
}

uint64_t LiveBytes() {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

uint64_t PeakResidentBytes() {
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
        if (uint64_t kibibytes = 0; word == "VmHWM:" && status >> kibibytes)
            return kibibytes * 1024;
    }
    Require(false, "/proc/self/status has no VmHWM");
    return 0;
}

void RestartPeak() {
    std::ofstream refs("/proc/self/clear_refs");
    refs << "5" << std::flush;
    Require(refs.good(), "/proc/self/clear_refs cannot be written");
}

AllocationCount::AllocationCount() {
    g_allocations = 0;
    g_counting = true;
}
AllocationCount::~AllocationCount() { g_counting = false; }
uint64_t AllocationCount::Get() const { return g_allocations; }

} // namespace bench
