// CDiskFile: all access to the bytes of a file on disk. CInfoFile: the information file, on top of it.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "FMInfoCodec.h"
#include "RtReferenceControl.h"
#include "RtString.h"
#include "os/RtOs.h"
#include "streamkeeper.h"

/// A file that is opened on first use and created if missing, with positioned reads and writes of whole
/// records. One thread at a time uses an object; its owner ensures that. The stream stays open between
/// calls. If the process runs short of streams, CStreamKeeper closes the least recently used one, and
/// the next transfer opens it again.
///
/// A transfer opens the file if it is not open. It does not check that the path still names that file: an
/// owner that needs this calls CheckPath once, at the start of an operation.
class CDiskFile : public CRtReferenceControl, public CKeptStream {
public:
    /// `flags`: with RtOs::OPEN_ALONE other processes cannot open the file the same way while the stream
    /// is open. `onMissingDirectory` may be null; it runs when the file cannot be opened, before the second
    /// attempt, and creates the missing directory.
    explicit CDiskFile(CRtString strFileName, uint32_t flags = 0,
                       void (*onMissingDirectory)() = nullptr);

    /// RT_OK; RT_ERROR_IO: the file could not be opened, positioned or written; RT_ERROR_INVALID_ARG: null
    /// buffer or length 0.
    int WriteData(const void* lpBuffer, uint64_t dwOffset, uint32_t dwLength, int bFlush);
    /// Exactly `dwLength` bytes, or a failure. Results as for WriteData.
    int ReaddData(void* lpBuffer, uint64_t dwOffset, const uint32_t& dwLength);
    /// Deletes the file, if there is one. RT_OK, RT_ERROR_IO.
    int RemoveMee();
    /// RT_OK; RT_ERROR_IO; RT_ERROR_INVALID_ARG for an empty path.
    int Open(const CRtString& strFileName, int bCreate);
    /// 1 if a stream is open at the end of the call, else 0.
    int IsOpen();
    int Close();

    // --- The steps of a transfer, for operations with checks in between -------------------------------
    enum class Transfer { Write, Read };
    /// The entry line of a transfer.
    void LogTransfer(Transfer transfer, uint32_t dwLength, uint64_t dwOffset) const;
    /// Opens the file if it is not open. RT_OK, or RT_ERROR_IO with the transfer's line.
    int OpenFor(Transfer transfer);
    /// The line of a transfer that could not begin.
    void LogCannotOpen(Transfer transfer) const;
    /// Writes adjacent pieces to a file that is open, at most RtOs::PIECES_MAX. Several pieces go out with
    /// one system call; a failure then logs nothing and may have written some of them. RT_OK, RT_ERROR_IO.
    int Put(std::span<const RtOs::Piece> pieces, uint64_t offset);
    /// Reads from a file that is open. RT_OK, RT_ERROR_IO.
    int Get(void* buffer, uint64_t offset, uint32_t length);
    /// Closes the stream if the path no longer names its file, or the file is shorter than this object
    /// left it. Two system calls; without `isDue` at most once per second.
    void CheckPath(bool isDue);
    /// Opens the file if it exists. False if another process has it open, or if the process has run out of
    /// file descriptors.
    bool TakeExisting();

    /// Writes what the system caches of the file to the device. A no-op if this object has written nothing since
    /// the last call that succeeded, unless it was marked. RT_OK, RT_ERROR_IO.
    int Sync();
    bool IsSynced() const { return m_isSynced; }
    void MarkUnsynced() { m_isSynced = false; }

    /// Whether a stream is open. Opens none.
    bool IsStreamOpen();
    /// The length of a file that is open, in bytes. RT_OK, RT_ERROR_IO.
    int GetLength(uint64_t& length);
    /// The length of the file as of the last opening, or more if this object has written since; 0 if it was
    /// never opened. No system call.
    uint64_t GetKnownLength() const { return m_knownLength; }
    /// The fingerprint as of the last opening if the file is open, without a system call; else that of the
    /// file at the path. False if the system call fails.
    bool GetOpeningStamp(RtOs::FileStamp& stamp);
    /// Whether an open file has bytes up to `end`. Queries the system only beyond the last known length; a
    /// read of a file that another process has truncated since fails.
    bool Reaches(uint64_t end);
    /// Whether the last read failed because the file ends before it, so that a retry is useless.
    bool IsTooShort() const { return m_isTooShort; }
    const CRtString& GetFileName() const final { return m_strFileName; }

    /// State of the file at the last opening of the stream.
    struct Opening {
        uint32_t count = 0;     ///< streams opened so far
        bool isCreated = false; ///< the file did not exist
        bool isForeign =
            false; ///< not the file, or not the content, that this object left when it closed it
    };
    const Opening& GetOpening() const { return m_opening; }

protected:
    ~CDiskFile() override;
    int OpenStream(const CRtString& path, uint32_t flags, int& error);
    /// The entry line of Open.
    void LogOpen(const CRtString& path) const;
    /// Reads the beginning of the file, which is open, without a log line.
    bool ReadQuietly(void* buffer, uint32_t length) const;

private:
    void LogSystemError(const char* call, int error) const;
    int Fail(Transfer transfer, RtOs::Transfer result, uint32_t dwLength, uint64_t dwOffset);
    void LogOpening(const CRtString& path, int error) const;
    void CloseStream() final;
    bool IsForeign(const RtOs::FileStamp& stamp) const;

    CRtString m_strFileName;
    const uint32_t m_flags;
    void (*const m_onMissingDirectory)();
    uint64_t m_knownLength = 0; // the file had this many bytes since the stream was opened
    RtOs::FileStamp m_left;     // fingerprint of the file when the stream was closed
    bool m_isLeftKnown = true;  // else only the identity and length in m_left hold
    uint64_t m_checkedAt = 0;   // tick count of the last CheckPath
    bool m_isTooShort = false;
    bool m_isSynced = true; // this object has written nothing since the last Sync
    Opening m_opening;
};

/// The information file: two length-prefixed bodies after four magic bytes. Each operation returns RT_OK,
/// the failing disk operation's code, or RT_ERROR_NOT_READY where documented.
class CInfoFile final : public CDiskFile {
public:
    using CDiskFile::CDiskFile;

    /// Opens the file, if it exists, and reads its first `most` bytes with one system call. Until DropReadAhead or a
    /// write, the operations that read take their bytes from there. For the load of a file that no other process
    /// changes. False if there is no file. Precondition: it is closed.
    bool ReadAhead(uint32_t most);
    void DropReadAhead() { m_ahead = {}; }

    int WriteFileInfo(const void* body, uint32_t length);
    /// RT_ERROR_NOT_READY before a file body was written or read: its length determines the position of the
    /// block body.
    int WriteBlockInfo(const void* body, uint32_t length);
    /// `length`: in, the size of the buffer; out, L1. RT_ERROR_INVALID_ARG if L1 is larger than the
    /// buffer; RT_ERROR_NOT_READY if the magic bytes are missing.
    int ReaddFileInfo(void* buffer, uint32_t* length);
    /// `capacity`: in, the size of the buffer; out, L2. A capacity below L2 only queries L2.
    int ReaddBlockInfo(void* buffer, uint32_t* capacity);

    // Precondition of the functions below: a file body was read or written.
    /// Makes the file unloadable until a block body is written.
    int Invalidate();
    /// Makes the entry at offset `at` of the file name no bytes.
    int RevokeEntry(uint32_t at);
    uint32_t GetBlockBodyOffset() const {
        return FM_INFO_BODY_OFFSET + m_fileInfoLen + FM_INFO_LENGTH_SIZE;
    }

private:
    ~CInfoFile() override = default;
    int WritePieces(std::span<const RtOs::Piece> pieces, uint64_t offset, size_t& failed);
    int WriteBlockInfoLength(uint32_t length);
    int ReadPart(void* buffer, uint64_t offset, uint32_t length);

    uint32_t m_fileInfoLen = 0;   // L1 as last written or read
    std::string m_ahead;          // the first bytes of the file, while it is loaded
    bool m_isOpenedAhead = false; // ReadAhead has opened the file, and no line says so yet
};
