// CFMDiskEntry: the data file and the information file of one path, and their state.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <span>
#include <vector>

#include "RtMessageBlock.h"
#include "RtResult.h"
#include "diskfile.h"
#include "fmstore.h"
#include "os/RtOs.h"

/// All disk operations of a cached file, in terms of byte ranges, the table on disk and the two files.
/// Independent of blocks, file objects and the manager.
///
/// The file object owns it. Every operation holds the mutex from start to end. It checks once, at its start,
/// that the files are still the ones that this object left, and then either completes or fails: no operation
/// opens a file a second time. Operations run on the read/write thread; on the caller thread only to write the
/// table, to settle a path before a load, and in UnInitialize.
///
/// Epochs. Every range that was stored belongs to the epoch in which it was stored. If the data file is
/// found shorter than this process left it, a new epoch begins: ranges of earlier epochs count as lost,
/// also those below the cut, so that truncated bytes cannot come back as zeros when the file grows
/// again.
class CFMDiskEntry {
public:
    /// `data` and `info` outlive this object; if one is null, the entry is detached. `overPredecessor`: the path may
    /// have files of a predecessor; the first store removes them.
    CFMDiskEntry(CDiskFile* data, CInfoFile* info, bool overPredecessor);
    CFMDiskEntry(const CFMDiskEntry&) = delete;
    CFMDiskEntry& operator=(const CFMDiskEntry&) = delete;

    struct Stored {
        /// RT_OK; RT_ERROR_IO; RT_ERROR_NOT_READY: another object has the path, or memory for the disk files was missing
        int result;
        uint32_t epoch;
    };
    /// Writes adjacent pieces, RtOs::PIECES_MAX at most, at `pos`. Before that, it removes what a predecessor
    /// left, begins a new epoch if the data file has become shorter, and revokes the entries of the table on
    /// disk that name a byte of the range, or a byte beyond the end of the data file.
    Stored Store(std::span<const RtOs::Piece> pieces, int64_t pos);
    /// Reads the range into a new buffer. RT_OK; RT_ERROR_IO: the range is lost, lies beyond the data file
    /// or cannot be read; RT_ERROR_NULL_OBJECT: out of memory; RT_ERROR_NOT_READY as for Store.
    int Load(int64_t pos, uint32_t length, uint32_t epoch, CRtMessageChain& bytes);
    struct TableWritten {
        int description; ///< RT_OK; RT_ERROR_IO; RT_ERROR_NOT_READY as for Store
        int table;       ///< the same; RT_ERROR_FAILURE: out of memory
        uint32_t left;   ///< slots that the format cannot hold
        /// Nothing is left to be written: done, or the path belongs to another object.
        bool IsOver() const {
            return description == RT_ERROR_NOT_READY ||
                   (RT_SUCCEEDED(description) && RT_SUCCEEDED(table));
        }
    };
    /// Writes the information file. If bytes are missing from the data file, a new epoch begins first, and
    /// the entries of the table lose their bytes. Takes the pending table from `stores`, and puts it back if it
    /// could not be written. A no-op if there is none.
    TableWritten WriteTable(CFMStores& stores);
    /// What the system caches of the data file, or of the information file, goes to the device. RT_OK, RT_ERROR_IO.
    int SyncData() { return Sync(m_pData); }
    int SyncTable() { return Sync(m_pInfo); }
    /// A predecessor on the same path has not synced what it has written.
    void MarkUnsynced();
    /// Whether FMSync has to sync what this object has written. For the owner's destructor, which locks nothing.
    bool IsUnsynced() const;
    /// Removes both files, the information file first, and detaches. If the information file cannot be removed, both
    /// stay. A no-op if another process has locked the data file.
    void RemoveFiles();
    /// Removes the files of a predecessor. RT_OK, RT_ERROR_IO.
    int DiscardPredecessor();

    /// Another object takes the path over: from here on operations do not access it.
    /// Returns whether this object has not synced what it has written.
    bool Detach();
    bool IsDetached() const { return m_path.load(std::memory_order_acquire) == Path::Detached; }
    bool IsOverPredecessor() const {
        return m_path.load(std::memory_order_acquire) == Path::Predecessor;
    }
    /// Whether another process has locked the data file: it is locked, and not by this object. Any thread.
    bool IsLockedElsewhere();
    /// Closes both streams, and with the data file's the lock on it. The next operation opens them again.
    void CloseStreams();

    // --- Loading, before any other thread has access to this object -----------------------------------
    /// Locks the data file, if it exists. False if another process has locked it. Precondition: not detached.
    bool TakeDataFile();
    /// Records the furthest end that an entry of the loaded table names.
    void NoteTable(int64_t tableEnd, int64_t dataLength);

    uint32_t GetEpoch() const { return m_epoch.load(std::memory_order_acquire); }
    /// Called when the caller thread finds the data file missing or truncated: begins a new epoch; the next
    /// operation examines the path.
    void LoseData() { m_epoch.fetch_add(1, std::memory_order_acq_rel); }

private:
    enum class Path : uint8_t { Predecessor, Own, Detached };
    struct NamedRange {
        int64_t pos;
        int64_t end;
        uint32_t entryAt; // offset of the entry in the information file
    };

    std::unique_lock<std::mutex> Lock();
    int BeginStore(int64_t pos, int64_t end);
    int OpenData(CDiskFile::Transfer transfer);
    int HoldData();
    int CheckOpening();
    bool IsTakenByOthers(const RtOs::FileStamp& info) const;
    int NoteLength();
    int BeginTable();
    int WriteBlockBody(const FMTable& table, uint32_t& left);
    int DiscardPredecessorLocked();
    void DetachLocked();
    void CloseStreamsLocked();
    int Sync(CDiskFile* file);
    int InvalidateTable();
    int Revoke(int64_t pos, int64_t end);
    bool IsNamed(int64_t pos, int64_t end) const;
    int ReadNamedRanges();
    void NoteInfo();
    bool CheckIsDue();

    std::mutex m_mutex; // held by every operation
    CDiskFile* const m_pData;
    CInfoFile* const m_pInfo;
    std::atomic<Path> m_path;                      // changed under the mutex
    std::atomic<uint32_t> m_epoch{FM_FIRST_EPOCH}; // changed under the mutex, and by LoseData
    // The rest under the mutex.
    uint32_t m_checkedEpoch = FM_FIRST_EPOCH; // the epoch when the path was last examined
    int64_t m_dataEnd = 0;                    // length of the data file as this object left it
    int64_t m_length = 0;                     // length of the data file as NoteLength found it
    int64_t m_tableEnd = 0;                   // furthest end that the table on disk names; 0: none
    uint32_t m_openings = 0;                  // openings of the data file that were examined
    RtOs::FileStamp m_infoStamp; // fingerprint of the information file as this object left it
    bool m_isInfoKnown;
    bool m_isNamedRead = false;      // whether m_named holds the ranges of the table on disk
    std::vector<NamedRange> m_named; // by position
    int64_t m_longestNamed = 0;      // length of the longest of them
};
