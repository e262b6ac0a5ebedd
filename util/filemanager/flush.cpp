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

using Files = std::vector<CRtComAutoPtr<CFMFile>>;

// Queues the failed stores again, and fills `files`: those that a flush writes. Null if the manager is not initialized,
// or if this is not the caller thread.
CFileManager* BeginFlush(const char* call, Files& files) {
    CFMMistakes::CheckThread(call);
    CFileManager* const manager = CFileManager::IfAlive();
    if (!manager || !CRtEventQueue::IsCallerThread() || manager->GetReadwrThreadID() == 0)
        return nullptr;
    files = manager->GetLiveFiles().Get(nullptr);
    for (const auto& file : files)
        file->RetryFailedStores();
    return manager;
}

CFileManager* FlushStores(const char* call, Files& files) {
    CFileManager* const manager = BeginFlush(call, files);
    if (manager)
        manager->PostToReadwrThread(new CFMFunctorBase, 1, RT_PRIORITY_NORMAL);
    return manager;
}

struct AsyncFlush {
    CFileManager& manager;
    uint32_t run; // of the manager at the call
    Files files;  // at the call: the end does not wait for later ones
    FlushDone done;
};

int PostFlush(std::shared_ptr<AsyncFlush> flush);

// On the caller thread, behind the stores that were queued before the flush.
void EndFlush(const std::shared_ptr<AsyncFlush>& flush) {
    const auto& [manager, run, files, done] = *flush;
    if (!manager.IsRunning() || manager.GetRun() != run)
        return done(RT_ERROR_NOT_READY, {});
    // The table of a file that was closed in between may wait for stores that were queued after the flush.
    if (std::ranges::any_of(files, &CFMFile::IsClosing, &CRtComAutoPtr<CFMFile>::Get) &&
        RT_SUCCEEDED(PostFlush(flush)))
        return;
    Unsaved unsaved;
    const int result = manager.SaveAll(files, unsaved);
    done(result, unsaved);
}

int PostFlush(std::shared_ptr<AsyncFlush> flush) {
    CFileManager& manager = flush->manager;
    const auto end = [flush = std::move(flush)] { EndFlush(flush); };
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
        const int result = m_manager.SaveAll(m_files, unsaved);
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
                m_isSynced &= RT_SUCCEEDED((file->GetEntry().*sync)());
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
    const Files m_files = m_live.Get(nullptr, &m_ending);
    // Taken after m_files: an object that is destroyed in between is in one of them.
    CFMLiveFiles::Unsynced m_unsynced = m_live.TakeUnsynced();
    std::vector<CRtString> m_closed; // stems
    bool m_isSynced = true;
};

} // namespace

int FMFlush(std::vector<FMUnsavedBlock>& unsaved) {
    Files files;
    CFileManager* const manager = FlushStores("FMFlush", files);
    return manager ? manager->SaveAll(files, unsaved) : RT_ERROR_NOT_READY;
}

int FMSync(std::vector<FMUnsavedBlock>& unsaved) {
    Files files;
    CFileManager* const manager = FlushStores("FMSync", files);
    return manager ? CSync(*manager).Run(unsaved) : RT_ERROR_NOT_READY;
}

int FMFlushAsync(FlushDone done) {
    if (!done)
        return RT_ERROR_INVALID_ARG;
    Files files;
    CFileManager* const manager = BeginFlush("FMFlushAsync", files);
    if (!manager)
        return RT_ERROR_NOT_READY;
    return PostFlush(std::make_shared<AsyncFlush>(
        AsyncFlush{*manager, manager->GetRun(), std::move(files), std::move(done)}));
}

// After the stores: writes the tables.
int CFileManager::SaveAll(const std::vector<FileRef>& files, std::vector<FMUnsavedBlock>& unsaved) {
    unsaved.clear();
    bool isSaved = true;
    for (const FileRef& file : files) {
        if (file->HasUnsavedTable() && !file->IsClosing()) // closed, perhaps not unregistered yet
            isSaved &= file->SavePendingTable(unsaved);
        else if (IsRegistered(*file))
            isSaved &= file->SaveNow(unsaved);
    }
    std::stable_sort(unsaved.begin(), unsaved.end(),
                     [](auto& left, auto& right) { return left.fileID < right.fileID; });
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
