#include "diskfile.h"

#include <algorithm>
#include <cstring>

#include "FMInfoCodec.h"
#include "RtLog.h"
#include "RtResult.h"
#include "RtSendTicket.h"
#include "RtTimeValue.h"
#include "os/RtOs.h"

namespace {
constexpr char SOURCE[] = "util/filemanager/diskfile";

// A read that the waiting sender of the event helps with: copying a large range takes far longer than
// finding it in the page cache.
class CReadParts final : public IRtParts {
public:
    CReadParts(FILE* stream, uint64_t offset, void* bytes, uint32_t length)
        : m_stream(stream), m_offset(offset), m_bytes(static_cast<char*>(bytes)), m_length(length),
          m_partLength(std::clamp(length / 2 + length % 2, PART_MIN, PART_MAX)) {}
    RtOs::Transfer Run() {
        CRtSendTicket* const ticket = CRtSendTicket::GetRunning();
        if (!ticket || m_length <= m_partLength)
            return RtOs::ReadAt(m_stream, m_offset, m_bytes, m_length);
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
        return static_cast<int>(RtOs::ReadAt(m_stream, m_offset + begin, m_bytes + begin, length));
    }

    FILE* const m_stream;
    const uint64_t m_offset;
    char* const m_bytes;
    const uint32_t m_length;
    const uint32_t m_partLength;
};

} // namespace

CDiskFile::CDiskFile(const CRtString& strFileName, uint32_t flags, void (*onMissingDirectory)())
    : m_strFileName(strFileName), m_flags(flags), m_onMissingDirectory(onMissingDirectory) {
    RT_LOG(RT_LOG_TRACE, "CDiskFile::CDiskFile, filename=" << m_strFileName << " this=" << this);
    RT_CHECK(SOURCE, !strFileName.empty(), "!strFileName.empty()");
}

CDiskFile::~CDiskFile() {
    RT_LOG(RT_LOG_TRACE, "CDiskFile::~CDiskFile, filename=" << m_strFileName << " this=" << this);
    Close();
}

// --- The stream ---------------------------------------------------------------------------------

int CDiskFile::Open(const CRtString& strFileName, int bCreate) {
    RT_LOG(RT_LOG_TRACE, "CDiskFile::Open, filename=" << strFileName << " this=" << this);
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

// `error`: the system's, if there is no stream.
int CDiskFile::OpenStream(const CRtString& path, uint32_t flags, int& error) {
    CStreamKeeper& keeper = CStreamKeeper::Instance();
    keeper.MakeRoom();
    bool isCreated = false;
    FILE* stream = RtOs::OpenStream(path, m_flags | flags, error, isCreated);
    while (!stream && RtOs::IsOutOfStreams(error) && keeper.GiveBack())
        stream = RtOs::OpenStream(path, m_flags | flags, error, isCreated);
    if (!stream)
        return RT_ERROR_IO;
    error = 0;
    m_pFile = stream;
    m_strFileName = path;
    return NoteOpening(isCreated);
}

void CDiskFile::LogOpening(const CRtString& path, int error) const {
    RT_LOG(RT_LOG_ERROR, "CDiskFile::Open. fopen Failed. error=" << error << " Filename=" << path
                                                                 << " this=" << this);
}

int CDiskFile::NoteOpening(bool isCreated) {
    RtOs::FileStamp stamp;
    if (!RtOs::GetStamp(m_pFile, stamp)) {
        std::fclose(m_pFile); // not CloseStream, which would replace m_left by nothing
        m_pFile = nullptr;
        RT_LOG(RT_LOG_ERROR,
               "CDiskFile::Open. fstat Failed. Filename=" << m_strFileName << " this=" << this);
        return RT_ERROR_IO;
    }
    m_opening = {m_opening.count + 1, isCreated, IsForeign(stamp)};
    m_left = stamp;
    m_isLeftKnown = false;
    m_knownLength = stamp.length;
    m_checkedAt = GetTickCountEx();
    return RT_OK;
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
    if (!m_pFile)
        return;
    const uint64_t now = GetTickCountEx();
    if (!isDue && now - m_checkedAt < intervalMs)
        return;
    m_checkedAt = now;
    RtOs::FileStamp file;
    RtOs::FileStamp own;
    if (!RtOs::GetStamp(m_strFileName, file) || !RtOs::GetStamp(m_pFile, own))
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
    if (m_pFile)
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
    if (!m_pFile)
        return;
    RtOs::FileStamp stamp;
    m_isLeftKnown = RtOs::GetStamp(m_pFile, stamp);
    if (m_isLeftKnown)
        m_left = stamp;
    else
        m_left.length = m_knownLength; // of the file that the opening found
    std::fclose(m_pFile);              // cannot fail: every write was flushed
    m_pFile = nullptr;
}

int CDiskFile::IsOpen() {
    const CStreamKeeper::CUse use(*this);
    if (m_pFile)
        return 1;
    if (!m_strFileName.empty() && RT_FAILED(Open(m_strFileName, 1))) {
        // The data directory may have been removed while the system runs.
        if (m_onMissingDirectory)
            m_onMissingDirectory();
        Open(m_strFileName, 1);
    }
    if (m_pFile)
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

int CDiskFile::WriteData(const void* lpBuffer, uint64_t dwOffset, uint32_t dwLength, int bFlush) {
    LogTransfer(Transfer::Write, dwLength, dwOffset);
    if (!RT_CHECK(SOURCE, lpBuffer && dwLength > 0, "lpBuffer && dwLength >0"))
        return RT_ERROR_INVALID_ARG;
    const CStreamKeeper::CUse use(*this);
    int result = OpenFor(Transfer::Write);
    const RtOs::Piece piece{lpBuffer, dwLength};
    if (RT_SUCCEEDED(result))
        result = Put({&piece, 1}, dwOffset);
    if (RT_SUCCEEDED(result) && bFlush)
        std::fflush(m_pFile); // cannot fail: the stream is unbuffered
    return result;
}

int CDiskFile::Put(std::span<const RtOs::Piece> pieces, uint64_t offset) {
    uint64_t end = offset;
    for (const RtOs::Piece& piece : pieces)
        end += piece.length;
    if (pieces.size() > 1) {
        if (RtOs::WriteAllAt(m_pFile, offset, pieces) != RtOs::Transfer::Done)
            return RT_ERROR_IO;
    } else {
        const RtOs::Piece& piece = pieces.front();
        const auto result = RtOs::WriteAt(m_pFile, offset, piece.bytes, piece.length);
        if (result != RtOs::Transfer::Done)
            return Fail(Transfer::Write, result, piece.length, offset);
    }
    m_knownLength = std::max(m_knownLength, end);
    return RT_OK;
}

int CDiskFile::ReaddData(void* lpBuffer, uint64_t dwOffset, const uint32_t& dwLength) {
    LogTransfer(Transfer::Read, dwLength, dwOffset);
    if (!RT_CHECK(SOURCE, lpBuffer && dwLength > 0, "lpBuffer && dwLength>0"))
        return RT_ERROR_INVALID_ARG;
    const CStreamKeeper::CUse use(*this);
    m_isTooShort = false;
    const int result = OpenFor(Transfer::Read);
    return RT_SUCCEEDED(result) ? Get(lpBuffer, dwOffset, dwLength) : result;
}

int CDiskFile::Get(void* buffer, uint64_t offset, uint32_t length) {
    const RtOs::Transfer result = CReadParts(m_pFile, offset, buffer, length).Run();
    m_isTooShort = result == RtOs::Transfer::Short;
    return result == RtOs::Transfer::Done ? RT_OK : Fail(Transfer::Read, result, length, offset);
}

// Closes the stream: the next call starts with a new one.
int CDiskFile::Fail(Transfer transfer, RtOs::Transfer result, uint32_t dwLength,
                    uint64_t dwOffset) {
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
    return RT_ERROR_IO;
}

int CDiskFile::GetLength(uint64_t& length) {
    return m_pFile && RtOs::GetLength(m_pFile, length) ? RT_OK : RT_ERROR_IO;
}

bool CDiskFile::GetStamp(RtOs::FileStamp& stamp) {
    const CStreamKeeper::CUse use(*this);
    return m_pFile ? RtOs::GetStamp(m_pFile, stamp) : RtOs::GetStamp(m_strFileName, stamp);
}

bool CDiskFile::Reaches(uint64_t end) {
    const CStreamKeeper::CUse use(*this);
    if (m_knownLength < end && m_pFile)
        RtOs::GetLength(m_pFile, m_knownLength); // else it stays as it is
    return m_knownLength >= end;
}

int CDiskFile::RemoveMee() {
    RT_LOG(RT_LOG_TRACE, "CDiskFile::RemoveMee, filename=" << m_strFileName << " this=" << this);
    Close();
    if (RtOs::GetEntryKind(m_strFileName) == RtOs::EntryKind::Missing)
        return RT_OK;
    if (const int result = RtOs::RemoveFile(m_strFileName); result != 0) {
        RT_LOG(RT_LOG_ERROR, "CDiskFile::RemoveMee. unlink Failed. Error Ret: "
                                 << result << " Filename=" << m_strFileName << " this=" << this);
        return RT_ERROR_IO;
    }
    return RT_OK;
}

// --- The information file -----------------------------------------------------------------------

int CInfoFile::WriteFileInfo(const void* body, uint32_t length) {
    uint8_t prefix[FM_INFO_LENGTH_SIZE] = {};
    FMPutLength(length, prefix);
    int ret = WriteData(FM_INFO_MAGIC, 0, FM_INFO_MAGIC_SIZE, 0);
    if (RT_SUCCEEDED(ret))
        ret = WriteData(prefix, FM_INFO_LENGTH_OFFSET, sizeof(prefix), 0);
    if (RT_SUCCEEDED(ret))
        ret = WriteData(body, FM_INFO_BODY_OFFSET, length, 1);
    if (RT_CHECK(SOURCE, RT_SUCCEEDED(ret), "RT_SUCCEEDED(ret)"))
        m_fileInfoLen = length;
    return ret;
}

int CInfoFile::WriteBlockInfo(const void* body, uint32_t length) {
    if (!RT_CHECK(SOURCE, m_fileInfoLen > 0, "m_fileInfoLen >0"))
        return RT_ERROR_NOT_READY;
    // Write the length last: a torn body over an older one must not load as complete.
    int ret = Invalidate();
    if (RT_SUCCEEDED(ret))
        ret = WriteData(body, GetBlockBodyOffset(), length, 1);
    return RT_SUCCEEDED(ret) ? WriteBlockInfoLength(length) : ret;
}

int CInfoFile::Invalidate() { return WriteBlockInfoLength(FM_INFO_LENGTH_INVALID); }

int CInfoFile::WriteBlockInfoLength(uint32_t length) {
    uint8_t prefix[FM_INFO_LENGTH_SIZE] = {};
    FMPutLength(length, prefix);
    const int ret = WriteData(prefix, GetBlockBodyOffset() - sizeof(prefix), sizeof(prefix), 1);
    RT_CHECK(SOURCE, RT_SUCCEEDED(ret), "RT_SUCCEEDED(ret)");
    return ret;
}

// The sign bit of the offset: one byte, so a crash cannot tear the write.
int CInfoFile::RevokeEntry(uint32_t at) {
    constexpr uint8_t negative = 0x80;
    return WriteData(&negative, uint64_t{at} + FM_INFO_ENTRY_SIZE - 1, sizeof(negative), 1);
}

int CInfoFile::ReaddFileInfo(void* buffer, uint32_t* length) {
    char magic[16] = {};
    uint8_t prefix[FM_INFO_LENGTH_SIZE] = {};
    int ret = ReaddData(magic, 0, FM_INFO_MAGIC_SIZE);
    if (!RT_CHECK(SOURCE, RT_SUCCEEDED(ret), "RT_SUCCEEDED(ret)"))
        return ret;
    if (std::strcmp(magic, FM_INFO_MAGIC) != 0) {
        RT_LOG(RT_LOG_ERROR, "CInfoFile::ReaddFileInfo. not sdinfo file! readFileHeader="
                                 << CRtString(magic) << " this=" << this);
        return RT_ERROR_NOT_READY;
    }
    ret = ReaddData(prefix, FM_INFO_LENGTH_OFFSET, sizeof(prefix));
    if (!RT_CHECK(SOURCE, RT_SUCCEEDED(ret), "RT_SUCCEEDED(ret)"))
        return ret;
    const uint32_t capacity = *length;
    *length = FMGetLength(prefix);
    if (*length > capacity)
        return RT_ERROR_INVALID_ARG;
    ret = ReaddData(buffer, FM_INFO_BODY_OFFSET, *length);
    if (RT_CHECK(SOURCE, RT_SUCCEEDED(ret), "RT_SUCCEEDED(ret)"))
        m_fileInfoLen = *length;
    return ret;
}

int CInfoFile::ReaddBlockInfo(void* buffer, uint32_t* capacity) {
    const uint64_t offset = uint64_t{FM_INFO_BODY_OFFSET} + m_fileInfoLen;
    uint8_t prefix[FM_INFO_LENGTH_SIZE] = {};
    int ret = ReaddData(prefix, offset, sizeof(prefix));
    if (!RT_CHECK(SOURCE, RT_SUCCEEDED(ret), "RT_SUCCEEDED(ret)"))
        return ret;
    const uint32_t length = FMGetLength(prefix);
    if (*capacity >= length) {
        ret = ReaddData(buffer, offset + sizeof(prefix), length);
        if (!RT_CHECK(SOURCE, RT_SUCCEEDED(ret), "RT_SUCCEEDED(ret)"))
            return ret;
    }
    *capacity = length;
    return RT_OK;
}
