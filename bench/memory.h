// Memory of this process: what malloc hands out, and what is resident.
#pragma once

#include <cstdint>

namespace bench {

// Lets malloc keep all memory there ever was, in one arena for all threads, as in a process that has run
// for a while. Left alone, it keeps the pages of a freed buffer or gives them back, depending on the
// thread that got the buffer and on what lies above it; and where the first touch of a page is dear, the
// side of a comparison that has to touch new ones loses, be it ours or another. Before any thread is
// started, which would get an arena of its own.
void KeepFreedPages();

// Has the system provide that many bytes and takes them back: a virtual machine's host may have taken
// free pages away, and whoever is given them first would wait for them.
void WarmFreeMemory(uint64_t bytes);

// Bytes that malloc has handed out and not got back.
uint64_t LiveBytes();

// The most that was resident since the start or RestartPeak.
uint64_t PeakResidentBytes();
void RestartPeak();

// Counts calls of malloc and its like, operator new among them, in all threads while it lives; one at a
// time. Meanwhile an allocation costs an atomic addition, else a look at a flag.
class AllocationCount {
public:
    AllocationCount();
    ~AllocationCount();
    AllocationCount(const AllocationCount&) = delete;
    AllocationCount& operator=(const AllocationCount&) = delete;
    uint64_t Get() const;
};

} // namespace bench
