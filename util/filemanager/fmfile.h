// CFMFile: one cached file that the system holds open, behind IFMFile.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

#include "FMInfoCodec.h"
#include "IFMFile.h"
#include "RtReferenceControl.h"
#include "diskfile.h"
#include "fmblock.h"
#include "os/RtSpin.h"

constexpr uint32_t cmax_check_blocks = 131072;
constexpr int64_t cmax_filea_data_len = 1073741824;

/// Holds the description, the block table and the two disk files. The table holds a reference on each
/// block and each block one on its file: Close breaks that cycle.
///
/// Threads: the caller thread, except where a member says otherwise. The disk files are used on the
/// caller thread while the file is loaded and when its information is written, else on the read/write
/// thread; the disk mutex keeps the two apart.
class CFMFile final : public CRtCounted<IFMFile> {
public:
    explicit CFMFile(const FMFileInfo& fileInfo);
    explicit CFMFile(const CRtString& stem);

    int GetBlock(IFMBlock*& block, uint32_t blockID, int create) noexcept override;
    int RemoveBlock(uint32_t blockID, IFMBlock*& block) noexcept override;
    const FMBlockTable& GetBlocks() override { return m_blocks; }
    void CancelRetrieve(ISDUser* node, int bRemoveOwner) noexcept override;
    const FMFileInfo& GetFileInfo() override { return m_fileInfo; }

    bool HasDiskFiles() const { return m_diskFile && m_infoFile; }
    /// Null once another object has taken the path over. Any thread.
    CDiskFile* GetDiskFile() {
        return m_retired.load(std::memory_order_acquire) ? nullptr : m_diskFile.Get();
    }
    void AllocPosition(int64_t& offset, uint32_t length);
    void FreeBlocksMemory();
    void Close(int sync);

    // Marks, set by blocks on either thread.
    void MarkDataInMemory() { m_fileFlag.fetch_or(FLAG_DATA_IN_MEMORY); }
    void MarkInfoChanged() { m_fileFlag.fetch_or(FLAG_INFO_CHANGED); }

    int SaveFileInfo();
    void SaveFileInfo_m(CRtMessageBlock* fileBody, CRtMessageBlock* blockBody) noexcept;
    int LoadFileInfo();
    int LoadBlokInfo();
    /// Writes the information that waits to be written, instead of its event.
    void SaveWaitingInfo();
    void DropWaitingInfo();
    bool IsInfoWaiting() const { return m_infoWaiting.load(std::memory_order_acquire); }

    /// On the read/write thread, on an object that was made from a stem for this.
    int IsHouseKeeping();
    void ClerDiskFile_m();

    /// The lock between the two threads over the blocks' place, length, position and store. The caller
    /// thread alone changes those, under it; the read/write thread reads them under it.
    [[nodiscard]] std::unique_lock<std::mutex> LockTransfer() {
        return SpinThenLock(m_transferMutex);
    }
    /// Over the two disk files and what is known of them. Taken before the transfer mutex.
    std::mutex& GetDiskMutex() { return m_diskMutex; }
    /// Stores that are queued or running. Counted up on the caller thread.
    void StorePosted() { m_pendingStores.fetch_add(1, std::memory_order_relaxed); }
    void StoreEnded() { m_pendingStores.fetch_sub(1, std::memory_order_acq_rel); }
    /// A store failed: the next tick tries again. Either thread.
    void MarkStoreFailed() { m_storeFailed.store(true, std::memory_order_release); }
    void RetryFailedStores();
    /// Removes what an earlier file of this identifier left on disk, its information first, before this
    /// file's first byte is written. Any thread, while the other does not use the disk files. 0, 10006.
    int DiscardPredecessor();
    /// Keeps other processes out of the data file, if there is one. False when one of them has it.
    bool TakeDiskFile();
    /// Others in this process may take the path: nothing of this file runs on the read/write thread now.
    void CloseStreams();
    /// Both on the read/write thread, before bytes are read, or written at `pos`: the data file is open
    /// and still this file's, and the information file says nothing of the bytes that the write changes.
    /// `entryAt`: the entry that names the place, or 0. Under the disk mutex.
    /// 0, 10006, 10015 when the file is another's now.
    int PrepareLoad();
    int PrepareStore(int64_t pos, uint32_t length, uint32_t entryAt);
    /// How often a store has left a gap behind it, and whether the range [pos, end) lies in one that came
    /// since then: its bytes were cut off the data file before. Under the transfer mutex.
    size_t CountGaps();
    bool IsInGap(size_t since, int64_t pos, int64_t end) const;
    /// Another object takes the path over; nothing of this one runs on the read/write thread now.
    void Retire();
    /// A closed file takes no more blocks, and blocks that its users hold are stored no more.
    bool IsClosed() const { return m_closed; }
    /// The identifier that the path spells; the stored one may be another.
    const FMFileID& GetPathID() const { return m_pathID; }
    void SetRegistered() { m_registered = true; }

private:
    enum : uint32_t { FLAG_DATA_IN_MEMORY = 1, FLAG_INFO_CHANGED = 2 };

    ~CFMFile() override;
    void MakeDiskFiles(const CRtString& stem);
    int CheckValid();
    void ReleaseBlocks();
    int GrowTable(uint32_t blockID);
    bool IsBlockidOK(uint32_t blockID) const;

    std::vector<FMBlockEntry> DescribeBlocks();
    FMBlockEntry DescribeBlock(CFMBlock& block);
    void PostInfo(CRtMessageChain fileBody, CRtMessageChain blockBody);
    void EndWaiting();
    void PostInfo_m(CRtMessageBlock* fileBody, CRtMessageBlock* blockBody);
    int RemoveLostBytes(CRtMessageChain& table);
    size_t GetGapsNow(); // takes the transfer mutex
    bool IsLostSince(size_t gaps, const FMBlockEntry& entry);
    int LimitTable();
    bool RestoreBlocks(const std::vector<FMBlockEntry>& slots);
    std::vector<bool> FindDoubtful(std::vector<FMBlockEntry> slots, const std::vector<bool>& shared,
                                   int64_t dataLength);
    void RestorePlace(CFMBlock& block, const FMBlockEntry& entry, CFMBlock::Origin origin,
                      int64_t dataLength);
    void LogEntry(const char* what, const FMBlockEntry& entry);
    int NoteGap(int64_t begin, int64_t end);
    int InvalidateTable();
    int Revoke(uint32_t entryAt);
    void NoteOwnChange();
    int HoldFiles();
    int HoldDiskFile();
    int CheckOpening();
    bool IsTakenByOthers(const RtOs::FileStamp& info) const;

    FMFileInfo m_fileInfo;
    uint32_t m_createTime = 0; // seconds of the time of day
    FMBlockTable m_blocks;
    CRtComAutoPtr<CDiskFile> m_diskFile;
    CRtComAutoPtr<CInfoFile> m_infoFile;
    int64_t m_position = 0;              // the next free offset of the data file
    std::atomic<uint32_t> m_fileFlag{0}; // either thread
    friend class CFileManager;           // which alone changes the attach count
    int32_t m_attachCount = 0;

    FMFileID m_pathID = FMFileID_None;
    bool m_registered = false;
    bool m_closed = false;
    bool m_isInfoWithheld = false;      // the latest load failed for the disk, not for what it read
    std::atomic<bool> m_retired{false}; // set and read on both threads
    std::atomic<bool> m_overPredecessor{false}; // older files of this identifier may lie on disk
    std::mutex m_transferMutex;
    std::mutex m_diskMutex;
    std::atomic<uint32_t> m_pendingStores{0};
    std::atomic<bool> m_storeFailed{false}; // some block's, either thread

    // What is known of the files on disk; under the disk mutex.
    uint32_t m_openings = 0; // of the data file, that were looked into
    bool m_isInfoStampTrue = true;
    RtOs::FileStamp m_infoStamp; // of the information file, as this object left it
    int64_t m_tableEnd = 0;      // the furthest end that the information file names
    // Where it names bytes that are not there, and that new blocks may come to lie on.
    int64_t m_unbackedFrom = INT64_MAX;
    struct Gap {
        int64_t begin;
        int64_t end;
    };
    std::vector<Gap> m_gaps;        // under the transfer mutex, and so is the next
    bool m_isLastGapCounted = true; // somebody knows it as the last one, or there is none
    size_t m_gapsWhenEncoded = 0;   // of these, when the table was encoded

    // Information that waits to be written, beside the event that will write it.
    std::atomic<bool> m_infoWaiting{false}; // housekeeping looks at it
    CRtMessageChain m_waitingFileBody;
    CRtMessageChain m_waitingBlockBody;
    // Blocks whose store was not over when the table was encoded.
    std::vector<CRtComAutoPtr<CFMBlock>> m_unsettled;
};
