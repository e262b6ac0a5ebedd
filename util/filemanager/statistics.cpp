#include "statistics.h"

#include <algorithm>
#include <bit>

constinit CFMStatistics g_statistics;

void CFMStatistics::Record(Histogram histogram, Clock::duration duration) {
    const auto us = static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(duration).count());
    const size_t bucket =
        std::min(static_cast<size_t>(std::bit_width(us)), FMHistogram::BUCKETS - 1);
    m_counts[IndexOf(histogram, bucket)].fetch_add(1, std::memory_order_relaxed);
    m_counts[IndexOf(histogram, FMHistogram::BUCKETS)].fetch_add(us, std::memory_order_relaxed);
}

void CFMStatistics::FillHistogram(Histogram histogram, FMHistogram& filled) const {
    for (size_t bucket = 0; bucket < FMHistogram::BUCKETS; ++bucket)
        filled.counts[bucket] = Get(IndexOf(histogram, bucket));
    filled.sumUs = Get(IndexOf(histogram, FMHistogram::BUCKETS));
}

void CFMStatistics::Fill(FMStatistics& statistics) const {
    statistics.residentBlocks = Get(ResidentBlocks);
    statistics.pendingBlocks = Get(PendingBlocks);
    statistics.pendingBytes = Get(PendingBytes);
    statistics.storedBlocks = Get(StoredBlocks);
    statistics.storedBytes = Get(StoredBytes);
    statistics.failedBlocks = Get(FailedBlocks);
    statistics.failedBytes = Get(FailedBytes);
    statistics.readHits = Get(ReadHits);
    statistics.readMisses = Get(ReadMisses);
    statistics.loads = Get(Loads);
    statistics.loadBytes = Get(LoadBytes);
    statistics.loadFailures = Get(LoadFailures);
    statistics.stores = Get(Stores);
    statistics.storeBytes = Get(StoreBytes);
    statistics.storeFailures = Get(StoreFailures);
    statistics.storeRetries = Get(StoreRetries);
    statistics.storeBatches = Get(StoreBatches);
    FillHistogram(LoadWait, statistics.loadWait);
    FillHistogram(LoadDisk, statistics.loadDisk);
    FillHistogram(StoreWait, statistics.storeWait);
    FillHistogram(StoreDisk, statistics.storeDisk);
}
