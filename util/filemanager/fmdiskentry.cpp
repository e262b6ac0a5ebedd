#include "fmdiskentry.h"

#include <algorithm>
#include <cassert>
#include <utility>

#include "FMInfoCodec.h"
#include "RtLog.h"
#include "RtResult.h"
#include "fmrules.h"
#include "streamkeeper.h"

namespace {

bool Exists(const CRtString& path) { return RtOs::GetEntryKind(path) != RtOs::EntryKind::Missing; }

} // namespace

CFMDiskEntry::CFMDiskEntry(CDiskFile* data, CInfoFile* info, bool overPredecessor)
    : m_pData(data), m_pInfo(info), m_path(!data || !info    ? Path::Detached
                                           : overPredecessor ? Path::Predecessor
                                                             : Path::Own),
      m_isInfoKnown(overPredecessor) {}

std::unique_lock<std::mutex> CFMDiskEntry::Lock() {
    std::unique_lock lock(m_mutex, std::try_to_lock);
    if (!lock) {
        const RtOs::Awaiting awaiting;
        lock.lock();
    }
    return lock;
}

// --- Store and load -----------------------------------------------------------------------------

CFMDiskEntry::Stored CFMDiskEntry::Store(std::span<const RtOs::Piece> pieces, int64_t pos) {
    const std::unique_lock lock = Lock();
    if (IsDetached())
        return {RT_ERROR_NOT_READY, m_epoch};
    int64_t end = pos;
    for (const RtOs::Piece& piece : pieces) {
        m_pData->LogTransfer(CDiskFile::Transfer::Write, piece.length, static_cast<uint64_t>(end));
        end += piece.length;
    }
    const CStreamKeeper::CUse use(*m_pData); // one stream for all steps
    int result = BeginStore(pos, end);
    assert(RT_FAILED(result) || !IsNamed(pos, end)); // invariant 3
    if (RT_SUCCEEDED(result))
        result = m_pData->Put(pieces, static_cast<uint64_t>(pos));
    if (RT_SUCCEEDED(result))
        m_dataEnd = std::max(m_dataEnd, end);
    return {result, m_epoch};
}

int CFMDiskEntry::BeginStore(int64_t pos, int64_t end) {
    int result = DiscardPredecessorLocked();
    if (RT_FAILED(result))
        m_pData->LogCannotOpen(CDiskFile::Transfer::Write);
    if (RT_SUCCEEDED(result))
        result = OpenData(CDiskFile::Transfer::Write);
    if (RT_SUCCEEDED(result))
        result = NoteLength();
    // The file grows over ranges that the table on disk names beyond its end: they would become zeros.
    if (RT_SUCCEEDED(result) && m_length < m_tableEnd)
        result = Revoke(m_length, m_tableEnd);
    if (RT_SUCCEEDED(result) && pos < m_tableEnd)
        result = Revoke(pos, end);
    return result;
}

int CFMDiskEntry::Load(int64_t pos, uint32_t length, uint32_t epoch, CRtMessageChain& bytes) {
    const std::unique_lock lock = Lock();
    if (IsDetached())
        return RT_ERROR_NOT_READY;
    m_pData->LogTransfer(CDiskFile::Transfer::Read, length, static_cast<uint64_t>(pos));
    if (epoch != m_epoch)
        return RT_ERROR_IO;
    const CStreamKeeper::CUse use(*m_pData);
    if (const int result = OpenData(CDiskFile::Transfer::Read); RT_FAILED(result))
        return result;
    // No buffer is allocated that the data file could not fill.
    if (!m_pData->Reaches(static_cast<uint64_t>(pos) + length))
        return RT_ERROR_IO;
    bytes = CRtMessageBlock::Create(length);
    if (!bytes)
        return RT_ERROR_NULL_OBJECT;
    const int result =
        m_pData->Get(bytes->GetTopLevelWritePtr(), static_cast<uint64_t>(pos), length);
    if (RT_SUCCEEDED(result))
        bytes->AdvanceTopLevelWritePtr(length);
    return result;
}

// --- The data file ------------------------------------------------------------------------------

// If LoseData has begun an epoch, the path is examined now, even if the last check was recent.
bool CFMDiskEntry::CheckIsDue() { return std::exchange(m_checkedEpoch, m_epoch.load()) != m_epoch; }

int CFMDiskEntry::OpenData(CDiskFile::Transfer transfer) {
    m_pData->CheckPath(CheckIsDue());
    const int result = m_pData->OpenFor(transfer);
    return RT_SUCCEEDED(result) ? CheckOpening() : result;
}

// For an operation on the information file: locks the data file, if it exists, without creating it.
int CFMDiskEntry::HoldData() {
    m_pData->CheckPath(true);
    m_checkedEpoch = m_epoch;
    if (!m_pData->TakeExisting())
        return RT_ERROR_IO;
    RtOs::FileStamp data;
    // A file that exists but could not be opened is not a missing one.
    if (!m_pData->HasStream() && (!RtOs::GetStamp(m_pData->GetFileName(), data) || data.exists))
        return RT_ERROR_IO;
    return CheckOpening();
}

// Closing the stream has released the lock: another process may have changed the file since.
int CFMDiskEntry::CheckOpening() {
    const CDiskFile::Opening& opening = m_pData->GetOpening();
    if (opening.count == m_openings)
        return RT_OK;
    RtOs::FileStamp info;
    if (!RtOs::GetStamp(m_pInfo->GetFileName(), info))
        return RT_ERROR_IO;
    if (IsTakenByOthers(info)) {
        RT_LOG(RT_LOG_ERROR,
               "CFMDiskEntry::CheckOpening, another process has changed the file, filename="
                   << m_pData->GetFileName() << " this=" << this);
        DetachLocked();
        return RT_ERROR_NOT_READY;
    }
    m_openings = opening.count;
    m_infoStamp = info;
    m_isInfoKnown = true;
    return RT_OK;
}

// A missing data file was removed, not locked by another process: it is created again.
bool CFMDiskEntry::IsTakenByOthers(const RtOs::FileStamp& info) const {
    const CDiskFile::Opening& opening = m_pData->GetOpening();
    if (opening.isCreated)
        return false;
    return (opening.isForeign && m_openings > 0) || (m_isInfoKnown && !(info == m_infoStamp));
}

// Bytes are missing: a new epoch begins.
int CFMDiskEntry::NoteLength() {
    uint64_t length = 0;
    if (m_pData->HasStream() && RT_FAILED(m_pData->GetLength(length)))
        return RT_ERROR_IO;
    m_length = static_cast<int64_t>(length);
    if (m_length < m_dataEnd) {
        m_dataEnd = m_length;
        m_checkedEpoch = m_epoch.fetch_add(1, std::memory_order_acq_rel) + 1;
    }
    return RT_OK;
}

int CFMDiskEntry::DiscardPredecessor() {
    const std::unique_lock lock = Lock();
    return DiscardPredecessorLocked();
}

// Removes the information file first: the old table never names bytes of this object. Removes the data file
// too, so that the file system allocates a new file instead of overwriting old blocks.
int CFMDiskEntry::DiscardPredecessorLocked() {
    if (!IsOverPredecessor())
        return RT_OK;
    // A process that has the old file open keeps its content.
    if (!m_pData->TakeExisting())
        return RT_ERROR_IO;
    int result = RT_OK;
    if (Exists(m_pInfo->GetFileName()))
        result = m_pInfo->RemoveMee();
    if (RT_SUCCEEDED(result) && Exists(m_pData->GetFileName()))
        result = m_pData->RemoveMee();
    if (RT_SUCCEEDED(result))
        m_path.store(Path::Own, std::memory_order_release);
    return result;
}

void CFMDiskEntry::RemoveFiles() {
    const std::unique_lock lock = Lock();
    if (IsDetached())
        return;
    if (!m_pData->TakeExisting() || (!IsOverPredecessor() && RT_FAILED(CheckOpening())))
        return; // another process has locked them
    // Housekeeping finds a cached file by its data file: without it, nothing would remove the information file.
    if (RT_SUCCEEDED(m_pInfo->RemoveMee()))
        m_pData->RemoveMee();
    // A later read of a block that is still referenced would create the data file again.
    DetachLocked();
}

int CFMDiskEntry::Sync(CDiskFile* file) {
    const std::unique_lock lock = Lock();
    return IsDetached() ? RT_OK : file->Sync();
}

void CFMDiskEntry::MarkUnsynced() {
    const std::unique_lock lock = Lock();
    if (IsDetached())
        return;
    m_pData->MarkUnsynced();
    m_pInfo->MarkUnsynced();
}

bool CFMDiskEntry::IsUnsynced() const {
    return !IsDetached() && (!m_pData->IsSynced() || !m_pInfo->IsSynced());
}

bool CFMDiskEntry::Detach() {
    const std::unique_lock lock = Lock();
    const bool isUnsynced = IsUnsynced();
    DetachLocked();
    return isUnsynced;
}

void CFMDiskEntry::DetachLocked() {
    CloseStreamsLocked();
    m_path.store(Path::Detached, std::memory_order_release);
}

void CFMDiskEntry::CloseStreams() {
    const std::unique_lock lock = Lock();
    CloseStreamsLocked();
}

void CFMDiskEntry::CloseStreamsLocked() {
    if (IsDetached()) // they are closed
        return;
    m_pData->Close();
    m_pInfo->Close();
}

bool CFMDiskEntry::TakeDataFile() {
    const bool taken = m_pData->TakeExisting();
    m_openings = m_pData->GetOpening().count;
    return taken;
}

bool CFMDiskEntry::IsLockedElsewhere() {
    const std::unique_lock lock = Lock(); // no operation of this object opens the file in between
    return m_pData && !m_pData->IsStreamOpen() && RtOs::IsLocked(m_pData->GetFileName());
}

// --- The table on disk --------------------------------------------------------------------------

void CFMDiskEntry::NoteTable(int64_t tableEnd, int64_t dataLength) {
    m_tableEnd = tableEnd;
    m_dataEnd = dataLength;
    m_isInfoKnown = m_pInfo->GetOpeningStamp(m_infoStamp);
}

CFMDiskEntry::TableWritten CFMDiskEntry::WriteTable(CFMStores& stores) {
    const std::unique_lock lock = Lock();
    std::unique_ptr<FMTable> table;
    {
        const auto shared = stores.LockShared();
        table = stores.TakeTable();
    }
    if (!table)
        return {RT_OK, RT_OK, 0}; // written or dropped before
    TableWritten written{RT_ERROR_NOT_READY, RT_OK, 0};
    if (IsDetached())
        return written;
    const CStreamKeeper::CUse useData(*m_pData);
    const CStreamKeeper::CUse useInfo(*m_pInfo);
    written.description = BeginTable();
    if (RT_SUCCEEDED(written.description)) {
        table->BeginEpoch(m_epoch);
        written.description = m_pInfo->WriteFileInfo(table->fileBody.data(),
                                                     static_cast<uint32_t>(table->fileBody.size()));
        if (RT_SUCCEEDED(written.description))
            written.table = WriteBlockBody(*table, written.left);
        NoteInfo(); // after a torn write too
    }
    if (!written.IsOver()) {
        const auto shared = stores.LockShared();
        stores.SetTable(std::move(table));
    }
    return written;
}

int CFMDiskEntry::BeginTable() {
    int result = DiscardPredecessorLocked();
    if (RT_SUCCEEDED(result))
        result = HoldData();
    if (RT_SUCCEEDED(result))
        result = NoteLength();
    m_pInfo->CheckPath(true);
    return result;
}

int CFMDiskEntry::WriteBlockBody(const FMTable& table, uint32_t& left) {
    CRtMessageChain body;
    if (const int result = FMEncodeBlockBody(table.slots, body, left); RT_FAILED(result))
        return result;
    int64_t tableEnd = 0;
    for (const FMBlockEntry& entry : table.slots)
        tableEnd = std::max(tableEnd, FMEndOf(entry));
    assert(tableEnd <= m_dataEnd); // invariant 2
    const CRtString bytes = body->FlattenChained();
    const int result = m_pInfo->WriteBlockInfo(bytes.data(), static_cast<uint32_t>(bytes.size()));
    m_tableEnd = RT_SUCCEEDED(result) ? tableEnd : std::max(m_tableEnd, tableEnd);
    m_isNamedRead = false;
    return result;
}

int CFMDiskEntry::InvalidateTable() {
    const int result = m_pInfo->Invalidate();
    NoteInfo();
    if (RT_SUCCEEDED(result))
        m_tableEnd = 0;
    return result;
}

// Revokes every entry that names a byte of the range, before that byte is overwritten.
int CFMDiskEntry::Revoke(int64_t pos, int64_t end) {
    const CStreamKeeper::CUse use(*m_pInfo);
    m_pInfo->CheckPath(true);
    if (!Exists(m_pInfo->GetFileName())) { // removed by another program: no table names anything
        m_tableEnd = 0;
        return RT_OK;
    }
    if (const int result = ReadNamedRanges(); RT_FAILED(result))
        return result;
    auto range = std::lower_bound(
        m_named.begin(), m_named.end(), pos - m_longestNamed,
        [](const NamedRange& named, int64_t position) { return named.pos < position; });
    while (range != m_named.end() && range->pos < end) {
        if (range->end <= pos) {
            ++range;
            continue;
        }
        const int result = m_pInfo->RevokeEntry(range->entryAt);
        NoteInfo();
        if (RT_FAILED(result))
            return result;
        range = m_named.erase(range);
    }
    if (end >= m_tableEnd)
        m_tableEnd = std::min(m_tableEnd, pos);
    return RT_OK;
}

// Whether the table on disk, as far as it was read, names a byte of the range.
bool CFMDiskEntry::IsNamed(int64_t pos, int64_t end) const {
    return m_isNamedRead && m_tableEnd > 0 &&
           std::ranges::any_of(m_named, [=](const NamedRange& named) {
               return pos < named.end && named.pos < end;
           });
}

// Read on the first rewrite in place: most files are never rewritten.
int CFMDiskEntry::ReadNamedRanges() {
    if (m_isNamedRead)
        return RT_OK;
    uint32_t length = 0;
    int result = m_pInfo->ReaddBlockInfo(nullptr, &length);
    CRtMessageChain body;
    if (RT_SUCCEEDED(result) && length <= FM_INFO_BLOCK_BODY_MAX) {
        body = CRtMessageBlock::Create(length);
        if (!body)
            return RT_ERROR_NULL_OBJECT;
        result = m_pInfo->ReaddBlockInfo(body->GetTopLevelWritePtr(), &length);
    }
    if (RT_FAILED(result) && !m_pInfo->IsTooShort())
        return result;
    if (RT_FAILED(result) || !body)
        return InvalidateTable(); // a damaged table could still name the bytes
    body->AdvanceTopLevelWritePtr(length);
    std::vector<FMBlockEntry> slots;
    FMDecodeBlockBody(*body, slots);
    m_named.clear();
    m_longestNamed = 0;
    uint32_t at = m_pInfo->GetBlockBodyOffset() + FM_INFO_COUNT_SIZE;
    for (const FMBlockEntry& slot : slots) {
        if (FMNamesBytes(slot)) {
            m_named.push_back({slot.posInFile, FMEndOf(slot), at});
            m_longestNamed = std::max(m_longestNamed, int64_t{slot.totalLen});
        }
        at += FMEntrySize(slot);
    }
    std::ranges::sort(m_named, {}, &NamedRange::pos);
    m_isNamedRead = true;
    return RT_OK;
}

// If the system call fails, the fingerprint is unknown and the next opening does not compare it.
void CFMDiskEntry::NoteInfo() {
    m_isInfoKnown = RtOs::GetStamp(m_pInfo->GetFileName(), m_infoStamp);
}
