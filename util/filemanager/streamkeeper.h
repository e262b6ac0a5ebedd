// CStreamKeeper: limits the number of open streams of all disk files.
#pragma once

#include <cstdint>
#include <mutex>
#include <vector>

#include "RtString.h"
#include "os/RtOs.h"

/// A stream that the keeper may close while no use of it is in progress. One thread at a time uses it.
class CKeptStream {
public:
    CKeptStream(const CKeptStream&) = delete;
    CKeptStream& operator=(const CKeptStream&) = delete;
    bool HasStream() const { return m_file != RtOs::NO_FILE; }
    virtual const CRtString& GetFileName() const = 0;

protected:
    CKeptStream() = default;
    ~CKeptStream() = default;
    virtual void CloseStream() = 0;

    int m_file =
        RtOs::NO_FILE; // descriptor; closed by another thread only while no use is in progress

private:
    friend class CStreamKeeper;
    uint32_t m_uses = 0; // uses in progress
    // Links from the least to the most recently used stream, of those not in use.
    CKeptStream* m_pOlder = nullptr;
    CKeptStream* m_pNewer = nullptr;
    bool m_kept = false;
};

/// Any thread. Disk files of different threads share nothing but its lock.
class CStreamKeeper {
public:
    static CStreamKeeper& Instance();

    /// During its lifetime no other thread closes the stream. Uses nest.
    class CUse {
    public:
        explicit CUse(CKeptStream& stream);
        ~CUse();
        CUse(const CUse&) = delete;
        CUse& operator=(const CUse&) = delete;

    private:
        CKeptStream& m_stream;
    };

    /// Closes the least recently used streams until one more fits below the limit.
    void MakeRoom();
    /// Closes half of the streams that are not in use, after an open has failed below the limit. False if there
    /// was no such stream.
    bool GiveBack();

    /// The paths of the files in use, each after a blank.
    CRtString GetNamesInUse();

private:
    CStreamKeeper() = default;
    void BeginUse(CKeptStream& stream);
    void EndUse(CKeptStream& stream);
    void Link(CKeptStream& stream);
    void Unlink(CKeptStream& stream);
    void CloseOldest();

    std::mutex m_mutex;
    CKeptStream* m_pOldest = nullptr;
    CKeptStream* m_pNewest = nullptr;
    uint32_t m_open = 0;  // streams in the list: open and not in use
    uint32_t m_limit = 0; // as of the last query
    std::vector<CKeptStream*> m_inUse;
};
