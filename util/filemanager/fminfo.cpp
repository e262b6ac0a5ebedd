// The file object's information store: saving at the close, loading before the file is opened.
#include <algorithm>
#include <map>

#include "RtLog.h"
#include "RtResult.h"
#include "RtTimeValue.h"
#include "filemanager.h"
#include "fmfile.h"
#include "fmfunctor.h"
#include "os/RtOs.h"

namespace {

int WriteBody(CInfoFile& file, int (CInfoFile::*write)(const void*, uint32_t),
              const CRtMessageBlock& body) {
    const CRtString bytes = body.FlattenChained();
    return (file.*write)(bytes.data(), static_cast<uint32_t>(bytes.size()));
}

int64_t EndOf(const FMBlockEntry& entry) { return entry.posInFile + entry.totalLen; }

// Which entries name bytes that another names too: writing one of them in place would change the other,
// and at most one of them is true.
std::vector<bool> FindSharedPlaces(const std::vector<FMBlockEntry>& slots) {
    std::vector<bool> shared(slots.size());
    std::vector<size_t> order;
    order.reserve(slots.size());
    for (size_t i = 0; i < slots.size(); ++i) {
        if (slots[i].totalLen > 0 && FMIsEntryPossible(slots[i]))
            order.push_back(i);
    }
    const auto liesBefore = [&slots](size_t a, size_t b) {
        return slots[a].posInFile < slots[b].posInFile;
    };
    // Files that were written from their beginning to their end, which are most, need no sorting.
    if (!std::is_sorted(order.begin(), order.end(), liesBefore))
        std::sort(order.begin(), order.end(), liesBefore);
    int64_t furthestEnd = 0;
    size_t furthest = 0;
    for (const size_t i : order) {
        if (slots[i].posInFile < furthestEnd)
            shared[i] = shared[furthest] = true;
        const int64_t end = EndOf(slots[i]);
        if (end > furthestEnd) {
            furthestEnd = end;
            furthest = i;
        }
    }
    return shared;
}

} // namespace

int CFMFile::SaveFileInfo() {
    if (!(m_fileFlag.load() & FLAG_INFO_CHANGED))
        return 1;
    if (!m_infoFile)
        return 0;
    CRtMessageChain fileBody;
    if (const int ret = FMEncodeFileBody(m_fileInfo, m_createTime, fileBody); RT_FAILED(ret)) {
        RT_LOG(RT_LOG_ERROR,
               "CFMFile::SaveFileInfo, Encode file info error, ret=" << ret << " this=" << this);
        return 0;
    }
    CRtMessageChain blockBody;
    uint32_t left = 0;
    if (RT_FAILED(FMEncodeBlockBody(DescribeBlocks(), blockBody, left))) {
        m_unsettled.clear();
        RT_LOG(RT_LOG_ERROR, "CFMFile::SaveFileInfo, Encode block info error  this=" << this);
        return 0;
    }
    if (left > 0)
        RT_LOG(RT_LOG_WARNING, "CFMFile::SaveFileInfo, table too large to save, slots left out="
                                   << left << " this=" << this);
    m_fileFlag.fetch_and(~uint32_t{FLAG_INFO_CHANGED});
    PostInfo(std::move(fileBody), std::move(blockBody));
    return 1;
}

std::vector<FMBlockEntry> CFMFile::DescribeBlocks() {
    std::vector<FMBlockEntry> slots(m_blocks.size());
    do { // again when a gap was left meanwhile: which blocks were stored into it, and when, is not known
        m_unsettled.clear();
        m_gapsWhenEncoded = GetGapsNow();
        for (size_t i = 0; i < m_blocks.size(); ++i) {
            if (m_blocks[i])
                slots[i] = DescribeBlock(*m_blocks[i]);
        }
    } while (GetGapsNow() > m_gapsWhenEncoded);
    return slots;
}

FMBlockEntry CFMFile::DescribeBlock(CFMBlock& block) {
    if (block.GetBlockID() == 0) {
        RT_LOG(RT_LOG_WARNING, "CFMFile::SaveFileInfo, block 0 cannot be saved this=" << this);
        return {};
    }
    // Asked first: what is over by now has shown its result to Describe.
    if (block.IsStorePending())
        m_unsettled.emplace_back(&block);
    return block.Describe();
}

// The information is written on the caller thread, after the stores whose blocks it names: it goes by
// way of the read/write thread's queue when some have not run. The bodies stay here too, so that it can
// be written before its event comes.
void CFMFile::PostInfo(CRtMessageChain fileBody, CRtMessageChain blockBody) {
    m_waitingFileBody = std::move(fileBody);
    m_waitingBlockBody = std::move(blockBody);
    m_infoWaiting.store(true, std::memory_order_release);
    CRtMessageBlock* file = m_waitingFileBody.get();
    CRtMessageBlock* block = m_waitingBlockBody.get();
    if (m_pendingStores.load(std::memory_order_acquire) == 0)
        return PostInfo_m(file, block);
    CFileManager::Instance()->PostToReadwrThread(
        new CFMRefFunctor2(this, &CFMFile::PostInfo_m, file->DuplicateChained().release(),
                           block->DuplicateChained().release()),
        0);
}

// Information that cannot be posted, for want of a thread or of memory, stays waiting: UnInitialize
// writes it.
void CFMFile::PostInfo_m(CRtMessageBlock* fileBody, CRtMessageBlock* blockBody) {
    CRtMessageChain file = fileBody ? fileBody->DuplicateChained() : nullptr;
    CRtMessageChain block = blockBody ? blockBody->DuplicateChained() : nullptr;
    if (file && block)
        CFileManager::Instance()->PostToCallerThread(
            new CFMRefFunctor2(this, &CFMFile::SaveFileInfo_m, file.release(), block.release()), 0);
}

void CFMFile::SaveFileInfo_m(CRtMessageBlock* fileBody, CRtMessageBlock* blockBody) noexcept {
    if (!IsInfoWaiting())
        return;                         // written or dropped before its turn came
    std::unique_lock lock(m_diskMutex); // a block that somebody holds may be read meanwhile
    if (fileBody) {
        int ret = m_retired.load() ? RT_ERROR_NOT_READY : HoldFiles();
        const bool isMine = RT_SUCCEEDED(ret);
        if (RT_SUCCEEDED(ret))
            ret = WriteBody(*m_infoFile, &CInfoFile::WriteFileInfo, *fileBody);
        if (RT_FAILED(ret)) {
            RT_LOG(RT_LOG_ERROR,
                   "CFMFile::SaveFileInfo_m, WriteFileInfo error, ret=" << ret << " this=" << this);
            if (isMine)
                NoteOwnChange();
            lock.unlock();
            EndWaiting();
            return;
        }
    }
    if (blockBody) {
        CRtMessageChain table = blockBody->DuplicateChained();
        int ret = table ? RemoveLostBytes(table) : RT_ERROR_NULL_OBJECT;
        if (RT_SUCCEEDED(ret))
            ret = WriteBody(*m_infoFile, &CInfoFile::WriteBlockInfo, *table);
        if (RT_FAILED(ret))
            RT_LOG(RT_LOG_ERROR, "CFMFile::SaveFileInfo_m, WriteBlockInfo error, ret="
                                     << ret << " this=" << this);
    }
    NoteOwnChange();
    lock.unlock(); // the last reference on a block runs code of the application's
    EndWaiting();
}

// The stores of the blocks that were pending when the table was encoded have run since: some have failed,
// and some have left a gap where others' bytes were cut off. 0, or 10001 when there is no memory.
int CFMFile::RemoveLostBytes(CRtMessageChain& table) {
    if (m_unsettled.empty() && GetGapsNow() == m_gapsWhenEncoded)
        return RT_OK; // closed after its stores have run, as most files are
    std::vector<FMBlockEntry> slots;
    FMDecodeBlockBody(*table, slots);
    std::map<uint32_t, CFMBlock*> unsettled;
    for (const auto& block : m_unsettled)
        unsettled[block->GetBlockID()] = block.Get();
    for (FMBlockEntry& entry : slots) {
        const auto it = unsettled.find(entry.blockID);
        const bool lost = it != unsettled.end() ? it->second->Describe().totalLen == 0
                                                : IsLostSince(m_gapsWhenEncoded, entry);
        if (lost)
            entry = {entry.blockID, 0, 0};
    }
    uint32_t left = 0;
    return FMEncodeBlockBody(slots, table, left);
}

size_t CFMFile::GetGapsNow() {
    const std::lock_guard lock(m_transferMutex);
    return CountGaps();
}

bool CFMFile::IsLostSince(size_t gaps, const FMBlockEntry& entry) {
    const std::lock_guard lock(m_transferMutex);
    return entry.totalLen > 0 && IsInGap(gaps, entry.posInFile, EndOf(entry));
}

void CFMFile::EndWaiting() {
    m_waitingFileBody.reset();
    m_waitingBlockBody.reset();
    m_infoWaiting.store(false, std::memory_order_release);
    std::vector<CRtComAutoPtr<CFMBlock>> settled;
    settled.swap(m_unsettled);
}

void CFMFile::SaveWaitingInfo() {
    if (IsInfoWaiting())
        SaveFileInfo_m(m_waitingFileBody.get(), m_waitingBlockBody.get());
}

void CFMFile::DropWaitingInfo() {
    if (IsInfoWaiting())
        EndWaiting();
}

int CFMFile::LoadFileInfo() {
    char buffer[FM_INFO_FILE_BODY_MAX] = {};
    uint32_t length = sizeof(buffer);
    int ret = RT_ERROR_NOT_READY;
    // A read would make it, while another process may be just making it, too.
    if (m_infoFile)
        ret = CFileManager::FileExists(m_infoFile->GetFileName())
                  ? m_infoFile->ReaddFileInfo(buffer, &length)
                  : RT_ERROR_IO;
    if (RT_FAILED(ret)) {
        // What is no file, but a link or a pipe, can be read on no other day.
        RtOs::FileStamp info;
        const bool isNone =
            m_infoFile && RtOs::GetStamp(m_infoFile->GetFileName(), info) && !info.exists;
        m_isInfoWithheld = ret == RT_ERROR_IO && !m_infoFile->IsTooShort() && !isNone;
        RT_LOG(RT_LOG_ERROR,
               "CFMFile::LoadFileInfo, ReaddFileInfo error, ret=" << ret << " this=" << this);
        return 0;
    }
    const CRtMessageChain body = CRtMessageBlock::Wrap(buffer, length);
    ret = body ? FMDecodeFileBody(*body, m_fileInfo, m_createTime) : RT_ERROR_NULL_OBJECT;
    if (RT_SUCCEEDED(ret) &&
        (m_fileInfo.num > FM_TABLE_SLOTS_MAX || m_fileInfo.fileID == FMFileID_None))
        ret = RT_ERROR_INVALID_ARG;
    if (RT_SUCCEEDED(ret))
        ret = LimitTable();
    if (RT_FAILED(ret)) {
        m_isInfoWithheld = ret == RT_ERROR_IO || ret == RT_ERROR_NULL_OBJECT;
        RT_LOG(RT_LOG_ERROR,
               "CFMFile::LoadFileInfo, Decode file info error, ret=" << ret << " this=" << this);
        return 0;
    }
    m_blocks.resize(m_fileInfo.num);
    return 1;
}

// A damaged number makes nobody allocate for it.
int CFMFile::LimitTable() {
    uint64_t length = 0;
    if (const int result = m_infoFile->GetLength(length); RT_FAILED(result))
        return result;
    const uint32_t slots = FMSlotsToLoad(m_fileInfo.num, length);
    if (slots < m_fileInfo.num)
        RT_LOG(RT_LOG_WARNING, "CFMFile::LoadFileInfo, table larger than its file, num="
                                   << m_fileInfo.num << ",slots=" << slots << " this=" << this);
    m_fileInfo.num = slots;
    return RT_OK;
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
    RT_LOG(RT_LOG_TRACE,
           "CFMFile::LoadBlokInfo, ReaddBlockInfo result: length=" << length << " this=" << this);
    std::vector<FMBlockEntry> slots;
    FMDecodeBlockBody(*body, slots); // a body that ends early has said so
    return RestoreBlocks(slots) ? 1 : 0;
}

// Which of those that share their bytes share them with a block that could be read, too.
std::vector<bool> CFMFile::FindDoubtful(std::vector<FMBlockEntry> slots,
                                        const std::vector<bool>& shared, int64_t dataLength) {
    if (std::find(shared.begin(), shared.end(), true) == shared.end())
        return shared;
    for (FMBlockEntry& entry : slots) {
        if (!IsBlockidOK(entry.blockID) || !FMIsEntryPossible(entry) || EndOf(entry) > dataLength)
            entry.totalLen = 0;
    }
    return FindSharedPlaces(slots);
}

// False when there is no memory for a block: saved again, the table would be without it.
bool CFMFile::RestoreBlocks(const std::vector<FMBlockEntry>& slots) {
    RtOs::FileStamp data;
    if (!m_diskFile || !m_diskFile->GetStamp(data))
        return false;
    const auto dataLength = static_cast<int64_t>(data.length);
    const std::vector<bool> shared = FindSharedPlaces(slots);
    const std::vector<bool> doubtful = FindDoubtful(slots, shared, dataLength);
    const uint64_t now = GetTickCountEx();
    uint32_t at = m_infoFile->GetBlockBodyOffset() + FM_INFO_COUNT_SIZE;
    for (size_t i = 0; i < slots.size(); at += FMEntrySize(slots[i++])) {
        if (slots[i].blockID == 0)
            continue;
        if (!IsBlockidOK(slots[i].blockID)) {
            LogEntry("block outside the table", slots[i]);
            if (FMIsEntryPossible(slots[i]) && EndOf(slots[i]) <= cmax_filea_data_len)
                m_position = std::max(m_position, EndOf(slots[i])); // the table may grow to it
            continue;
        }
        const CRtComAutoPtr<CFMBlock> block =
            CFileManager::Instance()->CreateBlock(this, slots[i].blockID, now);
        if (!block) {
            ReleaseBlocks(); // they and the file hold each other
            return false;
        }
        m_blocks[slots[i].blockID - m_fileInfo.blockBeg] = block;
        RestorePlace(*block, slots[i], {at, shared[i], doubtful[i]}, dataLength);
    }
    m_tableEnd = m_position;
    NoteOwnChange();
    return true;
}

void CFMFile::RestorePlace(CFMBlock& block, const FMBlockEntry& entry, CFMBlock::Origin origin,
                           int64_t dataLength) {
    if (!FMIsEntryPossible(entry))
        return LogEntry("impossible place", entry);
    if (origin.placeIsShared)
        LogEntry("blocks overlap", entry);
    const int64_t end = EndOf(entry);
    const bool isMissing = entry.totalLen > 0 && end > dataLength;
    if (isMissing)
        LogEntry("block beyond the data file", entry);
    // Where no cached file ends nothing was cut off. New blocks do not go there, and what comes to lie
    // there one day is not this block's.
    if (isMissing && end > cmax_filea_data_len) {
        origin.isDoubtful = true;
        m_unbackedFrom = std::min(m_unbackedFrom, entry.posInFile);
    } else if (entry.totalLen > 0)
        m_position = std::max(m_position, end);
    block.Restore(entry, origin);
}

void CFMFile::LogEntry(const char* what, const FMBlockEntry& entry) {
    RT_LOG(RT_LOG_WARNING, "CFMFile::LoadBlokInfo, " << what << ", blockID=" << entry.blockID
                                                     << ",pos=" << entry.posInFile << ",len="
                                                     << entry.totalLen << " this=" << this);
}
