/// @defgroup durability Durability
/// What is on disk: the state of a block, and functions that write everything that was accepted so far.
///
/// A block survives the end of the process when the data file contains its bytes and the block table on disk
/// names them. The library stores the bytes when the block is complete, and writes the table when the file is
/// closed, or in FMFlush. "On disk" means written to the operating system: the bytes survive a crash or a kill of
/// the process, but a power loss may lose what the system has not written to the device (docs/reliability.md).
/// @{
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "FMFileID.h"
#include "IFMBlock.h"
#include "RtExport.h"

/// Where the bytes of a block are.
enum class FMBlockCondition : uint8_t {
    Empty,   ///< no piece was written, or a table without bytes for this block was loaded
    Filling, ///< some pieces are missing
    Pending, ///< complete; a store is queued or running
    Stored,  ///< the data file contains the bytes
    Failed,  ///< the last store has failed; while the file is open, each tick retries it
    Lost, ///< another program has removed or truncated the data file; a resident block is stored again
};

/// The state of a block at one moment.
struct FMBlockStatus {
    FMBlockCondition condition = FMBlockCondition::Empty; ///< where the bytes are
    bool isResident = false; ///< the bytes, or the first pieces, are in memory
    /// The block would be readable in a later run if the process were killed now. If the file has been closed,
    /// this is the state at that time.
    bool survivesKill = false;
};

/// Returns the state of a block. Call it on the caller thread. It does not wait for the disk.
RT_EXPORT FMBlockStatus FMGetBlockStatus(IFMBlock& block);

/// A complete block that would be lost if the process ended now.
struct FMUnsavedBlock {
    FMFileID fileID = FMFileID_None; ///< its file
    uint32_t blockID = 0;            ///< its identifier
};

/// Writes every block and every block table that was accepted before the call: retries failed stores, waits until
/// the stores have ended, then writes the tables of the open files and those that are pending. Incomplete blocks
/// are not written. For a temporary file only the bytes are written, because no later run loads it.
///
/// Call it on the caller thread, which waits for the disk without a time limit. No sink and no callback runs
/// during the call. Each call writes the tables of the files that have changed, so call it at most some times per
/// minute.
/// @param[out] unsaved the blocks that could not be written, in the order of their files and identifiers. The log
///     has the errors. The stores and tables stay pending as described for IFileManager.
/// @retval RT_OK everything was written; `unsaved` is empty.
/// @retval RT_ERROR_IO `unsaved` lists the other blocks.
/// @retval RT_ERROR_NOT_READY the manager is not initialized; or the calling thread is not the caller thread.
///     Nothing was written.
RT_EXPORT int FMFlush(std::vector<FMUnsavedBlock>& unsaved);

/// As FMFlush, but does not wait for the stores: returns immediately. The tables are written on the caller thread
/// when the stores have ended, just before the callback. Call it on the caller thread.
/// @param done called once, on the caller thread, with the result of FMFlush and the blocks that could not be
///     written. If UnInitialize is called before, the files are saved by UnInitialize, and `done` is called when
///     the caller thread runs its next events.
/// @retval RT_OK `done` will be called.
/// @retval RT_ERROR_INVALID_ARG `done` is empty.
/// @retval RT_ERROR_NOT_READY the manager is not initialized; or the calling thread is not the caller thread.
RT_EXPORT int
FMFlushAsync(std::function<void(int result, const std::vector<FMUnsavedBlock>& unsaved)> done);
/// @}
