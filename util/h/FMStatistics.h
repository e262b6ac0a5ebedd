/// @defgroup statistics Statistics and backpressure
/// Figures about the file manager for programs, and a notification when the disk is slower than the writers.
/// docs/operations.md says which figures to watch.
/// @{
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>

#include "RtExport.h"
#include "RtString.h"

/// A histogram of durations. Bucket 0 counts durations below 1 us; bucket i durations of 2^(i-1) us and more,
/// but less than 2^i us; the last bucket all longer ones (67 s and more).
struct FMHistogram {
    static constexpr size_t BUCKETS = 28; ///< number of buckets
    std::array<uint64_t, BUCKETS> counts{};
    uint64_t sumUs = 0; ///< sum of all durations in us
};

/// Figures of the whole process. Counters grow from the start of the process and survive
/// IFileManager::UnInitialize. The other figures describe the current state.
struct FMStatistics {
    /// Block data in memory, in bytes, and its limit as of IFileManager::Initialize. Above the limit, the
    /// tick releases the buffers of stored blocks that are idle.
    ///@{
    uint64_t memoryBytes = 0;
    uint64_t memoryLimitBytes = 0;
    ///@}
    uint64_t openFiles = 0; ///< files in the registry

    /// Blocks of existing block objects, and their bytes. Resident: in memory. Pending: complete, and a store
    /// is queued or runs. Stored: in the data file, as far as is known. Failed: the store has failed; ticks
    /// retry it.
    ///@{
    uint64_t residentBlocks = 0;
    uint64_t pendingBlocks = 0;
    uint64_t pendingBytes = 0;
    uint64_t storedBlocks = 0;
    uint64_t storedBytes = 0;
    uint64_t failedBlocks = 0;
    uint64_t failedBytes = 0;
    ///@}

    uint64_t readHits = 0;   ///< counter: reads served from memory
    uint64_t readMisses = 0; ///< counter: reads that need a load; several reads may share one

    /// Counters of loads from disk. A withdrawn load counts nowhere.
    ///@{
    uint64_t loads = 0; ///< that have succeeded
    uint64_t loadBytes = 0;
    uint64_t loadFailures = 0;
    ///@}
    /// Counters of stores to disk, one store per block.
    ///@{
    uint64_t stores = 0; ///< that have succeeded
    uint64_t storeBytes = 0;
    uint64_t storeFailures = 0;
    uint64_t storeRetries = 0; ///< stores that were queued again, after a failure or a loss on disk
    uint64_t storeBatches = 0; ///< writes of several adjacent blocks with one system call
    ///@}

    /// Time between the posting and the start of each load and store on the read/write thread.
    ///@{
    FMHistogram loadWait;
    FMHistogram storeWait;
    ///@}
    /// Duration of each load, and of each store or batch, on the read/write thread.
    ///@{
    FMHistogram loadDisk;
    FMHistogram storeDisk;
    ///@}
};

/// Fills `statistics`. Any thread, until the end of the process begins. Each figure is exact; figures that
/// change meanwhile may belong to different moments.
RT_EXPORT void FMGetStatistics(FMStatistics& statistics);

/// Formats the figures in Prometheus' text format, with the end mark of OpenMetrics. The names of counters end
/// in "_total" also where OpenMetrics leaves that out, because Prometheus' checks require it. Names begin with
/// "filemanager_"; units are bytes and seconds. Any thread.
RT_EXPORT CRtString FMFormatStatistics(const FMStatistics& statistics);

/// Bytes of complete blocks that wait to be stored: pendingBytes and failedBytes of FMStatistics. Any thread.
RT_EXPORT uint64_t FMGetUnstoredBytes();

/// Sets a high-water mark for the bytes that wait to be stored. The library refuses no writes above the mark:
/// the application stops its sources until the count has dropped.
///
/// Call it on the caller thread. The mark survives IFileManager::UnInitialize. The callback runs on the caller
/// thread, from its event loop, never inside another call of the library. It may call every operation.
/// @param bytes the mark; 0 removes it.
/// @param callback called with true when the count has exceeded `bytes`, and with false when it has then
///     dropped below half of `bytes`; alternately, beginning with true. Blocks whose file was closed or
///     displaced before they could be stored count until they are released. If both happen before the event loop
///     runs, neither call is made. The new callback replaces the former one, which is not called again.
/// @retval RT_OK
/// @retval RT_ERROR_INVALID_ARG `bytes` is not 0 and `callback` is empty. Nothing changes.
/// @retval RT_ERROR_NULL_OBJECT the manager could not be created.
RT_EXPORT int FMSetHighWaterMark(uint64_t bytes, std::function<void(bool isAbove)> callback);
/// @}
