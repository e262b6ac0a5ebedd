// The block's way to the data file and back.
//
// A store belongs to the bytes it was posted for. The block remembers the address of those bytes
// (m_storeBytes) from the posting to the end of the store; the event holds them, so that no other buffer
// can have that address meanwhile. A rewrite forgets the address: the old store, if it cannot be taken
// back out of the queue any more, finds that it is out of date and changes nothing.
#include <algorithm>
#include <array>
#include <typeinfo>

#include "RtLog.h"
#include "RtResult.h"
#include "RtThreadManager.h"
#include "diskfile.h"
#include "filemanager.h"
#include "fmblock.h"
#include "fmfile.h"
#include "fmstore.h"
#include "streamkeeper.h"

namespace {

constexpr char SOURCE[] = "util/filemanager/fmblock";
constexpr uint32_t SMALL = 64 * 1024; // what is larger gains nothing by company

void CheckReadwrThread() {
    RT_CHECK(SOURCE,
             CRtThreadManager::GetThreadSelfId() == CFileManager::Instance()->GetReadwrThreadID(),
             "CRtThreadManager::GetThreadSelfId() == "
             "CFileManager::Instance()->GetReadwrThreadID()");
}

int WritePieces(CFMFile& file, CDiskFile& disk, std::span<CFMStore* const> stores) {
    const int64_t pos = stores.front()->GetPos();
    std::array<RtOs::Piece, RtOs::PIECES_MAX> pieces;
    std::ranges::transform(stores, pieces.begin(), [](const CFMStore* store) {
        return RtOs::Piece{store->GetStart(), store->GetLength()};
    });
    const std::lock_guard diskLock(file.GetDiskMutex());
    const CStreamKeeper::CUse use(disk); // one stream for all steps
    const auto length = static_cast<uint32_t>(stores.back()->GetEnd() - pos);
    const int result = file.PrepareStore(pos, length, 0);
    return RT_FAILED(result)
               ? result
               : disk.WritePieces({pieces.data(), stores.size()}, static_cast<uint64_t>(pos));
}

} // namespace

// --- The store ----------------------------------------------------------------------------------

void CFMBlock::PostStore() {
    CRtMessageChain bytes = m_data->DuplicateChained();
    int result = bytes ? RT_OK : RT_ERROR_NULL_OBJECT;
    if (bytes) {
        const char* const start = bytes->GetTopLevelReadPtr();
        IRtEvent* const event = new CFMStore(this, m_posInFile, std::move(bytes));
        {
            const auto lock = m_file->LockTransfer();
            m_storeFailed.store(false, std::memory_order_release);
            m_storeBytes = start;
            m_storeEvent = event;
        }
        m_file->StorePosted();
        result = CFileManager::Instance()->PostToReadwrThread(event, 0);
        if (RT_FAILED(result))
            m_file->StoreEnded();
    }
    if (RT_FAILED(result)) {
        const auto lock = m_file->LockTransfer();
        EndStore(result);
    }
}

// The bytes of a store that has not begun are given back at once.
void CFMBlock::WithdrawStore() {
    if (m_storeEvent && CFileManager::Instance()->WithdrawFromReadwrThread(m_storeEvent))
        m_file->StoreEnded();
    m_storeEvent = nullptr;
    m_storeBytes = nullptr;
    m_storeFailed.store(false, std::memory_order_release);
}

void CFMBlock::EndStore(int result) {
    m_storeEvent = nullptr;
    m_storeBytes = nullptr;
    if (RT_SUCCEEDED(result)) {
        m_state = BLOCK_STATE_STORED;
        m_origin = {};
        m_gapsBefore = m_file->CountGaps();
        return;
    }
    m_storeFailed.store(true, std::memory_order_release);
    m_file->MarkStoreFailed();
    m_file->MarkInfoChanged(); // an entry may stand from an earlier run
}

void CFMBlock::RetryStore() {
    bool wanted = false;
    {
        const auto lock = m_file->LockTransfer();
        wanted = m_storeFailed || (!m_storeBytes && IsLost());
    }
    if (wanted && m_data && IsComplete())
        PostStore();
}

bool CFMBlock::IsStorePending() {
    const auto lock = m_file->LockTransfer();
    return m_storeBytes != nullptr;
}

CFMStore::CFMStore(CFMBlock* block, int64_t pos, CRtMessageChain bytes)
    : CFMRefFunctor1(block, &CFMBlock::WriteToFile, std::move(bytes)), m_pos(pos) {}

int CFMStore::OnEventFire() {
    std::array<CFMStore*, RtOs::PIECES_MAX> stores{this};
    size_t count = 1;
    IRtEventQueue* const queue = CFileManager::Instance()->GetReadwrQueue();
    while (queue && count < stores.size() && GetLength() <= SMALL) {
        IRtEvent* const next = queue->TakeNextIf(&IsNextTo, *stores[count - 1]);
        if (!next)
            break;
        stores[count++] = static_cast<CFMStore*>(next);
    }
    const std::span<CFMStore* const> all(stores.data(), count);
    if (count == 1 || !CFMBlock::WriteTogether(all)) {
        for (CFMStore* store : all)
            store->CFMRefFunctor1::OnEventFire();
    }
    for (CFMStore* store : all.subspan(1))
        store->OnDestorySelf();
    return 0;
}

bool CFMStore::IsNextTo(const IRtEvent& last, const IRtEvent& next) {
    const auto& before = static_cast<const CFMStore&>(last);
    if (typeid(next) != typeid(CFMStore))
        return false;
    const auto& store = static_cast<const CFMStore&>(next);
    return store.GetBlock().GetFile() == before.GetBlock().GetFile() &&
           store.m_pos == before.GetEnd() && store.GetLength() <= SMALL;
}

// Not written anew since, and nothing on disk speaks of the place. Under the transfer mutex.
bool CFMBlock::IsStoreOf(const CFMStore& store) const {
    return m_storeBytes == store.GetStart() && m_posInFile == store.GetPos() &&
           m_position == m_totalLen && m_origin.entryAt == 0;
}

bool CFMBlock::WriteTogether(std::span<CFMStore* const> stores) {
    CheckReadwrThread();
    CFMFile& file = *stores.front()->GetBlock().m_file.Get();
    CDiskFile* const disk = file.GetDiskFile();
    {
        const auto lock = file.LockTransfer();
        const auto isDue = [](CFMStore* store) { return store->GetBlock().IsStoreOf(*store); };
        if (!disk || !std::ranges::all_of(stores, isDue))
            return false;
        for (CFMStore* store : stores)
            store->GetBlock().m_storeEvent = nullptr; // nobody can take it back any more
    }
    if (RT_FAILED(WritePieces(file, *disk, stores)))
        return false;
    const auto lock = file.LockTransfer();
    for (CFMStore* store : stores) {
        CFMBlock& block = store->GetBlock();
        if (block.m_storeBytes == store->GetStart())
            block.EndStore(RT_OK);
        file.StoreEnded();
    }
    return true;
}

int CFMBlock::WriteToFile(CRtMessageBlock* aData) {
    CheckReadwrThread();
    CDiskFile* disk = m_file ? m_file->GetDiskFile() : nullptr;
    int64_t pos = 0;
    uint32_t entryAt = 0;
    const char* bytes = aData ? aData->GetTopLevelReadPtr() : nullptr;
    int result = RT_OK;
    {
        const auto lock = m_file->LockTransfer();
        if (aData && m_storeBytes != bytes) {
            m_file->StoreEnded();
            return RT_ERROR_NOT_READY; // rewritten since
        }
        m_storeEvent = nullptr;
        pos = m_posInFile;
        entryAt = m_origin.entryAt;
        if (!RT_CHECK(SOURCE, disk, "m_file.Get() && m_file->GetDiskFile()") ||
            !RT_CHECK(SOURCE, IsComplete() && aData, "IsComplete() && aData"))
            result = RT_ERROR_NOT_READY;
    }
    if (RT_SUCCEEDED(result)) {
        const uint32_t length = aData->GetTopLevelLength();
        const std::lock_guard diskLock(m_file->GetDiskMutex());
        const CStreamKeeper::CUse use(*disk); // one stream for all steps
        result = m_file->PrepareStore(pos, length, entryAt);
        if (RT_SUCCEEDED(result))
            result = disk->WriteData(bytes, static_cast<uint64_t>(pos), length, 1);
        if (RT_FAILED(result))
            RT_LOG(RT_LOG_WARNING, "CFMBlock::WriteToFile, WriteData failed. ret="
                                       << result << ",pos=" << pos << ",len=" << length
                                       << " this=" << this);
    }
    const auto lock = m_file->LockTransfer();
    if (bytes && m_storeBytes == bytes)
        EndStore(result);
    m_file->StoreEnded();
    return result;
}

FMBlockEntry CFMBlock::Describe() {
    const auto lock = m_file->LockTransfer();
    if (!IsComplete() || IsStoreFailed() || (!m_storeBytes && IsLost()))
        return {m_blockID, 0, 0};
    return {m_blockID, m_totalLen, m_posInFile};
}

void CFMBlock::Restore(const FMBlockEntry& entry, const Origin& origin) {
    m_origin = origin;
    m_totalLen = entry.totalLen;
    m_position = entry.totalLen;
    if (IsComplete())
        m_state = BLOCK_STATE_COMPLETE;
    m_posInFile = entry.posInFile;
}

// --- The load --------------------------------------------------------------------------------------

int CFMBlock::ReadFromFile(uint32_t len, int bSync) {
    CheckReadwrThread();
    CRtMessageChain buffer;
    const int result = LoadBytes(len, buffer);
    if (bSync) { // the caller thread waits for this very event
        m_syncLoadResult = result;
        if (RT_SUCCEEDED(result))
            SetData(buffer.get());
        return result;
    }
    CFileManager::Instance()->PostToCallerThread(
        new CFMRefFunctor2(this, &CFMBlock::OnDataReady, result, buffer.release()), 0);
    return result;
}

int CFMBlock::LoadBytes(uint32_t len, CRtMessageChain& buffer) {
    CDiskFile* disk = m_file ? m_file->GetDiskFile() : nullptr;
    int64_t pos = 0;
    bool lost = false;
    {
        const auto lock = m_file->LockTransfer();
        if (!RT_CHECK(SOURCE, disk, "m_file.Get() && m_file->GetDiskFile()") ||
            !RT_CHECK(SOURCE, IsComplete(), "IsComplete()"))
            return RT_ERROR_NOT_READY;
        if (len != m_totalLen)
            return RT_ERROR_NOT_READY; // written anew with another length since it was asked for
        pos = m_posInFile;
        lost = IsLost();
    }
    const std::lock_guard diskLock(m_file->GetDiskMutex());
    const CStreamKeeper::CUse use(*disk); // one stream for all steps
    int result = lost ? RT_ERROR_IO : m_file->PrepareLoad();
    // No buffer is made that the data file could not fill.
    if (RT_SUCCEEDED(result) && !disk->Reaches(static_cast<uint64_t>(pos) + len))
        result = RT_ERROR_IO;
    if (RT_SUCCEEDED(result)) {
        buffer = CRtMessageBlock::Create(len);
        result =
            buffer ? disk->ReaddData(buffer->GetTopLevelWritePtr(), static_cast<uint64_t>(pos), len)
                   : RT_ERROR_NULL_OBJECT;
    }
    if (RT_SUCCEEDED(result))
        buffer->AdvanceTopLevelWritePtr(len);
    else
        RT_LOG(RT_LOG_WARNING, "CFMBlock::ReadFromFile, ReadData failed. ret="
                                   << result << ",pos=" << pos << ",len=" << len
                                   << " this=" << this);
    return result;
}
