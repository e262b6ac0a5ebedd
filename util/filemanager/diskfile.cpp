#include "diskfile.h"

#include <algorithm>
#include <cstring>

#include "FMInfoCodec.h"
#include "RtLog.h"
#include "RtResult.h"
#include "RtSendTicket.h"
#include "filemanager.h"
#include "os/RtOs.h"
#include "streamkeeper.h"

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

CDiskFile::CDiskFile(const CRtString& strFileName, uint32_t flags)
    : m_strFileName(strFileName), m_flags(flags) {
    RT_LOG(RT_LOG_TRACE, "CDiskFile::CDiskFile, filename=" << m_strFileName << " this=" << this);
    RT_CHECK(SOURCE, !strFileName.empty(), "!strFileName.empty()");
}

CDiskFile::~CDiskFile() {
    RT_LOG(RT_LOG_TRACE, "CDiskFile::~CDiskFile, filename=" << m_strFileName << " this=" << this);
    Close();
}

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

// `error`: the system's, when there is no stream.
int CDiskFile::OpenStream(const CRtString& path, uint32_t flags, int& error) {
    CStreamKeeper& keeper = CStreamKeeper::Instance();
    keeper.MakeRoom();
    bool created = false;
    FILE* stream = RtOs::OpenStream(path, m_flags | flags, error, created);
    while (!stream && RtOs::IsOutOfStreams(error) && keeper.GiveBack())
        stream = RtOs::OpenStream(path, m_flags | flags, error, created);
    m_isInUse = !stream && (RtOs::IsInUse(error) || RtOs::IsOutOfStreams(error));
    if (!stream)
        return RT_ERROR_IO;
    error = 0;
    m_pFile = stream;
    m_strFileName = path;
    return NoteOpening(created);
}

void CDiskFile::LogOpening(const CRtString& path, int error) const {
    RT_LOG(RT_LOG_ERROR, "CDiskFile::Open. fopen Failed. error=" << error << " Filename=" << path
                                                                 << " this=" << this);
}

int CDiskFile::NoteOpening(bool created) {
    RtOs::FileStamp stamp;
    if (!RtOs::GetStamp(m_pFile, stamp)) {
        Close();
        return RT_ERROR_IO;
    }
    m_opening = {m_opening.count + 1, created, !(stamp == m_left)};
    m_knownLength = stamp.length;
    m_lookedAt = GetTickCountEx();
    return RT_OK;
}

// A stream whose file was removed or replaced would go on working, for nobody. Looked at now and then: a
// look is a call of the system.
bool CDiskFile::IsStreamTrue() {
    constexpr uint64_t intervalMs = 1000;
    const uint64_t now = GetTickCountEx();
    if (now - m_lookedAt < intervalMs)
        return true;
    m_lookedAt = now;
    RtOs::FileStamp file;
    RtOs::FileStamp own;
    if (!RtOs::GetStamp(m_strFileName, file) || !RtOs::GetStamp(m_pFile, own))
        return true; // another time
    if (file.IsSameFile(own) && file.length >= m_knownLength)
        return true;
    RT_LOG(RT_LOG_WARNING, "CDiskFile::IsOpen, removed or cut by others, filename="
                               << m_strFileName << " this=" << this);
    return false;
}

bool CDiskFile::TakeExisting() {
    const CStreamKeeper::CUse use(*this);
    if (m_pFile)
        return true;
    int error = 0;
    const int result = OpenStream(m_strFileName, RtOs::OPEN_EXISTING, error);
    if (error != 0 && !RtOs::IsNoSuchFile(error))
        LogOpening(m_strFileName, error);
    return RT_SUCCEEDED(result) || !m_isInUse;
}

int CDiskFile::Close() {
    const CStreamKeeper::CUse use(*this);
    CloseStream();
    return RT_OK;
}

void CDiskFile::CloseStream() {
    if (!m_pFile)
        return;
    RtOs::GetStamp(m_pFile, m_left);
    std::fclose(m_pFile); // every write was flushed: nothing is left that could fail
    m_pFile = nullptr;
}

int CDiskFile::IsOpen() {
    const CStreamKeeper::CUse use(*this);
    if (m_pFile && IsStreamTrue())
        return 1;
    if (!m_strFileName.empty() && RT_FAILED(Open(m_strFileName, 1))) {
        // The data directory may have been removed while the system runs.
        if (CFileManager* manager = CFileManager::Instance())
            manager->CheckDataDir();
        Open(m_strFileName, 1);
    }
    if (m_pFile)
        return 1;
    RT_LOG(RT_LOG_ERROR,
           "CDiskFile::IsOpen. File cann't open, filename=" << m_strFileName << " this=" << this);
    return 0;
}

void CDiskFile::LogWrite(uint32_t dwLength, uint64_t dwOffset) const {
    RT_LOG(RT_LOG_TRACE, "CDiskFile::WriteData, filename="
                             << m_strFileName << " dwLength=" << dwLength << " dwOffset="
                             << static_cast<uint32_t>(dwOffset) << " this=" << this);
}

int CDiskFile::WriteData(const void* lpBuffer, uint64_t dwOffset, uint32_t dwLength, int bFlush) {
    LogWrite(dwLength, dwOffset);
    if (!RT_CHECK(SOURCE, lpBuffer && dwLength > 0, "lpBuffer && dwLength >0"))
        return RT_ERROR_INVALID_ARG;
    const CStreamKeeper::CUse use(*this);
    if (!IsOpen()) {
        RT_LOG(RT_LOG_ERROR, "CDiskFile::WriteData. Can't Open File. this=" << this);
        return RT_ERROR_IO;
    }
    const RtOs::Transfer result = RtOs::WriteAt(m_pFile, dwOffset, lpBuffer, dwLength);
    if (result != RtOs::Transfer::Done)
        return Fail(result, {"CDiskFile::WriteData. ", "fwrite", " filename="}, dwLength, dwOffset);
    m_knownLength = std::max(m_knownLength, dwOffset + dwLength);
    if (bFlush)
        std::fflush(m_pFile); // streams are unbuffered: what could fail has failed above
    return RT_OK;
}

int CDiskFile::WritePieces(std::span<const RtOs::Piece> pieces, uint64_t offset) {
    const CStreamKeeper::CUse use(*this);
    if (!IsOpen() || RtOs::WriteAllAt(m_pFile, offset, pieces) != RtOs::Transfer::Done)
        return RT_ERROR_IO;
    for (const RtOs::Piece& piece : pieces) {
        LogWrite(piece.length, offset);
        offset += piece.length;
    }
    m_knownLength = std::max(m_knownLength, offset);
    return RT_OK;
}

int CDiskFile::ReaddData(void* lpBuffer, uint64_t dwOffset, const uint32_t& dwLength) {
    RT_LOG(RT_LOG_TRACE, "CDiskFile::ReaddData, filename="
                             << m_strFileName << " dwLength=" << dwLength << " dwOffset="
                             << static_cast<uint32_t>(dwOffset) << " this=" << this);
    if (!RT_CHECK(SOURCE, lpBuffer && dwLength > 0, "lpBuffer && dwLength>0"))
        return RT_ERROR_INVALID_ARG;
    const CStreamKeeper::CUse use(*this);
    m_isTooShort = false;
    if (!IsOpen()) {
        RT_LOG(RT_LOG_ERROR, "CDiskFile::ReaddData. this=" << this);
        return RT_ERROR_IO;
    }
    const RtOs::Transfer result = CReadParts(m_pFile, dwOffset, lpBuffer, dwLength).Run();
    m_isTooShort = result == RtOs::Transfer::Short;
    if (result != RtOs::Transfer::Done)
        return Fail(result, {"CDiskFile::ReaddData. ", "fread", " fileName="}, dwLength, dwOffset);
    return RT_OK;
}

// Closes the stream, so that the next call starts from a fresh one.
int CDiskFile::Fail(RtOs::Transfer result, const FailureTexts& texts, uint32_t dwLength,
                    uint64_t dwOffset) {
    Close();
    const bool positioned = result != RtOs::Transfer::NoPosition;
    const int indicator = result == RtOs::Transfer::Failed ? 1 : 0;
    RT_LOG(RT_LOG_ERROR, texts.operation << (positioned ? texts.step : "fseek")
                                         << " Failed. Error Ret: " << indicator << texts.pathKey
                                         << m_strFileName << " dwLength=" << dwLength
                                         << " dwOffset=" << static_cast<uint32_t>(dwOffset)
                                         << " this=" << this);
    return RT_ERROR_IO;
}

int CDiskFile::GetLength(uint64_t& length) {
    const CStreamKeeper::CUse use(*this);
    return IsOpen() && RtOs::GetLength(m_pFile, length) ? RT_OK : RT_ERROR_IO;
}

bool CDiskFile::GetStamp(RtOs::FileStamp& stamp) {
    const CStreamKeeper::CUse use(*this);
    return m_pFile ? RtOs::GetStamp(m_pFile, stamp) : RtOs::GetStamp(m_strFileName, stamp);
}

bool CDiskFile::Reaches(uint64_t end) {
    const CStreamKeeper::CUse use(*this);
    if (!IsOpen())
        return false;
    if (m_knownLength < end)
        RtOs::GetLength(m_pFile, m_knownLength); // else it stays as it is
    return m_knownLength >= end;
}

int CDiskFile::RemoveMee() {
    RT_LOG(RT_LOG_TRACE, "CDiskFile::RemoveMee, filename=" << m_strFileName << " this=" << this);
    Close();
    if (!CFileManager::FileExists(m_strFileName))
        return RT_OK;
    if (const int result = RtOs::RemoveFile(m_strFileName); result != 0) {
        RT_LOG(RT_LOG_ERROR, "CDiskFile::RemoveMee. unlink Failed. Error Ret: "
                                 << result << " Filename=" << m_strFileName << " this=" << this);
        return RT_ERROR_IO;
    }
    return RT_OK;
}

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
    // The length comes last: a body that is half written, over an older one, is never taken for whole.
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

// One byte, which no crash can halve: the sign of the offset.
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
