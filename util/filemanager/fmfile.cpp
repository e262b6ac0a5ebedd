// The file object: its life cycle, its block table, the layout of its data file.
#include "fmfile.h"

#include <algorithm>
#include <utility>

#include "RtLog.h"
#include "RtResult.h"
#include "RtTimeValue.h"
#include "fmfunctor.h"
#include "fmhost.h"
#include "fmrules.h"
#include "mistakes.h"
#include "os/RtOs.h"
#include "statistics.h"

namespace {

constexpr char FILE_SOURCE[] = "util/filemanager/fmfile";
constexpr uint32_t DEFAULT_TABLE_SIZE = 64;
constexpr uint32_t LARGEST_NUM_TAKEN = 8192;
constexpr uint32_t SMALLEST_GROWTH = 64;
constexpr uint32_t GROWTH_BEYOND = 8; // slots beyond the requested one
constexpr uint32_t HUGE_TABLE = 2048;

uint32_t Now() { return static_cast<uint32_t>(CRtTimeValue::GetTimeOfDay().GetSec()); }

} // namespace

CFMFile::CFMFile(const FMFileInfo& fileInfo)
    : m_fileInfo(fileInfo), m_createTime(Now()), m_pathID(fileInfo.fileID) {
    g_statistics.Add(CFMStatistics::FilesCreated);
    RT_LOG(RT_LOG_TRACE, "CFMFile::CFMFile, fileID="
                             << FMFileIDToString(m_fileInfo.fileID) << ",flag=" << m_fileInfo.flag
                             << ",blockbeg=" << m_fileInfo.blockBeg << ",num=" << m_fileInfo.num
                             << " this=" << this);
    if (m_fileInfo.num == 0 || m_fileInfo.num > LARGEST_NUM_TAKEN)
        m_fileInfo.num = DEFAULT_TABLE_SIZE;
    m_blocks.resize(m_fileInfo.num);
    MakeDiskFiles(FMFileIDToString(m_fileInfo.fileID), true);
}

CFMFile::CFMFile(const CRtString& stem) {
    g_statistics.Add(CFMStatistics::FilesCreated);
    RT_LOG(RT_LOG_TRACE, "CFMFile::CFMFile, fileName=" << stem << " this=" << this);
    FMFileIDFromString(stem, m_pathID);
    MakeDiskFiles(stem, false);
}

void CFMFile::MakeDiskFiles(const CRtString& stem, bool overPredecessor) {
    CRtString data = FMHost::GetDataDir() + stem;
    CRtString info = data;
    m_diskFile = new (std::nothrow)
        CDiskFile(std::move(data += FM_DATA_EXTENSION), RtOs::OPEN_ALONE, &FMHost::CheckDataDir);
    RT_CHECK(FILE_SOURCE, m_diskFile, "m_diskFile");
    m_infoFile = new (std::nothrow)
        CInfoFile(std::move(info += FM_INFO_EXTENSION), 0, &FMHost::CheckDataDir);
    RT_CHECK(FILE_SOURCE, m_infoFile, "m_infoFile");
    m_entry.emplace(m_diskFile.Get(), m_infoFile.Get(), overPredecessor);
    if (FMHost::GetDataDir()
            .empty()) // before Initialize: nothing is written into the working directory
        m_entry->Detach();
}

CRtString CFMFile::GetLogName() const {
    const bool isLoaded = !(m_fileInfo.fileID == FMFileID_None);
    return CRtString("fileID=") + FMFileIDToString(isLoaded ? m_fileInfo.fileID : m_pathID) +
           ",path=" + (m_diskFile ? m_diskFile->GetFileName() : CRtString());
}

CFMFile::~CFMFile() {
    g_statistics.Add(CFMStatistics::FilesDestroyed);
    RT_LOG(RT_LOG_TRACE,
           "CFMFile::~CFMFile, fileID=" << FMFileIDToString(m_fileInfo.fileID) << ", fileFlag="
                                        << (m_fileFlag.load() & FLAGS_LOGGED) << " this=" << this);
    const bool isUnsynced = m_entry->IsUnsynced();
    m_infoFile.Reset();
    m_diskFile.Reset();
    // Unregister last: from here on another object may open the path.
    if (m_registered)
        FMHost::ForgetFile(this, isUnsynced);
}

int CFMFile::GetBlock(IFMBlock*& block, uint32_t blockID, int create) noexcept {
    CFMMistakes::CheckThread("IFMFile::GetBlock");
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
    if (m_closed) // Close, which breaks the reference cycle, has already run
        return RT_ERROR_NOT_READY;
    if (!inTable) {
        if (const int result = GrowTable(blockID); RT_FAILED(result))
            return result;
    }
    CheckValid();
    const CRtComAutoPtr<CFMBlock> fmBlock = FMHost::CreateBlock(this, blockID, GetTickCountEx());
    if (!RT_CHECK(FILE_SOURCE, fmBlock, "fmBlock")) {
        block = nullptr;
        return RT_ERROR_NULL_OBJECT;
    }
    if (blockID == 0)
        FM_REPORT_MISTAKE(
            "IFMFile::GetBlock, mistake: block 0 cannot be saved, because 0 marks an empty slot. "
            "Use blockBeg 1 or more. "
            << GetLogName());
    else if (slot >= FM_INFO_SLOTS_MAX)
        FM_REPORT_MISTAKE("IFMFile::GetBlock, mistake: block "
                          << blockID << " cannot be saved, because the information file has "
                          << FM_INFO_SLOTS_MAX << " slots. Use more files. " << GetLogName());
    m_blocks[slot] = fmBlock;
    block = fmBlock.Get();
    block->AddReference();
    return RT_OK;
}

int CFMFile::GrowTable(uint32_t blockID) {
    if (!RT_CHECK(FILE_SOURCE, blockID >= m_fileInfo.blockBeg, "blockID>=m_fileInfo.blockBeg"))
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
    CFMMistakes::CheckThread("IFMFile::RemoveBlock");
    if (!RT_CHECK(FILE_SOURCE, IsBlockidOK(blockID), "IsBlockidOK(blockID)"))
        return RT_ERROR_INVALID_ARG;
    RT_LOG(RT_LOG_TRACE, "CFMFile::RemoveBlock, fileID=" << FMFileIDToString(m_fileInfo.fileID)
                                                         << ",blockID=" << blockID
                                                         << " this=" << this);
    block = m_blocks[blockID - m_fileInfo.blockBeg].Detach();
    if (block)
        MarkInfoChanged();
    return RT_OK;
}

const FMBlockTable& CFMFile::GetBlocks() {
    CFMMistakes::CheckThread("IFMFile::GetBlocks");
    return m_blocks;
}

void CFMFile::CancelRetrieve(ISDUser* node, int bRemoveOwner) noexcept {
    CFMMistakes::CheckThread("IFMFile::CancelRetrieve");
    if (!RT_CHECK(FILE_SOURCE, node, "node"))
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
    if (!(m_fileFlag.load() & FLAG_STORE_FAILED) || m_entry->IsDetached())
        return;
    m_fileFlag.fetch_and(~uint32_t{FLAG_STORE_FAILED});
    for (const auto& block : m_blocks) {
        if (block)
            block->RetryStore();
    }
}

void CFMFile::Close(int sync) {
    if (m_closed) // its table is empty and must not be saved
        return;
    if (m_entry->IsDetached()) {
        // The path belongs to another object: this one writes nothing there.
    } else if (m_fileInfo.flag & FM_FILE_TEMPORARY) {
        FMHost::PostToReadwrThread(new CFMRefFunctor0(this, &CFMFile::ClerDiskFile_m), sync);
    } else {
        CheckDataFile();
        RetryFailedStores(); // last retry: the blocks release their bytes
        SaveFileInfo();
    }
    {
        const auto lock = m_stores.LockShared();
        m_closed = true;
        for (const auto& block : m_blocks) {
            if (block)
                block->WithdrawLoad();
        }
    }
    ReleaseBlocks();
}

// If the data file is missing or ends before a stored block, resident blocks are stored again.
void CFMFile::CheckDataFile() {
    if (!(m_fileFlag.load() & FLAG_DATA_IN_MEMORY))
        return;
    const uint32_t epoch = m_entry->GetEpoch();
    int64_t storedEnd = 0;
    bool isAnyResident = false;
    for (const auto& block : m_blocks) {
        if (!block || !block->IsComplete())
            continue;
        isAnyResident = isAnyResident || block->IsInMemory();
        storedEnd = std::max(storedEnd, block->GetStoredEnd(epoch));
    }
    RtOs::FileStamp data;
    if (!isAnyResident || storedEnd == 0 || !RtOs::GetStamp(m_diskFile->GetFileName(), data) ||
        (data.exists && static_cast<int64_t>(data.length) >= storedEnd))
        return;
    m_entry->LoseData();
    MarkStoreFailed();
}

void CFMFile::ReleaseBlocks() {
    FMBlockTable released;
    released.swap(m_blocks);
}

bool CFMFile::IsUnsaved() {
    const bool isChanged = !m_closed && (m_fileFlag.load() & FLAG_INFO_CHANGED) != 0 &&
                           !(m_fileInfo.flag & FM_FILE_TEMPORARY) && !m_entry->IsDetached();
    return isChanged || HasUnsavedTable();
}

void CFMFile::Detach_m() {
    WriteTable();
    DropTable();           // a pending table must not overwrite the other object's files
    if (m_entry->Detach()) // its files stay until the successor stores a block
        FMHost::KeepUnsynced(m_pathID);
}

int CFMFile::IsHouseKeeping() {
    // A transient failure (EMFILE) does not prove that the file has expired: a later run examines it again.
    if (const Info info = LoadInfo(FM_INFO_BODY_OFFSET + FM_INFO_FILE_BODY_MAX);
        info != Info::Loaded)
        return info == Info::Damaged ? 1 : 0;
    const uint32_t now = Now();
    const FMLifetime lifetime =
        FMJudgeLifetime(m_fileInfo.flag, m_createTime, FMHost::GetClearDays(), now);
    if (lifetime == FMLifetime::Current || lifetime == FMLifetime::Expired)
        RT_LOG(RT_LOG_TRACE, "CFileManager::IsHouseKeeping. aDay="
                                 << static_cast<int32_t>(FMAgeInDays(m_createTime, now)));
    return lifetime == FMLifetime::Temporary || lifetime == FMLifetime::Expired ? 1 : 0;
}

void CFMFile::ClerDiskFile_m() {
    RT_LOG(RT_LOG_TRACE, "CFMFile::ClerDiskFile_m, fileID=" << FMFileIDToString(m_fileInfo.fileID)
                                                            << " this=" << this);
    m_entry->RemoveFiles();
}

int CFMFile::CheckValid() {
    return RT_CHECK(FILE_SOURCE, m_blocks.size() < cmax_check_blocks,
                    "m_blocks.size() < cmax_check_blocks") &&
                   RT_CHECK(FILE_SOURCE, m_diskFile.Get(), "m_diskFile.Get()") &&
                   RT_CHECK(FILE_SOURCE, m_position < cmax_filea_data_len,
                            "m_position < cmax_filea_data_len")
               ? 1
               : 0;
}
