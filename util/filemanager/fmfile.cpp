// The file object: its life, its block table, the layout of its data file.
#include "fmfile.h"

#include <algorithm>

#include "RtLog.h"
#include "RtResult.h"
#include "RtTimeValue.h"
#include "filemanager.h"
#include "fmfunctor.h"

namespace {

constexpr char SOURCE[] = "util/filemanager/fmfile";
constexpr uint32_t DEFAULT_TABLE_SIZE = 64;
constexpr uint32_t LARGEST_NUM_TAKEN = 8192;
constexpr uint32_t SMALLEST_GROWTH = 64;
constexpr uint32_t GROWTH_BEYOND = 8; // slots beyond the one that is asked for
constexpr uint32_t HUGE_TABLE = 2048;
constexpr uint32_t SECONDS_PER_DAY = 86400;

uint32_t Now() { return static_cast<uint32_t>(CRtTimeValue::GetTimeOfDay().GetSec()); }

} // namespace

CFMFile::CFMFile(const FMFileInfo& fileInfo)
    : m_fileInfo(fileInfo), m_createTime(Now()), m_pathID(fileInfo.fileID),
      m_overPredecessor(true) {
    ++g_counters.filesCreated;
    RT_LOG(RT_LOG_TRACE, "CFMFile::CFMFile, fileID="
                             << FMFileIDToString(m_fileInfo.fileID) << ",flag=" << m_fileInfo.flag
                             << ",blockbeg=" << m_fileInfo.blockBeg << ",num=" << m_fileInfo.num
                             << " this=" << this);
    if (m_fileInfo.num == 0 || m_fileInfo.num > LARGEST_NUM_TAKEN)
        m_fileInfo.num = DEFAULT_TABLE_SIZE;
    m_blocks.resize(m_fileInfo.num);
    MakeDiskFiles(FMFileIDToString(m_fileInfo.fileID));
}

CFMFile::CFMFile(const CRtString& stem) {
    ++g_counters.filesCreated;
    RT_LOG(RT_LOG_TRACE, "CFMFile::CFMFile, fileName=" << stem << " this=" << this);
    FMFileIDFromString(stem, m_pathID);
    MakeDiskFiles(stem);
}

void CFMFile::MakeDiskFiles(const CRtString& stem) {
    const CRtString path = CFileManager::Instance()->GetDataDir() + stem;
    m_diskFile = new (std::nothrow) CDiskFile(path + ".sdd", RtOs::OPEN_ALONE);
    RT_CHECK(SOURCE, m_diskFile, "m_diskFile");
    m_infoFile = new (std::nothrow) CInfoFile(path + ".sdi");
    RT_CHECK(SOURCE, m_infoFile, "m_infoFile");
}

CFMFile::~CFMFile() {
    ++g_counters.filesDestroyed;
    RT_LOG(RT_LOG_TRACE, "CFMFile::~CFMFile, fileID=" << FMFileIDToString(m_fileInfo.fileID)
                                                      << ", fileFlag=" << m_fileFlag.load()
                                                      << " this=" << this);
    m_infoFile.Reset();
    m_diskFile.Reset();
    // Last: who finds the path free of live files may open it.
    CFileManager* manager = CFileManager::IfAlive();
    if (m_registered && manager)
        manager->ForgetFile(this);
}

int CFMFile::GetBlock(IFMBlock*& block, uint32_t blockID, int create) noexcept {
    const uint32_t slot = blockID - m_fileInfo.blockBeg;
    const bool inTable = IsBlockidOK(blockID);
    if (inTable) {
        block = m_blocks[slot].Get();
        if (block) {
            block->AddReference();
            return RT_OK;
        }
    }
    if (!create)
        return RT_ERROR_NOT_FOUND;
    if (m_closed) // a block in a closed table would keep the file, and the file the block, for ever
        return RT_ERROR_NOT_READY;
    if (!inTable) {
        if (const int result = GrowTable(blockID); RT_FAILED(result))
            return result;
    }
    CheckValid();
    const CRtComAutoPtr<CFMBlock> fmBlock = CFileManager::Instance()->CreateBlock(this, blockID);
    if (!RT_CHECK(SOURCE, fmBlock, "fmBlock")) {
        block = nullptr;
        return RT_ERROR_NULL_OBJECT;
    }
    m_blocks[slot] = fmBlock;
    block = fmBlock.Get();
    block->AddReference();
    return RT_OK;
}

int CFMFile::GrowTable(uint32_t blockID) {
    if (!RT_CHECK(SOURCE, blockID >= m_fileInfo.blockBeg, "blockID>=m_fileInfo.blockBeg"))
        return RT_ERROR_INVALID_ARG;
    const uint32_t slot = blockID - m_fileInfo.blockBeg;
    if (slot >= FM_TABLE_SLOTS_MAX)
        return RT_ERROR_INVALID_ARG;
    const uint32_t growth = std::max(SMALLEST_GROWTH, slot - m_fileInfo.num + GROWTH_BEYOND);
    m_fileInfo.num = std::min(m_fileInfo.num + growth, FM_TABLE_SLOTS_MAX);
    m_blocks.resize(m_fileInfo.num);
    if (m_fileInfo.num > HUGE_TABLE)
        RT_LOG(RT_LOG_WARNING, "CFMFile::GetBlock, huge file. fileID="
                                   << FMFileIDToString(m_fileInfo.fileID) << " this=" << this);
    return RT_OK;
}

bool CFMFile::IsBlockidOK(uint32_t blockID) const {
    return blockID >= m_fileInfo.blockBeg && blockID - m_fileInfo.blockBeg < m_blocks.size();
}

int CFMFile::RemoveBlock(uint32_t blockID, IFMBlock*& block) noexcept {
    if (!RT_CHECK(SOURCE, IsBlockidOK(blockID), "IsBlockidOK(blockID)"))
        return RT_ERROR_INVALID_ARG;
    RT_LOG(RT_LOG_TRACE, "CFMFile::RemoveBlock, fileID=" << FMFileIDToString(m_fileInfo.fileID)
                                                         << ",blockID=" << blockID
                                                         << " this=" << this);
    block = m_blocks[blockID - m_fileInfo.blockBeg].Detach();
    if (block)
        MarkInfoChanged();
    return RT_OK;
}

void CFMFile::CancelRetrieve(ISDUser* node, int bRemoveOwner) noexcept {
    if (!RT_CHECK(SOURCE, node, "node"))
        return;
    const CRtComAutoPtr<ISDUser> kept(node); // the blocks may hold the last references
    RT_LOG(RT_LOG_TRACE, "CFMFile::CancelRetrieve, fileID=" << FMFileIDToString(m_fileInfo.fileID)
                                                            << ",node=" << node->GetNodeSID()
                                                            << " this=" << this);
    for (const auto& block : m_blocks) {
        if (!block)
            continue;
        block->CancelRetrieve(node);
        if (bRemoveOwner)
            block->SetOwner(node, 0);
    }
}

void CFMFile::AllocPosition(int64_t& offset, uint32_t length) {
    offset = m_position;
    m_position += length;
}

void CFMFile::FreeBlocksMemory() {
    if (!(m_fileFlag.load() & FLAG_DATA_IN_MEMORY))
        return;
    m_fileFlag.fetch_and(~uint32_t{FLAG_DATA_IN_MEMORY});
    for (const auto& block : m_blocks) {
        if (block && block->FreeMemory())
            MarkDataInMemory();
    }
}

void CFMFile::RetryFailedStores() {
    if (m_retired.load(std::memory_order_acquire) || !m_storeFailed.exchange(false))
        return;
    for (const auto& block : m_blocks) {
        if (block)
            block->RetryStore();
    }
}

void CFMFile::Close(int sync) {
    if (m_closed) // its table is empty, and must not be saved as such
        return;
    if (m_retired.load(std::memory_order_acquire)) {
        // The path is another object's: nothing of this one goes there.
    } else if (m_fileInfo.flag & FM_FILE_TEMPORARY) {
        CFileManager::Instance()->PostToReadwrThread(
            new CFMRefFunctor0(this, &CFMFile::ClerDiskFile_m), sync);
    } else {
        RetryFailedStores(); // the last time: their bytes go with the blocks
        // A rewrite in place that is still to fail leaves an entry of an earlier run that must go.
        if (m_pendingStores.load(std::memory_order_acquire) > 0)
            MarkInfoChanged();
        if (m_fileFlag.load() & FLAG_INFO_CHANGED)
            SaveFileInfo();
    }
    m_closed = true;
    ReleaseBlocks();
}

void CFMFile::ReleaseBlocks() {
    FMBlockTable released;
    released.swap(m_blocks);
}

void CFMFile::Retire() {
    m_retired.store(true, std::memory_order_release);
    CloseStreams();
}

void CFMFile::CloseStreams() {
    const std::lock_guard lock(m_diskMutex);
    if (m_diskFile)
        m_diskFile->Close();
    if (m_infoFile)
        m_infoFile->Close();
}

// The information goes first: bytes of this file are never found under the old block table. The old
// data file goes too, so that this one is a new file to the file system and not old blocks overwritten.
int CFMFile::DiscardPredecessor() {
    if (!m_overPredecessor.load(std::memory_order_acquire))
        return RT_OK;
    // Another process that has the old one open keeps it.
    int result = !m_diskFile || m_diskFile->TakeExisting() ? RT_OK : RT_ERROR_IO;
    if (RT_SUCCEEDED(result) && m_infoFile)
        result = m_infoFile->RemoveMee();
    if (RT_SUCCEEDED(result) && m_diskFile)
        result = m_diskFile->RemoveMee();
    if (RT_SUCCEEDED(result))
        m_overPredecessor.store(false, std::memory_order_release);
    return result;
}

bool CFMFile::TakeDiskFile() {
    const bool taken = !m_diskFile || m_diskFile->TakeExisting();
    m_openings = m_diskFile ? m_diskFile->GetOpening().count : 0;
    return taken;
}

int CFMFile::PrepareLoad() { return m_diskFile->IsOpen() ? CheckOpening() : RT_ERROR_IO; }

int CFMFile::HoldFiles() {
    const int result = DiscardPredecessor();
    return RT_SUCCEEDED(result) ? HoldDiskFile() : result;
}

// 0; 10006, 10015 when another process has the file, or had it.
int CFMFile::HoldDiskFile() {
    if (!m_diskFile)
        return RT_OK;
    return m_diskFile->TakeExisting() ? CheckOpening() : RT_ERROR_IO;
}

int CFMFile::CheckOpening() {
    const CDiskFile::Opening& opening = m_diskFile->GetOpening();
    if (opening.count == m_openings)
        return RT_OK;
    // The stream was away for a while, and with it what keeps other processes out.
    RtOs::FileStamp info;
    if (!RtOs::GetStamp(m_infoFile->GetFileName(), info))
        return RT_ERROR_IO;
    if (IsTakenByOthers(info)) {
        RT_LOG(RT_LOG_ERROR, "CFMFile::CheckOpening, another process has changed the file, fileID="
                                 << FMFileIDToString(m_pathID) << " this=" << this);
        m_retired.store(true, std::memory_order_release);
        m_diskFile->Close();
        return RT_ERROR_NOT_READY;
    }
    m_openings = opening.count;
    m_infoStamp = info;
    m_isInfoStampTrue = true;
    return RT_OK;
}

// A data file that is missing was not taken but removed: it is begun anew.
bool CFMFile::IsTakenByOthers(const RtOs::FileStamp& info) const {
    const CDiskFile::Opening& opening = m_diskFile->GetOpening();
    if (opening.created)
        return false;
    return (opening.stranger && m_openings > 0) || (m_isInfoStampTrue && !(info == m_infoStamp));
}

int CFMFile::PrepareStore(int64_t pos, uint32_t length, uint32_t entryAt) {
    int result = DiscardPredecessor();
    if (RT_SUCCEEDED(result))
        result = PrepareLoad();
    if (RT_SUCCEEDED(result)) { // what is known of the length may be a second old
        uint64_t fileLength = 0;
        result = m_diskFile->GetLength(fileLength);
        if (RT_SUCCEEDED(result) && static_cast<int64_t>(fileLength) < pos)
            result = NoteGap(static_cast<int64_t>(fileLength), pos);
    }
    if (RT_SUCCEEDED(result) && pos + length > m_unbackedFrom)
        result = InvalidateTable();
    if (RT_SUCCEEDED(result) && entryAt != 0)
        result = Revoke(entryAt);
    return result;
}

// Bytes that lay there were cut off with the end of the file. They must not come back as zeros, in this
// run or, by way of the table that is on disk, in a later one.
int CFMFile::NoteGap(int64_t begin, int64_t end) {
    if (begin < m_tableEnd) {
        if (const int result = InvalidateTable(); RT_FAILED(result))
            return result;
    }
    const std::lock_guard lock(m_transferMutex);
    // On a full disk every store of every tick finds a gap before it: as long as nothing comes to lie in
    // them they are one.
    if (!m_isLastGapCounted && begin <= m_gaps.back().end && m_gaps.back().begin <= end)
        m_gaps.back() = {std::min(begin, m_gaps.back().begin), std::max(end, m_gaps.back().end)};
    else
        m_gaps.push_back({begin, end});
    m_isLastGapCounted = false;
    MarkStoreFailed(); // blocks that are still in memory are stored again
    return RT_OK;
}

int CFMFile::InvalidateTable() {
    const int result = m_infoFile->Invalidate();
    NoteOwnChange(); // also of a write that stops half way
    if (RT_FAILED(result))
        return result;
    m_tableEnd = 0;
    m_unbackedFrom = INT64_MAX;
    return RT_OK;
}

size_t CFMFile::CountGaps() {
    m_isLastGapCounted = true;
    return m_gaps.size();
}

bool CFMFile::IsInGap(size_t since, int64_t pos, int64_t end) const {
    return std::any_of(m_gaps.begin() + static_cast<std::ptrdiff_t>(since), m_gaps.end(),
                       [=](const Gap& gap) { return pos < gap.end && gap.begin < end; });
}

int CFMFile::Revoke(uint32_t entryAt) {
    if (!CFileManager::FileExists(m_infoFile->GetFileName()))
        return RT_OK;
    const int result = m_infoFile->RevokeEntry(entryAt);
    NoteOwnChange();
    return result;
}

// When the system does not tell what the file looks like now, an older stamp stays, and the next opening
// of the data file would be taken for another process's doing: it is not asked then.
void CFMFile::NoteOwnChange() {
    m_isInfoStampTrue = RtOs::GetStamp(m_infoFile->GetFileName(), m_infoStamp);
}

int CFMFile::IsHouseKeeping() {
    // What cannot be read for the moment, for want of streams perhaps, may be read another day.
    if (!LoadFileInfo())
        return m_isInfoWithheld ? 0 : 1;
    if (m_fileInfo.flag & FM_FILE_TEMPORARY)
        return 1;
    if (m_fileInfo.flag & FM_FILE_KEPT)
        return 0;
    const uint32_t now = Now();
    // A creation time in the future, from a clock set back, counts as new.
    const auto aDay =
        static_cast<int32_t>(now > m_createTime ? (now - m_createTime) / SECONDS_PER_DAY : 0);
    RT_LOG(RT_LOG_TRACE, "CFileManager::IsHouseKeeping. aDay=" << aDay);
    return aDay > CFileManager::Instance()->GetClearDays() ? 1 : 0;
}

void CFMFile::ClerDiskFile_m() {
    RT_LOG(RT_LOG_TRACE, "CFMFile::ClerDiskFile_m, fileID=" << FMFileIDToString(m_fileInfo.fileID)
                                                            << " this=" << this);
    if (m_retired.load(std::memory_order_acquire))
        return; // the files on that path are another object's now
    const std::lock_guard lock(m_diskMutex);
    if (RT_FAILED(HoldFiles()))
        return; // another process has them
    if (m_infoFile)
        m_infoFile->RemoveMee();
    if (m_diskFile)
        m_diskFile->RemoveMee();
    // A read of a block that a user holds would make the data file again.
    m_retired.store(true, std::memory_order_release);
}

int CFMFile::CheckValid() {
    return RT_CHECK(SOURCE, m_blocks.size() < cmax_check_blocks,
                    "m_blocks.size() < cmax_check_blocks") &&
                   RT_CHECK(SOURCE, m_diskFile.Get(), "m_diskFile.Get()") &&
                   RT_CHECK(SOURCE, m_position < cmax_filea_data_len,
                            "m_position < cmax_filea_data_len")
               ? 1
               : 0;
}
