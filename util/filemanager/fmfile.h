// CFMFile: one open cached file, implements IFMFile.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "FMCatalog.h"
#include "FMDurability.h"
#include "FMInfoCodec.h"
#include "fmblock.h"
#include "fmblockowner.h"
#include "fmdiskentry.h"
#include "fmstore.h"

constexpr uint32_t cmax_check_blocks = 131072;

/// Holds the description, the block table and the disk entry (CFMDiskEntry). The table holds a reference to
/// each block, and each block one to its file: Close breaks that cycle.
///
/// Threads: the caller thread, except where a member says otherwise. A file that housekeeping examines is an
/// separate object, which only the read/write thread uses.
class CFMFile final : public CFMBlockOwner {
public:
    explicit CFMFile(const FMFileInfo& fileInfo);
    explicit CFMFile(const CRtString& stem);

    int GetBlock(IFMBlock*& block, uint32_t blockID, int create) noexcept override;
    int RemoveBlock(uint32_t blockID, IFMBlock*& block) noexcept override;
    const FMBlockTable& GetBlocks() override;
    void CancelRetrieve(ISDUser* node, int bRemoveOwner) noexcept override;
    const FMFileInfo& GetFileInfo() override { return m_fileInfo; }

    // CFMBlockOwner
    void AllocPosition(int64_t& offset, uint32_t length) override;
    bool IsClosed() const override { return m_closed; }
    CRtString GetLogName() const override;
    void MarkDataInMemory() override { m_fileFlag.fetch_or(FLAG_DATA_IN_MEMORY); }
    void MarkInfoChanged() override { m_fileFlag.fetch_or(FLAG_INFO_CHANGED); }
    void MarkStoreFailed() override { m_fileFlag.fetch_or(FLAG_STORE_FAILED); }
    CDiskFile* GetDiskFile() override { return m_entry->IsDetached() ? nullptr : m_diskFile.Get(); }
    CFMDiskEntry& GetEntry() override { return *m_entry; }
    CFMStores& GetStores() override { return m_stores; }

    void FreeBlocksMemory();
    void Close(int sync);
    /// Queues resident blocks again whose store has failed or whose bytes were lost on disk.
    void RetryFailedStores();

    int SaveFileInfo();
    /// Writes the pending table, if there is one. If that fails, ticks and UnInitialize retry it.
    void SaveFileInfo_m() noexcept;
    /// The path of the information file; empty if the file has no disk files.
    CRtString GetInfoPath() const {
        return m_entry->IsDetached() ? CRtString() : m_infoFile->GetFileName();
    }
    int LoadFileInfo();
    int LoadBlokInfo();
    bool HasUnsavedTable();
    /// Writes the table of an open file if it has changed. Adds the complete blocks that would be lost by a kill.
    /// False if the table could not be written.
    bool SaveNow(std::vector<FMUnsavedBlock>& unsaved);
    /// The file was closed, and stores that its pending table waits for have not ended.
    bool IsClosing();
    /// Writes the pending table of a closed file. If that fails, adds the blocks that it names.
    bool SavePendingTable(std::vector<FMUnsavedBlock>& unsaved);
    /// Whether the process would lose changes of this file by ending now.
    bool IsUnsaved();
    uint32_t GetCreateTime() const { return m_createTime; }
    /// The entries of the table that a close would write now.
    std::vector<FMBlockEntry> GetEntries();
    void DropTable();

    /// On the read/write thread, on an object created from a stem for housekeeping.
    int IsHouseKeeping();
    void ClerDiskFile_m();

    /// Another object takes the path over: writes the pending table, then detaches from the files. On the
    /// read/write thread, after all jobs that this object has posted.
    void Detach_m();
    /// The identifier in the path; the one in the information file may differ.
    const FMFileID& GetPathID() const { return m_pathID; }
    void SetRegistered() { m_registered = true; }

private:
    enum : uint32_t {
        FLAG_DATA_IN_MEMORY = 1,
        FLAG_INFO_CHANGED = 2,
        FLAGS_LOGGED = 3,
        FLAG_STORE_FAILED = 4, ///< a block's store failed, or its bytes were lost on disk
    };
    enum class Info { Loaded, Damaged, Unreadable };

    ~CFMFile() override;
    void MakeDiskFiles(const CRtString& stem, bool overPredecessor);
    int CheckValid();
    void ReleaseBlocks();
    int GrowTable(uint32_t blockID);
    bool IsBlockidOK(uint32_t blockID) const;
    void CheckDataFile();

    bool TakeTable(bool& isIdle);
    bool DescribeBlocks(std::unique_ptr<FMTable> table);
    void PostTable(bool isIdle);
    void PostTable_m();
    bool WriteTable();
    size_t CountLostBlocks();
    bool WriteTableNow();
    Info LoadInfo(uint32_t readAhead);
    Info ExplainFailure(int ret);
    int DecodeInfo(CRtMessageBlock& body);
    void LimitTable();
    bool RestoreBlocks(const std::vector<FMBlockEntry>& slots);
    void RestorePlace(CFMBlock& block, const FMBlockEntry& entry, FMSlotState state);
    void LogEntry(const char* what, const FMBlockEntry& entry);

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
    bool m_closed = false; // the caller thread changes it under the lock of the stores
    CFMStores m_stores;    // either thread
    std::optional<CFMDiskEntry> m_entry; // either thread; set by the constructor
};
