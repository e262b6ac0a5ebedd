// Counts what operator new hands out in a program that memory_count.cpp is linked into.
#pragma once

#include <cstdint>

// Counts from zero while it lives; one at a time. Otherwise an allocation costs one flag more than
// without it, so that time can be measured too. Memory from before is not counted when it goes, either.
class CountedMemory {
public:
    CountedMemory();
    ~CountedMemory();
    CountedMemory(const CountedMemory&) = delete;
    CountedMemory& operator=(const CountedMemory&) = delete;

    uint64_t Allocations() const;
    uint64_t AllocatedBytes() const;
    // Bytes that have not been given back, and the most there were since the start or RestartPeak.
    uint64_t LiveBytes() const;
    uint64_t PeakBytes() const;
    void RestartPeak();
};
