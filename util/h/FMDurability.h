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
    /// The data file does not contain the bytes any more, or never did: another program has changed it, another
    /// object has replaced or removed the file, or the table that was loaded is damaged. While the file is open, a
    /// resident block is stored again.
    Lost,
};

/// The state of a block at one moment.
struct FMBlockStatus {
    FMBlockCondition condition = FMBlockCondition::Empty; ///< where the bytes are
    bool isResident = false; ///< the bytes, or the first pieces, are in memory
    /// The block would be readable in a later run if the process were killed now, provided that no other program
    /// changes the files of the cache. For a block of a closed file: the value at the close. The table that the
    /// close writes is not considered.
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
/// during the call. Call it a few times per minute at most: each call rewrites the tables of the changed files.
/// While a table is written (some microseconds), a kill loses the blocks of its file, also those of an earlier
/// flush.
/// @param[out] unsaved the blocks that could not be written, in the order of their files and identifiers. The log
///     has the errors. The stores and tables stay pending as described for IFileManager.
/// @retval RT_OK everything was written; `unsaved` is empty. If another program has changed the files of the cache,
///     the call notices it only in files that have to be written.
/// @retval RT_ERROR_IO `unsaved` lists the blocks that could not be written. It does not list blocks of a file that
///     was closed before and whose last store has failed, and blocks of a file that CreateFile has displaced.
/// @retval RT_ERROR_NOT_READY the manager is not initialized; or the calling thread is not the caller thread.
///     Nothing was written.
RT_EXPORT int FMFlush(std::vector<FMUnsavedBlock>& unsaved);

/// As FMFlush, but does not wait for the stores: returns immediately. The tables are written on the caller thread
/// when the stores have ended, just before the callback. Call it on the caller thread.
/// @param done called once, on the caller thread, with the result of FMFlush and the blocks that could not be
///     written. If UnInitialize runs first, it saves the files, and the next events of the caller thread call `done`
///     with RT_ERROR_NOT_READY. If the caller thread ends first, `done` is not called.
/// @retval RT_OK `done` will be called.
/// @retval RT_ERROR_INVALID_ARG `done` is empty.
/// @retval RT_ERROR_NOT_READY the manager is not initialized; or the calling thread is not the caller thread.
RT_EXPORT int
FMFlushAsync(std::function<void(int result, const std::vector<FMUnsavedBlock>& unsaved)> done);
/// @}
