// FMFlush: writes the blocks and tables of all files. FMSync: to the device.
#include "FMDurability.h"

#include <algorithm>
#include <utility>

#include "FMCatalog.h"
#include "RtEventQueue.h"
#include "RtLog.h"
#include "RtResult.h"
#include "filemanager.h"
#include "fmblock.h"
#include "fmfunctor.h"
#include "mistakes.h"

namespace {

using Unsaved = std::vector<FMUnsavedBlock>;
using FlushDone = std::function<void(int result, const Unsaved& unsaved)>;

// Queues the failed stores again. Null if the manager is not initialized, or if this is not the caller thread.
CFileManager* BeginFlush(const char* call) {
    CFMMistakes::CheckThread(call);
    CFileManager* const manager = CFileManager::IfAlive();
    if (!manager || !CRtEventQueue::IsCallerThread() || manager->GetReadwrThreadID() == 0)
        return nullptr;
    for (const auto& file : manager->GetLiveFiles().Get(nullptr))
        file->RetryFailedStores();
    return manager;
}

int PostFlush(CFileManager& manager, uint32_t run, FlushDone done);

// Stores of a closed file, or of a predecessor that would remove the table of the open file on its path.
bool HasStores(CFileManager& manager, CFMFile& file) {
    const auto open = manager.FindOpenAt(file.GetPathID());
    return file.IsClosing() || (open && open.Get() != &file && !file.GetEntry().IsDetached());
}

// On the caller thread, behind the stores that were queued before the flush. `run`: that of the manager at that time.
void EndFlush(CFileManager& manager, uint32_t run, const FlushDone& done) {
    if (!manager.IsRunning() || manager.GetRun() != run)
        return done(RT_ERROR_NOT_READY, {});
    // A file that was closed or replaced in between may have queued stores after the flush.
    const bool isStoring = std::ranges::any_of(
        manager.GetLiveFiles().Get(nullptr), [&](auto& file) { return HasStores(manager, *file); });
    if (isStoring && RT_SUCCEEDED(PostFlush(manager, run, done)))
        return;
    Unsaved unsaved;
    const int result = manager.SaveAll(unsaved);
    done(result, unsaved);
}

int PostFlush(CFileManager& manager, uint32_t run, FlushDone done) {
    const auto end = [&manager, run, done = std::move(done)] { EndFlush(manager, run, done); };
    const auto post = [&manager, end] { manager.PostToCallerThread(new CFMCall(end), 0); };
    return manager.PostToReadwrThread(new CFMCall(post), 0);
}

// FMSync, after the stores.
class CSync {
public:
    explicit CSync(CFileManager& manager)
        : m_manager(manager), m_live(manager.GetLiveFiles()), m_dir(manager.GetDataDir()) {
        m_unsynced.closed.merge(m_ending);
        // On Windows, a file that is open can only be synced through its own handle.
        for (const auto& file : m_files) {
            CFMDiskEntry& entry = file->GetEntry();
            if (!entry.IsDetached() &&
                (m_unsynced.isEvery || m_unsynced.closed.erase(file->GetPathID()) > 0))
                entry.MarkUnsynced();
        }
        std::vector<CRtString> others;
        for (const FMFileID& id : m_unsynced.closed)
            m_closed.push_back(FMFileIDToString(id));
        if (m_unsynced.isEvery)
            m_isSynced = FMListCachedFiles(m_dir, m_closed, others) == RT_OK;
    }

    int Run(Unsaved& unsaved) {
        SyncFiles(&CFMDiskEntry::SyncData, FM_DATA_EXTENSION); // before a table names the bytes
        const int result = m_manager.SaveAll(unsaved);
        SyncFiles(&CFMDiskEntry::SyncTable, FM_INFO_EXTENSION);
        m_unsynced.Add({false, {}, {m_dir}}); // the tables may have been created
        for (const CRtString& dir : m_unsynced.dirs) {
            if (!RtOs::SyncPath(dir))
                Fail(dir, RtOs::GetErrno());
        }
        if (m_isSynced)
            return result;
        m_live.KeepUnsynced(std::move(m_unsynced));
        return RT_ERROR_IO;
    }

private:
    void SyncFiles(int (CFMDiskEntry::*sync)(), const char* extension) {
        for (const auto& file : m_files) {
            if (!(file->GetFileInfo().flag & FM_FILE_TEMPORARY)) // no later run loads it
                m_isSynced = RT_SUCCEEDED((file->GetEntry().*sync)()) && m_isSynced;
        }
        for (const CRtString& stem : m_closed)
            SyncFile(m_dir + stem + extension);
    }

    void SyncFile(const CRtString& path) {
        if (RtOs::SyncPath(path))
            return;
        const int error = RtOs::GetErrno();
        RtOs::FileStamp stamp;
        const bool isReplaced =
            RtOs::GetStamp(path, stamp) && !stamp.exists; // by a link, for example
        // Of all files of the directory, some are open in other processes.
        if (!isReplaced && !(m_unsynced.isEvery && RtOs::IsInUse(error)))
            Fail(path, error);
    }
    void Fail(const CRtString& path, int error) {
        m_isSynced = false;
        RT_LOG(RT_LOG_ERROR,
               "FMSync, system error " << RtOs::GetErrorText(error) << ", path=" << path);
    }

    CFileManager& m_manager;
    CFMLiveFiles& m_live;
    const CRtString& m_dir;
    std::set<FMFileID> m_ending;
    const std::vector<CFMLiveFiles::FileRef> m_files = m_live.Get(nullptr, &m_ending);
    // Taken after m_files: an object that is destroyed in between is in one of them.
    CFMLiveFiles::Unsynced m_unsynced = m_live.TakeUnsynced();
    std::vector<CRtString> m_closed; // stems
    bool m_isSynced = true;
};

} // namespace

int FMFlush(std::vector<FMUnsavedBlock>& unsaved) {
    CFileManager* const manager = BeginFlush("FMFlush");
    if (!manager)
        return RT_ERROR_NOT_READY;
    manager->PostToReadwrThread(new CFMFunctorBase, 1, RT_PRIORITY_NORMAL);
    return manager->SaveAll(unsaved);
}

int FMSync(std::vector<FMUnsavedBlock>& unsaved) {
    CFileManager* const manager = BeginFlush("FMSync");
    if (!manager)
        return RT_ERROR_NOT_READY;
    manager->PostToReadwrThread(new CFMFunctorBase, 1, RT_PRIORITY_NORMAL);
    return CSync(*manager).Run(unsaved);
}

int FMFlushAsync(FlushDone done) {
    if (!done)
        return RT_ERROR_INVALID_ARG;
    CFileManager* const manager = BeginFlush("FMFlushAsync");
    return manager ? PostFlush(*manager, manager->GetRun(), std::move(done)) : RT_ERROR_NOT_READY;
}

// After the stores: writes the tables.
int CFileManager::SaveAll(std::vector<FMUnsavedBlock>& unsaved) {
    unsaved.clear();
    bool isSaved = true;
    for (const auto& [id, file] : m_id2files)
        isSaved = file->SaveNow(unsaved) && isSaved;
    for (const FileRef& file : m_live.Get(nullptr)) { // closed files
        if (file->HasUnsavedTable() && !file->IsClosing())
            isSaved = file->SavePendingTable(unsaved) && isSaved;
    }
    return isSaved && unsaved.empty() ? RT_OK : RT_ERROR_IO;
}

bool CFMFile::SaveNow(std::vector<FMUnsavedBlock>& unsaved) {
    if (m_closed) // closing it has called the application
        return true;
    const bool isTemporary = (m_fileInfo.flag & FM_FILE_TEMPORARY) != 0; // no later run loads it
    bool isWritten = true;
    if (!isTemporary && !m_entry->IsDetached() && (m_fileFlag.load() & FLAG_INFO_CHANGED))
        isWritten = WriteTableNow();
    for (const auto& block : m_blocks) {
        if (!block || block->GetPosition() == 0 || block->IsDamaged())
            continue;
        if (isTemporary ? block->IsOnDiskNow() : block->SurvivesKill())
            continue;
        if (!block->IsComplete()) // its store changes the table
            continue;
        unsaved.push_back({m_fileInfo.fileID, block->GetBlockID()});
        MarkInfoChanged(); // the table on disk does not name its bytes
    }
    return isWritten;
}

// A table that cannot be written does not stay pending as that of a closed file does: the next store makes it
// stale. The next flush, or the closing of the file, takes a new one.
bool CFMFile::WriteTableNow() {
    bool isIdle = false;
    if (!TakeTable(isIdle))
        return false;
    std::vector<FMBlockEntry> slots; // stores that end later are not in this table
    {
        const auto lock = m_stores.LockShared();
        slots = m_stores.GetTable()->slots;
    }
    const uint32_t epoch = m_entry->GetEpoch();
    const bool isWritten = WriteTable();
    if (!isWritten) {
        DropTable();
        MarkInfoChanged();
        slots.clear(); // a failed write may have invalidated the older table
    }
    if (m_entry->GetEpoch() != epoch) // bytes were missing: resident blocks are stored again
        MarkStoreFailed();
    const bool isLoadable = m_fileInfo.name.size() <= FM_INFO_NAME_MAX;
    uint32_t size = 0;
    slots.resize(isLoadable ? FMCountSavedSlots(slots, size) : 0);
    for (size_t i = 0; i < m_blocks.size(); ++i) {
        if (m_blocks[i])
            m_blocks[i]->SetNamed(i < slots.size() && slots[i].totalLen > 0);
    }
    return isWritten;
}

bool CFMFile::IsClosing() {
    const auto lock = m_stores.LockShared();
    return m_closed && m_stores.GetTable() && !m_stores.IsIdle();
}

bool CFMFile::SavePendingTable(std::vector<FMUnsavedBlock>& unsaved) {
    SaveFileInfo_m();
    const auto lock = m_stores.LockShared();
    if (const FMTable* table = m_stores.GetTable()) {
        for (const FMBlockEntry& entry : table->slots) {
            if (entry.totalLen > 0)
                unsaved.push_back({m_fileInfo.fileID, entry.blockID});
        }
    }
    return m_stores.GetTable() == nullptr;
}
