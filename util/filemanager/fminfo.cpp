// The file object's information store: saving at the close, loading before the file is opened.
#include <algorithm>

#include "RtLog.h"
#include "RtResult.h"
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

// Which entries name bytes that another names too: writing one of them in place would change the other,
// and at most one of them is true.
std::vector<bool> FindSharedPlaces(const std::vector<FMBlockEntry>& slots) {
    std::vector<bool> shared(slots.size());
    std::vector<size_t> order;
    for (size_t i = 0; i < slots.size(); ++i) {
        if (slots[i].totalLen > 0 && FMIsEntryPossible(slots[i]))
            order.push_back(i);
    }
    std::sort(order.begin(), order.end(),
              [&slots](size_t a, size_t b) { return slots[a].posInFile < slots[b].posInFile; });
    int64_t furthestEnd = 0;
    size_t furthest = 0;
    for (const size_t i : order) {
        if (slots[i].posInFile < furthestEnd)
            shared[i] = shared[furthest] = true;
        const int64_t end = slots[i].posInFile + slots[i].totalLen;
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
    for (size_t i = 0; i < m_blocks.size(); ++i) {
        if (!m_blocks[i])
            continue;
        CFMBlock& block = *m_blocks[i];
        if (block.GetBlockID() == 0) {
            RT_LOG(RT_LOG_WARNING, "CFMFile::SaveFileInfo, block 0 cannot be saved this=" << this);
            continue;
        }
        // Asked first: what is over by now has shown its result to Describe.
        if (block.IsStorePending())
            m_unsettled.push_back(m_blocks[i]);
        slots[i] = block.Describe();
    }
    return slots;
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

void CFMFile::SaveFileInfo_m(CRtMessageBlock* fileBody, CRtMessageBlock* blockBody) {
    if (!IsInfoWaiting())
        return; // written or dropped before its turn came
    if (fileBody) {
        int ret = PrepareSave();
        if (RT_SUCCEEDED(ret))
            ret = WriteBody(*m_infoFile, &CInfoFile::WriteFileInfo, *fileBody);
        if (RT_FAILED(ret)) {
            RT_LOG(RT_LOG_ERROR,
                   "CFMFile::SaveFileInfo_m, WriteFileInfo error, ret=" << ret << " this=" << this);
            EndWaiting();
            return;
        }
    }
    if (blockBody) {
        const CRtMessageChain corrected = WithoutFailedStores(*blockBody);
        const int ret =
            WriteBody(*m_infoFile, &CInfoFile::WriteBlockInfo, corrected ? *corrected : *blockBody);
        if (RT_FAILED(ret))
            RT_LOG(RT_LOG_ERROR, "CFMFile::SaveFileInfo_m, WriteBlockInfo error, ret="
                                     << ret << " this=" << this);
    }
    EndWaiting();
}

// Stores that failed after the table was encoded: their entries must not say that bytes are there. Null
// when there are none.
CRtMessageChain CFMFile::WithoutFailedStores(CRtMessageBlock& blockBody) {
    std::vector<FMBlockEntry> slots;
    for (const auto& block : m_unsettled) {
        if (!block->IsStoreFailed())
            continue;
        if (slots.empty())
            FMDecodeBlockBody(*blockBody.DuplicateChained(), slots);
        const uint32_t slot = block->GetBlockID() - m_fileInfo.blockBeg;
        if (slot < slots.size()) // else it was left out for lack of room
            slots[slot] = {block->GetBlockID(), 0, 0};
    }
    CRtMessageChain corrected;
    uint32_t left = 0;
    if (!slots.empty())
        FMEncodeBlockBody(slots, corrected, left);
    return corrected;
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
    int ret = m_infoFile ? m_infoFile->ReaddFileInfo(buffer, &length) : RT_ERROR_NOT_READY;
    if (RT_FAILED(ret)) {
        RT_LOG(RT_LOG_ERROR,
               "CFMFile::LoadFileInfo, ReaddFileInfo error, ret=" << ret << " this=" << this);
        return 0;
    }
    const CRtMessageChain body = CRtMessageBlock::Wrap(buffer, length);
    ret = FMDecodeFileBody(*body, m_fileInfo, m_createTime);
    if (RT_SUCCEEDED(ret) &&
        (m_fileInfo.num > FM_TABLE_SLOTS_MAX || m_fileInfo.fileID == FMFileID_None))
        ret = RT_ERROR_INVALID_ARG;
    if (RT_FAILED(ret)) {
        RT_LOG(RT_LOG_ERROR,
               "CFMFile::LoadFileInfo, Decode file info error, ret=" << ret << " this=" << this);
        return 0;
    }
    LimitTable();
    m_blocks.resize(m_fileInfo.num);
    return 1;
}

// A damaged number makes nobody allocate for it.
void CFMFile::LimitTable() {
    uint64_t length = 0;
    if (RT_FAILED(m_infoFile->GetLength(length)))
        length = 0;
    const uint32_t slots = FMSlotsToLoad(m_fileInfo.num, length);
    if (slots < m_fileInfo.num)
        RT_LOG(RT_LOG_WARNING, "CFMFile::LoadFileInfo, table larger than its file, num="
                                   << m_fileInfo.num << ",slots=" << slots << " this=" << this);
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
    uint64_t fileLength = 0;
    ret = m_infoFile->GetLength(fileLength);
    if (RT_SUCCEEDED(ret) && length > fileLength)
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
    RestoreBlocks(slots);
    return 1;
}

// Which of those that share their bytes share them with a block that could be read, too.
std::vector<bool> CFMFile::FindDoubtful(std::vector<FMBlockEntry> slots,
                                        const std::vector<bool>& shared, uint64_t dataLength) {
    if (std::find(shared.begin(), shared.end(), true) == shared.end())
        return shared;
    for (FMBlockEntry& entry : slots) {
        if (!IsBlockidOK(entry.blockID) || !FMIsEntryPossible(entry) ||
            entry.posInFile + entry.totalLen > static_cast<int64_t>(dataLength))
            entry.totalLen = 0;
    }
    return FindSharedPlaces(slots);
}

void CFMFile::RestoreBlocks(const std::vector<FMBlockEntry>& slots) {
    uint64_t dataLength = 0;
    if (m_diskFile && !RtOs::GetFileLength(m_diskFile->GetFileName(), dataLength))
        dataLength = 0;
    const std::vector<bool> shared = FindSharedPlaces(slots);
    const std::vector<bool> doubtful = FindDoubtful(slots, shared, dataLength);
    uint32_t at = m_infoFile->GetBlockBodyOffset() + FM_INFO_COUNT_SIZE;
    for (size_t i = 0; i < slots.size(); at += FMEntrySize(slots[i++])) {
        CFMBlock* block = slots[i].blockID != 0 ? RestoreBlock(slots[i], dataLength) : nullptr;
        if (!block)
            continue;
        if (shared[i])
            RT_LOG(RT_LOG_WARNING, "CFMFile::LoadBlokInfo, blocks overlap, blockID="
                                       << slots[i].blockID << ",pos=" << slots[i].posInFile
                                       << ",len=" << slots[i].totalLen << " this=" << this);
        block->Restore(slots[i], {at, shared[i], doubtful[i]});
    }
    m_tableEnd = m_position;
    m_infoStamp = RtOs::GetStamp(m_infoFile->GetFileName());
}

// The new block in its slot, or null when it has no bytes anywhere.
CFMBlock* CFMFile::RestoreBlock(const FMBlockEntry& entry, uint64_t dataLength) {
    if (!IsBlockidOK(entry.blockID)) {
        RT_LOG(RT_LOG_WARNING, "CFMFile::LoadBlokInfo, block outside the table, blockID="
                                   << entry.blockID << " this=" << this);
        return nullptr;
    }
    const CRtComAutoPtr<CFMBlock> block =
        CFileManager::Instance()->CreateBlock(this, entry.blockID);
    if (!block)
        return nullptr;
    m_blocks[entry.blockID - m_fileInfo.blockBeg] = block;
    if (!FMIsEntryPossible(entry)) {
        RT_LOG(RT_LOG_WARNING, "CFMFile::LoadBlokInfo, impossible place, blockID="
                                   << entry.blockID << ",pos=" << entry.posInFile
                                   << ",len=" << entry.totalLen << " this=" << this);
        return nullptr;
    }
    const int64_t end = entry.posInFile + entry.totalLen;
    if (entry.totalLen > 0 && static_cast<uint64_t>(end) > dataLength)
        RT_LOG(RT_LOG_WARNING, "CFMFile::LoadBlokInfo, block beyond the data file, blockID="
                                   << entry.blockID << ",pos=" << entry.posInFile
                                   << ",len=" << entry.totalLen << " this=" << this);
    if (entry.totalLen > 0)
        m_position = std::max(m_position, end);
    return block.Get();
}
