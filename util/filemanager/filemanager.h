// CFileManager: the one file manager of the process, behind IFileManager.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "IFileManager.h"
#include "RtReferenceControl.h"
#include "RtThread.h"
#include "RtTimeValue.h"
#include "RtTimer.h"
#include "fmfile.h"
#include "os/RtOs.h"

class CFMBlock;

constexpr uint32_t cmax_check_files = 131072;

/// Process-wide counters of the statistics line. Any thread adds, atomically.
struct FMCounters {
    std::atomic<uint32_t> filesCreated{0};
    std::atomic<uint32_t> filesDestroyed{0};
    std::atomic<uint32_t> blocksCreated{0};
    std::atomic<uint32_t> blocksDestroyed{0};
    std::atomic<uint32_t> timeSetOwner{0}; // milliseconds, as the two below
    std::atomic<uint32_t> timeGetOwner{0};
    std::atomic<uint32_t> timeGetOwners{0};
};
extern FMCounters g_counters;

/// Threads: the operations of IFileManager, the timer and everything they call run on the caller
/// thread. The members whose names end in _m, and what housekeeping uses, run on the read/write thread.
/// What both touch says so below.
class CFileManager final : public IFileManager, public CRtTimerWrapperSink {
public:
    CFileManager();

    static CFileManager* Instance();
    /// Null instead of a new manager, for what is destroyed after the manager at process end.
    static CFileManager* IfAlive() { return s_alive.load(std::memory_order_acquire); }

    int Initialize(const CRtString& dataDir, uint16_t clearDays, int isServer) noexcept override;
    void UnInitialize() noexcept override;
    int CreateFile(IFMFile*& file, const FMFileInfo& fileInfo) noexcept override;
    int OpenFile(IFMFile*& file, const FMFileID& fileHandle, int load) noexcept override;
    int GetBlock(IFMBlock*& block, const FMFileID& fileHandle, uint32_t blockID,
                 int create) noexcept override;
    int AttachFile(const FMFileID& fileHandle) noexcept override;
    int DetachFile(const FMFileID& fileHandle) noexcept override;
    ~CFileManager() override;
    virtual int RemoveBlock(const FMFileID& fileHandle, uint32_t blockID, IFMBlock*& block);
    virtual const FMBlockTable& GetBlocks(const FMFileID& fileHandle);
    virtual CRtString GetStatistics();

    void OnTimer(CRtTimerWrapper* timer) noexcept override;

    // Work for the two threads. 0 or the queue's result; 10007 no event; 10015 no thread. The event is
    // disposed of in any case. Any thread may post.
    int PostToReadwrThread(IRtEvent* aFunctor, int sync);
    int PostToCallerThread(IRtEvent* aFunctor, int sync);
    /// Takes a posted event back, if it has not begun; true when it is disposed of.
    bool WithdrawFromReadwrThread(IRtEvent* aFunctor);
    /// Null when the thread is gone, as for what the end of the process runs.
    IRtEventQueue* GetReadwrQueue() { return m_pReadwrTd ? m_pReadwrTd->GetEventQueue() : nullptr; }
    uint32_t GetReadwrThreadID();

    int Random(int aMax);
    /// A new block of this process's kind without a reference, or null. Whoever makes a whole
    /// table of them asks for the time once.
    CFMBlock* CreateBlock(CFMFile* file, uint32_t blockID, uint64_t now = GetTickCountEx());

    // Registry.
    int IsFileOpen(const CRtString& stem);
    void IsFileOpen_m(const FMFileID& id, int& answer);
    /// The end of a file that RegisterFile has entered; any thread.
    void ForgetFile(CFMFile* file);

    // Data directory. The paths are written once, before the read/write thread starts.
    int CheckDataDir();
    static int DirExists(const CRtString& dir);
    static int FileExists(const CRtString& path);
    static int CreateDir(const CRtString& dir);
    static void RemoveDir(const CRtString& dir);
    const CRtString& GetDataDir() const { return m_dataDir; }

    // Clearing and housekeeping.
    static int IsOtherProcessAlive(const CRtString& name);
    /// Begins a run over the data directory; ExamineNext_m goes on with one file per event, so that
    /// nobody who waits for the read/write thread waits for the whole run.
    void HouseKeeping_m();
    void ExamineNext_m();
    bool IsHouseKeepingPosted() const { return m_houseKeepingPosted; }
    int GetClearDays() const { return m_clearDays; }

    // Bytes of block data in memory; any thread.
    void AddMemory(uint32_t length) { m_memoCur.fetch_add(length, std::memory_order_relaxed); }
    void SubtractMemory(uint32_t length) { m_memoCur.fetch_sub(length, std::memory_order_relaxed); }
    size_t GetMemoryInUse() const { return m_memoCur.load(std::memory_order_relaxed); }
    size_t GetMemoryLimit() const { return m_memoMax; }

private:
    using FileMap = std::map<FMFileID, CRtComAutoPtr<CFMFile>>;
    using FileRef = CRtComAutoPtr<CFMFile>;

    int CheckValid();
    void StartThreads();
    void StopReadwrThread();
    void WaitForDisk();
    void CloseAllFiles();
    void WriteWaitingInfo();

    CFMFile* LoadFile(const CRtString& stem);
    int FindFile(const FMFileID& fileHandle, FileRef& file);
    int FindAttachable(const FMFileID& fileHandle, FileRef& file);
    void RegisterFile(const FileRef& file, const FMFileID& id);
    void UnregisterFile(const FMFileID& id, const CFMFile* file);
    std::vector<FileRef> GetLiveFiles(const FMFileID* pathID);
    void SettlePredecessors(const FMFileID& pathID);
    bool ClaimForHouseKeeping(const FMFileID& id);
    /// While it lives, housekeeping leaves the identifier's files alone.
    class COpening;

    void LogStatistics(const char* occasion);
    void MemoyCollect();
    void RetryFailedStores();
    void CheckHouseKeeping();
    void EndHouseKeeping();
    void ExamineFile(const CRtString& stem);

    void SetDataDir(const CRtString& dataDir);
    CRtString GetDefaultDataDir();
    static CRtString GetMaxDrive();
    static CRtString GetDefaultDir();
    void ClearDiskCache();
    void ClearStore();
    bool UseDataDir();
    void WaitForClearing();
    void EndDirectoryUse();
    int RemoveDeadDirectories(bool filesToo);
    bool RemoveIfDead(RtOs::DirectoryWalk& root, const CRtString& name, bool mayRemove);
    /// The tree `name` in an open directory whose path is `base`.
    static void RemoveTree(RtOs::DirectoryWalk& parent, const CRtString& base,
                           const CRtString& name);

    static std::atomic<CFileManager*> s_alive;

    // m_id2files is changed on the caller thread only, under m_registryMutex; that thread reads it
    // without, others under it.
    FileMap m_id2files;
    const FMBlockTable m_emptyBlocks;
    CRtThread* m_pReadwrTd = nullptr;
    CRtThread* m_pCallerTd = nullptr;
    int m_init = 0;
    CRtString m_rootDir;
    CRtString m_dataDir;
    int m_isServer = 0;
    std::atomic<size_t> m_memoCur{0}; // both threads; as wide as the address, as its limit
    size_t m_memoMax = 64;
    CRtTimerWrapper m_timer;
    int32_t m_statCountdown = 0;
    int32_t m_clearDays = 7;
    std::atomic<uint32_t> m_lastHouseKeeping{0}; // seconds; written on the read/write thread

    bool m_rootIsOurs = false;                     // nothing but the cache lies in m_rootDir
    std::atomic<bool> m_houseKeepingPosted{false}; // queued or running; both threads
    std::unique_ptr<RtOs::DirectoryWalk> m_houseKeepingWalk; // read/write thread

    // The small lock between the registry and the read/write thread. Nothing is released, called or
    // waited for under it but the claim.
    std::mutex m_registryMutex;
    std::unique_ptr<RtOs::DirectoryUse> m_dataDirUse; // tells other processes; under the lock
    std::condition_variable m_claimEnded;
    // Every file that was registered and still lives, by the identifier that its path spells: a closed
    // one may have work queued or be held by its users.
    std::multimap<FMFileID, CFMFile*> m_liveFiles;
    FMFileID m_openingID = FMFileID_None; // being created or loaded on the caller thread
    FMFileID m_claimedID = FMFileID_None; // being examined by housekeeping
    bool m_claimed = false;
};
