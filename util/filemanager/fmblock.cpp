// The block: its bytes in memory, writes and reads.
#include "fmblock.h"

#include <algorithm>

#include "RtLog.h"
#include "RtResult.h"
#include "RtThreadManager.h"
#include "RtTimeValue.h"
#include "diskfile.h"
#include "filemanager.h"
#include "fmfile.h"
#include "fmfunctor.h"
#include "streamkeeper.h"

namespace {

constexpr char SOURCE[] = "util/filemanager/fmblock";
constexpr int64_t ALIVE_MS = 8192;
constexpr int64_t IDLE_MS = 240000;
constexpr int64_t IDLE_MS_WHEN_FULL = 120000;

int64_t MsSince(uint64_t tick) { return static_cast<int64_t>(GetTickCountEx() - tick); }

} // namespace

CFMBlock::CFMBlock(CFMFile* file, uint32_t blockID, uint64_t now)
    : m_file(file), m_blockID(blockID), m_lastAccessTime(now) {
    ++g_counters.blocksCreated;
    RT_LOG(RT_LOG_TRACE, "CFMBlock::CFMBlock, blockID=" << m_blockID << " this=" << this);
}

CFMBlock::~CFMBlock() {
    ++g_counters.blocksDestroyed;
    RT_LOG(RT_LOG_TRACE, "CFMBlock::~CFMBlock, blockID=" << m_blockID << ",readsinks="
                                                         << uint64_t{m_readsinks.size()}
                                                         << " this=" << this);
    m_retrieves.clear();
    m_readsinks.clear();
    FreeData();
}

IFMFile* CFMBlock::GetFile() { return m_file.Get(); }
const FMFileID& CFMBlock::GetFileID() { return m_file->GetFileInfo().fileID; }

bool CFMBlock::IsAlive() {
    if (IsComplete())
        return true;
    return m_position != 0 && MsSince(m_lastAccessTime) < ALIVE_MS;
}

bool CFMBlock::CheckValid() {
    return RT_CHECK(SOURCE, m_retrieves.size() < cmax_check_owners,
                    "m_retrieves.size() < cmax_check_owners") &&
           RT_CHECK(SOURCE, m_readsinks.size() < cmax_check_owners,
                    "m_readsinks.size() < cmax_check_owners") &&
           RT_CHECK(SOURCE, m_file.Get(), "m_file.Get()") &&
           RT_CHECK(SOURCE, m_totalLen <= cmax_block_data_len,
                    "m_totalLen <= cmax_block_data_len") &&
           RT_CHECK(SOURCE, m_position <= m_totalLen, "m_position <= m_totalLen") &&
           RT_CHECK(SOURCE, m_posInFile < cmax_filea_data_len, "m_posInFile < cmax_filea_data_len");
}

// --- Memory -------------------------------------------------------------------------------------

void CFMBlock::AllocData() {
    if (!RT_CHECK(SOURCE, !m_data, "!m_data"))
        return;
    m_data = CRtMessageBlock::Create(m_totalLen);
    if (!m_data)
        return;
    CFileManager::Instance()->AddMemory(m_totalLen);
    m_file->MarkDataInMemory();
}

void CFMBlock::FreeData() {
    if (!m_data)
        return;
    m_data.reset();
    if (CFileManager* manager = CFileManager::IfAlive())
        manager->SubtractMemory(m_totalLen);
}

void CFMBlock::SetData(CRtMessageBlock* aData) {
    if (!RT_CHECK(SOURCE, !m_data && aData && aData->GetChainedLength() == m_totalLen,
                  "!m_data && aData&& aData->GetChainedLength() == m_totalLen"))
        return;
    m_data = aData->DuplicateChained();
    if (!m_data)
        return;
    CFileManager::Instance()->AddMemory(m_totalLen);
    m_file->MarkDataInMemory();
}

bool CFMBlock::FreeMemory() noexcept {
    if (m_state != BLOCK_STATE_STORED || !m_data)
        return m_data != nullptr;
    CFileManager* manager = CFileManager::Instance();
    const bool full = 2 * manager->GetMemoryLimit() < manager->GetMemoryInUse();
    if (MsSince(m_lastAccessTime) <= (full ? IDLE_MS_WHEN_FULL : IDLE_MS))
        return true;
    if (!m_file->GetDiskFile())
        return true; // nothing would bring them back
    if (const auto lock = m_file->LockTransfer(); IsLost())
        return true; // a tick stores it again
    RT_LOG(RT_LOG_TRACE, "CFMBlock::FreeMemory, fileID=" << FMFileIDToString(GetFileID())
                                                         << ",blockID=" << m_blockID
                                                         << " this=" << this);
    FreeData();
    return false;
}

// Its bytes are on disk no more, or may be another block's. Under the transfer mutex.
bool CFMBlock::IsLost() const {
    return m_origin.isDoubtful ||
           m_file->IsInGap(m_gapsBefore, m_posInFile, m_posInFile + m_totalLen);
}

// --- Writing ------------------------------------------------------------------------------------

int CFMBlock::WriteData(uint32_t blockLen, uint32_t dataPos, CRtMessageBlock* data) noexcept {
    m_lastAccessTime = GetTickCountEx();
    CheckValid();
    if (const int result = CheckPiece(blockLen, dataPos, data); RT_FAILED(result))
        return result;
    const bool rewrite = dataPos != m_position;
    if (!rewrite && IsComplete())
        return RT_OK; // an empty piece at the end
    // Nothing would find the bytes any more, and what is queued for the disk has been promised to the
    // information file.
    if (m_file->IsClosed())
        return RT_ERROR_NOT_READY;

    // The caller may hand in a chain of this very block, whose bytes a rewrite ends.
    const CRtMessageChain kept = rewrite ? data->DuplicateChained() : nullptr;
    if (rewrite && !kept)
        return RT_ERROR_NULL_OBJECT;
    if (rewrite) // before the lock, as the line goes to the application
        RT_LOG(RT_LOG_WARNING, "CFMBlock::WriteData, rewrite data! m_position="
                                   << m_position << ",m_totalLen=" << m_totalLen << ",blockLen="
                                   << blockLen << ",dataPos=" << dataPos << " this=" << this);
    if (const int result = BeginPiece(blockLen, rewrite); RT_FAILED(result))
        return result;
    uint32_t position = m_position;
    const CRtMessageBlock* piece = kept ? kept.get() : data;
    for (; piece; piece = piece->GetNext()) {
        const uint32_t length = piece->GetTopLevelLength();
        m_data->Write(piece->GetTopLevelReadPtr(), length);
        position += length;
    }
    if (position == m_totalLen)
        Complete();
    else
        m_position = position;
    return RT_OK;
}

// Makes the buffer that the piece goes to, if there is none yet.
int CFMBlock::BeginPiece(uint32_t blockLen, bool rewrite) {
    if (!rewrite && m_data)
        return RT_OK;
    const auto lock = m_file->LockTransfer();
    if (rewrite)
        BeginRewrite(blockLen);
    return PrepareBuffer(blockLen);
}

// Nothing has been changed yet when a piece is refused.
int CFMBlock::CheckPiece(uint32_t blockLen, uint32_t dataPos, const CRtMessageBlock* data) {
    if (dataPos != m_position && dataPos != 0) {
        RT_LOG(RT_LOG_ERROR,
               "CFMBlock::WriteData, m_position=" << m_position << ",dataPos=" << dataPos
                                                  << ",blockID=" << m_blockID << " this=" << this);
        return RT_ERROR_INVALID_ARG;
    }
    if (!RT_CHECK(SOURCE, data && blockLen > 0, "data && blockLen > 0"))
        return RT_ERROR_INVALID_ARG;
    const bool begins = dataPos != m_position || m_totalLen == 0;
    const uint64_t length = begins ? blockLen : m_totalLen;
    if (!RT_CHECK(SOURCE, dataPos + data->GetChainedLength() <= length,
                  "dataPos + data->GetChainedLength() <= m_totalLen"))
        return RT_ERROR_INVALID_ARG;
    return RT_OK;
}

void CFMBlock::BeginRewrite(uint32_t blockLen) {
    WithdrawStore();
    FreeData();
    m_file->MarkInfoChanged(); // the bytes of the entry that stands are gone for the caller
    m_position = 0;
    if (m_totalLen != blockLen || m_origin.placeIsShared)
        Forget();
}

// Which bytes it had, and where.
void CFMBlock::Forget() {
    m_posInFile = 0;
    m_totalLen = 0;
    m_origin = {};
}

int CFMBlock::PrepareBuffer(uint32_t blockLen) {
    if (m_data)
        return RT_OK;
    if (m_totalLen == 0) {
        m_totalLen = blockLen;
        m_posInFile = 0; // a place that was stored with no length belongs to nobody
        m_file->MarkInfoChanged();
    } else {
        RT_CHECK(SOURCE, m_totalLen == blockLen, "m_totalLen == blockLen");
    }
    m_state = BLOCK_STATE_FILLING;
    m_staleLoads = m_loadsUnderWay; // they were asked for bytes that are no more
    AllocData();
    if (RT_CHECK(SOURCE, m_data, "m_data"))
        return RT_OK;
    Forget(); // the next piece may be of a length that there is memory for
    m_state = BLOCK_STATE_EMPTY;
    return RT_ERROR_NULL_OBJECT;
}

void CFMBlock::Complete() {
    {
        const auto lock = m_file->LockTransfer();
        m_position = m_totalLen;
        m_state = BLOCK_STATE_COMPLETE;
        if (m_posInFile == 0) {
            m_file->AllocPosition(m_posInFile, m_totalLen);
            m_origin = {}; // what an entry names stays as it is
            m_file->MarkInfoChanged();
        }
    }
    PostStore();
}

// --- Reading ------------------------------------------------------------------------------------

int CFMBlock::ReadData(uint32_t readPos, uint32_t readLen, CRtMessageBlock*& pData) noexcept {
    CheckValid();
    if (readPos > m_position || uint64_t{readPos} + readLen > m_totalLen) {
        RT_LOG(RT_LOG_WARNING, "CFMBlock::ReadData, readPos=" << readPos << ",readLen=" << readLen
                                                              << ",blockID=" << m_blockID
                                                              << " this=" << this);
        return RT_ERROR_INVALID_ARG;
    }
    if (!IsComplete()) {
        RT_LOG(RT_LOG_WARNING, "CFMBlock::ReadData, data no ready! m_position="
                                   << m_position << ",m_totalLen=" << m_totalLen
                                   << ",blockID=" << m_blockID << " this=" << this);
        return RT_ERROR_NOT_READY;
    }
    m_lastAccessTime = GetTickCountEx();
    if (!m_data) {
        m_syncLoadResult = RT_OK;
        PostLoad(1); // what came of it shows in m_data
    }
    if (!RT_CHECK(SOURCE, m_data, "m_data"))
        return m_syncLoadResult == RT_ERROR_NULL_OBJECT ? RT_ERROR_NULL_OBJECT : RT_ERROR_FAILURE;
    CRtMessageChain view = m_data->DuplicateChained();
    if (!RT_CHECK(SOURCE, view, "pData"))
        return RT_ERROR_FAILURE;
    view->SetTopLevelRange(readPos, readLen);
    pData = view.release();
    return RT_OK;
}

int CFMBlock::ReadData(IFMBlockSink* sink) noexcept {
    RT_LOG(RT_LOG_TRACE, "CFMBlock::ReadData, async, sink=" << sink << ",m_readsinks="
                                                            << uint64_t{m_readsinks.size()}
                                                            << " this=" << this);
    if (!RT_CHECK(SOURCE, sink, "sink"))
        return RT_ERROR_INVALID_ARG;
    CheckValid();
    if (m_data) {
        const CRtComAutoPtr<CFMBlock> self(this); // the sink may drop the last other reference
        sink->OnBlockDataReady(this, RT_OK);
        return RT_OK;
    }
    if (IsWaiting(sink))
        return RT_OK;
    m_readsinks.push_back(sink);
    if (m_readsinks.size() > 1)
        return RT_OK;
    const int result = PostLoad(0);
    if (RT_FAILED(result))
        m_readsinks.clear();
    return result;
}

int CFMBlock::CancelReadData(IFMBlockSink* sink) noexcept {
    RT_LOG(RT_LOG_TRACE, "CFMBlock::CancelReadData, sink=" << sink << ",m_readsinks="
                                                           << uint64_t{m_readsinks.size()}
                                                           << " this=" << this);
    if (!RT_CHECK(SOURCE, sink, "sink"))
        return RT_ERROR_INVALID_ARG;
    m_readsinks.remove(sink);
    for (CallRound* round = m_calling; round; round = round->outer)
        round->sinks.remove(sink);
    return RT_OK;
}

bool CFMBlock::IsWaiting(const IFMBlockSink* sink) const {
    const auto holds = [sink](const std::list<IFMBlockSink*>& sinks) {
        return std::find(sinks.begin(), sinks.end(), sink) != sinks.end();
    };
    for (const CallRound* round = m_calling; round; round = round->outer) {
        if (holds(round->sinks))
            return true;
    }
    return holds(m_readsinks);
}

int CFMBlock::PostLoad(int bSync) {
    const int result = CFileManager::Instance()->PostToReadwrThread(
        new (std::nothrow) CFMRefFunctor2(this, &CFMBlock::ReadFromFile, m_totalLen, bSync), bSync);
    if (RT_SUCCEEDED(result) && !bSync)
        ++m_loadsUnderWay;
    return result;
}

void CFMBlock::OnDataReady(int aResult, CRtMessageBlock* aData) {
    RT_LOG(RT_LOG_TRACE, "CFMBlock::OnDataReady, aResult=" << aResult << ",m_readsinks="
                                                           << uint64_t{m_readsinks.size()}
                                                           << " this=" << this);
    if (m_loadsUnderWay > 0)
        --m_loadsUnderWay;
    const bool stale = m_staleLoads > 0;
    if (stale)
        --m_staleLoads;
    if (!stale && RT_SUCCEEDED(aResult)) {
        SetData(aData);
        if (!m_data)
            aResult = RT_ERROR_FAILURE;
    }
    if (m_data && IsComplete())
        return CallSinks(RT_OK); // however the bytes came here
    // A stale load brought the bytes of before a rewrite, which nobody wants: the block as it is now is
    // loaded, unless a later load is on its way.
    if (!stale || !IsComplete())
        return CallSinks(stale ? RT_ERROR_NOT_READY : aResult);
    if (m_readsinks.empty() || m_loadsUnderWay > m_staleLoads)
        return;
    if (const int result = PostLoad(0); RT_FAILED(result))
        CallSinks(result);
}

// The sinks that wait now, first come first served. One that asks again from inside its call waits for
// the next load; one that is cancelled meanwhile is not called.
void CFMBlock::CallSinks(int result) {
    const CRtComAutoPtr<CFMBlock> self(this);
    CallRound round{{}, m_calling};
    round.sinks.swap(m_readsinks);
    m_calling = &round;
    while (!round.sinks.empty()) {
        IFMBlockSink* sink = round.sinks.front();
        round.sinks.pop_front();
        sink->OnBlockDataReady(this, result);
    }
    m_calling = round.outer;
}
