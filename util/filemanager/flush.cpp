// FMFlush: writes the blocks and tables of all files. FMGetBlockStatus.
#include "FMDurability.h"

#include <memory>
#include <utility>

#include "RtEventQueue.h"
#include "RtResult.h"
#include "RtRuntime.h"
#include "filemanager.h"
#include "fmblock.h"
#include "fmfunctor.h"
#include "mistakes.h"

namespace {

using Unsaved = std::vector<FMUnsavedBlock>;
using FlushDone = std::function<void(int result, const Unsaved& unsaved)>;

// The manager if it can flush on this thread, with the failed stores queued again.
CFileManager* BeginFlush() {
    CFileManager* const manager = CFileManager::IfAlive();
    if (!manager || !CRtEventQueue::IsCallerThread() || manager->GetReadwrThreadID() == 0)
        return nullptr;
    for (const auto& file : manager->GetLiveFiles().Get(nullptr))
        file->RetryFailedStores();
    return manager;
}

// Runs behind the stores that were queued before.
class CFlushEvent final : public CFMFunctorBase {
public:
    explicit CFlushEvent(FlushDone done) : m_done(std::move(done)) {}
    int OnEventFire() override {
        const auto end = [done = std::move(m_done)] {
            Unsaved unsaved;
            if (CFileManager* manager = CFileManager::IfAlive())
                done(manager->SaveAll(unsaved), unsaved);
        };
        RtRunOnCallerThread(end, false);
        return RT_OK;
    }

private:
    FlushDone m_done;
};

} // namespace

int FMFlush(std::vector<FMUnsavedBlock>& unsaved) {
    CFileManager* const manager = BeginFlush();
    if (!manager)
        return RT_ERROR_NOT_READY;
    manager->PostToReadwrThread(new CFMFunctorBase, 1, RT_PRIORITY_NORMAL);
    return manager->SaveAll(unsaved);
}

int FMFlushAsync(FlushDone done) {
    if (!done)
        return RT_ERROR_INVALID_ARG;
    CFileManager* const manager = BeginFlush();
    return manager ? manager->PostToReadwrThread(new CFlushEvent(std::move(done)), 0)
                   : RT_ERROR_NOT_READY;
}

// After the stores: writes the tables.
int CFileManager::SaveAll(std::vector<FMUnsavedBlock>& unsaved) {
    unsaved.clear();
    for (const auto& [id, file] : m_id2files)
        file->SaveNow(unsaved);
    for (const FileRef& file : m_live.Get(nullptr)) { // closed files
        if (file->HasUnsavedTable())
            file->SavePendingTable(unsaved);
    }
    return unsaved.empty() ? RT_OK : RT_ERROR_IO;
}

void CFMFile::SaveNow(std::vector<FMUnsavedBlock>& unsaved) {
    const bool isTemporary = (m_fileInfo.flag & FM_FILE_TEMPORARY) != 0; // no later run loads it
    if (!isTemporary && !m_entry->IsDetached() && (m_fileFlag.load() & FLAG_INFO_CHANGED))
        WriteTableNow();
    for (const auto& block : m_blocks) {
        if (!block || block->GetPosition() == 0)
            continue;
        if (isTemporary ? block->IsOnDiskNow() : block->SurvivesKill())
            continue;
        if (block->IsComplete())
            unsaved.push_back({m_fileInfo.fileID, block->GetBlockID()});
        MarkInfoChanged(); // the table on disk does not name its bytes
    }
}

// A table that cannot be written does not stay pending as that of a closed file does: it would be out of date after
// the next store. The next flush, or the closing of the file, takes a new one.
void CFMFile::WriteTableNow() {
    bool isIdle = false;
    if (!TakeTable(isIdle))
        return;
    std::vector<FMBlockEntry> slots; // stores that end later are not in this table
    {
        const auto lock = m_stores.LockShared();
        slots = m_stores.GetTable()->slots;
    }
    if (!WriteTable()) {
        DropTable();
        return MarkInfoChanged();
    }
    const bool isLoadable =
        FM_INFO_FILE_BODY_FIXED + m_fileInfo.name.size() <= FM_INFO_FILE_BODY_MAX;
    slots.resize(isLoadable ? FMCountSavedSlots(slots) : 0);
    for (size_t i = 0; i < m_blocks.size(); ++i) {
        if (m_blocks[i])
            m_blocks[i]->SetNamed(i < slots.size() && slots[i].totalLen > 0);
    }
}

void CFMFile::SavePendingTable(std::vector<FMUnsavedBlock>& unsaved) {
    SaveFileInfo_m();
    const auto lock = m_stores.LockShared();
    if (const FMTable* table = m_stores.GetTable()) {
        for (const FMBlockEntry& entry : table->slots) {
            if (entry.totalLen > 0)
                unsaved.push_back({m_fileInfo.fileID, entry.blockID});
        }
    }
}

// --- The state of a block -----------------------------------------------------------------------

FMBlockStatus FMGetBlockStatus(IFMBlock& block) {
    return static_cast<CFMBlock&>(block).GetStatus(); // the only implementation of the interface
}

FMBlockStatus CFMBlock::GetStatus() const {
    CFMMistakes::CheckThread("FMGetBlockStatus");
    return {GetCondition(), m_data != nullptr, SurvivesKill()};
}

FMBlockCondition CFMBlock::GetCondition() const {
    switch (m_state.load(std::memory_order_acquire)) {
    case State::Empty:
        return FMBlockCondition::Empty;
    case State::Filling:
        return FMBlockCondition::Filling;
    case State::Queued:
    case State::Writing:
        return FMBlockCondition::Pending;
    case State::Failed:
        return FMBlockCondition::Failed;
    default:
        return IsOnDiskNow() ? FMBlockCondition::Stored : FMBlockCondition::Lost;
    }
}

bool CFMBlock::IsOnDiskNow() const {
    return IsOnDisk() && m_onDisk.epoch == m_file->GetEntry().GetEpoch() &&
           !m_file->GetEntry().IsDetached();
}
