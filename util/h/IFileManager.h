/// @defgroup manager File manager
/// The block cache of one process. The application includes RtRuntime.h and IFileManager.h;
/// IFileManager.h includes the headers of files, blocks and nodes.
///
/// A cached file has a 128-bit identifier and consists of blocks with 32-bit identifiers. The application
/// writes a block in pieces as they arrive, and reads the block back from memory or from disk. On disk a
/// cached file is a pair: the data file (`.sdd`) contains the bytes of the blocks, the information file
/// (`.sdi`) contains the description and the block table.
///
/// - **Threads.** Call all operations on the caller thread (RtRuntime.h). The library calls IFMBlockSink and
///   ISDUser on the caller thread, too. Exceptions: functions whose description says so,
///   IFileManager::Instance, FMWaitUntilIdle, FMGetStatistics, FMFormatStatistics, FMGetUnstoredBytes, the
///   functions of FMFileID.h and RtResult.h, the catalog of a given directory (FMCatalog.h) and the reference
///   counts work on any thread, and log lines come from any thread.
///   The *read/write thread* is a thread of the library that stores and loads blocks.
/// - **Mistakes.** The log has a line with the word "mistake" (#RT_LOG_ERROR) for a call on a wrong thread, a
///   call before Initialize or after UnInitialize, a description or block that cannot be saved, a piece with
///   another block length, an exceeded limit, a directory that cannot be created, and files that were not saved
///   at the end. The line names the operation and the remedy. The check does not change what the operation does.
///   If the library was compiled without NDEBUG, a mistake also stops the process in the debugger, if one is
///   attached. Only IFMFile::GetFileInfo, IFMBlock::GetFile, IFMBlock::GetFileID and IFMBlock::GetBlockID
///   do not check the thread.
/// - **References.** An object returned through an out argument carries one reference for the receiver.
///   The receiver gives it back with `ReleaseReference`; CRtComAutoPtr does so in its destructor. If an
///   operation fails, its out arguments are not valid, except where its description says so.
/// - **Open and closed.** A file is open until IFileManager::DetachFile or IFileManager::UnInitialize closes
///   it. Releasing the last reference of the application does not close it.
/// - **On disk.** When a block is complete, the read/write thread stores its bytes in the data file. The
///   block table is written after the file has been closed, and by FMFlush. If the process ends before that,
///   the blocks that were written since the file was opened or flushed are lost. So call IFileManager::UnInitialize before
///   the process exits.
/// - **Failed writes.** If a store fails (disk full, for example), the log has a line, the block stays
///   readable in memory, and each tick retries the store. A tick is a call of the manager's timer, every 60 s
///   on the caller thread. Closing the file retries it again; if that fails, a later run does not find the
///   block, and the log has the number of lost blocks. If a block table cannot be written, it stays pending:
///   each tick and IFileManager::UnInitialize retry it. It is dropped at process end only.
/// - **Changes by other programs.** If another program removes or truncates a data file, the next store and
///   the closing of the file notice it. The blocks stored before then count as lost on disk: while the file
///   is open, the next tick stores again those that are in memory. Reading another one fails with
///   #RT_ERROR_IO. The block table does not name a lost block.
/// - **Exceptions.** The operations throw nothing. If there is no memory for a block's bytes or for an
///   object that is handed out, the result is #RT_ERROR_NULL_OBJECT unless the operation names another.
///   Any other allocation failure calls std::terminate; docs/reliability.md says what is on disk then.
/// - **Sizes.** The intended limits are 1 GiB for each cached file, 16 MiB for each block, and 131,071 for
///   the number of open files and for the slots of a block table. If one is exceeded, the log has a line, and
///   the library continues. A table of more than #FM_TABLE_SLOTS_MAX slots is refused.
///
/// Each operation lists its result codes (RtResult.h).
/// @{
#pragma once

#include <cstdint>
#include <functional>

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

/// The cache of this process: opens files, counts their users (AttachFile, DetachFile), closes them.
class RT_EXPORT IFileManager {
public:
    /// Returns the manager of this process. The first call creates it; process end destroys it. Any thread.
    /// @returns null if out of memory, or if the process is ending.
    static IFileManager* Instance();

    /// Starts the manager: creates the directory, clears the cache if `clearDays` is 0, starts the
    /// read/write thread and the timer. If another process is clearing the same directory, the call waits
    /// up to 10 s for it and then continues. A second call before UnInitialize is a no-op.
    ///
    /// Call Initialize before the other operations, except Instance. Without it nothing is stored or loaded.
    /// @param dataDir the directory of the cache. Spaces at both ends are removed. On POSIX a backslash
    ///     separates like a slash. On Windows the path is in the process's ANSI code page. The first call in
    ///     a process fixes the directory: later calls ignore the argument. A relative path is resolved at
    ///     each use, so an application that changes its working directory passes an absolute one.
    ///     A server keeps its files in `sdstore` below the directory; several server processes may share it.
    ///     A client keeps its files in `confcache/PID`, where PID is its process id. So a later run of a
    ///     client does not find them; the next client with `clearDays` 0 removes them.
    ///     If `dataDir` is empty: on Windows the root of the fixed drive with the most free space, else the
    ///     user's application data folder; on POSIX `$XDG_CACHE_HOME` if absolute, else `.cache` in the
    ///     user's home directory. If these do not exist: the directory that set_quillmer_home_dir has set
    ///     (RtHome.h), else `/opt/quillmer`.
    /// @param clearDays how many days a server keeps a file. Housekeeping, on servers only, runs one minute
    ///     after the start and then every 24 hours. The first run that is at least `clearDays` + 2 days
    ///     after the creation of a file removes the file, unless it is flagged #FM_FILE_KEPT. Each run also
    ///     removes temporary files and files whose description is missing or damaged. A run examines data files
    ///     only, so an information file without a data file stays. It removes no file that this process has
    ///     open, and none whose data file another process has locked.
    ///     0, on servers and clients: the cache is cleared now and in UnInitialize. A client removes its own
    ///     directory in `confcache` and those of processes that have ended. A server removes `sdstore` unless
    ///     another process uses it.
    /// @param isServer non-zero for a server: a tick evicts idle blocks only if the blocks in memory exceed
    ///     512 MiB. 0 for a client: each tick evicts idle blocks.
    /// @retval RT_OK always. If the directory cannot be created or the read/write thread cannot be started,
    ///     the log has a line, and every store fails.
    virtual int Initialize(const CRtString& dataDir, uint16_t clearDays, int isServer) = 0;

    /// Closes all files, runs everything queued for the disk, and stops the read/write thread. When the call
    /// returns, blocks and block tables are on disk, except those whose last attempt failed (the log says
    /// which), and the library has no file of the cache open. If the disk is slow, the call waits without a
    /// limit; after 0.5 s and then every 10 s the log says which files it waits for.
    ///
    /// References to files and blocks stay valid, as after DetachFile. If asynchronous reads are in flight,
    /// their sinks are called after UnInitialize has returned, when the caller thread runs its next events;
    /// IFMBlock::CancelReadData prevents that. A sink may call UnInitialize. Before Initialize the call is a
    /// no-op. Afterwards Initialize may be called again.
    virtual void UnInitialize() = 0;

    /// Opens a new file. The call does not wait for the disk. Nothing is created on disk until the first
    /// block of the file is stored or its table is written; a data file and an information file of the same
    /// identifier are removed at that moment. While another process has a file with this identifier open, the
    /// stores of the new file fail.
    ///
    /// If a file with this identifier is open in this process, the new file displaces it: OpenFile no longer
    /// finds the displaced file, and what is queued for it still runs on the read/write thread. After that
    /// the new file takes over the pair of files on disk. Blocks of the displaced file that are in memory
    /// stay readable. Its other blocks are no longer loaded, and blocks written to it are no longer stored.
    /// @param[out] file the new file, with one reference for the caller and the attach count 0.
    /// @param fileInfo the description; the file keeps a copy.
    /// @retval RT_OK
    /// @retval RT_ERROR_NULL_OBJECT out of memory.
    /// @retval RT_ERROR_INVALID_ARG `fileInfo.fileID` is #FMFileID_None.
    virtual int CreateFile(IFMFile*& file, const FMFileInfo& fileInfo) = 0;

    /// Returns an open file, or loads one from the cache. A load reads the information file on the caller
    /// thread; the bytes of the blocks stay on disk until they are read. The loaded file is open under the
    /// identifier stored in its description. If a file with this identifier has been closed just before, the
    /// load first waits until its queued stores have run and its table is written.
    ///
    /// A load restores what a damaged block table still says. An entry with an impossible range
    /// (FMIsEntryPossible), and entries whose ranges overlap, become blocks without data: their length is 0.
    /// An entry that ends beyond the data file becomes a complete block, and reading it fails with
    /// #RT_ERROR_IO.
    /// @param[out] file the file, with one reference for the caller; null with #RT_ERROR_NOT_FOUND. The
    ///     attach count does not change; that of a loaded file is 0.
    /// @param fileHandle the identifier.
    /// @param load non-zero: if the file is not open, load it from disk.
    /// @retval RT_OK
    /// @retval RT_ERROR_INVALID_ARG `fileHandle` is #FMFileID_None.
    /// @retval RT_ERROR_NOT_FOUND the file is not open and `load` is 0; or the load failed (the log says
    ///     why): the information file is missing or damaged, another process has the file open, the table of
    ///     the file as it was closed cannot be written, a store of a closed file waits for another process (Windows),
    ///     or out of memory.
    virtual int OpenFile(IFMFile*& file, const FMFileID& fileHandle, int load) = 0;

    /// Finds an open file and calls IFMFile::GetBlock. It never loads a file.
    /// @param[out] block the block, with one reference for the caller.
    /// @param fileHandle the identifier of the file.
    /// @param blockID the identifier of the block.
    /// @param create non-zero: create a missing block.
    /// @retval RT_OK
    /// @retval RT_ERROR_NULL_OBJECT with `create`: out of memory.
    /// @retval RT_ERROR_INVALID_ARG `fileHandle` is #FMFileID_None; or, with `create`, the table cannot
    ///     contain `blockID` (IFMFile::GetBlock).
    /// @retval RT_ERROR_NOT_FOUND the file is not open; or, without `create`, it has no such block.
    /// @retval RT_ERROR_NOT_READY with `create`: the file is being closed.
    virtual int GetBlock(IFMBlock*& block, const FMFileID& fileHandle, uint32_t blockID,
                         int create) = 0;

    /// Adds 1 to the attach count of an open file: the number of its users.
    /// @param fileHandle the identifier of the file.
    /// @retval RT_OK
    /// @retval RT_ERROR_INVALID_ARG `fileHandle` is #FMFileID_None.
    /// @retval RT_ERROR_NOT_FOUND the file is not open.
    virtual int AttachFile(const FMFileID& fileHandle) = 0;

    /// Subtracts 1 from the attach count. If the result is 0 or below, the file is closed; so one call closes
    /// a file that was never attached. The call does not wait for stores. If the file is temporary, the
    /// read/write thread removes it from disk. Otherwise a later event on the caller thread writes the block
    /// table if it has changed, after the stores of its blocks have run. Loads that have not begun read
    /// nothing, and their sinks are called with #RT_ERROR_NOT_READY.
    ///
    /// References to a closed file or to its blocks stay valid, and the blocks that are in memory stay
    /// readable. Others can be loaded until UnInitialize, unless the file was temporary or another file has
    /// taken over its pair of files on disk. IFMBlock::WriteData fails with #RT_ERROR_NOT_READY.
    /// @param fileHandle the identifier of the file.
    /// @retval RT_OK
    /// @retval RT_ERROR_INVALID_ARG `fileHandle` is #FMFileID_None.
    /// @retval RT_ERROR_NOT_FOUND the file is not open.
    virtual int DetachFile(const FMFileID& fileHandle) = 0;

protected:
    virtual ~IFileManager();
};

/// For FMWaitUntilIdle: no time limit.
constexpr uint32_t FM_WAIT_FOREVER = 0xFFFFFFFF;

/// Waits until the caller thread and the read/write thread are idle: all events that were queued at the call
/// have run, and so have all events that these have posted to either thread, for example the completion of a
/// load or the write of a closed file's block table. It is meant for tests and tools.
///
/// Call it on any thread except the read/write thread. On the caller thread it runs the events and due timers
/// of that thread. On another thread it waits until the caller thread runs them. An event or a sink may call
/// it; the event that is running does not count as queued. Before IFileManager::Initialize and after
/// IFileManager::UnInitialize it waits for the caller thread only.
/// @param milliseconds time limit in ms for events that other events post. The limit does not apply to events
///     that were queued at the call: if the disk is slow, the function waits for them without a limit.
/// @retval RT_OK both threads are idle.
/// @retval RT_ERROR_NULL_OBJECT the manager could not be created.
/// @retval RT_ERROR_NOT_READY the time limit was reached, the calling thread is the read/write thread, or one
///     of the two threads is stopping.
RT_EXPORT int FMWaitUntilIdle(uint32_t milliseconds = FM_WAIT_FOREVER);

/// As FMWaitUntilIdle, but does not wait: calls a function on the caller thread when both threads are idle, so the
/// event loop of the caller thread has to run. While the application keeps both threads busy, the function is not
/// called. Call it on the caller thread.
/// @param done called once, with RT_OK; after IFileManager::UnInitialize, as soon as the caller thread is idle. Or
///     with RT_ERROR_NOT_READY if one of the two threads takes no more events because it stops, or if the process is
///     ending. If the caller thread ends first, `done` is not called.
/// @retval RT_OK `done` will be called.
/// @retval RT_ERROR_INVALID_ARG `done` is empty.
/// @retval RT_ERROR_NULL_OBJECT the manager could not be created.
/// @retval RT_ERROR_NOT_READY the calling thread is not the caller thread, or it is stopping.
RT_EXPORT int FMCallWhenIdle(std::function<void(int result)> done);
/// @}
