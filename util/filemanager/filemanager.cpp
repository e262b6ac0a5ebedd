// The life cycle of the manager, its threads and the registry of open files.
#include "filemanager.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <ctime>

#include "RtEventQueue.h"
#include "RtLog.h"
#include "RtResult.h"
#include "RtThreadManager.h"
#include "RtUtilTemplates.h"
#include "fmblock.h"
#include "fmfunctor.h"
#include "mistakes.h"
#include "streamkeeper.h"

namespace {

constexpr char MANAGER_SOURCE[] = "util/filemanager/filemanager";
constexpr int64_t TICK_SECONDS = 60;
constexpr size_t SERVER_MEMORY_LIMIT = 536870912;
constexpr size_t CLIENT_MEMORY_LIMIT = 67108864;

using CFileManagerHolder = CRtSingletonHolder<CFileManager>;

// Destroying the last event that holds the promise signals it, whether or not the events fired.
class CFMSignal final : public CFMFunctorBase {
public:
    explicit CFMSignal(std::shared_ptr<std::promise<void>> reached)
        : m_reached(std::move(reached)) {}

private:
    const std::shared_ptr<std::promise<void>> m_reached;
};

// The runtime has one kind of queue.
CRtEventQueue& QueueOf(CRtThread& thread) {
    return static_cast<CRtEventQueue&>(*thread.GetEventQueue());
}

// Disposes of an event that has no queue, as a queue does with one that it refuses.
int Refuse(IRtEvent* event, int result) {
    event->OnDestorySelf();
    return result;
}

} // namespace

thread_local bool CFileManager::t_isReadwrThread = false;
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
    if (m_init) // else UnInitialize has reported them
        ReportUnsaved("process end", "Call IFileManager::UnInitialize before the process ends.");
    s_alive.store(nullptr, std::memory_order_release);
}

int CFileManager::Initialize(const CRtString& dataDir, uint16_t clearDays, int isServer) noexcept {
    RT_LOG(RT_LOG_TRACE, "CFileManager::Initialize, dataDir=" << dataDir
                                                              << ", isServer=" << isServer
                                                              << ", clearDays=" << clearDays);
    if (m_init) {
        CFMMistakes::CheckThread("IFileManager::Initialize");
        return RT_OK;
    }
    m_isServer = isServer;
    m_memoMax = isServer ? SERVER_MEMORY_LIMIT : CLIENT_MEMORY_LIMIT;
    m_timer.Schedule(this, CRtTimeValue(TICK_SECONDS, 0), 0);
    m_clearDays = clearDays + 1;
    SetDataDir(dataDir);
    if (m_clearDays == 1) {
        DropTables();
        ClearDiskCache();
    }
    CheckDataDir();
    WaitForClearing();
    StartThreads();
    CFMMistakes::Reset();
    CFMMistakes::CheckThread("IFileManager::Initialize");
    ReportMissingDataDir();
    m_init = 1;
    ++m_run;
    return RT_OK;
}

void CFileManager::StartThreads() {
    if (!m_pReadwrTd) { // UnInitialize calls the application, which may initialize again
        const int ret = CRtThreadManager::Instance()->CreateUserTaskThread(
            m_pReadwrTd, CRtThreadManager::TT_TASK, 0);
        if (RT_FAILED(ret))
            RT_LOG(RT_LOG_ERROR,
                   "CFileManager::Initialize, Start Local R/W Thread error. ret=" << ret);
        else if (!CRtEventQueue::IsStepping())
            // The thread marks itself: FMWaitUntilIdle asks on any thread.
            PostToReadwrThread(new CFMFunctor0(this, &CFileManager::MarkReadwrThread), 0,
                               RT_PRIORITY_HIGH);
    }
    if (!m_pCallerTd)
        m_pCallerTd = CRtThreadManager::Instance()->GetThread(RT_CALLER_THREAD);
}

void CFileManager::UnInitialize() noexcept {
    if (!m_init)
        return;
    CFMMistakes::CheckThread("IFileManager::UnInitialize");
    LogStatistics("CFileManager::UnInitialize, statistics ");
    m_init = 0;
    m_timer.Cancel();
    WaitForDisk();
    CloseAllFiles();
    WaitForDisk(); // for the stores that were retried
    StopReadwrThread();
    WriteWaitingInfo();
    ReportUnsaved("IFileManager::UnInitialize", "Earlier lines name the system errors. Remove "
                                                "the cause, then call Initialize and "
                                                "UnInitialize before the process ends.");
    m_pCallerTd = nullptr;
    if (m_clearDays == 1)
        ClearDiskCache();
    EndDirectoryUse();
    RT_LOG(RT_LOG_TRACE, "CFileManager::UnInitialize, End. ");
}

// Signals behind the loads and the stores that are queued. Precondition: the read/write thread runs.
std::future<void> CFileManager::PostBarrier() {
    auto reached = std::make_shared<std::promise<void>>();
    std::future<void> isReached = reached->get_future();
    for (const int priority : {RT_PRIORITY_HIGH, RT_PRIORITY_NORMAL})
        PostToReadwrThread(new CFMSignal(reached), 0, priority);
    reached.reset();
    QueueOf(*m_pReadwrTd).StepAll();
    return isReached;
}

// The disk may be slow: the log says which files the stop waits for.
void CFileManager::WaitForDisk() {
    constexpr std::chrono::milliseconds first(500);
    constexpr std::chrono::seconds interval(10);
    if (!m_pReadwrTd)
        return;
    const std::future<void> isReached = PostBarrier();
    if (isReached.wait_for(first) == std::future_status::ready)
        return;
    do {
        RT_LOG(RT_LOG_WARNING, "CFileManager::UnInitialize, waiting for the disk, in use:"
                                   << CStreamKeeper::Instance().GetNamesInUse());
    } while (isReached.wait_for(interval) != std::future_status::ready);
}

void CFileManager::CloseAllFiles() {
    // A copy: releasing a block runs code of the application, which may open and detach files.
    const FileMap files = m_id2files;
    for (const auto& [id, file] : files)
        file->Close(1);
    FileMap emptied;
    {
        const auto lock = m_live.Lock();
        m_id2files.swap(emptied);
    }
    // Displaced files were never closed: a file and its blocks reference each other, and a file that still
    // owns its path has a table to save.
    for (const FileRef& file : m_live.Get(nullptr))
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

// Closed files may have a pending table; the stores that it names have ended by now.
void CFileManager::WriteWaitingInfo() {
    if (m_clearDays == 1)
        DropTables();
    const RtOs::RetryLimit limit(RtOs::RETRY_DISK_MS);
    for (const FileRef& file : m_live.Get(nullptr))
        file->SaveFileInfo_m();
    m_live.SaveUnsaved(); // releases the files whose tables are written by now
    for (const FileRef& file : m_live.Get(nullptr))
        file->GetEntry().CloseStreams(); // pending events and users may keep the object
}

// `call`: where the process stands.
void CFileManager::ReportUnsaved(const char* call, const char* remedy) {
    constexpr size_t identifiersInLine = 40; // a longer line would be truncated
    if (m_clearDays == 1)
        return; // the cache is cleared
    std::vector<CRtString> lines;
    size_t count = 0;
    for (const FileRef& file : m_live.Get(nullptr)) {
        if (!file->IsUnsaved())
            continue;
        if (count++ % identifiersInLine == 0)
            lines.emplace_back();
        else
            lines.back() += " ";
        lines.back() += FMFileIDToString(file->GetFileInfo().fileID);
    }
    for (size_t i = 0; i < lines.size(); ++i) {
        if (i == 0)
            FM_REPORT_MISTAKE(call << ", mistake: files in " << m_dataDir
                                   << " that were not saved: " << uint64_t{count} << ". " << remedy
                                   << " fileID=" << lines[i]);
        else
            RT_LOG(RT_LOG_ERROR, call << ", not saved: fileID=" << lines[i]);
    }
}

// The cache is cleared: no table that waits is written into it afterwards.
void CFileManager::DropTables() {
    for (const FileRef& file : m_live.Get(nullptr))
        file->DropTable();
    m_live.DropUnsaved();
}

int CFileManager::PostToReadwrThread(IRtEvent* aFunctor, int sync, int priority) {
    if (!RT_CHECK(MANAGER_SOURCE, aFunctor, "aFunctor"))
        return RT_ERROR_NULL_OBJECT;
    if (!RT_CHECK(MANAGER_SOURCE, m_pReadwrTd && m_pReadwrTd->GetEventQueue(),
                  "m_pReadwrTd && m_pReadwrTd->GetEventQueue()"))
        return Refuse(aFunctor, RT_ERROR_NOT_READY);
    CRtEventQueue& queue = QueueOf(*m_pReadwrTd);
    return sync ? queue.SendEvent(aFunctor, priority) : queue.PostEvent(aFunctor, priority);
}

int CFileManager::SendToReadwrThread(IRtEvent* event, int priority) {
    if (!RT_CHECK(MANAGER_SOURCE, m_pReadwrTd && m_pReadwrTd->GetEventQueue(),
                  "m_pReadwrTd && m_pReadwrTd->GetEventQueue()"))
        return Refuse(event, RT_ERROR_NOT_READY);
    const RtOs::Awaiting awaiting;
    return QueueOf(*m_pReadwrTd).SendEvent(event, priority, true);
}

void CFileManager::RefuseSenders(bool isRefusing) {
    CRtEventQueue::Current()->RefuseSenders(isRefusing);
}

int CFileManager::PostToCallerThread(IRtEvent* aFunctor, int sync) {
    if (!RT_CHECK(MANAGER_SOURCE, aFunctor, "aFunctor"))
        return RT_ERROR_NULL_OBJECT;
    if (!RT_CHECK(MANAGER_SOURCE, m_pCallerTd && m_pCallerTd->GetEventQueue(),
                  "m_pCallerTd && m_pCallerTd->GetEventQueue()"))
        return Refuse(aFunctor, RT_ERROR_NOT_READY);
    IRtEventQueue& queue = *m_pCallerTd->GetEventQueue();
    return sync ? queue.SendEvent(aFunctor) : queue.PostEvent(aFunctor, RT_PRIORITY_NORMAL);
}

uint32_t CFileManager::GetReadwrThreadID() { return m_pReadwrTd ? m_pReadwrTd->GetThreadId() : 0; }

bool CFileManager::IsReadwrThreadIdle() const {
    return !m_pReadwrTd || QueueOf(*m_pReadwrTd).IsIdle();
}

int CFileManager::Random(int aMax) {
    if (!RT_CHECK(MANAGER_SOURCE, aMax, "aMax"))
        return 0;
    return std::rand() % aMax;
}

CFMBlock* CFileManager::CreateBlock(CFMBlockOwner* file, uint32_t blockID, uint64_t now) {
    if (m_isServer)
        return new (std::nothrow) CFMServerBlock(file, blockID, now);
    return new (std::nothrow) CFMClientBlock(file, blockID, now);
}

// --- Registry -----------------------------------------------------------------------------------

int CFileManager::CreateFile(IFMFile*& file, const FMFileInfo& fileInfo) noexcept {
    CFMMistakes::CheckThread("IFileManager::CreateFile");
    if (!RT_CHECK(MANAGER_SOURCE, !(FMFileID_None == fileInfo.fileID),
                  "FMFileID_None != fileInfo.fileID"))
        return RT_ERROR_INVALID_ARG;
    CheckValid();
    FileRef created(new (std::nothrow) CFMFile(fileInfo));
    if (!RT_CHECK(MANAGER_SOURCE, created.Get(), "file.Get()"))
        return RT_ERROR_NULL_OBJECT;
    CheckNewFile(*created);
    DetachPredecessors(fileInfo.fileID);
    RegisterFile(created, fileInfo.fileID);
    file = created.Detach();
    return RT_OK;
}

void CFileManager::CheckNewFile(CFMFile& file) {
    if (!m_init)
        ReportNotInitialized("IFileManager::CreateFile",
                             "the blocks of the file stay in memory only");
    if (const size_t length = file.GetFileInfo().name.size(); length > FM_INFO_NAME_MAX)
        FM_REPORT_MISTAKE("IFileManager::CreateFile, mistake: the name has "
                          << uint64_t{length}
                          << " bytes, so the file cannot be loaded again. Use at most "
                          << FM_INFO_NAME_MAX << " bytes. " << file.GetLogName());
}

void CFileManager::ReportNotInitialized(const char* call, const char* effect) {
    if (CFMMistakes::IsFirst(FMMistake::NotInitialized))
        FM_REPORT_MISTAKE(
            call << ", mistake: the manager is not initialized, so " << effect
                 << ". Call IFileManager::Initialize first. Further calls are not reported.");
}

int CFileManager::OpenFile(IFMFile*& file, const FMFileID& fileHandle, int load) noexcept {
    CFMMistakes::CheckThread("IFileManager::OpenFile");
    if (!RT_CHECK(MANAGER_SOURCE, !(FMFileID_None == fileHandle), "FMFileID_None != fileHandle"))
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
    if (!m_init)
        ReportNotInitialized("IFileManager::OpenFile", "its blocks cannot be read");
    if (m_dataDir.empty())
        return nullptr;
    FMFileID pathID;
    FMFileIDFromString(stem, pathID);
    // An object that the stored identifier names differently may have the path open.
    if (const FileRef file = FindOpenAt(pathID))
        return file.Get(); // the registry's reference keeps it
    if (!SettlePredecessors(pathID))
        return nullptr;
    const CFMLiveFiles::CClaim claim(m_live, pathID, CFMLiveFiles::CClaim::WAIT);
    FileRef file(new (std::nothrow) CFMFile(stem));
    // Without an information file there is nothing to load. Do not lock the data file then: another process may
    // be creating it.
    const bool isThere = file && FileExists(file->GetInfoPath());
    if (isThere && !file->GetEntry().TakeDataFile()) {
        RT_LOG(RT_LOG_WARNING,
               "CFileManager::LoadFile, another process has the file, " << file->GetLogName());
        return nullptr;
    }
    if (file && file->LoadFileInfo() && isThere && file->LoadBlokInfo()) {
        for (const FileRef& predecessor : m_live.Get(&pathID)) {
            if (predecessor->GetEntry().Detach()) // it has no queued jobs
                m_live.KeepUnsynced({false, {pathID}, {}});
        }
        RegisterFile(file, file->GetFileInfo().fileID);
        return file.Get(); // the registry's reference keeps it alive
    }
    return nullptr;
}

// Waits until the loads and stores that are queued have run. False if one of them waits for another process.
bool CFileManager::PassBarrier() {
    if (!m_pReadwrTd)
        return true;
    return std::ranges::all_of(
        std::array{RT_PRIORITY_HIGH, RT_PRIORITY_NORMAL}, [this](auto priority) {
            return SendToReadwrThread(new CFMFunctorBase, priority) != RT_ERROR_FAILURE;
        });
}

static void LogUnsettled(const CFMFile& file) {
    RT_LOG(RT_LOG_WARNING,
           "CFileManager::LoadFile, the table of an earlier object could not be written, "
               << file.GetLogName());
}

// Before a load: waits until the jobs of predecessors on the path have run and their tables are written. False
// if a table cannot be written: the files on disk are then older than the file that the caller has closed.
bool CFileManager::SettlePredecessors(const FMFileID& pathID) {
    if (!m_live.Contains(pathID))
        return true;
    // Behind its stores, and behind loads of its blocks: they would open the data file again. Also for a
    // predecessor that is being destroyed there.
    if (!PassBarrier()) {
        for (const FileRef& file : m_live.Get(&pathID))
            LogUnsettled(*file);
        return false;
    }
    bool isSettled = true;
    for (const FileRef& file : m_live.Get(&pathID)) {
        file->SaveFileInfo_m();
        file->GetEntry().CloseStreams();
        if (!file->HasUnsavedTable())
            continue;
        isSettled = false;
        LogUnsettled(*file);
    }
    return isSettled;
}

void CFileManager::SettleClosedFiles(const FMFileID* pathID) {
    for (const FileRef& file : m_live.Get(pathID)) {
        if (file->HasUnsavedTable() && !m_id2files.contains(file->GetPathID()))
            SettlePredecessors(file->GetPathID());
    }
}

// A new file takes the path over after the stores of its predecessors have run. CreateFile does not wait for
// that: both use the same lane.
void CFileManager::DetachPredecessors(const FMFileID& pathID) {
    for (const FileRef& file : m_live.Get(&pathID)) {
        if (m_pReadwrTd)
            PostToReadwrThread(new CFMRefFunctor0(file.Get(), &CFMFile::Detach_m), 0);
        else
            file->Detach_m();
    }
}

void CFileManager::RegisterFile(const FileRef& file, const FMFileID& id) {
    file->SetRegistered();
    FileRef displaced = file;
    const auto lock = m_live.Lock();
    m_live.Add(file->GetPathID(), file.Get());
    std::swap(m_id2files[id], displaced); // released after the lock
}

void CFileManager::UnregisterFile(const FMFileID& id, const CFMFile* file) {
    FileRef erased;
    const auto lock = m_live.Lock();
    const auto it = m_id2files.find(id);
    if (it == m_id2files.end() || it->second.Get() != file)
        return; // closing has run application code, which opened another file
    erased = std::move(it->second);
    m_id2files.erase(it);
}

int CFileManager::FindFile(const FMFileID& fileHandle, FileRef& file) {
    if (!RT_CHECK(MANAGER_SOURCE, !(FMFileID_None == fileHandle), "FMFileID_None != fileHandle"))
        return RT_ERROR_INVALID_ARG;
    const auto it = m_id2files.find(fileHandle);
    if (it == m_id2files.end())
        return RT_ERROR_NOT_FOUND;
    file = it->second;
    return RT_OK;
}

int CFileManager::GetBlock(IFMBlock*& block, const FMFileID& fileHandle, uint32_t blockID,
                           int create) noexcept {
    CFMMistakes::CheckThread("IFileManager::GetBlock");
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
        RT_CHECK(MANAGER_SOURCE, false, "m_id2files.end() != it");
    return result;
}

int CFileManager::AttachFile(const FMFileID& fileHandle) noexcept {
    CFMMistakes::CheckThread("IFileManager::AttachFile");
    RT_LOG(RT_LOG_TRACE, "CFileManager::AttachFile, fildID=" << FMFileIDToString(fileHandle));
    FileRef file;
    const int result = FindAttachable(fileHandle, file);
    if (RT_SUCCEEDED(result))
        ++file->m_attachCount;
    return result;
}

int CFileManager::DetachFile(const FMFileID& fileHandle) noexcept {
    CFMMistakes::CheckThread("IFileManager::DetachFile");
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
    PostToReadwrThread(functor, 1); // if posting fails, the result stays 0
    return answer;
}

void CFileManager::IsFileOpen_m(const FMFileID& id, int& answer) {
    const auto lock = m_live.Lock();
    answer = m_id2files.contains(id) ? 1 : 0;
}

CFileManager::FileRef CFileManager::FindOpenAt(const FMFileID& pathID) {
    const std::vector<FileRef> files = m_live.Get(&pathID); // released after the lock
    const auto lock = m_live.Lock();
    const auto it = std::ranges::find_if(files, [this](auto& file) { return IsRegistered(*file); });
    return it == files.end() ? FileRef() : *it;
}

// Runs on the caller thread, or with the lock of m_live.
bool CFileManager::IsRegistered(CFMFile& file) const {
    const auto it = m_id2files.find(file.GetFileInfo().fileID);
    return it != m_id2files.end() && it->second.Get() == &file;
}

std::vector<FMFileID> CFileManager::GetOpenPaths() const {
    std::vector<FMFileID> paths;
    for (const auto& [id, file] : m_id2files)
        paths.push_back(file->GetPathID());
    return paths;
}

size_t CFileManager::CountOpenFiles() {
    const auto lock = m_live.Lock();
    return m_id2files.size();
}

int CFileManager::CheckValid() {
    return RT_CHECK(MANAGER_SOURCE, m_id2files.size() < cmax_check_files,
                    "m_id2files.size() < cmax_check_files") &&
                   RT_CHECK(MANAGER_SOURCE, m_pReadwrTd && m_pCallerTd,
                            "m_pReadwrTd && m_pCallerTd") &&
                   RT_CHECK(MANAGER_SOURCE, m_init, "m_init")
               ? 1
               : 0;
}

// --- FMHost -------------------------------------------------------------------------------------

int FMHost::PostToReadwrThread(IRtEvent* event, int sync) {
    return CFileManager::Instance()->PostToReadwrThread(event, sync);
}
int FMHost::PostLoad(IRtEvent* event) {
    return CFileManager::Instance()->PostToReadwrThread(event, 0, RT_PRIORITY_HIGH);
}
int FMHost::SendLoad(IRtEvent* event) {
    return CFileManager::Instance()->SendToReadwrThread(event, RT_PRIORITY_HIGH);
}
void FMHost::RefuseLoads(bool isRefusing) { CFileManager::RefuseSenders(isRefusing); }
int FMHost::PostToCallerThread(IRtEvent* event, int sync) {
    return CFileManager::Instance()->PostToCallerThread(event, sync);
}
bool FMHost::IsReadwrThread() {
    return CRtThreadManager::GetThreadSelfId() == CFileManager::Instance()->GetReadwrThreadID();
}
bool FMHost::HasCallerThread() { return CFileManager::Instance()->HasCallerThread(); }
void FMHost::AddMemory(uint32_t length) { CFileManager::Instance()->AddMemory(length); }
void FMHost::SubtractMemory(uint32_t length) {
    if (CFileManager* manager = CFileManager::IfAlive())
        manager->SubtractMemory(length);
}
void FMHost::CheckHighWaterMark() {
    if (CFileManager* manager = CFileManager::IfAlive())
        manager->GetHighWaterMark().Check();
}
bool FMHost::IsMemoryFarAboveLimit() {
    const CFileManager* manager = CFileManager::IfAlive();
    return manager && manager->GetMemoryInUse() > 2 * manager->GetMemoryLimit();
}
int FMHost::Random(int max) { return CFileManager::Instance()->Random(max); }
CFMBlock* FMHost::CreateBlock(CFMBlockOwner* file, uint32_t blockID, uint64_t now) {
    return CFileManager::Instance()->CreateBlock(file, blockID, now);
}
const CRtString& FMHost::GetDataDir() { return CFileManager::Instance()->GetDataDir(); }
void FMHost::CheckDataDir() { CFileManager::Instance()->CheckDataDir(); }
int FMHost::GetClearDays() { return CFileManager::Instance()->GetClearDays(); }
void FMHost::ForgetFile(CFMFile* file, bool isUnsynced) {
    if (CFileManager* manager = CFileManager::IfAlive())
        manager->GetLiveFiles().Forget(file->GetPathID(), file, isUnsynced);
}
void FMHost::KeepUnsynced(const FMFileID& pathID) {
    CFileManager::Instance()->GetLiveFiles().KeepUnsynced({false, {pathID}, {}});
}
void FMHost::KeepUnsaved(CFMFile* file) {
    CFileManager::Instance()->GetLiveFiles().KeepUnsaved(file);
}
