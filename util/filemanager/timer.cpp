// The manager's tick: statistics, retries of failed stores, memory collection, the daily housekeeping.
#include <cstdio>

#include "RtLog.h"
#include "RtResult.h"
#include "RtTimeValue.h"
#include "filemanager.h"
#include "fmfunctor.h"
#include "statistics.h"

namespace {
constexpr int32_t TICKS_BETWEEN_STATISTICS = 2;
constexpr uint32_t SECONDS_BETWEEN_RUNS = 86400;
} // namespace

void CFileManager::OnTimer(CRtTimerWrapper* timer) noexcept {
    if (timer != &m_timer)
        return;
    if (m_statCountdown < 0) {
        LogStatistics("CFileManager::OnTimer, statistics ");
        m_statCountdown = TICKS_BETWEEN_STATISTICS;
    }
    --m_statCountdown;
    UseDataDir();
    RetryFailedStores();
    m_live.SaveUnsaved();
    MemoyCollect();
    CheckHouseKeeping();
}

void CFileManager::LogStatistics(const char* occasion) {
    const CRtString statistics = GetStatistics(); // checks, also if the line is not composed
    RT_LOG(RT_LOG_TRACE, occasion << statistics);
}

CRtString CFileManager::GetStatistics() {
    CheckValid();
    const auto number = [](auto value) { return static_cast<int>(value); };
    const auto counter = [&](auto each) { return number(g_statistics.Get(each)); };
    char text[512] = {};
    std::snprintf(text, sizeof(text),
                  " cache: [memo-Max=%d Cur=%d] [files Cur=%d c-%d d-%d] [blocks c-%d d-%d] "
                  "[time s-%d g-%d p-%d]",
                  number(GetMemoryLimit()), number(GetMemoryInUse()), number(m_id2files.size()),
                  counter(CFMStatistics::FilesCreated), counter(CFMStatistics::FilesDestroyed),
                  counter(CFMStatistics::BlocksCreated), counter(CFMStatistics::BlocksDestroyed),
                  counter(CFMStatistics::TimeSetOwner), counter(CFMStatistics::TimeGetOwner),
                  counter(CFMStatistics::TimeGetOwners));
    return text;
}

void CFileManager::RetryFailedStores() {
    for (const auto& [id, file] : m_id2files)
        file->RetryFailedStores();
}

void CFileManager::MemoyCollect() {
    if (m_isServer && GetMemoryInUse() < GetMemoryLimit())
        return;
    for (const auto& [id, file] : m_id2files)
        file->FreeBlocksMemory();
    if (GetMemoryInUse() > GetMemoryLimit())
        RT_LOG(RT_LOG_WARNING,
               "CFileManager::MemoyCollect, Max=" << uint64_t{GetMemoryLimit()}
                                                  << ", Size=" << uint64_t{GetMemoryInUse()});
}

void CFileManager::CheckHouseKeeping() {
    const auto now = static_cast<uint32_t>(CRtTimeValue::GetTimeOfDay().GetSec());
    if (now - m_lastHouseKeeping.load() < SECONDS_BETWEEN_RUNS)
        return;
    StartHouseKeeping();
}

int CFileManager::StartHouseKeeping() {
    if (!m_isServer)
        return RT_ERROR_NOT_SUPPORTED;
    if (!m_houseKeeping.Begin())
        return RT_ERROR_NOT_READY;
    const int result = PostToReadwrThread(new CFMFunctor0(this, &CFileManager::HouseKeeping_m), 0,
                                          RT_PRIORITY_LOW);
    if (RT_FAILED(result))
        m_houseKeeping.End();
    return result;
}

// --- Housekeeping, on the read/write thread -----------------------------------------------------

void CFileManager::HouseKeeping_m() {
    const RtOs::RetryLimit limit(RtOs::RETRY_MS); // what is held stays for the next run
    RT_LOG(RT_LOG_TRACE, "CFileManager::HouseKeeping_m. Dir:" << m_dataDir);
    if (!m_houseKeeping.Open(m_dataDir) && RtOs::IsInUse(RtOs::GetErrno()))
        RT_LOG(RT_LOG_WARNING, "CFileManager::HouseKeeping_m, another process holds the directory, "
                               "which the next run examines, dir="
                                   << m_dataDir);
    ExamineNext_m();
}

void CFileManager::ExamineNext_m() {
    CRtString stem;
    if (!m_houseKeeping.Next(stem)) {
        m_lastHouseKeeping = static_cast<uint32_t>(CRtTimeValue::GetTimeOfDay().GetSec());
        return m_houseKeeping.End();
    }
    ExamineFile(stem);
    // Posting fails while the thread stops: the run is abandoned and the next one starts over.
    if (RT_FAILED(PostToReadwrThread(new CFMFunctor0(this, &CFileManager::ExamineNext_m), 0,
                                     RT_PRIORITY_LOW)))
        m_houseKeeping.End();
}

void CFileManager::ExamineFile(const CRtString& stem) {
    const RtOs::RetryLimit limit(RtOs::RETRY_MS);
    FMFileID id;
    FMFileIDFromString(stem, id);
    const CFMLiveFiles::CClaim claim(m_live, id, CFMLiveFiles::CClaim::IF_FREE);
    if (IsFileOpen(stem) || !claim.IsHeld())
        return;
    const FileRef file(new (std::nothrow) CFMFile(stem));
    if (file && file->GetDiskFile() && file->GetEntry().TakeDataFile() && file->IsHouseKeeping())
        file->ClerDiskFile_m();
}
