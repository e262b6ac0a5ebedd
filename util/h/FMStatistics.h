/// @defgroup statistics Statistics and backpressure
/// Figures for monitoring, and a notification when the application writes faster than the disk stores.
/// docs/operations.md says which figures to watch.
/// @{
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>

#include "RtExport.h"
#include "RtString.h"

/// A histogram of durations. Bucket 0 counts durations below 1 us. Bucket i counts durations of at least
/// 2^(i-1) us and less than 2^i us. The last bucket has no upper limit: it counts durations of 2^26 us (67 s)
/// and more.
struct FMHistogram {
    static constexpr size_t BUCKETS = 28;   ///< number of buckets
    std::array<uint64_t, BUCKETS> counts{}; ///< number of durations in each bucket
    uint64_t sumUs = 0;                     ///< sum of all durations in us
};

/// Figures of the whole process. Counters and histograms count from the start of the process and survive
/// IFileManager::UnInitialize. The other figures describe the current state.
struct FMStatistics {
    /// Bytes of block data in memory, and the limit for them, which IFileManager::Initialize sets. The limit is
    /// a goal: at each tick a client releases the buffers of stored blocks that are idle, and a server does so
    /// if it has reached the limit.
    ///@{
    uint64_t memoryBytes = 0;
    uint64_t memoryLimitBytes = 0;
    ///@}
    uint64_t openFiles = 0; ///< cached files that are open

    /// Numbers of blocks, and of their bytes. A block of a closed file counts while a reference to it exists.
    /// Resident: in memory, whatever its state. Pending: complete, and a store is queued or running. Stored: in
    /// the data file, unless another program has removed or truncated that file. Failed: the last store has
    /// failed; while the file is open, each tick retries the store, unless another process has taken over the files.
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
    uint64_t readMisses = 0; ///< counter: reads that need a load; several reads may share a load

    /// Counters of loads from disk. They do not count withdrawn loads.
    ///@{
    uint64_t loads = 0; ///< loads that have succeeded
    uint64_t loadBytes = 0;
    uint64_t loadFailures = 0;
    ///@}
    /// Counters of stores to disk. Each block of a batch counts as one store. A store to a path that another
    /// object or process has taken over counts neither as a success nor as a failure.
    ///@{
    uint64_t stores = 0; ///< stores that have succeeded
    uint64_t storeBytes = 0;
    uint64_t storeFailures = 0;
    uint64_t storeRetries = 0; ///< stores queued again, after a failure or a loss on disk
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

/// Fills `statistics`. Any thread, until the process begins to exit. The figures are read one after another:
/// each is exact, but figures that change during the call may describe different moments.
RT_EXPORT void FMGetStatistics(FMStatistics& statistics);

/// Formats the figures in the text format of Prometheus, and appends the end mark of OpenMetrics ("# EOF").
/// Names begin with "filemanager_"; units are bytes and seconds. The names of counters end in "_total" in the
/// HELP and TYPE lines, too: OpenMetrics omits the suffix there, but the checks of Prometheus require it. Any
/// thread.
RT_EXPORT CRtString FMFormatStatistics(const FMStatistics& statistics);

/// Bytes of complete blocks that wait to be stored: pendingBytes + failedBytes of FMStatistics. Any thread.
RT_EXPORT uint64_t FMGetUnstoredBytes();

/// Sets a high-water mark for the bytes that wait to be stored (FMGetUnstoredBytes). The library accepts
/// writes above the mark, too: the application has to stop its sources until the count has dropped.
///
/// Call it on the caller thread. The mark survives IFileManager::UnInitialize. The event loop of the caller
/// thread calls the callback. No operation of the library calls it, except FMWaitUntilIdle, which runs this
/// loop. The callback may call every operation.
/// @param bytes the mark; 0 removes it.
/// @param callback called with true when the count has exceeded `bytes`, and after that with false when the
///     count has dropped below half of `bytes`; true and false alternate. If the count crosses both limits
///     before the event loop runs, neither call is made. Blocks whose file was closed or displaced before they
///     could be stored count until they are released. The new callback replaces the former one, which is not
///     called again.
/// @retval RT_OK
/// @retval RT_ERROR_INVALID_ARG `bytes` is not 0 and `callback` is empty. Nothing changes.
/// @retval RT_ERROR_NULL_OBJECT the manager could not be created.
RT_EXPORT int FMSetHighWaterMark(uint64_t bytes, std::function<void(bool isAbove)> callback);
/// @}
