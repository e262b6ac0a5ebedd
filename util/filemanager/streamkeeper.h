// CStreamKeeper: keeps the number of open streams of all disk files below what the process may have.
// Its lock is the only thing that disk files of different threads share.
#pragma once

#include <cstdint>
#include <mutex>
#include <vector>

#include "RtString.h"

class CDiskFile;

class CStreamKeeper {
public:
    static CStreamKeeper& Instance();

    /// While it lives, the file's stream is not closed by others. Uses nest.
    class CUse {
    public:
        explicit CUse(CDiskFile& file);
        ~CUse();
        CUse(const CUse&) = delete;
        CUse& operator=(const CUse&) = delete;

    private:
        CDiskFile& m_file;
    };

    /// Closes the least recently used streams until one more fits below the limit.
    void MakeRoom();
    /// Closes a share of the streams not in use, when the system refused one although there seemed to be
    /// room. False when there was none to close.
    bool GiveBack();

    /// The paths of the files that are in use at this moment, each after a blank.
    CRtString GetNamesInUse();

private:
    CStreamKeeper() = default;
    void BeginUse(CDiskFile& file);
    void EndUse(CDiskFile& file);
    void Link(CDiskFile& file);
    void Unlink(CDiskFile& file);
    bool CloseOldest();

    std::mutex m_mutex;
    CDiskFile* m_pOldest = nullptr;
    CDiskFile* m_pNewest = nullptr;
    uint32_t m_open = 0;  // streams in the list: open and not in use
    uint32_t m_limit = 0; // as last asked for
    std::vector<CDiskFile*> m_inUse;
};
