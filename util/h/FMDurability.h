/// @defgroup durability Durability
/// The state of blocks on disk, and functions that write everything that was accepted so far.
///
/// A block survives the end of the process when the data file contains its bytes and the block table on disk
/// names them. The library stores the bytes when the block is complete. It writes the table in FMFlush, and after
/// the file was closed. "On disk" means written to the operating system: the bytes survive a crash or a kill of
/// the process, but a power loss may lose what the system has not written to the device, unless FMSync has written it
/// (docs/reliability.md).
///
/// The format has one table for each file. While the table is written (some microseconds), a kill loses the blocks
/// of the file, also those that an earlier flush has written.
/// @{
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "FMFileID.h"
#include "IFMBlock.h"
#include "RtExport.h"

/// Where the bytes of a block are. FMSlotState (FMCatalog.h) is the state of an entry in a table on disk: Stored
/// means the same in both, and an entry is Empty for every block without bytes on disk.
enum class FMBlockCondition : uint8_t {
    Empty,   ///< no piece was written, or a table without bytes for this block was loaded
    Filling, ///< some pieces are missing
    Pending, ///< complete; a store is queued or running
    Stored,  ///< the data file contains the bytes
    /// The last store has failed. While the file is open, each tick retries it, unless another process has taken over
    /// the files.
    Failed,
    /// The data file does not contain the bytes: another program has changed it, a new file with the same
    /// identifier has replaced it, the file was temporary and was closed, or the table that was loaded is damaged.
    /// While the file is open, a resident block is stored again.
    Lost,
};

/// The state of a block at one moment.
struct FMBlockStatus {
    FMBlockCondition condition = FMBlockCondition::Empty; ///< where the bytes are
    bool isResident = false; ///< the bytes, or the first pieces, are in memory
    /// The block would be readable in a later run if the process were killed now, provided that no other program
    /// changes the files of the cache. After the close of the file it does not change any more, because the table
    /// that the close writes is not considered. Always false for a temporary file.
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
/// Call it on the caller thread, which waits for the disk without a time limit (Windows: up to 2 s for each file that
/// another process holds, because a refusal could not list the blocks of closed files). No sink and no callback runs
/// during the call. Each call rewrites the tables of all changed files.
/// @param[out] unsaved the complete blocks that a kill would lose, ordered by file and block identifier. They stay
///     readable. While their files are open, each tick retries failed stores; no tick retries the table of an open
///     file: call FMFlush again, or close the file. A failed table write can make the table of an earlier flush
///     invalid; then the blocks that it named are listed, too. Unchanged if the result is #RT_ERROR_NOT_READY.
/// @retval RT_OK every complete block of the open files, and every block that a pending table names, survives a
///     kill. This does not include blocks of closed files whose last store has failed and blocks of files that
///     CreateFile has displaced. If another program has changed the files of the cache, the call notices it only in
///     files that have to be written.
/// @retval RT_ERROR_IO a block or a table could not be written. The log has the errors.
/// @retval RT_ERROR_NOT_READY the manager is not initialized; or the calling thread is not the caller thread.
///     Nothing was written.
RT_EXPORT int FMFlush(std::vector<FMUnsavedBlock>& unsaved);

/// As FMFlush, and writes everything to the device, so that a power loss does not lose it: first the data files, then
/// the tables, then the directory and the directories above it in which this process has created one. This includes
/// the files that were closed since the last call. Temporary files, and a data file or an information file
/// that only an earlier process has written, are not synced.
///
/// Call it on the caller thread, which waits for the device: for the data file and for the table of each file that was
/// changed since the last call, and for the directories. On Windows, a directory is synced through a handle with write
/// access; a file system that does not support that makes the call fail.
///
/// **What a later power loss can still lose.** The format has one table for each file, which is written in place: in
/// FMSync and FMFlush, after the close of a changed file, and before a block that it names is rewritten. A file that is
/// created over an older one replaces both files of it. A power loss between such a change and the end of the next
/// FMSync can lose all blocks of this file, or give wrong bytes. A file that is not changed after the call has no such
/// write: neither its close nor UnInitialize writes it.
/// @param[out] unsaved as for FMFlush. A block that was written but could not be synced is not listed.
/// @retval RT_OK as for FMFlush, and for a power loss.
/// @retval RT_ERROR_IO a block or a table could not be written, or a file or a directory could not be synced. The log
///     has the errors and the paths. The tables are written nevertheless, and may name bytes that are not on the
///     device. A later RT_OK does not include the bytes whose sync has failed, because the system
///     need not keep what it could not write to the device: write the blocks of these files again.
/// @retval RT_ERROR_NOT_READY as for FMFlush.
RT_EXPORT int FMSync(std::vector<FMUnsavedBlock>& unsaved);

/// As FMFlush, but does not wait for the stores: returns immediately. The tables are written on the caller thread
/// when the stores have ended, just before the callback. Files that are created or opened after the call are not
/// included. Call it on the caller thread.
/// @param done called once, on the caller thread, with the result of FMFlush and the blocks that could not be
///     written. If UnInitialize runs first, `done` is called with #RT_ERROR_NOT_READY and a list that means nothing:
///     UnInitialize writes the files itself, and the log names those that could not be written. If the caller thread
///     ends first, `done` is not called.
/// @retval RT_OK `done` will be called.
/// @retval RT_ERROR_INVALID_ARG `done` is empty.
/// @retval RT_ERROR_NOT_READY the manager is not initialized; or the calling thread is not the caller thread.
RT_EXPORT int
FMFlushAsync(std::function<void(int result, const std::vector<FMUnsavedBlock>& unsaved)> done);
/// @}
