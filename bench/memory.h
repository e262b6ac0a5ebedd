// Memory of this process: allocations, live heap bytes, and resident bytes.
#pragma once

#include <cstdint>

namespace bench {

// Makes malloc keep freed pages, in one arena for all threads, as in a process that has run for a while.
// With the defaults, malloc returns the pages of a freed buffer to the kernel or keeps them, depending on
// the allocating thread and on the heap's layout. A page fault costs 2 to 3 us on a virtual machine, so the
// default would decide a comparison by chance. Call it before the first thread starts: a thread gets its own
// arena.
void KeepFreedPages();

// Allocates, touches and frees that many bytes. The host of a virtual machine may have reclaimed free guest
// pages; this call pays for getting them back, outside the measured time.
void WarmFreeMemory(uint64_t bytes);

// Heap bytes that are allocated and not freed.
uint64_t LiveBytes();

// The highest number of resident bytes since the process started or since RestartPeak.
uint64_t PeakResidentBytes();
void RestartPeak();

// Counts allocations (malloc, calloc, realloc, aligned variants and operator new) of all threads during its
// lifetime. At most one object may exist. While it exists, each allocation costs one atomic addition;
// otherwise one load of a flag.
class AllocationCount {
public:
    AllocationCount();
    ~AllocationCount();
    AllocationCount(const AllocationCount&) = delete;
    AllocationCount& operator=(const AllocationCount&) = delete;
    uint64_t Get() const;
};

} // namespace bench
