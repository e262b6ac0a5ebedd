/// @defgroup catalog Catalog of cached files
/// What is in a cache: the cached files of a directory, the state of each file and of its blocks, damage, and what
/// housekeeping will do. FMListCachedFiles and FMDescribeCachedFile open files for reading only, and FMJudgeExpiry
/// opens none: they change nothing. FMRemoveCachedFile and FMStartHousekeeping remove files. They write no log lines, except for damaged files and for a call on
/// the wrong thread.
///
/// A cached file is named by its *stem*, the name of its two files without the extension: the text of its
/// identifier (FMFileIDToString).
///
/// FMListCachedFiles, FMDescribeCachedFile and FMRemoveCachedFile can wait for the disk. They throw std::bad_alloc if
/// out of memory. Call them on no thread but the caller thread when the process has begun to exit. The log
/// lines of the decoder for a damaged file do not name the file: a line with its identifier and path follows them.
/// @{
#pragma once

#include <cstdint>
#include <vector>

#include "FMFileID.h"
#include "FMFileInfo.h"
#include "FMInfoCodec.h"
#include "RtExport.h"
#include "RtString.h"

/// The extensions of the two files of a cached file.
///@{
constexpr char FM_DATA_EXTENSION[] = ".sdd";
constexpr char FM_INFO_EXTENSION[] = ".sdi";
///@}
/// The store directory of a server, and the directory with the store directories of clients, below the data directory.
///@{
constexpr char FM_SERVER_STORE[] = "sdstore";
constexpr char FM_CLIENT_STORES[] = "confcache";
///@}

/// What a load makes of an entry of the block table. `Stored` means the same as in FMBlockCondition
/// (FMDurability.h), which is the state of a block that is open.
enum class FMSlotState : uint8_t {
    NoBlock,    ///< the slot has no block
    Stored,     ///< the data file contains all bytes of the block
    Empty,      ///< a block without bytes on disk
    Impossible, ///< an impossible range (FMIsEntryPossible): loaded without data
    Beyond,     ///< ends past the data file: loaded, but reading fails
    Overlaps,   ///< shares bytes with another entry: loaded without data
    Outside,    ///< an identifier outside the table: not loaded
    Replaced,   ///< a later entry has the same identifier: not loaded
};

/// Something that a check of a cached file has found. The texts are for people: English, without line end.
struct FMFinding {
    CRtString what;   ///< "block 3 ends at byte 5000, the data file at 4000"
    CRtString effect; ///< what the library does with it; can be empty
    bool isFault;     ///< damage; false: a note, which an undamaged cached file can have too
};

/// A cached file as FMDescribeCachedFile finds it. A plain value; copies are independent.
struct FMCachedFile {
    CRtString stem; ///< the name of its two files, without the extension
    /// The identifier whose text the stem is; #FMFileID_None if the stem is not such a text. The library opens no
    /// file with such a stem.
    FMFileID fileID = FMFileID_None;

    /// Whether the information file and the data file exist, as regular files, and their lengths in bytes.
    ///@{
    bool hasInfo = false;
    bool hasData = false;
    uint64_t infoLength = 0;
    uint64_t dataLength = 0;
    ///@}
    /// A link, a pipe or a device has the name of the data file. Nothing can be read from it. Housekeeping removes
    /// it as it does a data file.
    bool isDataSpecial = false;

    /// The file is open in this process: IFileManager::OpenFile returns it without a load.
    bool isOpenHere = false;
    /// Another process holds the exclusive lock on the data file. A process holds it while it has the file open,
    /// except for the files that it used least recently if it has too many open (docs/reliability.md). The
    /// information file can be missing or older than the data file; this is not damage.
    bool isOpenElsewhere = false;

    /// The information file exists, but could not be opened or read, for example for lack of permission; or a
    /// directory has its name.
    bool isUnreadable = false;
    /// Why the information file cannot be loaded, as a predicate: "has a damaged description". Empty if it can be
    /// loaded or does not exist.
    CRtString infoFault;
    /// `info` and `createTime` (seconds since 1970; 0 if it was not stored) are valid.
    ///@{
    bool isDescribed = false;
    FMFileInfo info;
    uint32_t createTime = 0;
    ///@}
    /// IFileManager::OpenFile with `load` would open the file, judging by the contents of the two files. Locks and
    /// access rights can still prevent it.
    bool isLoadable = false;

    /// The block table contains all entries that it announces.
    bool isTableComplete = false;
    /// The block table: an entry for each slot, and its state. A file that is open in this process: the table
    /// that a close would write now. A block that is not in the data file yet is FMSlotState::Empty.
    ///@{
    std::vector<FMBlockEntry> entries;
    std::vector<FMSlotState> states;
    ///@}
    uint64_t slots = 0;        ///< slots up to the last one with a block
    uint32_t highestBlock = 0; ///< identifier of the last block; 0 if there is none
    uint64_t storedBlocks = 0; ///< blocks in FMSlotState::Stored
    /// Sum of the lengths of the blocks with a possible range, in bytes, whether or not the data file contains them.
    uint64_t blockBytes = 0;

    std::vector<FMFinding> findings; ///< if `isLoadable` is false, the first finding says why
};

/// Lists the cached files of a directory by their names. Opens none of the files.
/// @param directory a store directory: `sdstore` below the data directory of a server, `confcache/PID` below that
///     of a client. Any thread. Empty: the store directory of the running manager, on the caller thread. Then the
///     list includes files that are open in this process and not yet on disk. If a file has just been closed, the
///     call waits until its table is written, as IFileManager::OpenFile does.
/// @param[out] stems the stems, sorted byte by byte. Each has an information file or a data file, or both. A link, a
///     pipe or a device with the name of a data file counts as one, because housekeeping examines it.
/// @param[out] others the names of all other entries of the directory, sorted.
/// @retval RT_OK
/// @retval RT_ERROR_NOT_FOUND there is no such directory, or it cannot be opened.
/// @retval RT_ERROR_NOT_READY `directory` is empty, and the manager is not running or the calling thread is not the
///     caller thread.
RT_EXPORT int FMListCachedFiles(const CRtString& directory, std::vector<CRtString>& stems,
                                std::vector<CRtString>& others);

/// Describes a cached file and checks its information file against its data file by the rules of a load. Reads the
/// information file with one system call, up to the largest length that is valid. Reads no bytes of blocks.
/// @param directory as for FMListCachedFiles. Empty: a file that is open in this process is described from its live
///     object, and any other one from disk. If the directory is given, all files are described from disk.
/// @param stem the stem.
/// @param[out] file the description; only valid with #RT_OK.
/// @retval RT_OK also for a damaged file.
/// @retval RT_ERROR_INVALID_ARG `stem` is empty, or contains a separator of paths or a NUL byte.
/// @retval RT_ERROR_NOT_FOUND the file has neither an information file nor a data file, and is not open.
/// @retval RT_ERROR_NOT_READY `directory` is empty, and the manager is not running or the calling thread is not the
///     caller thread.
RT_EXPORT int FMDescribeCachedFile(const CRtString& directory, const CRtString& stem,
                                   FMCachedFile& file);

/// What housekeeping will do with a cached file.
struct FMExpiry {
    /// When housekeeping removes the file.
    enum class When : uint8_t {
        NextRun, ///< the next run removes it
        Later,   ///< the first run at or after `dueTime` removes it
        Never,   ///< no run removes it
        /// The file is due, but open in a process; or its information file could not be read.
        Unknown,
    };
    When when = When::Never; ///< the prediction
    int64_t dueTime = 0;     ///< in seconds since 1970, for When::Later
    CRtString reason;        ///< for people: "temporary", "no information file", "12 days old"
};

/// Predicts what housekeeping of a server will do with a cached file, by the rule that housekeeping applies. Any
/// thread.
/// @param file a description by FMDescribeCachedFile.
/// @param clearDays the argument of IFileManager::Initialize, 1 or more. With 0 a server clears its cache.
/// @param now the time to judge for, in seconds since 1970.
RT_EXPORT FMExpiry FMJudgeExpiry(const FMCachedFile& file, uint16_t clearDays, int64_t now);

/// Returns the age of a file in full days, as housekeeping counts it: 0 if `createTime` is in the future. Any
/// thread.
/// @param createTime in seconds since 1970.
/// @param now in seconds since 1970.
RT_EXPORT int64_t FMAgeInDays(uint32_t createTime, int64_t now);

/// Removes a cached file, with the exclusive lock on its data file held as for a load: no process opens the file between
/// the check of the lock and the removal (on Windows, which removes no file with an open handle, the lock is released
/// just before the data file is removed). The information file is removed first: a failure leaves at most a data file
/// without information file, which does not load. If the data file is missing, it is created for the lock. Any thread;
/// not with an empty `directory`.
/// @param directory the directory with the files.
/// @param stem the stem; it need not be an identifier.
/// @param force also remove a file that is open, or whose lock cannot be taken. A process that has the file open then
///     notices the removal at its next store or when it closes the file, and may write the file again.
/// @retval RT_OK both files are gone.
/// @retval RT_ERROR_INVALID_ARG `directory` or `stem` is empty, or `stem` contains a separator of paths or a NUL byte.
/// @retval RT_ERROR_NOT_FOUND there is neither an information file nor a data file.
/// @retval RT_ERROR_NOT_READY a process, this one included, has the file open; nothing was removed.
/// @retval RT_ERROR_IO the lock could not be taken, for example for lack of permission, or a file could not be removed;
///     `errno` tells why.
RT_EXPORT int FMRemoveCachedFile(const CRtString& directory, const CRtString& stem, bool force);

/// Queues a run of housekeeping now, the same as the daily one; the next daily run is 24 hours later. The run
/// examines one file per event of the read/write thread; FMWaitUntilIdle waits for its end. Caller thread.
/// @retval RT_OK the run is queued.
/// @retval RT_ERROR_NOT_SUPPORTED the manager runs as a client, which has no housekeeping.
/// @retval RT_ERROR_NOT_READY a run is queued or running, the manager is not running, its read/write thread could not
///     be started, or the calling thread is not the caller thread.
RT_EXPORT int FMStartHousekeeping();
/// @}
