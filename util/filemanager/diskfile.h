// CDiskFile: the only way to the bytes of a file on disk; CInfoFile: the information file over it.
#pragma once

#include <cstdint>
#include <cstdio>
#include <span>

#include "FMInfoCodec.h"
#include "RtReferenceControl.h"
#include "RtString.h"
#include "os/RtOs.h"

/// One path, opened on first use, created when missing, with positioned reads and writes of whole
/// records. One thread at a time uses an object; which one, its file says. The stream stays open between
/// calls, unless the process runs short of streams: then the one that was used least recently is closed
/// and comes back on its next use. It also comes back when its file is found removed, replaced or cut.
class CDiskFile : public CRtReferenceControl {
public:
    /// With `flags` RtOs::OPEN_ALONE other processes cannot have the file so while the stream is open.
    explicit CDiskFile(const CRtString& strFileName, uint32_t flags = 0);

    /// 0; 10006 the disk failed; 10008 no buffer or length 0.
    int WriteData(const void* lpBuffer, uint64_t dwOffset, uint32_t dwLength, int bFlush);
    /// RtOs::PIECES_MAX pieces at most, one behind the other; some may have been written when it fails,
    /// which it says nowhere: written one by one they will. Results as for WriteData.
    int WritePieces(std::span<const RtOs::Piece> pieces, uint64_t offset);
    /// Exactly dwLength bytes or a failure. Results as for WriteData.
    int ReaddData(void* lpBuffer, uint64_t dwOffset, const uint32_t& dwLength);
    /// Deletes the file, if there is one. 0, 10006.
    int RemoveMee();
    /// 0; 10006; 10008 for an empty path.
    int Open(const CRtString& strFileName, int bCreate);
    /// 1 when a stream is open at the end of the call, else 0.
    int IsOpen();
    int Close();
    /// The file's length in bytes; makes a missing file as a read would. 0, 10006.
    int GetLength(uint64_t& length);
    /// The file that is open, else what the path names, without making it. False when the system does
    /// not tell.
    bool GetStamp(RtOs::FileStamp& stamp);
    /// Whether the file has bytes up to `end`, as far as this stream knows: a file that somebody cuts
    /// meanwhile shows in the read. Makes a missing file as a read would.
    bool Reaches(uint64_t end);
    /// Whether the latest read failed because the file ends before it: another time will not help.
    bool IsTooShort() const { return m_isTooShort; }
    /// Opens the file, if there is one. False when another process has it.
    bool TakeExisting();
    const CRtString& GetFileName() const { return m_strFileName; }

    /// What the latest opening of the stream found.
    struct Opening {
        uint32_t count = 0;    ///< streams that were opened so far
        bool created = false;  ///< there was no file
        bool stranger = false; ///< there were bytes that this object has neither seen nor written
    };
    const Opening& GetOpening() const { return m_opening; }

protected:
    ~CDiskFile() override;

private:
    friend class CStreamKeeper;
    struct FailureTexts {
        const char* operation;
        const char* step;
        const char* pathKey;
    };
    int Fail(RtOs::Transfer result, const FailureTexts& texts, uint32_t dwLength,
             uint64_t dwOffset);
    int OpenStream(const CRtString& path, uint32_t flags, int& error);
    void LogOpening(const CRtString& path, int error) const;
    void LogWrite(uint32_t dwLength, uint64_t dwOffset) const;
    int NoteOpening(bool created);
    void CloseStream();
    bool IsStreamTrue();

    CRtString m_strFileName;
    const uint32_t m_flags;
    FILE* m_pFile = nullptr;    // changed by another thread only while the stream is not in use
    uint64_t m_knownLength = 0; // the file had this many bytes, since the stream was opened
    RtOs::FileStamp m_left;     // the file, when the stream was closed
    uint64_t m_lookedAt = 0;    // tick count of the last look at what the path names
    bool m_isInUse = false;     // by another process, at the latest try to open it
    bool m_isTooShort = false;  // for the latest read
    Opening m_opening;
    uint32_t m_uses = 0; // begun and not ended
    // The keeper's: links from the least to the most recently used stream, for those not in use.
    CDiskFile* m_pOlder = nullptr;
    CDiskFile* m_pNewer = nullptr;
    bool m_kept = false;
};

/// The information file: two length-prefixed bodies after four magic bytes. Each operation answers 0,
/// the failing disk operation's code, or 10015 as said.
class CInfoFile final : public CDiskFile {
public:
    using CDiskFile::CDiskFile;

    int WriteFileInfo(const void* body, uint32_t length);
    /// 10015 before any file body was written or read: its length places this one.
    int WriteBlockInfo(const void* body, uint32_t length);
    /// `length`: in, the size of the buffer; out, L1. 10008 when L1 is larger; 10015 when the file is no
    /// information file.
    int ReaddFileInfo(void* buffer, uint32_t* length);
    /// `capacity`: in, the size of the buffer; out, L2. A capacity below L2 only asks for L2.
    int ReaddBlockInfo(void* buffer, uint32_t* capacity);

    // After a file body was read or written.
    /// The file loads no more, until a block body is written.
    int Invalidate();
    /// The entry at that offset of the file names no bytes any more.
    int RevokeEntry(uint32_t at);
    uint32_t GetBlockBodyOffset() const {
        return FM_INFO_BODY_OFFSET + m_fileInfoLen + FM_INFO_LENGTH_SIZE;
    }

private:
    ~CInfoFile() override = default;
    int WriteBlockInfoLength(uint32_t length);

    uint32_t m_fileInfoLen = 0; // L1 as last written or read
};
