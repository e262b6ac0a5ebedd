#include "diskfile.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "FMInfoCodec.h"
#include "RtLog.h"
#include "RtResult.h"
#include "RtSendTicket.h"
#include "RtTimeValue.h"
#include "os/RtOs.h"

namespace {
constexpr char STREAM_SOURCE[] = "util/filemanager/diskfile";

// A read that the waiting sender of the event helps with: copying a large range takes far longer than
// finding it in the page cache.
class CReadParts final : public IRtParts {
public:
    CReadParts(int file, uint64_t offset, void* bytes, uint32_t length)
        : m_file(file), m_offset(offset), m_bytes(static_cast<char*>(bytes)), m_length(length),
          m_partLength(std::clamp(length / 2 + length % 2, PART_MIN, PART_MAX)) {}
    RtOs::Transfer Run() {
        CRtSendTicket* const ticket = CRtSendTicket::GetRunning();
        if (!ticket || m_length <= m_partLength)
            return RtOs::ReadAt(m_file, m_offset, m_bytes, m_length);
        const uint32_t count = (m_length - 1) / m_partLength + 1;
        return static_cast<RtOs::Transfer>(ticket->RunParts(*this, count));
    }

private:
    static constexpr uint32_t PART_MIN = 64 * 1024;
    static constexpr uint32_t PART_MAX = 256 * 1024; // a late helper still finds parts

    int RunPart(uint32_t part) noexcept override {
        static_assert(static_cast<int>(RtOs::Transfer::Done) == 0);
        const uint32_t begin = part * m_partLength;
        const uint32_t length = std::min(m_partLength, m_length - begin);
        return static_cast<int>(RtOs::ReadAt(m_file, m_offset + begin, m_bytes + begin, length));
    }

    const int m_file;
    const uint64_t m_offset;
    char* const m_bytes;
    const uint32_t m_length;
    const uint32_t m_partLength;
};

bool IsPieceValid(const RtOs::Piece& piece) { return piece.bytes && piece.length > 0; }

} // namespace

CDiskFile::CDiskFile(CRtString strFileName, uint32_t flags, void (*onMissingDirectory)())
    : m_strFileName(std::move(strFileName)), m_flags(flags),
      m_onMissingDirectory(onMissingDirectory) {
    RT_LOG(RT_LOG_TRACE, "CDiskFile::CDiskFile, filename=" << m_strFileName << " this=" << this);
    RT_CHECK(STREAM_SOURCE, !m_strFileName.empty(), "!strFileName.empty()");
}

CDiskFile::~CDiskFile() {
    RT_LOG(RT_LOG_TRACE, "CDiskFile::~CDiskFile, filename=" << m_strFileName << " this=" << this);
    const CStreamKeeper::CUse use(*this);
    if (HasStream()) { // no fingerprint: this object does not open the file again
        RtOs::CloseFile(m_file);
        m_file = RtOs::NO_FILE;
    }
}

// --- The stream ---------------------------------------------------------------------------------

int CDiskFile::Open(const CRtString& strFileName, int bCreate) {
    LogOpen(strFileName);
    if (strFileName.empty()) {
        RT_LOG(RT_LOG_ERROR, "CDiskFile::Open. FileName is Empty. this=" << this);
        return RT_ERROR_INVALID_ARG;
    }
    const CStreamKeeper::CUse use(*this);
    Close();
    int error = 0;
    const int result = OpenStream(strFileName, bCreate ? uint32_t{RtOs::OPEN_CREATE} : 0, error);
    if (error != 0)
        LogOpening(strFileName, error);
    return result;
}

void CDiskFile::LogOpen(const CRtString& path) const {
    RT_LOG(RT_LOG_TRACE, "CDiskFile::Open, filename=" << path << " this=" << this);
}

// `error`: the system's, if the file could not be opened.
int CDiskFile::OpenStream(const CRtString& path, uint32_t flags, int& error) {
    CStreamKeeper& keeper = CStreamKeeper::Instance();
    keeper.MakeRoom();
    bool isCreated = false;
    RtOs::FileStamp stamp;
    int file = RtOs::NO_FILE;
    do
        file = RtOs::OpenFile(path, m_flags | flags, error, isCreated, stamp);
    while (file == RtOs::NO_FILE && RtOs::IsOutOfStreams(error) && keeper.GiveBack());
    if (file == RtOs::NO_FILE)
        return RT_ERROR_IO;
    error = 0;
    m_file = file;
    if (&path != &m_strFileName)
        m_strFileName = path;
    m_opening = {m_opening.count + 1, isCreated, IsForeign(stamp)};
    m_left = stamp;
    m_knownLength = stamp.length;
    m_checkedAt = GetTickCountEx();
    return RT_OK;
}

void CDiskFile::LogOpening(const CRtString& path, int error) const {
    RT_LOG(RT_LOG_ERROR, "CDiskFile::Open. fopen Failed. error=" << error << " Filename=" << path
                                                                 << " this=" << this);
    LogSystemError("Open", error);
}

// If the fingerprint was not determined at close, only identity and length are compared: an unknown fingerprint
// is not a different one.
bool CDiskFile::IsForeign(const RtOs::FileStamp& stamp) const {
    if (m_isLeftKnown)
        return !(stamp == m_left);
    return !stamp.IsSameFile(m_left) || stamp.length < m_left.length;
}

void CDiskFile::CheckPath(bool isDue) {
    constexpr uint64_t intervalMs = 1000;
    if (!HasStream())
        return;
    const uint64_t now = GetTickCountEx();
    if (!isDue && now - m_checkedAt < intervalMs)
        return;
    m_checkedAt = now;
    RtOs::FileStamp file;
    RtOs::FileStamp own;
    if (!RtOs::GetStamp(m_strFileName, file) || !RtOs::GetStamp(m_file, own))
        return; // unknown is not different
    if (file.IsSameFile(own) && file.length >= m_knownLength)
        return;
    RT_LOG(RT_LOG_WARNING,
           "CDiskFile::CheckPath, removed, replaced or truncated by another process, filename="
               << m_strFileName << " this=" << this);
    Close();
}

bool CDiskFile::TakeExisting() {
    const CStreamKeeper::CUse use(*this);
    if (HasStream())
        return true;
    int error = 0;
    const int result = OpenStream(m_strFileName, RtOs::OPEN_EXISTING, error);
    if (error != 0 && !RtOs::IsNoSuchFile(error))
        LogOpening(m_strFileName, error);
    return RT_SUCCEEDED(result) || (!RtOs::IsInUse(error) && !RtOs::IsOutOfStreams(error));
}

int CDiskFile::Close() {
    const CStreamKeeper::CUse use(*this);
    CloseStream();
    return RT_OK;
}

void CDiskFile::CloseStream() {
    if (!HasStream())
        return;
    RtOs::FileStamp stamp;
    m_isLeftKnown = RtOs::GetStamp(m_file, stamp);
    if (m_isLeftKnown)
        m_left = stamp;
    else
        m_left.length = m_knownLength; // of the file that the opening found
    RtOs::CloseFile(m_file);
    m_file = RtOs::NO_FILE;
}

int CDiskFile::IsOpen() {
    const CStreamKeeper::CUse use(*this);
    if (HasStream())
        return 1;
    if (!m_strFileName.empty() && RT_FAILED(Open(m_strFileName, 1))) {
        // The data directory may have been removed while the system runs.
        if (m_onMissingDirectory)
            m_onMissingDirectory();
        Open(m_strFileName, 1);
    }
    if (HasStream())
        return 1;
    RT_LOG(RT_LOG_ERROR,
           "CDiskFile::IsOpen. File cann't open, filename=" << m_strFileName << " this=" << this);
    return 0;
}

// --- Transfers ----------------------------------------------------------------------------------

void CDiskFile::LogTransfer(Transfer transfer, uint32_t dwLength, uint64_t dwOffset) const {
    RT_LOG(RT_LOG_TRACE, (transfer == Transfer::Write ? "CDiskFile::WriteData, filename="
                                                      : "CDiskFile::ReaddData, filename=")
                             << m_strFileName << " dwLength=" << dwLength << " dwOffset="
                             << static_cast<uint32_t>(dwOffset) << " this=" << this);
}

int CDiskFile::OpenFor(Transfer transfer) {
    if (IsOpen())
        return RT_OK;
    LogCannotOpen(transfer);
    return RT_ERROR_IO;
}

void CDiskFile::LogCannotOpen(Transfer transfer) const {
    if (transfer == Transfer::Write)
        RT_LOG(RT_LOG_ERROR, "CDiskFile::WriteData. Can't Open File. this=" << this);
    else
        RT_LOG(RT_LOG_ERROR, "CDiskFile::ReaddData. this=" << this);
}

int CDiskFile::WriteData(const void* lpBuffer, uint64_t dwOffset, uint32_t dwLength, int) {
    LogTransfer(Transfer::Write, dwLength, dwOffset);
    if (!RT_CHECK(STREAM_SOURCE, lpBuffer && dwLength > 0, "lpBuffer && dwLength >0"))
        return RT_ERROR_INVALID_ARG;
    const CStreamKeeper::CUse use(*this);
    const int result = OpenFor(Transfer::Write);
    const RtOs::Piece piece{lpBuffer, dwLength};
    return RT_SUCCEEDED(result) ? Put({&piece, 1}, dwOffset) : result;
}

int CDiskFile::Put(std::span<const RtOs::Piece> pieces, uint64_t offset) {
    uint64_t end = offset;
    for (const RtOs::Piece& piece : pieces)
        end += piece.length;
    m_isSynced = false;
    if (pieces.size() > 1) {
        if (RtOs::WriteAllAt(m_file, offset, pieces) != RtOs::Transfer::Done)
            return RT_ERROR_IO;
    } else {
        const RtOs::Piece& piece = pieces.front();
        const auto result = RtOs::WriteAt(m_file, offset, piece.bytes, piece.length);
        if (result != RtOs::Transfer::Done)
            return Fail(Transfer::Write, result, piece.length, offset);
    }
    m_knownLength = std::max(m_knownLength, end);
    return RT_OK;
}

int CDiskFile::ReaddData(void* lpBuffer, uint64_t dwOffset, const uint32_t& dwLength) {
    LogTransfer(Transfer::Read, dwLength, dwOffset);
    if (!RT_CHECK(STREAM_SOURCE, lpBuffer && dwLength > 0, "lpBuffer && dwLength>0"))
        return RT_ERROR_INVALID_ARG;
    const CStreamKeeper::CUse use(*this);
    m_isTooShort = false;
    const int result = OpenFor(Transfer::Read);
    return RT_SUCCEEDED(result) ? Get(lpBuffer, dwOffset, dwLength) : result;
}

bool CDiskFile::ReadQuietly(void* buffer, uint32_t length) const {
    return RtOs::ReadAt(m_file, 0, buffer, length) == RtOs::Transfer::Done;
}

int CDiskFile::Get(void* buffer, uint64_t offset, uint32_t length) {
    const RtOs::Transfer result = CReadParts(m_file, offset, buffer, length).Run();
    m_isTooShort = result == RtOs::Transfer::Short;
    return result == RtOs::Transfer::Done ? RT_OK : Fail(Transfer::Read, result, length, offset);
}

// Closes the stream: the next call starts with a new one.
int CDiskFile::Fail(Transfer transfer, RtOs::Transfer result, uint32_t dwLength,
                    uint64_t dwOffset) {
    const int error = RtOs::GetErrno();
    Close();
    const bool isWrite = transfer == Transfer::Write;
    const bool isPositioned = result != RtOs::Transfer::NoPosition;
    const char* const step = !isPositioned ? "fseek" : isWrite ? "fwrite" : "fread";
    const int indicator = result == RtOs::Transfer::Failed ? 1 : 0;
    RT_LOG(RT_LOG_ERROR, (isWrite ? "CDiskFile::WriteData. " : "CDiskFile::ReaddData. ")
                             << step << " Failed. Error Ret: " << indicator
                             << (isWrite ? " filename=" : " fileName=") << m_strFileName
                             << " dwLength=" << dwLength << " dwOffset="
                             << static_cast<uint32_t>(dwOffset) << " this=" << this);
    if (isWrite) // another thread may have read a part: its error is unknown here
        LogSystemError("WriteData", error);
    return RT_ERROR_IO;
}

// After the line of the failure, which has the number of the error at most.
void CDiskFile::LogSystemError(const char* call, int error) const {
    RT_LOG(RT_LOG_ERROR, "CDiskFile::" << call << ", system error " << RtOs::GetErrorText(error)
                                       << ", filename=" << m_strFileName << " this=" << this);
}

int CDiskFile::Sync() {
    if (m_isSynced)
        return RT_OK;
    const CStreamKeeper::CUse use(*this);
    m_isSynced = HasStream() ? RtOs::Sync(m_file) : RtOs::SyncPath(m_strFileName);
    if (!m_isSynced)
        LogSystemError("Sync", RtOs::GetErrno());
    return m_isSynced ? RT_OK : RT_ERROR_IO;
}

bool CDiskFile::IsStreamOpen() {
    const CStreamKeeper::CUse use(*this);
    return HasStream();
}

int CDiskFile::GetLength(uint64_t& length) {
    return RtOs::GetLength(m_file, length) ? RT_OK : RT_ERROR_IO;
}

bool CDiskFile::GetOpeningStamp(RtOs::FileStamp& stamp) {
    const CStreamKeeper::CUse use(*this);
    if (!HasStream())
        return RtOs::GetStamp(m_strFileName, stamp);
    stamp = m_left;
    return true;
}

bool CDiskFile::Reaches(uint64_t end) {
    const CStreamKeeper::CUse use(*this);
    if (m_knownLength < end && HasStream())
        RtOs::GetLength(m_file, m_knownLength); // else it stays as it is
    return m_knownLength >= end;
}

int CDiskFile::RemoveMee() {
    RT_LOG(RT_LOG_TRACE, "CDiskFile::RemoveMee, filename=" << m_strFileName << " this=" << this);
    Close();
    if (RtOs::GetEntryKind(m_strFileName) == RtOs::EntryKind::Missing)
        return RT_OK;
    if (const int result = RtOs::RemoveFile(m_strFileName); result != 0) {
        const int error = RtOs::GetErrno();
        RT_LOG(RT_LOG_ERROR, "CDiskFile::RemoveMee. unlink Failed. Error Ret: "
                                 << result << " Filename=" << m_strFileName << " this=" << this);
        LogSystemError("RemoveMee", error);
        return RT_ERROR_IO;
    }
    return RT_OK;
}

// --- The information file -----------------------------------------------------------------------

// Writes adjacent pieces with one system call if possible: on a slow disk the caller thread waits for each call.
// The log lines are those of one WriteData for each piece. `failed`: the piece that could not be written.
int CInfoFile::WritePieces(std::span<const RtOs::Piece> pieces, uint64_t offset, size_t& failed) {
    const CStreamKeeper::CUse use(*this);
    DropReadAhead();
    failed = 0;
    LogTransfer(Transfer::Write, pieces[0].length, offset);
    int ret = OpenFor(Transfer::Write);
    if (RT_FAILED(ret))
        return ret;
    const bool isWritten =
        std::ranges::all_of(pieces, IsPieceValid) && RT_SUCCEEDED(Put(pieces, offset));
    for (failed = 0; failed < pieces.size(); ++failed) {
        const RtOs::Piece& piece = pieces[failed];
        if (failed > 0)
            LogTransfer(Transfer::Write, piece.length, offset);
        if (!RT_CHECK(STREAM_SOURCE, IsPieceValid(piece), "lpBuffer && dwLength >0"))
            return RT_ERROR_INVALID_ARG;
        if (!isWritten)
            ret = Put({&piece, 1}, offset);
        if (RT_FAILED(ret))
            return ret;
        offset += piece.length;
    }
    return RT_OK;
}

int CInfoFile::WriteFileInfo(const void* body, uint32_t length) {
    uint8_t prefix[FM_INFO_LENGTH_SIZE] = {};
    FMPutLength(length, prefix);
    const RtOs::Piece pieces[] = {
        {FM_INFO_MAGIC, FM_INFO_MAGIC_SIZE}, {prefix, sizeof(prefix)}, {body, length}};
    size_t failed = 0;
    const int ret = WritePieces(pieces, 0, failed);
    if (RT_CHECK(STREAM_SOURCE, RT_SUCCEEDED(ret), "RT_SUCCEEDED(ret)"))
        m_fileInfoLen = length;
    return ret;
}

int CInfoFile::WriteBlockInfo(const void* body, uint32_t length) {
    if (!RT_CHECK(STREAM_SOURCE, m_fileInfoLen > 0, "m_fileInfoLen >0"))
        return RT_ERROR_NOT_READY;
    // Write the length last: a torn body over an older one must not load as complete.
    uint8_t prefix[FM_INFO_LENGTH_SIZE] = {};
    FMPutLength(FM_INFO_LENGTH_INVALID, prefix);
    const RtOs::Piece pieces[] = {{prefix, sizeof(prefix)}, {body, length}};
    size_t failed = 0;
    const int ret = WritePieces(pieces, GetBlockBodyOffset() - sizeof(prefix), failed);
    if (RT_SUCCEEDED(ret))
        return WriteBlockInfoLength(length);
    RT_CHECK(STREAM_SOURCE, failed > 0, "RT_SUCCEEDED(ret)"); // of the body, no line
    return ret;
}

int CInfoFile::Invalidate() { return WriteBlockInfoLength(FM_INFO_LENGTH_INVALID); }

int CInfoFile::WriteBlockInfoLength(uint32_t length) {
    DropReadAhead();
    uint8_t prefix[FM_INFO_LENGTH_SIZE] = {};
    FMPutLength(length, prefix);
    const int ret = WriteData(prefix, GetBlockBodyOffset() - sizeof(prefix), sizeof(prefix), 1);
    RT_CHECK(STREAM_SOURCE, RT_SUCCEEDED(ret), "RT_SUCCEEDED(ret)");
    return ret;
}

// The sign bit of the offset: one byte, so a crash cannot tear the write.
int CInfoFile::RevokeEntry(uint32_t at) {
    constexpr uint8_t negative = 0x80;
    DropReadAhead();
    return WriteData(&negative, uint64_t{at} + FM_INFO_ENTRY_SIZE - 1, sizeof(negative), 1);
}

bool CInfoFile::ReadAhead(uint32_t most) {
    const CStreamKeeper::CUse use(*this);
    DropReadAhead();
    int error = 0;
    m_isOpenedAhead = RT_SUCCEEDED(OpenStream(GetFileName(), RtOs::OPEN_EXISTING, error));
    if (!m_isOpenedAhead)
        return !RtOs::IsNoSuchFile(error); // the first read logs another failure
    m_ahead.resize(static_cast<size_t>(std::min<uint64_t>(GetKnownLength(), most)));
    if (!ReadQuietly(m_ahead.data(), static_cast<uint32_t>(m_ahead.size())))
        DropReadAhead(); // each part is read when it is needed
    return true;
}

int CInfoFile::ReadPart(void* buffer, uint64_t offset, uint32_t length) {
    if (length == 0 || offset + length > m_ahead.size())
        return ReaddData(buffer, offset, length);
    LogTransfer(Transfer::Read, length, offset);
    if (std::exchange(m_isOpenedAhead, false))
        LogOpen(GetFileName());
    std::memcpy(buffer, m_ahead.data() + offset, length);
    return RT_OK;
}

int CInfoFile::ReaddFileInfo(void* buffer, uint32_t* length) {
    char magic[16] = {};
    uint8_t prefix[FM_INFO_LENGTH_SIZE] = {};
    int ret = ReadPart(magic, 0, FM_INFO_MAGIC_SIZE);
    if (!RT_CHECK(STREAM_SOURCE, RT_SUCCEEDED(ret), "RT_SUCCEEDED(ret)"))
        return ret;
    if (std::strcmp(magic, FM_INFO_MAGIC) != 0) {
        RT_LOG(RT_LOG_ERROR, "CInfoFile::ReaddFileInfo. not sdinfo file! readFileHeader="
                                 << CRtString(magic) << " this=" << this);
        return RT_ERROR_NOT_READY;
    }
    ret = ReadPart(prefix, FM_INFO_LENGTH_OFFSET, sizeof(prefix));
    if (!RT_CHECK(STREAM_SOURCE, RT_SUCCEEDED(ret), "RT_SUCCEEDED(ret)"))
        return ret;
    const uint32_t capacity = *length;
    *length = FMGetLength(prefix);
    if (*length > capacity)
        return RT_ERROR_INVALID_ARG;
    ret = ReadPart(buffer, FM_INFO_BODY_OFFSET, *length);
    if (RT_CHECK(STREAM_SOURCE, RT_SUCCEEDED(ret), "RT_SUCCEEDED(ret)"))
        m_fileInfoLen = *length;
    return ret;
}

int CInfoFile::ReaddBlockInfo(void* buffer, uint32_t* capacity) {
    const uint64_t offset = uint64_t{FM_INFO_BODY_OFFSET} + m_fileInfoLen;
    uint8_t prefix[FM_INFO_LENGTH_SIZE] = {};
    int ret = ReadPart(prefix, offset, sizeof(prefix));
    if (!RT_CHECK(STREAM_SOURCE, RT_SUCCEEDED(ret), "RT_SUCCEEDED(ret)"))
        return ret;
    const uint32_t length = FMGetLength(prefix);
    if (*capacity >= length) {
        ret = ReadPart(buffer, offset + sizeof(prefix), length);
        if (!RT_CHECK(STREAM_SOURCE, RT_SUCCEEDED(ret), "RT_SUCCEEDED(ret)"))
            return ret;
    }
    *capacity = length;
    return RT_OK;
}
