// CFileManager: the only file manager of the process, implements IFileManager.
#pragma once

#include <atomic>
#include <cstdint>
#include <future>
#include <map>
#include <memory>
#include <vector>

#include "FMDurability.h"
#include "IFileManager.h"
#include "RtReferenceControl.h"
#include "RtThread.h"
#include "RtTimeValue.h"
#include "RtTimer.h"
#include "fmfile.h"
#include "fmhost.h"
#include "fmlivefiles.h"
#include "highwatermark.h"
#include "housekeeping.h"
#include "os/RtOs.h"

constexpr uint32_t cmax_check_files = 131072;

/// Threads: the operations of IFileManager, the timer and everything they call run on the caller
/// thread. Members whose names end in _m, and those that housekeeping calls, run on the read/write thread.
/// Members that both threads use are marked below.
class CFileManager final : public IFileManager, public CRtTimerWrapperSink {
public:
    CFileManager();

    static CFileManager* Instance();
    /// Never creates the manager: null at process end, for objects that are destroyed after it.
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

    // Work for the two threads. The queue's result; RT_ERROR_NULL_OBJECT: no event; RT_ERROR_NOT_READY: no
    // thread. The event is disposed of in any case. Any thread may post.
    int PostToReadwrThread(IRtEvent* aFunctor, int sync) {
        return PostToReadwrThread(aFunctor, sync, sync ? RT_PRIORITY_HIGH : RT_PRIORITY_NORMAL);
    }
    /// `priority`: loads and what a sender waits for are high, stores, removals and barriers normal,
    /// housekeeping low.
    int PostToReadwrThread(IRtEvent* aFunctor, int sync, int priority);
    /// Sends an event that RefuseSenders refuses: then RT_ERROR_FAILURE, and the event has not run.
    int SendToReadwrThread(IRtEvent* event, int priority);
    /// While a store of a closed file waits for another process; read/write thread.
    static void RefuseSenders(bool isRefusing);
    int PostToCallerThread(IRtEvent* aFunctor, int sync);
    bool HasCallerThread() const { return m_pCallerTd != nullptr; }
    /// Any thread.
    static bool IsOnReadwrThread() { return t_isReadwrThread; }
    uint32_t GetReadwrThreadID();

    int Random(int aMax);
    /// A new block of this process's kind without a reference, or null.
    CFMBlock* CreateBlock(CFMBlockOwner* file, uint32_t blockID, uint64_t now = GetTickCountEx());

    // Registry.
    int IsFileOpen(const CRtString& stem);
    void IsFileOpen_m(const FMFileID& id, int& answer);
    /// The open file whose path has that identifier, or null. Any thread.
    CRtComAutoPtr<CFMFile> FindOpenAt(const FMFileID& pathID);
    /// The identifiers in the paths of the open files.
    std::vector<FMFileID> GetOpenPaths() const;
    bool IsRunning() const { return m_init != 0; }
    /// Differs in each run, which lasts from Initialize to UnInitialize. The identifier of the read/write thread does
    /// not: a system may give it to the next thread.
    uint32_t GetRun() const { return m_run; }
    CFMLiveFiles& GetLiveFiles() { return m_live; }

    // Data directory. The paths are written once, before the read/write thread starts.
    int CheckDataDir();
    static int DirExists(const CRtString& dir);
    static int FileExists(const CRtString& path);
    static int CreateDir(const CRtString& dir);
    static void RemoveDir(const CRtString& dir);
    /// Adds to `held` the number of entries that stay because another process holds them.
    static void RemoveDir(const CRtString& dir, uint32_t& held);
    static bool IsHeld(bool isRemoved);
    const CRtString& GetDataDir() const { return m_dataDir; }

    // Clearing and housekeeping.
    static int IsOtherProcessAlive(const CRtString& name);
    /// Starts a run over the data directory. ExamineNext_m continues with one file per event, so that other
    /// events do not wait for the whole run.
    void HouseKeeping_m();
    void ExamineNext_m();
    /// Queues a run. RT_OK; RT_ERROR_NOT_SUPPORTED on a client; RT_ERROR_NOT_READY if a run is queued or running, or
    /// the thread does not run.
    int StartHouseKeeping();
    bool IsHouseKeepingPosted() const { return m_houseKeeping.IsRunning(); }
    int GetClearDays() const { return m_clearDays; }

    // Bytes of block data in memory; any thread.
    void AddMemory(uint32_t length) { m_memoCur.fetch_add(length, std::memory_order_relaxed); }
    void SubtractMemory(uint32_t length) { m_memoCur.fetch_sub(length, std::memory_order_relaxed); }
    size_t GetMemoryInUse() const { return m_memoCur.load(std::memory_order_relaxed); }
    size_t GetMemoryLimit() const { return m_memoMax.load(std::memory_order_relaxed); }
    /// Files in the registry; any thread.
    size_t CountOpenFiles();
    /// Waits until the tables of closed files are written: of one path, or of all. Caller thread.
    void SettleClosedFiles(const FMFileID* pathID);
    /// Writes the tables of open and of closed files. Precondition: the stores have ended.
    int SaveAll(const std::vector<CRtComAutoPtr<CFMFile>>& files,
                std::vector<FMUnsavedBlock>& unsaved);
    /// Nothing is queued for the read/write thread, and no event runs there; also if there is no such thread.
    bool IsReadwrThreadIdle() const;
    CHighWaterMark& GetHighWaterMark() { return m_highWaterMark; }

private:
    using FileMap = std::map<FMFileID, CRtComAutoPtr<CFMFile>>;
    using FileRef = CRtComAutoPtr<CFMFile>;

    int CheckValid();
    void StartThreads();
    void StopReadwrThread();
    void WaitForDisk();
    std::future<void> PostBarrier();
    bool PassBarrier();
    void CloseAllFiles();
    void WriteWaitingInfo();
    void ReportUnsaved(const char* call, const char* remedy);
    void DropTables();
    void MarkReadwrThread() {
        t_isReadwrThread = true;
        RtOs::RetryLimit::Set(RtOs::RETRY_DISK_MS);
    }

    CFMFile* LoadFile(const CRtString& stem);
    int FindFile(const FMFileID& fileHandle, FileRef& file);
    bool IsRegistered(CFMFile& file) const;
    int FindAttachable(const FMFileID& fileHandle, FileRef& file);
    void RegisterFile(const FileRef& file, const FMFileID& id);
    void UnregisterFile(const FMFileID& id, const CFMFile* file);
    bool SettlePredecessors(const FMFileID& pathID);
    void DetachPredecessors(const FMFileID& pathID);

    void LogStatistics(const char* occasion);
    void MemoyCollect();
    void RetryFailedStores();
    void CheckHouseKeeping();
    void ExamineFile(const CRtString& stem);

    void CheckNewFile(CFMFile& file);
    void ReportNotInitialized(const char* call, const char* effect);
    void SetDataDir(const CRtString& dataDir);
    void ReportMissingDataDir();
    CRtString GetDefaultDataDir();
    static CRtString GetMaxDrive();
    static CRtString GetDefaultDir();
    void ClearDiskCache();
    void ClearStore(uint32_t& held);
    bool UseDataDir();
    void WaitForClearing();
    void EndDirectoryUse();
    int RemoveDeadDirectories(bool filesToo, uint32_t& held);
    bool RemoveIfDead(RtOs::DirectoryWalk& root, const CRtString& name, bool mayRemove,
                      uint32_t& held);
    /// The tree `name` in an open directory whose path is `base`.
    static void RemoveTree(RtOs::DirectoryWalk& parent, const CRtString& base,
                           const CRtString& name, uint32_t& held);

    static std::atomic<CFileManager*> s_alive;
    static thread_local bool t_isReadwrThread;

    // Only the caller thread changes it, under the lock of m_live, and reads it without the lock. Other threads
    // read it under the lock.
    FileMap m_id2files;
    const FMBlockTable m_emptyBlocks;
    CRtThread* m_pReadwrTd = nullptr;
    CRtThread* m_pCallerTd = nullptr;
    int m_init = 0;
    uint32_t m_run = 0;
    CRtString m_rootDir;
    CRtString m_dataDir;
    int m_isServer = 0;
    std::atomic<size_t> m_memoCur{0};  // both threads
    std::atomic<size_t> m_memoMax{64}; // written by the caller thread
    CRtTimerWrapper m_timer;
    int32_t m_statCountdown = 0;
    int32_t m_clearDays = 7;
    std::atomic<uint32_t> m_lastHouseKeeping{0}; // seconds; written on the read/write thread

    bool m_rootIsOurs = false; // m_rootDir contains nothing but the cache
    CHouseKeeping m_houseKeeping;
    CFMLiveFiles m_live;
    CHighWaterMark m_highWaterMark;
    std::unique_ptr<RtOs::DirectoryUse> m_dataDirUse; // shared lock; guarded by the lock of m_live
};
