// The manager's life, its threads and the registry of open files.
#include "filemanager.h"

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <future>

#include "RtLog.h"
#include "RtResult.h"
#include "RtThreadManager.h"
#include "RtUtilTemplates.h"
#include "fmblock.h"
#include "fmfunctor.h"
#include "streamkeeper.h"

namespace {

constexpr char SOURCE[] = "util/filemanager/filemanager";
constexpr int64_t TICK_SECONDS = 60;
constexpr size_t SERVER_MEMORY_LIMIT = 536870912;
constexpr size_t CLIENT_MEMORY_LIMIT = 67108864;

using CFileManagerHolder = CRtSingletonHolder<CFileManager>;

// Its end, whether it ran or not, is the signal.
class CFMSignal final : public CFMFunctorBase {
public:
    explicit CFMSignal(std::promise<void> reached) : m_reached(std::move(reached)) {}

private:
    std::promise<void> m_reached;
};

// Takes every event, as the queues do: one that cannot be queued is disposed of here.
int Refuse(IRtEvent* event, int result) {
    if (event)
        event->OnDestorySelf();
    return result;
}

int Queue(IRtEventQueue& queue, IRtEvent* event, int sync) {
    return sync ? queue.SendEvent(event) : queue.PostEvent(event, RT_PRIORITY_NORMAL);
}

} // namespace

FMCounters g_counters;
std::atomic<CFileManager*> CFileManager::s_alive{nullptr};

IFileManager::~IFileManager() = default;

IFileManager* IFileManager::Instance() { return CFileManager::Instance(); }
CFileManager* CFileManager::Instance() { return CFileManagerHolder::Instance(); }

CFileManager::CFileManager() {
    RT_LOG(RT_LOG_TRACE, "CFileManager::CFileManager");
    std::srand(static_cast<unsigned>(std::time(nullptr)));
    s_alive.store(this, std::memory_order_release);
}

CFileManager::~CFileManager() {
    RT_LOG(RT_LOG_TRACE, "CFileManager::~CFileManager");
    s_alive.store(nullptr, std::memory_order_release);
}

int CFileManager::Initialize(const CRtString& dataDir, uint16_t clearDays, int isServer) noexcept {
    RT_LOG(RT_LOG_TRACE, "CFileManager::Initialize, dataDir=" << dataDir
                                                              << ", isServer=" << isServer
                                                              << ", clearDays=" << clearDays);
    if (m_init)
        return RT_OK;
    m_isServer = isServer;
    m_memoMax = isServer ? SERVER_MEMORY_LIMIT : CLIENT_MEMORY_LIMIT;
    m_timer.Schedule(this, CRtTimeValue(TICK_SECONDS, 0), 0);
    m_clearDays = clearDays + 1;
    SetDataDir(dataDir);
    if (m_clearDays == 1)
        ClearDiskCache();
    CheckDataDir();
    WaitForClearing();
    StartThreads();
    m_init = 1;
    return RT_OK;
}

void CFileManager::StartThreads() {
    if (!m_pReadwrTd) {
        const int ret = CRtThreadManager::Instance()->CreateUserTaskThread(
            m_pReadwrTd, CRtThreadManager::TT_TASK, 0);
        if (RT_FAILED(ret))
            RT_LOG(RT_LOG_ERROR,
                   "CFileManager::Initialize, Start Local R/W Thread error. ret=" << ret);
    }
    if (!m_pCallerTd)
        m_pCallerTd = CRtThreadManager::Instance()->GetThread(RT_CALLER_THREAD);
}

void CFileManager::UnInitialize() noexcept {
    if (!m_init)
        return;
    LogStatistics("CFileManager::UnInitialize, statistics ");
    m_init = 0;
    m_timer.Cancel();
    WaitForDisk();
    CloseAllFiles();
    WaitForDisk(); // for what was tried once more
    StopReadwrThread();
    WriteWaitingInfo();
    m_pCallerTd = nullptr;
    if (m_clearDays == 1)
        ClearDiskCache();
    EndDirectoryUse();
    RT_LOG(RT_LOG_TRACE, "CFileManager::UnInitialize, End. ");
}

// A disk may take its time, and whoever waits for it wants to know what for.
void CFileManager::WaitForDisk() {
    constexpr std::chrono::milliseconds patience(500);
    constexpr std::chrono::seconds interval(10);
    std::promise<void> reached;
    std::future<void> isReached = reached.get_future();
    if (!m_pReadwrTd || RT_FAILED(PostToReadwrThread(new CFMSignal(std::move(reached)), 0)))
        return;
    if (isReached.wait_for(patience) == std::future_status::ready)
        return;
    do {
        RT_LOG(RT_LOG_WARNING, "CFileManager::UnInitialize, waiting for the disk, in use:"
                                   << CStreamKeeper::Instance().GetNamesInUse());
    } while (isReached.wait_for(interval) != std::future_status::ready);
}

void CFileManager::CloseAllFiles() {
    // A copy: releasing a block runs code of the application's, which may open and detach files.
    const FileMap files = m_id2files;
    for (const auto& [id, file] : files)
        file->Close(1);
    FileMap emptied;
    {
        const std::lock_guard lock(m_registryMutex);
        m_id2files.swap(emptied);
    }
    // Those that were displaced were never closed: their blocks and they would hold each other for ever,
    // and one that still has its path to itself has something to save.
    for (const FileRef& file : GetLiveFiles(nullptr))
        file->Close(1);
}

void CFileManager::StopReadwrThread() {
    if (!m_pReadwrTd)
        return;
    constexpr uint32_t joinMs = 500;
    m_pReadwrTd->Stop();
    m_pReadwrTd->Join(joinMs); // a long queue takes longer: the next step waits for its end
    m_pReadwrTd->Destory(0);
    m_pReadwrTd = nullptr;
}

// Files that were closed may still wait to be written; the stores that they speak of have run by now.
void CFileManager::WriteWaitingInfo() {
    for (const FileRef& file : GetLiveFiles(nullptr)) {
        if (m_clearDays == 1)
            file->DropWaitingInfo();
        else
            file->SaveWaitingInfo();
    }
}

int CFileManager::PostToReadwrThread(IRtEvent* aFunctor, int sync) {
    if (!RT_CHECK(SOURCE, aFunctor, "aFunctor"))
        return RT_ERROR_NULL_OBJECT;
    if (!RT_CHECK(SOURCE, m_pReadwrTd && m_pReadwrTd->GetEventQueue(),
                  "m_pReadwrTd && m_pReadwrTd->GetEventQueue()"))
        return Refuse(aFunctor, RT_ERROR_NOT_READY);
    return Queue(*m_pReadwrTd->GetEventQueue(), aFunctor, sync);
}

int CFileManager::PostToCallerThread(IRtEvent* aFunctor, int sync) {
    if (!RT_CHECK(SOURCE, aFunctor, "aFunctor"))
        return RT_ERROR_NULL_OBJECT;
    if (!RT_CHECK(SOURCE, m_pCallerTd && m_pCallerTd->GetEventQueue(),
                  "m_pCallerTd && m_pCallerTd->GetEventQueue()"))
        return Refuse(aFunctor, RT_ERROR_NOT_READY);
    return Queue(*m_pCallerTd->GetEventQueue(), aFunctor, sync);
}

bool CFileManager::WithdrawFromReadwrThread(IRtEvent* aFunctor) {
    return m_pReadwrTd && m_pReadwrTd->GetEventQueue()->WithdrawEvent(aFunctor);
}

uint32_t CFileManager::GetReadwrThreadID() { return m_pReadwrTd ? m_pReadwrTd->GetThreadId() : 0; }

int CFileManager::Random(int aMax) {
    if (!RT_CHECK(SOURCE, aMax, "aMax"))
        return 0;
    return std::rand() % aMax;
}

CFMBlock* CFileManager::CreateBlock(CFMFile* file, uint32_t blockID, uint64_t now) {
    if (m_isServer)
        return new (std::nothrow) CFMServerBlock(file, blockID, now);
    return new (std::nothrow) CFMClientBlock(file, blockID, now);
}

// --- Registry -----------------------------------------------------------------------------------

// Marks an identifier as being opened. Waits for housekeeping to finish with that one file first.
class CFileManager::COpening {
public:
    COpening(CFileManager& manager, const FMFileID& id) : m_manager(manager) {
        std::unique_lock lock(m_manager.m_registryMutex);
        m_manager.m_claimEnded.wait(
            lock, [&] { return !m_manager.m_claimed || !(m_manager.m_claimedID == id); });
        m_manager.m_openingID = id;
    }
    ~COpening() {
        const std::lock_guard lock(m_manager.m_registryMutex);
        m_manager.m_openingID = FMFileID_None;
    }
    COpening(const COpening&) = delete;
    COpening& operator=(const COpening&) = delete;

private:
    CFileManager& m_manager;
};

int CFileManager::CreateFile(IFMFile*& file, const FMFileInfo& fileInfo) noexcept {
    if (!RT_CHECK(SOURCE, !(FMFileID_None == fileInfo.fileID), "FMFileID_None != fileInfo.fileID"))
        return RT_ERROR_INVALID_ARG;
    CheckValid();
    SettlePredecessors(fileInfo.fileID);
    const COpening opening(*this, fileInfo.fileID);
    FileRef created(new (std::nothrow) CFMFile(fileInfo));
    if (!RT_CHECK(SOURCE, created.Get(), "file.Get()") || !created->HasDiskFiles())
        return RT_ERROR_NULL_OBJECT;
    RegisterFile(created, fileInfo.fileID);
    file = created.Detach();
    return RT_OK;
}

int CFileManager::OpenFile(IFMFile*& file, const FMFileID& fileHandle, int load) noexcept {
    if (!RT_CHECK(SOURCE, !(FMFileID_None == fileHandle), "FMFileID_None != fileHandle"))
        return RT_ERROR_INVALID_ARG;
    file = nullptr;
    if (const auto it = m_id2files.find(fileHandle); it != m_id2files.end())
        file = it->second.Get();
    else if (load)
        file = LoadFile(FMFileIDToString(fileHandle));
    if (!file)
        return RT_ERROR_NOT_FOUND;
    file->AddReference();
    return RT_OK;
}

CFMFile* CFileManager::LoadFile(const CRtString& stem) {
    FMFileID pathID;
    FMFileIDFromString(stem, pathID);
    SettlePredecessors(pathID);
    const COpening opening(*this, pathID);
    FileRef file(new (std::nothrow) CFMFile(stem));
    // Without information there is nothing to load, and a data file that another process is just making
    // is not taken from it.
    const bool isThere = FileExists(m_dataDir + stem + ".sdi");
    if (file && isThere && !file->TakeDiskFile()) {
        RT_LOG(RT_LOG_WARNING,
               "CFileManager::LoadFile, another process has the file, fileID=" << stem);
        return nullptr;
    }
    if (file && file->LoadFileInfo() && isThere && file->LoadBlokInfo()) {
        RegisterFile(file, file->GetFileInfo().fileID);
        return file.Get(); // the registry's reference keeps it
    }
    return nullptr;
}

// What an earlier object of the same path has queued runs first, and its information is written: a file
// that was just closed is found as it was left, and nothing of it runs beside the new object.
void CFileManager::SettlePredecessors(const FMFileID& pathID) {
    const std::vector<FileRef> predecessors = GetLiveFiles(&pathID);
    {
        const std::lock_guard lock(m_registryMutex);
        if (!m_liveFiles.contains(pathID)) // one without a reference is being destroyed over there
            return;
    }
    if (m_pReadwrTd)
        PostToReadwrThread(new CFMFunctorBase, 1);
    for (const FileRef& file : predecessors) {
        file->SaveWaitingInfo();
        file->CloseStreams();
    }
}

void CFileManager::RegisterFile(const FileRef& file, const FMFileID& id) {
    for (const FileRef& predecessor : GetLiveFiles(&file->GetPathID()))
        predecessor->Retire();
    file->SetRegistered();
    FileRef displaced = file;
    const std::lock_guard lock(m_registryMutex);
    m_liveFiles.emplace(file->GetPathID(), file.Get());
    std::swap(m_id2files[id], displaced); // released after the lock
}

void CFileManager::UnregisterFile(const FMFileID& id, const CFMFile* file) {
    FileRef erased;
    const std::lock_guard lock(m_registryMutex);
    const auto it = m_id2files.find(id);
    if (it == m_id2files.end() || it->second.Get() != file)
        return; // closing it has run code that opened another
    erased = std::move(it->second);
    m_id2files.erase(it);
}

void CFileManager::ForgetFile(CFMFile* file) {
    const std::lock_guard lock(m_registryMutex);
    const auto [first, last] = m_liveFiles.equal_range(file->GetPathID());
    for (auto it = first; it != last; ++it) {
        if (it->second == file) {
            m_liveFiles.erase(it);
            return;
        }
    }
}

// All of them, or those of one path.
std::vector<CFileManager::FileRef> CFileManager::GetLiveFiles(const FMFileID* pathID) {
    std::vector<FileRef> files;
    const std::lock_guard lock(m_registryMutex);
    auto [it, last] = pathID ? m_liveFiles.equal_range(*pathID)
                             : std::pair(m_liveFiles.begin(), m_liveFiles.end());
    for (; it != last; ++it) {
        if (it->second->TryAddReference())
            files.push_back(FileRef::Adopt(it->second));
    }
    return files;
}

int CFileManager::FindFile(const FMFileID& fileHandle, FileRef& file) {
    if (!RT_CHECK(SOURCE, !(FMFileID_None == fileHandle), "FMFileID_None != fileHandle"))
        return RT_ERROR_INVALID_ARG;
    const auto it = m_id2files.find(fileHandle);
    if (it == m_id2files.end())
        return RT_ERROR_NOT_FOUND;
    file = it->second;
    return RT_OK;
}

int CFileManager::GetBlock(IFMBlock*& block, const FMFileID& fileHandle, uint32_t blockID,
                           int create) noexcept {
    FileRef file;
    const int result = FindFile(fileHandle, file);
    return RT_FAILED(result) ? result : file->GetBlock(block, blockID, create);
}

int CFileManager::RemoveBlock(const FMFileID& fileHandle, uint32_t blockID, IFMBlock*& block) {
    FileRef file;
    const int result = FindFile(fileHandle, file);
    return RT_FAILED(result) ? result : file->RemoveBlock(blockID, block);
}

const FMBlockTable& CFileManager::GetBlocks(const FMFileID& fileHandle) {
    FileRef file;
    return RT_FAILED(FindFile(fileHandle, file)) ? m_emptyBlocks : file->GetBlocks();
}

int CFileManager::FindAttachable(const FMFileID& fileHandle, FileRef& file) {
    const int result = FindFile(fileHandle, file);
    if (result == RT_ERROR_NOT_FOUND)
        RT_CHECK(SOURCE, false, "m_id2files.end() != it");
    return result;
}

int CFileManager::AttachFile(const FMFileID& fileHandle) noexcept {
    RT_LOG(RT_LOG_TRACE, "CFileManager::AttachFile, fildID=" << FMFileIDToString(fileHandle));
    FileRef file;
    const int result = FindAttachable(fileHandle, file);
    if (RT_SUCCEEDED(result))
        ++file->m_attachCount;
    return result;
}

int CFileManager::DetachFile(const FMFileID& fileHandle) noexcept {
    RT_LOG(RT_LOG_TRACE, "CFileManager::DetachFile, fildID=" << FMFileIDToString(fileHandle));
    FileRef file;
    const int result = FindAttachable(fileHandle, file);
    if (RT_SUCCEEDED(result) && --file->m_attachCount <= 0) {
        file->Close(0);
        UnregisterFile(fileHandle, file.Get());
    }
    return result;
}

int CFileManager::IsFileOpen(const CRtString& stem) {
    FMFileID id;
    FMFileIDFromString(stem, id);
    int answer = 0;
    auto* functor =
        new CFMFunctor2(this, &CFileManager::IsFileOpen_m, id, std::reference_wrapper(answer));
    PostToReadwrThread(functor, 1); // a posting that fails leaves the answer 0
    return answer;
}

void CFileManager::IsFileOpen_m(const FMFileID& id, int& answer) {
    const std::lock_guard lock(m_registryMutex);
    answer = m_id2files.contains(id) ? 1 : 0;
}

int CFileManager::CheckValid() {
    return RT_CHECK(SOURCE, m_id2files.size() < cmax_check_files,
                    "m_id2files.size() < cmax_check_files") &&
                   RT_CHECK(SOURCE, m_pReadwrTd && m_pCallerTd, "m_pReadwrTd && m_pCallerTd") &&
                   RT_CHECK(SOURCE, m_init, "m_init")
               ? 1
               : 0;
}
