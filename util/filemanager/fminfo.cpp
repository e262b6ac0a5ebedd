// The information file of a file object: saved at close, loaded at open.
#include <algorithm>

#include "RtLog.h"
#include "RtResult.h"
#include "RtTimeValue.h"
#include "fmfile.h"
#include "fmfunctor.h"
#include "fmhost.h"
#include "fmrules.h"
#include "os/RtOs.h"

// --- Saving -------------------------------------------------------------------------------------

int CFMFile::SaveFileInfo() {
    if (!(m_fileFlag.load() & FLAG_INFO_CHANGED))
        return 1;
    bool isIdle = false;
    if (!TakeTable(isIdle))
        return 0;
    PostTable(isIdle);
    return 1;
}

// Makes the pending table from the live objects. `isIdle`: no store is pending. False if the description cannot be
// encoded.
bool CFMFile::TakeTable(bool& isIdle) {
    CRtMessageChain fileBody;
    if (const int ret = FMEncodeFileBody(m_fileInfo, m_createTime, fileBody); RT_FAILED(ret)) {
        RT_LOG(RT_LOG_ERROR,
               "CFMFile::SaveFileInfo, Encode file info error, ret=" << ret << " this=" << this);
        return false;
    }
    m_fileFlag.fetch_and(~uint32_t{FLAG_INFO_CHANGED});
    auto table = std::make_unique<FMTable>();
    table->fileBody = fileBody->FlattenChained();
    table->slots.resize(m_blocks.size());
    isIdle = DescribeBlocks(std::move(table));
    return true;
}

// Under one lock: a store that ends later finds the pending table and adds its entry. Returns whether no
// store is pending.
bool CFMFile::DescribeBlocks(std::unique_ptr<FMTable> table) {
    const auto lock = m_stores.LockShared();
    table->epoch = m_entry->GetEpoch();
    for (uint32_t i = 0; i < m_blocks.size(); ++i) {
        if (!m_blocks[i])
            continue;
        if (m_blocks[i]->GetBlockID() == 0) {
            RT_LOG(RT_LOG_WARNING, "CFMFile::SaveFileInfo, block 0 cannot be saved, "
                                       << GetLogName() << " this=" << this);
            continue;
        }
        uint32_t serial = 0;
        table->slots[i] = m_blocks[i]->Describe(table->epoch, serial);
        if (serial != 0)
            table->awaited.push_back({serial, i});
    }
    m_stores.SetTable(std::move(table));
    return m_stores.IsIdle();
}

// The caller thread writes the table, after the stores of the blocks that it names. If a store is pending, or
// files of a predecessor have not been removed, the request passes through the read/write thread's queue first.
void CFMFile::PostTable(bool isIdle) {
    if (isIdle && !m_entry->IsOverPredecessor())
        FMHost::PostToCallerThread(new CFMRefFunctor0(this, &CFMFile::SaveFileInfo_m), 0);
    else
        FMHost::PostToReadwrThread(new CFMRefFunctor0(this, &CFMFile::PostTable_m), 0);
}

void CFMFile::PostTable_m() {
    m_entry->DiscardPredecessor();
    FMHost::PostToCallerThread(new CFMRefFunctor0(this, &CFMFile::SaveFileInfo_m), 0);
}

void CFMFile::SaveFileInfo_m() noexcept {
    const size_t lost = m_entry->IsDetached() ? 0 : CountLostBlocks();
    if (!WriteTable())
        return FMHost::KeepUnsaved(this);
    if (lost > 0)
        RT_LOG(RT_LOG_ERROR, "CFMFile::SaveFileInfo_m, blocks of the closed file that could not be "
                             "stored are lost: "
                                 << uint64_t{lost}
                                 << ". To find them before the close, call FMFlush. "
                                 << GetLogName() << " this=" << this);
}

// The stores that the table of a closed file awaited have ended: those that it still awaits have failed.
size_t CFMFile::CountLostBlocks() {
    const auto lock = m_stores.LockShared();
    const FMTable* const table = m_stores.GetTable();
    return table ? table->awaited.size() : 0;
}

// False if the table could not be written: it stays pending.
bool CFMFile::WriteTable() {
    const CFMDiskEntry::TableWritten written = m_entry->WriteTable(m_stores);
    if (RT_FAILED(written.description))
        RT_LOG(RT_LOG_ERROR, "CFMFile::SaveFileInfo_m, WriteFileInfo error, ret="
                                 << written.description << " this=" << this);
    else if (written.table == RT_ERROR_FAILURE)
        RT_LOG(RT_LOG_ERROR, "CFMFile::SaveFileInfo, Encode block info error  this=" << this);
    else if (RT_FAILED(written.table))
        RT_LOG(RT_LOG_ERROR, "CFMFile::SaveFileInfo_m, WriteBlockInfo error, ret="
                                 << written.table << " this=" << this);
    else if (written.left > 0)
        RT_LOG(RT_LOG_WARNING, "CFMFile::SaveFileInfo, table too large to save, slots left out="
                                   << written.left << "," << GetLogName() << " this=" << this);
    return written.IsOver();
}

bool CFMFile::HasUnsavedTable() {
    const auto lock = m_stores.LockShared();
    return m_stores.GetTable() != nullptr;
}

std::vector<FMBlockEntry> CFMFile::GetEntries() {
    std::vector<FMBlockEntry> entries(m_blocks.size());
    const auto lock = m_stores.LockShared();
    const uint32_t epoch = m_entry->GetEpoch();
    uint32_t serial = 0;
    for (size_t i = 0; i < entries.size(); ++i) {
        if (m_blocks[i] && m_blocks[i]->GetBlockID() != 0)
            entries[i] = m_blocks[i]->Describe(epoch, serial);
    }
    return entries;
}

void CFMFile::DropTable() {
    std::unique_ptr<FMTable> dropped;
    const auto lock = m_stores.LockShared();
    dropped = m_stores.TakeTable();
}

// --- Loading ------------------------------------------------------------------------------------

int CFMFile::LoadFileInfo() {
    constexpr uint32_t readAhead = 64 * 1024; // the tables of most files are smaller
    return LoadInfo(readAhead) == Info::Loaded ? 1 : 0;
}

CFMFile::Info CFMFile::LoadInfo(uint32_t readAhead) {
    char buffer[FM_INFO_FILE_BODY_MAX] = {};
    uint32_t length = sizeof(buffer);
    int ret = RT_ERROR_NOT_READY;
    if (m_infoFile) // a read would create a missing file, in a race with another process
        ret = m_infoFile->ReadAhead(readAhead) ? m_infoFile->ReaddFileInfo(buffer, &length)
                                               : RT_ERROR_IO;
    if (RT_FAILED(ret)) {
        RT_LOG(RT_LOG_ERROR,
               "CFMFile::LoadFileInfo, ReaddFileInfo error, ret=" << ret << " this=" << this);
        return ExplainFailure(ret);
    }
    ret = DecodeInfo(*CRtMessageBlock::Wrap(buffer, length));
    if (RT_FAILED(ret)) {
        RT_LOG(RT_LOG_ERROR,
               "CFMFile::LoadFileInfo, Decode file info error, ret=" << ret << " this=" << this);
        return Info::Damaged;
    }
    m_blocks.resize(m_fileInfo.num);
    return Info::Loaded;
}

CFMFile::Info CFMFile::ExplainFailure(int ret) {
    if (!m_infoFile)
        return Info::Unreadable;
    // A permanent failure: a link or a pipe on the path never becomes readable. Neither does a directory, but it
    // cannot be removed as a file.
    const CRtString& path = m_infoFile->GetFileName();
    RtOs::FileStamp info;
    const bool isNoFile = RtOs::GetStamp(path, info) && !info.exists && !FMIsDirectory(path, info);
    const bool isTransient = ret == RT_ERROR_IO && !m_infoFile->IsTooShort() && !isNoFile;
    return isTransient ? Info::Unreadable : Info::Damaged;
}

int CFMFile::DecodeInfo(CRtMessageBlock& body) {
    const FMDescription found = FMReadDescription(body, m_fileInfo, m_createTime);
    if (found == FMDescription::Sound)
        LimitTable();
    return found == FMDescription::Sound     ? RT_OK
           : found == FMDescription::Damaged ? RT_ERROR_FAILURE
                                             : RT_ERROR_INVALID_ARG;
}

// Bound `num` by the length of the file before a table is allocated for it.
void CFMFile::LimitTable() {
    const uint32_t slots = FMSlotsToLoad(m_fileInfo.num, m_infoFile->GetKnownLength());
    if (slots < m_fileInfo.num)
        RT_LOG(RT_LOG_WARNING, "CFMFile::LoadFileInfo, table larger than its file, num="
                                   << m_fileInfo.num << ",slots=" << slots << "," << GetLogName()
                                   << " this=" << this);
    m_fileInfo.num = slots;
}

int CFMFile::LoadBlokInfo() {
    uint32_t length = 0;
    int ret = m_infoFile->ReaddBlockInfo(nullptr, &length);
    if (RT_FAILED(ret) || length > FM_INFO_BLOCK_BODY_MAX) {
        RT_LOG(RT_LOG_ERROR, "CFMFile::LoadBlokInfo, ReaddBlockInfo first error, ret="
                                 << ret << ",length=" << length << " this=" << this);
        return 0;
    }
    if (!m_infoFile->Reaches(length))
        ret = RT_ERROR_IO; // it could not be read, and nothing is allocated for it
    CRtMessageChain body = RT_SUCCEEDED(ret) ? CRtMessageBlock::Create(length) : nullptr;
    if (RT_SUCCEEDED(ret))
        ret = body ? m_infoFile->ReaddBlockInfo(body->GetTopLevelWritePtr(), &length)
                   : RT_ERROR_NULL_OBJECT;
    if (RT_FAILED(ret)) {
        RT_LOG(RT_LOG_ERROR, "CFMFile::LoadBlokInfo, ReaddBlockInfo second error, ret="
                                 << ret << ",length=" << length << " this=" << this);
        return 0;
    }
    body->AdvanceTopLevelWritePtr(length);
    m_infoFile->DropReadAhead();
    RT_LOG(RT_LOG_TRACE,
           "CFMFile::LoadBlokInfo, ReaddBlockInfo result: length=" << length << " this=" << this);
    std::vector<FMBlockEntry> slots;
    if (!FMDecodeBlockBody(*body, slots))
        RT_LOG(RT_LOG_WARNING, "CFMFile::LoadBlokInfo, the table ends early, slots="
                                   << uint64_t{slots.size()} << "," << GetLogName()
                                   << " this=" << this);
    return RestoreBlocks(slots) ? 1 : 0;
}

// False if a block cannot be allocated: a later save would write the table without it.
bool CFMFile::RestoreBlocks(const std::vector<FMBlockEntry>& slots) {
    RtOs::FileStamp data;
    if (!m_diskFile->GetOpeningStamp(data))
        return false;
    const auto dataLength = static_cast<int64_t>(data.length);
    const std::vector<FMSlotState> states = FMJudgeEntries(
        slots, {m_fileInfo.blockBeg, m_blocks.size(), data.length}, FMFindOverlaps(slots));
    const uint64_t now = GetTickCountEx();
    int64_t tableEnd = 0;
    for (size_t i = 0; i < slots.size(); ++i) {
        const FMBlockEntry& entry = slots[i];
        if (entry.blockID == 0)
            continue;
        if (FMNamesBytes(entry)) {
            tableEnd = std::max(tableEnd, FMEndOf(entry));
            // New blocks are placed behind every range that an entry names, including entries outside the
            // table, because the table may grow. Entries beyond the maximum file length are ignored.
            if (FMEndOf(entry) <= std::max(dataLength, cmax_filea_data_len))
                m_position = std::max(m_position, FMEndOf(entry));
        }
        if (states[i] == FMSlotState::Outside) {
            LogEntry("block outside the table", entry);
            continue;
        }
        const CRtComAutoPtr<CFMBlock> block = FMHost::CreateBlock(this, entry.blockID, now);
        if (!block) {
            ReleaseBlocks(); // breaks the reference cycle of file and blocks
            return false;
        }
        m_blocks[entry.blockID - m_fileInfo.blockBeg] = block;
        RestorePlace(*block, entry, states[i]);
    }
    m_entry->NoteTable(tableEnd, dataLength);
    return true;
}

void CFMFile::RestorePlace(CFMBlock& block, const FMBlockEntry& entry, FMSlotState state) {
    if (state == FMSlotState::Impossible)
        return LogEntry("impossible place", entry);
    if (state == FMSlotState::Overlaps)
        return LogEntry("blocks overlap", entry);
    const bool isBeyond = state == FMSlotState::Beyond;
    if (isBeyond)
        LogEntry("block beyond the data file", entry);
    block.Restore(entry, isBeyond ? 0 : m_entry->GetEpoch()); // no epoch 0: reading it fails
}

void CFMFile::LogEntry(const char* what, const FMBlockEntry& entry) {
    RT_LOG(RT_LOG_WARNING, "CFMFile::LoadBlokInfo, " << what << ", blockID=" << entry.blockID
                                                     << ",pos=" << entry.posInFile
                                                     << ",len=" << entry.totalLen << ","
                                                     << GetLogName() << " this=" << this);
}
