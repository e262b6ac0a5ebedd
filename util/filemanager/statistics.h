// CFMStatistics: the atomic counters from which FMGetStatistics fills FMStatistics.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>

#include "FMStatistics.h"

/// Any thread. Counting is one relaxed atomic addition.
class CFMStatistics {
public:
    using Clock = std::chrono::steady_clock; // the application's clock may be set back

    enum Counter : uint8_t {
        ResidentBlocks,
        PendingBlocks, // for each of the three states: blocks, then their bytes (ChangeBlock)
        PendingBytes,
        StoredBlocks,
        StoredBytes,
        FailedBlocks,
        FailedBytes,
        // Pending + failed. A sum of their counters would drop while a block changes from one to the other.
        UnstoredBytes,
        ReadHits,
        ReadMisses,
        Loads,
        LoadBytes,
        LoadFailures,
        Stores,
        StoreBytes,
        StoreFailures,
        StoreRetries,
        StoreBatches,
        // Of the statistics line only; times in milliseconds.
        FilesCreated,
        FilesDestroyed,
        BlocksCreated,
        BlocksDestroyed,
        TimeSetOwner,
        TimeGetOwner,
        TimeGetOwners,
        COUNTERS, // also the state of a block that no counter counts
    };
    enum Histogram : uint8_t { LoadWait, LoadDisk, StoreWait, StoreDisk, HISTOGRAMS };

    void Add(Counter counter, uint64_t count = 1) {
        m_counts[counter].fetch_add(count, std::memory_order_relaxed);
    }
    void Subtract(Counter counter, uint64_t count = 1) {
        m_counts[counter].fetch_sub(count, std::memory_order_relaxed);
    }
    /// A block of `length` bytes enters or leaves a state. `state`: the state's counter of blocks, or COUNTERS.
    ///@{
    void AddBlock(Counter state, uint64_t length) { ChangeBlock(state, 1, length); }
    void SubtractBlock(Counter state, uint64_t length) {
        ChangeBlock(state, ~uint64_t{0}, 0 - length);
    }
    ///@}
    /// Pending + failed bytes. Sequentially consistent, because CHighWaterMark compares this counter with its own
    /// atomic state.
    ///@{
    void AddUnstored(uint64_t bytes) { m_counts[UnstoredBytes].fetch_add(bytes); }
    void SubtractUnstored(uint64_t bytes) { m_counts[UnstoredBytes].fetch_sub(bytes); }
    uint64_t GetUnstored() const { return m_counts[UnstoredBytes].load(); }
    ///@}
    uint64_t Get(size_t index) const { return m_counts[index].load(std::memory_order_relaxed); }

    void Record(Histogram histogram, Clock::duration duration);
    void Fill(FMStatistics& statistics) const;

private:
    static constexpr size_t HISTOGRAM_SIZE = FMHistogram::BUCKETS + 1; // the sum comes last
    static constexpr size_t IndexOf(size_t histogram, size_t bucket) {
        return COUNTERS + histogram * HISTOGRAM_SIZE + bucket;
    }
    void ChangeBlock(Counter state, uint64_t blocks, uint64_t bytes) {
        if (state == COUNTERS)
            return;
        m_counts[state].fetch_add(blocks, std::memory_order_relaxed);
        m_counts[size_t{state} + 1].fetch_add(bytes, std::memory_order_relaxed);
    }
    void FillHistogram(Histogram histogram, FMHistogram& filled) const;

    std::array<std::atomic<uint64_t>, COUNTERS + HISTOGRAMS * HISTOGRAM_SIZE> m_counts{};
};
extern CFMStatistics g_statistics;
