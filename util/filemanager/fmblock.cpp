// The block: its buffer, writes, reads, stores and loads.
#include "fmblock.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <string>
#include <thread>
#include <utility>

#include "RtLog.h"
#include "RtResult.h"
#include "RtTimeValue.h"
#include "fmhost.h"
#include "mistakes.h"

namespace {

constexpr char BLOCK_SOURCE[] = "util/filemanager/fmblock";
constexpr int64_t ALIVE_MS = 8192;
constexpr int64_t IDLE_MS = 240000;
constexpr int64_t IDLE_MS_WHEN_FULL = 120000;

int64_t MsSince(uint64_t tick) { return static_cast<int64_t>(GetTickCountEx() - tick); }

void CheckReadwrThread() {
    RT_CHECK(BLOCK_SOURCE, FMHost::IsReadwrThread(),
             "CRtThreadManager::GetThreadSelfId() == "
             "CFileManager::Instance()->GetReadwrThreadID()");
}

} // namespace

CFMBlock::CFMBlock(CFMBlockOwner* file, uint32_t blockID, uint64_t now)
    : m_file(file), m_blockID(blockID), m_lastAccessTime(now) {
    g_statistics.Add(CFMStatistics::BlocksCreated);
    RT_LOG(RT_LOG_TRACE, "CFMBlock::CFMBlock, blockID=" << m_blockID << " this=" << this);
}

CFMBlock::~CFMBlock() = default;

void CFMBlock::ReleaseMembers() {
    g_statistics.Add(CFMStatistics::BlocksDestroyed);
    RT_LOG(RT_LOG_TRACE, "CFMBlock::~CFMBlock, blockID=" << m_blockID << ",readsinks="
                                                         << uint64_t{m_readsinks.size()}
                                                         << " this=" << this);
    m_retrieves.clear();
    m_readsinks.clear();
    FreeData();
    SetState(State::Empty);
    m_owners.clear();
}

bool CFMBlock::IsAlive() {
    CFMMistakes::CheckThread("IFMBlock::IsAlive");
    if (IsFull())
        return true;
    return m_position != 0 && MsSince(m_lastAccessTime) < ALIVE_MS;
}

bool CFMBlock::IsGiven(const void* object, const char* expression) {
    return RT_CHECK(BLOCK_SOURCE, object, expression);
}

bool CFMBlock::CheckValid() {
    return RT_CHECK(BLOCK_SOURCE, m_retrieves.size() < cmax_check_owners,
                    "m_retrieves.size() < cmax_check_owners") &&
           RT_CHECK(BLOCK_SOURCE, m_readsinks.size() < cmax_check_owners,
                    "m_readsinks.size() < cmax_check_owners") &&
           RT_CHECK(BLOCK_SOURCE, m_file.Get(), "m_file.Get()") &&
           RT_CHECK(BLOCK_SOURCE, m_totalLen <= cmax_block_data_len,
                    "m_totalLen <= cmax_block_data_len") &&
           RT_CHECK(BLOCK_SOURCE, m_position <= m_totalLen, "m_position <= m_totalLen") &&
           RT_CHECK(BLOCK_SOURCE, m_posInFile < cmax_filea_data_len,
                    "m_posInFile < cmax_filea_data_len");
}

// --- Memory -------------------------------------------------------------------------------------

void CFMBlock::AllocData() {
    if (!RT_CHECK(BLOCK_SOURCE, !m_data, "!m_data"))
        return;
    m_data = CRtMessageBlock::Create(m_totalLen);
    if (!m_data)
        return;
    FMHost::AddMemory(m_totalLen);
    g_statistics.Add(CFMStatistics::ResidentBlocks);
    m_file->MarkDataInMemory();
}

void CFMBlock::FreeData() {
    if (!m_data)
        return;
    m_data.reset();
    FMHost::SubtractMemory(m_totalLen);
    g_statistics.Subtract(CFMStatistics::ResidentBlocks);
}

void CFMBlock::SetData(CRtMessageBlock* aData) {
    if (!RT_CHECK(BLOCK_SOURCE, !m_data && aData && aData->GetChainedLength() == m_totalLen,
                  "!m_data && aData&& aData->GetChainedLength() == m_totalLen"))
        return;
    m_data = aData->DuplicateChained();
    if (!m_data)
        return;
    FMHost::AddMemory(m_totalLen);
    g_statistics.Add(CFMStatistics::ResidentBlocks);
    m_file->MarkDataInMemory();
}

bool CFMBlock::FreeMemory() noexcept {
    CFMMistakes::CheckThread("IFMBlock::FreeMemory");
    if (!m_data || !IsStored())
        return m_data != nullptr;
    const int64_t limit = FMHost::IsMemoryFarAboveLimit() ? IDLE_MS_WHEN_FULL : IDLE_MS;
    if (MsSince(m_lastAccessTime) <= limit)
        return true;
    // If the path belongs to another object, the bytes could not be loaded again. If they are lost on disk, a
    // tick stores them again.
    if (!m_file->GetDiskFile() || m_onDisk.epoch != m_file->GetEntry().GetEpoch())
        return true;
    RT_LOG(RT_LOG_TRACE, "CFMBlock::FreeMemory, fileID=" << FMFileIDToString(GetFileID())
                                                         << ",blockID=" << m_blockID
                                                         << " this=" << this);
    FreeData();
    return false;
}

// --- Writing ------------------------------------------------------------------------------------

int CFMBlock::WriteData(uint32_t blockLen, uint32_t dataPos, CRtMessageBlock* data) noexcept {
    CFMMistakes::CheckThread("IFMBlock::WriteData");
    m_lastAccessTime = GetTickCountEx();
    CheckValid();
    if (const int result = CheckPiece(blockLen, dataPos, data); RT_FAILED(result))
        return result;
    const bool isRewrite = dataPos != m_position;
    if (!isRewrite && IsFull())
        return RT_OK; // an empty piece at the end
    // Nothing would find the bytes any more.
    if (m_file->IsClosed())
        return RT_ERROR_NOT_READY;

    // The chain may contain the bytes of this block, which a rewrite releases.
    const CRtMessageChain kept = isRewrite ? data->DuplicateChained() : nullptr;
    if (isRewrite && !kept)
        return RT_ERROR_NULL_OBJECT;
    if (isRewrite)
        BeginRewrite(blockLen);
    if (!m_data) {
        if (const int result = PrepareBuffer(blockLen); RT_FAILED(result))
            return result;
    }
    assert(m_state == State::Filling); // invariant 6
    for (const CRtMessageBlock* piece = kept ? kept.get() : data; piece; piece = piece->GetNext()) {
        const uint32_t length = piece->GetTopLevelLength();
        m_data->Write(piece->GetTopLevelReadPtr(), length);
        m_position += length;
    }
    if (m_position < m_totalLen)
        return RT_OK;
    if (m_posInFile == 0)
        AllocPosition();
    PostStore();
    return RT_OK;
}

void CFMBlock::AllocPosition() {
    m_file->AllocPosition(m_posInFile, m_totalLen);
    if (m_posInFile <= cmax_filea_data_len && m_posInFile + m_totalLen > cmax_filea_data_len)
        FM_REPORT_MISTAKE("IFMBlock::WriteData, mistake: the data file exceeds the limit of "
                          << cmax_filea_data_len << " bytes for a file. Use more files. "
                          << GetLogName());
}

CRtString CFMBlock::GetLogName() const {
    return CRtString("blockID=") + CRtString(std::to_string(m_blockID)) + "," +
           m_file->GetLogName();
}

// Nothing has been changed yet when a piece is refused.
int CFMBlock::CheckPiece(uint32_t blockLen, uint32_t dataPos, const CRtMessageBlock* data) {
    if (dataPos != m_position && dataPos != 0) {
        RT_LOG(RT_LOG_ERROR,
               "CFMBlock::WriteData, m_position=" << m_position << ",dataPos=" << dataPos
                                                  << ",blockID=" << m_blockID << " this=" << this);
        return RT_ERROR_INVALID_ARG;
    }
    if (!RT_CHECK(BLOCK_SOURCE, data && blockLen > 0, "data && blockLen > 0"))
        return RT_ERROR_INVALID_ARG;
    const bool begins = dataPos != m_position || m_totalLen == 0;
    const uint64_t length = begins ? blockLen : m_totalLen;
    if (!RT_CHECK(BLOCK_SOURCE, dataPos + data->GetChainedLength() <= length,
                  "dataPos + data->GetChainedLength() <= m_totalLen"))
        return RT_ERROR_INVALID_ARG;
    if (blockLen != length && CFMMistakes::IsFirst(FMMistake::BlockLength))
        FM_REPORT_MISTAKE("IFMBlock::WriteData, mistake: blockLen is "
                          << blockLen << ", but the first piece set the length of the block to "
                          << m_totalLen
                          << ", which the block keeps. Pass the same blockLen with each piece. "
                             "Further pieces are not reported. "
                          << GetLogName());
    return RT_OK;
}

void CFMBlock::BeginRewrite(uint32_t blockLen) {
    RT_LOG(RT_LOG_WARNING, "CFMBlock::WriteData, rewrite data! m_position="
                               << m_position << ",m_totalLen=" << m_totalLen
                               << ",blockLen=" << blockLen << ",dataPos=0 this=" << this);
    m_file->MarkInfoChanged(); // the table on disk names superseded bytes
    m_onDisk.isNamed = false;
    CRtMessageChain withdrawn;
    CFMStores& stores = m_file->GetStores();
    const auto lock = stores.LockShared();
    if (m_store)
        withdrawn = stores.Withdraw(*std::exchange(m_store, nullptr));
    FreeData();
    m_serial = stores.NextSerial();
    SetState(State::Filling);
    m_position = 0;
    if (m_totalLen != blockLen)
        ForgetLength();
}

void CFMBlock::ForgetLength() {
    m_posInFile = 0;
    m_totalLen = 0;
}

// In state Empty or Filling: no job of the read/write thread reads the block.
int CFMBlock::PrepareBuffer(uint32_t blockLen) {
    if (m_totalLen == 0) {
        m_totalLen = blockLen;
        if (blockLen > cmax_block_data_len)
            FM_REPORT_MISTAKE("IFMBlock::WriteData, mistake: blockLen is "
                              << blockLen << ", and the limit is " << cmax_block_data_len
                              << " bytes for a block. Use smaller blocks. " << GetLogName());
        m_posInFile = 0; // a stored entry without length owns no place
        m_file->MarkInfoChanged();
    } else {
        RT_CHECK(BLOCK_SOURCE, m_totalLen == blockLen, "m_totalLen == blockLen");
    }
    SetState(State::Filling);
    AllocData();
    if (RT_CHECK(BLOCK_SOURCE, m_data, "m_data"))
        return RT_OK;
    ForgetLength(); // the next piece may have a length that can be allocated
    SetState(State::Empty);
    return RT_ERROR_NULL_OBJECT;
}

// --- The store ----------------------------------------------------------------------------------

void CFMBlock::PostStore() {
    m_onDisk.isNamed = false; // the store revokes the entry of the table on disk
    m_file->MarkInfoChanged();
    CRtMessageChain bytes = m_data->DuplicateChained();
    CFMStoreEvent* event = nullptr;
    {
        CFMStores& stores = m_file->GetStores();
        const auto lock = stores.LockShared();
        m_serial = stores.NextSerial();
        if (bytes) {
            event = new CFMStoreEvent(this, m_serial, m_posInFile, std::move(bytes));
            stores.Add(*event);
            m_store = event;
            SetState(State::Queued);
        } else {
            FailStore();
        }
    }
    if (event) // if posting fails, disposing of the event ends the store as failed
        FMHost::PostToReadwrThread(event, 0);
}

void CFMBlock::RetryStore() {
    if (!m_data || !IsFull())
        return;
    bool isWanted = false;
    {
        const auto lock = m_file->GetStores().LockShared();
        isWanted = m_state == State::Failed ||
                   (IsOnDisk() && m_onDisk.epoch != m_file->GetEntry().GetEpoch());
    }
    if (!isWanted)
        return;
    g_statistics.Add(CFMStatistics::StoreRetries);
    PostStore();
}

CFMStoreEvent::~CFMStoreEvent() {
    if (m_hasRun)
        return;
    CRtMessageChain withdrawn;
    CFMStores& stores = m_block->m_file->GetStores();
    auto lock = stores.LockShared();
    // At the end of the process, a post may be refused after an earlier event has taken the store along.
    while (IsTaken()) {
        lock.unlock();
        std::this_thread::yield();
        lock.lock();
    }
    withdrawn = stores.Withdraw(*this);
    if (withdrawn)
        m_block->FailStore();
}

int CFMStoreEvent::OnEventFire() {
    m_hasRun = true;
    std::array<CFMStore*, RtOs::PIECES_MAX> taken;
    CFMStores& stores = m_block->m_file->GetStores();
    size_t count = 0;
    {
        const auto lock = stores.LockShared();
        count = stores.TakeBatch(*this, taken);
        for (size_t i = 0; i < count; ++i) {
            CFMBlock& block = *static_cast<CFMStoreEvent*>(taken[i])->m_block.Get();
            block.m_store = nullptr;
            block.SetState(CFMBlock::State::Writing);
        }
    }
    const std::span<CFMStore* const> batch(taken.data(), count);
    const auto now = CFMStatistics::Clock::now();
    for (const CFMStore* store : batch)
        g_statistics.Record(CFMStatistics::StoreWait,
                            now - static_cast<const CFMStoreEvent*>(store)->m_posted);
    // No tick retries the stores of a closed file. Without a pending table the bytes
    // are not wanted: the file is temporary, was replaced or was cleared.
    const auto isLast = [&file = *m_block->m_file, &stores] {
        const auto lock = stores.LockShared();
        return file.IsClosed() && stores.GetTable();
    };
    const RtOs::RetryLimit limit(RtOs::RETRY_DISK_MS, &stores.DelaysOfLast(), isLast,
                                 &FMHost::RefuseLoads);
    if (count > 1 && WriteTogether(batch))
        return 0;
    for (CFMStore* store : batch)
        static_cast<CFMStoreEvent*>(store)->m_block->WriteToFile(store->GetBytes(), *store);
    return 0;
}

// Writes adjacent pieces, and records the time that this takes.
static CFMDiskEntry::Stored Write(CFMDiskEntry& entry, std::span<const RtOs::Piece> pieces,
                                  int64_t pos) {
    const auto begun = CFMStatistics::Clock::now();
    const CFMDiskEntry::Stored stored = entry.Store(pieces, pos);
    g_statistics.Record(CFMStatistics::StoreDisk, CFMStatistics::Clock::now() - begun);
    return stored;
}

// False if the stores have to be written one by one.
bool CFMStoreEvent::WriteTogether(std::span<CFMStore* const> batch) {
    CheckReadwrThread();
    std::array<RtOs::Piece, RtOs::PIECES_MAX> pieces;
    std::ranges::transform(batch, pieces.begin(), [](const CFMStore* store) {
        return RtOs::Piece{store->GetBytes()->GetTopLevelReadPtr(), store->GetLength()};
    });
    CFMBlockOwner& file = *static_cast<CFMStoreEvent*>(batch.front())->m_block->m_file;
    const CFMDiskEntry::Stored stored =
        Write(file.GetEntry(), {pieces.data(), batch.size()}, batch.front()->GetPos());
    if (RT_FAILED(stored.result))
        return false;
    g_statistics.Add(CFMStatistics::StoreBatches);
    const auto lock = file.GetStores().LockShared();
    for (CFMStore* store : batch)
        static_cast<CFMStoreEvent*>(store)->m_block->EndStore(*store, stored);
    return true;
}

int CFMBlock::WriteToFile(CRtMessageBlock* aData, CFMStore& store) {
    CheckReadwrThread();
    const CFMDiskEntry::Stored stored = StoreBytes(aData, store);
    const auto lock = m_file->GetStores().LockShared();
    EndStore(store, stored);
    return stored.result;
}

CFMDiskEntry::Stored CFMBlock::StoreBytes(CRtMessageBlock* aData, const CFMStore& store) {
    CFMDiskEntry::Stored stored{RT_ERROR_NOT_READY, m_file->GetEntry().GetEpoch()};
    if (!RT_CHECK(BLOCK_SOURCE, m_file && m_file->GetDiskFile(),
                  "m_file.Get() && m_file->GetDiskFile()"))
        return stored;
    {
        const auto lock = m_file->GetStores().LockShared();
        if (m_serial != store.GetSerial()) // rewritten since it was taken
            return stored;
        if (!RT_CHECK(BLOCK_SOURCE, m_state > State::Filling && aData, "IsComplete() && aData"))
            return stored;
    }
    const uint32_t length = aData->GetTopLevelLength();
    const RtOs::Piece piece{aData->GetTopLevelReadPtr(), length};
    stored = Write(m_file->GetEntry(), {&piece, 1}, store.GetPos());
    if (RT_FAILED(stored.result))
        RT_LOG(RT_LOG_WARNING, "CFMBlock::WriteToFile, WriteData failed. ret="
                                   << stored.result << ",pos=" << store.GetPos()
                                   << ",len=" << length << " this=" << this);
    return stored;
}

// Precondition: the lock of the stores is held. A result changes the block only if the serial is current.
void CFMBlock::EndStore(CFMStore& store, CFMDiskEntry::Stored stored) {
    const bool isStored = RT_SUCCEEDED(stored.result);
    const FMBlockEntry entry{m_blockID, isStored ? store.GetLength() : 0,
                             isStored ? store.GetPos() : 0};
    // In a new epoch, resident blocks of earlier ones are stored again.
    if (m_file->GetStores().End(store, entry, stored.epoch))
        m_file->MarkStoreFailed();
    if (isStored) {
        g_statistics.Add(CFMStatistics::Stores);
        g_statistics.Add(CFMStatistics::StoreBytes, store.GetLength());
    } else if (stored.result != RT_ERROR_NOT_READY) {
        g_statistics.Add(CFMStatistics::StoreFailures);
    }
    if (m_serial != store.GetSerial())
        return;
    assert(m_state == State::Writing && !m_store); // invariant 4
    if (!isStored)
        return FailStore();
    m_onDisk.epoch = stored.epoch;
    SetState(State::Stored);
}

// Precondition: the lock of the stores is held.
void CFMBlock::FailStore() {
    m_store = nullptr;
    SetState(State::Failed);
    m_file->MarkStoreFailed();
}

// --- Reading ------------------------------------------------------------------------------------

namespace {

// The load that the caller thread waits for. Lives on its stack.
class CFMSyncLoad final : public CFMFunctorBase {
public:
    CFMSyncLoad(CFMBlock& block, uint32_t length) : m_block(block), m_length(length) {}
    int OnEventFire() override {
        g_statistics.Record(CFMStatistics::LoadWait, CFMStatistics::Clock::now() - m_posted);
        m_result = m_block.ReadFromFile(m_length, 1);
        return 0;
    }
    void OnDestorySelf() override {}
    int GetResult() const { return m_result; }

private:
    CFMBlock& m_block;
    const uint32_t m_length;
    const CFMStatistics::Clock::time_point m_posted = CFMStatistics::Clock::now();
    int m_result = RT_OK;
};

} // namespace

int CFMBlock::LoadAndWait() {
    CFMSyncLoad load(*this, m_totalLen);
    const int result = FMHost::SendLoad(&load);
    return RT_FAILED(result) ? result : load.GetResult();
}

int CFMBlock::ReadData(uint32_t readPos, uint32_t readLen, CRtMessageBlock*& pData) noexcept {
    CFMMistakes::CheckThread("IFMBlock::ReadData");
    CheckValid();
    if (readPos > m_position || uint64_t{readPos} + readLen > m_totalLen) {
        RT_LOG(RT_LOG_WARNING, "CFMBlock::ReadData, readPos=" << readPos << ",readLen=" << readLen
                                                              << ",blockID=" << m_blockID
                                                              << " this=" << this);
        return RT_ERROR_INVALID_ARG;
    }
    if (!IsFull()) {
        RT_LOG(RT_LOG_WARNING, "CFMBlock::ReadData, data no ready! m_position="
                                   << m_position << ",m_totalLen=" << m_totalLen
                                   << ",blockID=" << m_blockID << " this=" << this);
        return RT_ERROR_NOT_READY;
    }
    m_lastAccessTime = GetTickCountEx();
    g_statistics.Add(m_data ? CFMStatistics::ReadHits : CFMStatistics::ReadMisses);
    const int loaded = m_data ? RT_OK : LoadAndWait();
    if (!RT_CHECK(BLOCK_SOURCE, m_data, "m_data"))
        return loaded == RT_ERROR_NULL_OBJECT ? RT_ERROR_NULL_OBJECT : RT_ERROR_FAILURE;
    CRtMessageChain view = m_data->DuplicateChained();
    if (!RT_CHECK(BLOCK_SOURCE, view, "pData"))
        return RT_ERROR_FAILURE;
    view->SetTopLevelRange(readPos, readLen);
    pData = view.release();
    return RT_OK;
}

int CFMBlock::ReadData(IFMBlockSink* sink) noexcept {
    CFMMistakes::CheckThread("IFMBlock::ReadData");
    RT_LOG(RT_LOG_TRACE, "CFMBlock::ReadData, async, sink=" << sink << ",m_readsinks="
                                                            << uint64_t{m_readsinks.size()}
                                                            << " this=" << this);
    if (!RT_CHECK(BLOCK_SOURCE, sink, "sink"))
        return RT_ERROR_INVALID_ARG;
    CheckValid();
    g_statistics.Add(m_data ? CFMStatistics::ReadHits : CFMStatistics::ReadMisses);
    if (m_data) {
        const CRtComAutoPtr<CFMBlock> self(this); // the sink may drop the last other reference
        sink->OnBlockDataReady(this, RT_OK);
        return RT_OK;
    }
    if (IsWaiting(sink))
        return RT_OK;
    m_readsinks.push_back(sink);
    if (JoinLoad())
        return RT_OK; // its completion serves this sink, or starts the next load
    const int result = PostLoad();
    if (RT_FAILED(result))
        m_readsinks.clear();
    return result;
}

int CFMBlock::CancelReadData(IFMBlockSink* sink) noexcept {
    CFMMistakes::CheckThread("IFMBlock::CancelReadData");
    RT_LOG(RT_LOG_TRACE, "CFMBlock::CancelReadData, sink=" << sink << ",m_readsinks="
                                                           << uint64_t{m_readsinks.size()}
                                                           << " this=" << this);
    if (!RT_CHECK(BLOCK_SOURCE, sink, "sink"))
        return RT_ERROR_INVALID_ARG;
    m_readsinks.remove(sink);
    for (CallRound* round = m_calling; round; round = round->outer)
        round->sinks.remove(sink);
    if (m_readsinks.empty()) {
        const auto lock = m_file->GetStores().LockShared();
        WithdrawLoad();
    }
    return RT_OK;
}

void CFMBlock::WithdrawLoad() {
    if (m_load.state == Load::State::Posted)
        m_load.state = Load::State::Withdrawn;
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

int CFMBlock::PostLoad() {
    if (!FMHost::HasCallerThread()) // the completion would be refused
        return RT_ERROR_NOT_READY;
    m_load = {Load::State::Posted, 0,
              CFMStatistics::Clock::now()}; // no load is in flight: no other thread uses it
    const int result = FMHost::PostLoad(
        new (std::nothrow) CFMRefFunctor2(this, &CFMBlock::ReadFromFile, m_totalLen, 0));
    if (RT_FAILED(result))
        m_load = {};
    return result;
}

// Whether a load is in flight. If it was withdrawn, it is wanted again.
bool CFMBlock::JoinLoad() {
    const auto lock = m_file->GetStores().LockShared();
    if (m_load.state == Load::State::Withdrawn)
        m_load.state = Load::State::Posted;
    else if (m_load.state == Load::State::Skipped)
        m_load.state = Load::State::Begun; // stale: its completion starts the next load
    return m_load.state != Load::State::None;
}

// Precondition: the lock of the stores is held. False if nothing is to be read: the load was withdrawn, the
// block is released with its event, or the block was rewritten and is resident.
bool CFMBlock::BeginLoad() {
    const bool isWanted = m_load.state == Load::State::Posted && !IsLastReference();
    m_load.state = isWanted ? Load::State::Begun : Load::State::Skipped;
    m_load.serial = isWanted && IsOnDisk() ? m_serial : 0;
    if (!isWanted || (m_load.serial == 0 && m_state > State::Filling))
        return false;
    g_statistics.Record(CFMStatistics::LoadWait, CFMStatistics::Clock::now() - m_load.posted);
    return true;
}

int CFMBlock::ReadFromFile(uint32_t len, int bSync) {
    CheckReadwrThread();
    CRtMessageChain buffer;
    const int result = LoadBytes(len, bSync, buffer);
    if (bSync) { // the caller thread waits for this event
        if (RT_SUCCEEDED(result))
            SetData(buffer.get());
        return result;
    }
    FMHost::PostToCallerThread(
        new CFMRefFunctor2(this, &CFMBlock::OnDataReady, result, buffer.release()), 0);
    return result;
}

int CFMBlock::LoadBytes(uint32_t len, int bSync, CRtMessageChain& buffer) {
    State state{};
    int64_t pos = 0;
    uint32_t epoch = 0;
    {
        const auto lock = m_file->GetStores().LockShared();
        if (!bSync && !BeginLoad())
            return RT_ERROR_NOT_READY;
        state = m_state;
        if (state > State::Filling) {
            if (len != m_totalLen) { // rewritten with another length since the load was posted
                m_load.serial = 0;
                return RT_ERROR_NOT_READY;
            }
            pos = m_posInFile;
            epoch = m_onDisk.epoch;
        }
    }
    if (!RT_CHECK(BLOCK_SOURCE, m_file && m_file->GetDiskFile(),
                  "m_file.Get() && m_file->GetDiskFile()"))
        return RT_ERROR_NOT_READY;
    if (!RT_CHECK(BLOCK_SOURCE, state > State::Filling, "IsComplete()"))
        return RT_ERROR_NOT_READY;
    const auto begun = CFMStatistics::Clock::now();
    const int result = m_file->GetEntry().Load(pos, len, epoch, buffer);
    g_statistics.Record(CFMStatistics::LoadDisk, CFMStatistics::Clock::now() - begun);
    g_statistics.Add(RT_SUCCEEDED(result) ? CFMStatistics::Loads : CFMStatistics::LoadFailures);
    if (RT_SUCCEEDED(result))
        g_statistics.Add(CFMStatistics::LoadBytes, len);
    else
        RT_LOG(RT_LOG_WARNING, "CFMBlock::ReadFromFile, ReadData failed. ret="
                                   << result << ",pos=" << pos << ",len=" << len
                                   << " this=" << this);
    return result;
}

void CFMBlock::OnDataReady(int aResult, CRtMessageBlock* aData) {
    RT_LOG(RT_LOG_TRACE, "CFMBlock::OnDataReady, aResult=" << aResult << ",m_readsinks="
                                                           << uint64_t{m_readsinks.size()}
                                                           << " this=" << this);
    // The load has ended: no other thread uses m_load.
    const Load load = std::exchange(m_load, {});
    const bool isSkipped = load.state == Load::State::Skipped;
    const bool isStale = load.serial != m_serial && !isSkipped;
    if (!isStale && RT_SUCCEEDED(aResult)) { // a skipped load has failed
        SetData(aData);
        if (!m_data)
            aResult = RT_ERROR_FAILURE;
    }
    if (m_data && IsFull())
        return CallSinks(RT_OK); // loaded or rewritten
    if (!isStale)
        return CallSinks(aResult);
    // The load is stale: load the current bytes.
    if (!IsFull())
        return CallSinks(RT_ERROR_NOT_READY);
    if (m_readsinks.empty())
        return;
    if (const int result = PostLoad(); RT_FAILED(result))
        CallSinks(result);
}

// Calls the waiting sinks in the order of their requests. A sink that requests a read from inside its call
// waits for the next load. A sink that is cancelled before its turn is not called.
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
