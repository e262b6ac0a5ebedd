/// @defgroup manager File manager
/// The block cache of one process. The application includes this header and RtRuntime.h; this one
/// includes the other interfaces.
///
/// A cached file has a 128-bit identifier and consists of blocks with 32-bit identifiers. The caller
/// writes a block in pieces as they arrive, and reads it back from memory or from disk.
///
/// - **Threads.** All operations run on the caller thread (RtRuntime.h), and all callbacks come there. Two
///   exceptions: IFileManager::Instance, and the reference counts of all objects, work on any thread.
/// - **References.** An object returned through an out argument carries one reference for the receiver.
///   The receiver gives it back with `ReleaseReference`; CRtComAutoPtr does so in its destructor. An out
///   argument is valid on success only.
/// - **On disk.** A completed block is stored in the background. The block table that names it is written
///   after the file is closed. IFileManager::UnInitialize closes all files and returns when everything is
///   on disk; an application that exits without it loses files that are still open.
/// - **Failed stores.** If a store fails, the log has a line, the block stays readable in memory, and each
///   tick of the manager's timer (every 60 s) retries the store.
/// - **Exceptions.** The operations throw nothing. If there is no memory for a block's bytes or for an
///   object that is handed out, the result is #RT_ERROR_NULL_OBJECT unless the operation names another.
///   Any other allocation failure calls std::terminate; docs/reliability.md says what is on disk then.
/// - **Sizes.** The intended limits are 1 GiB for each cached file, 16 MiB for each block, and 131,071 for
///   the number of open files and for the slots of a block table. Beyond them the library writes an
///   assertion line to the log and continues. Tables of more than #FM_TABLE_SLOTS_MAX slots are refused.
///
/// Each operation lists its result codes (RtResult.h).
/// @{
#pragma once

#include <cstdint>

#include "FMFileID.h"
#include "FMFileInfo.h"
#include "FMInfoCodec.h"
#include "FMVersion.h"
#include "IFMBlock.h"
#include "IFMFile.h"
#include "ISDUser.h"
#include "RtExport.h"
#include "RtMessageBlock.h"
#include "RtResult.h"
#include "RtString.h"

/// The cache of this process: opens files, counts their users, closes them.
class RT_EXPORT IFileManager {
public:
    /// Returns the manager of this process. The first call creates it; it is destroyed at process end.
    /// Any thread. Null if it could not be created.
    static IFileManager* Instance();

    /// Starts the manager: derives the directory, clears the cache if `clearDays` is 0, starts the
    /// read/write thread and the timer. If another process is clearing the same directory, the call waits
    /// up to 10 s for it. A second call before UnInitialize is a no-op.
    /// @param dataDir the directory of the cache; spaces at both ends are removed. On POSIX a backslash
    ///     separates like a slash. The first call in a process fixes the directory: later calls ignore the
    ///     argument. A relative path is resolved at each use, so an application that changes its working
    ///     directory passes an absolute one. A client keeps its files in `confcache/PID` below the
    ///     directory, a server in `sdstore`, which several server processes may share.
    ///     If it is empty: on Windows the root of the fixed drive with the most free space, else the
    ///     user's application data folder; on POSIX `$XDG_CACHE_HOME` if absolute, else `.cache` in the
    ///     user's home directory. Without those: get_quillmer_home_dir, else `/opt/quillmer`.
    /// @param clearDays how long a server keeps closed files. Housekeeping runs one minute after the start
    ///     and then every 24 hours. It removes a file at the age of `clearDays` + 2 days, unless the file is open or
    ///     flagged #FM_FILE_KEPT.
    ///     With 0, on clients too, the cache is cleared now and in UnInitialize, except what other running
    ///     processes use.
    /// @param isServer non-zero for a server, which keeps up to 512 MiB of blocks in memory before it
    ///     releases idle ones; 0 for a client, which releases idle blocks at each tick.
    /// @retval RT_OK always. Whether the directory can be written shows when a block is stored.
    virtual int Initialize(const CRtString& dataDir, uint16_t clearDays, int isServer) = 0;

    /// Closes all files, runs everything queued for the disk, and stops the read/write thread. When it
    /// returns, blocks and block tables are on disk, except those whose last attempt failed (the log says
    /// which). If the disk is slow, it waits without a limit, and logs the files it waits for after 0.5 s
    /// and then every 10 s. A sink may call it. Before Initialize it is a no-op.
    virtual void UnInitialize() = 0;

    /// Opens a new file. Nothing is created on disk until its first block is stored or its table is
    /// written; older files with the same identifier are removed at that moment. While another process has
    /// a file with this identifier open, the blocks of the new one stay in memory.
    ///
    /// If a file with this identifier is open in this process, the new file displaces it: OpenFile no
    /// longer finds the old one, and its blocks are no longer stored or loaded. While an earlier object
    /// with this identifier exists, the call waits until its queued stores have run.
    /// @param[out] file the new file, not attached, with one reference for the caller.
    /// @param fileInfo the description; the file keeps a copy.
    /// @retval RT_OK
    /// @retval RT_ERROR_NULL_OBJECT out of memory.
    /// @retval RT_ERROR_INVALID_ARG `fileInfo.fileID` is #FMFileID_None.
    virtual int CreateFile(IFMFile*& file, const FMFileInfo& fileInfo) = 0;

    /// Returns an open file, or loads one from the cache. A load reads the information file on the calling
    /// thread, and registers the file under the identifier stored in it. If the file was just closed, the
    /// load waits for its queued stores and returns it as it was closed.
    /// @param[out] file the file, with one reference for the caller; null if the file was not found.
    /// @param fileHandle the identifier.
    /// @param load non-zero: if the file is not open, load it from disk.
    /// @retval RT_OK
    /// @retval RT_ERROR_INVALID_ARG `fileHandle` is #FMFileID_None.
    /// @retval RT_ERROR_NOT_FOUND not open and `load` is 0; or the load failed because the information file
    ///     is missing or damaged, another process has the file open, or memory ran out (the log says why).
    virtual int OpenFile(IFMFile*& file, const FMFileID& fileHandle, int load) = 0;

    /// IFMFile::GetBlock by identifier. Only finds open files; it never loads one.
    /// @param[out] block the block, with one reference for the caller.
    /// @param fileHandle the identifier of the file.
    /// @param blockID the identifier of the block.
    /// @param create non-zero: create a missing block.
    /// @retval RT_ERROR_INVALID_ARG `fileHandle` is #FMFileID_None.
    /// @retval RT_ERROR_NOT_FOUND the file is not open.
    /// @retval others the results of IFMFile::GetBlock.
    virtual int GetBlock(IFMBlock*& block, const FMFileID& fileHandle, uint32_t blockID,
                         int create) = 0;

    /// Counts one more user of an open file.
    /// @retval RT_OK
    /// @retval RT_ERROR_INVALID_ARG `fileHandle` is #FMFileID_None.
    /// @retval RT_ERROR_NOT_FOUND the file is not open.
    virtual int AttachFile(const FMFileID& fileHandle) = 0;

    /// Counts one user less. When the count falls to 0 or below, the file is closed: a temporary file is
    /// removed from disk by the read/write thread; for any other, a changed block table is written on
    /// the caller thread after the stores of its blocks have run. So one call closes a file that was never
    /// attached. References to a closed file or to its blocks stay valid, but take no more data.
    /// @retval RT_OK
    /// @retval RT_ERROR_INVALID_ARG `fileHandle` is #FMFileID_None.
    /// @retval RT_ERROR_NOT_FOUND the file is not open.
    virtual int DetachFile(const FMFileID& fileHandle) = 0;

protected:
    virtual ~IFileManager();
};
/// @}
