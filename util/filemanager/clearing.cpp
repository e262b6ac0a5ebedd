// Clearing of the whole cache, and the housekeeping of old cached files.
#include <cstdlib>

#include "RtLog.h"
#include "RtResult.h"
#include "RtTimeValue.h"
#include "filemanager.h"
#include "fmfunctor.h"

void CFileManager::ClearDiskCache() {
    RT_LOG(RT_LOG_TRACE, "CFileManager::ClearDiskCache, data dir=" << m_rootDir);
    EndDirectoryUse();
    for (const FileRef& file : GetLiveFiles(nullptr)) // closed ones may still be held, or be queued
        file->CloseStreams();                         // some systems remove no open file
    // A server's root is whatever directory it was given, and may hold anything beside the store.
    if (!m_rootIsOurs)
        return ClearStore();
    if (RemoveDeadDirectories(false) > 0)
        return;
    RT_LOG(RT_LOG_TRACE, "CFileManager::RemoveDir. Dir:" << m_rootDir);
    if (RemoveDeadDirectories(true) == 0)
        RtOs::RemoveEmptyDirectory(m_rootDir); // fails, as it should, when something has appeared
}

void CFileManager::ClearStore() {
    RtOs::DirectoryWalk store(m_dataDir, true); // others are in it by way of a link, too
    if (!store.IsOpen())
        RtOs::RemoveEmptyDirectory(m_dataDir); // a link that leads nowhere
    else if (store.TakeAlone())
        RemoveDir(m_dataDir);
    else
        RT_LOG(RT_LOG_WARNING,
               "CFileManager::ClearDiskCache, another process uses the store, dir=" << m_dataDir);
}

// Removes the directories of processes that run no more, with `filesToo` also what else lies in the
// root. Answers how many directories belong to other running processes; each is asked about just before
// it would be removed. A root that is a link is only looked at: nothing beyond a link is removed.
int CFileManager::RemoveDeadDirectories(bool filesToo) {
    RtOs::DirectoryWalk root(m_rootDir);
    RtOs::DirectoryWalk beyondLink(m_rootDir, true);
    const bool mayRemove = root.IsOpen();
    RtOs::DirectoryWalk& walk = mayRemove ? root : beyondLink;
    int alive = 0;
    CRtString name;
    bool isDirectory = false;
    while (walk.Next(name, isDirectory)) {
        if (isDirectory)
            alive += RemoveIfDead(walk, name, mayRemove) ? 0 : 1;
        else if (filesToo && mayRemove)
            root.RemoveFile(name);
    }
    return alive;
}

// The process of another container may be in a directory although no process of that id runs here, or
// this very one.
bool CFileManager::RemoveIfDead(RtOs::DirectoryWalk& root, const CRtString& name, bool mayRemove) {
    RtOs::DirectoryWalk directory(root, name);
    if (IsOtherProcessAlive(name) || (directory.IsOpen() && !directory.TakeAlone()))
        return false;
    if (mayRemove && directory.IsOpen())
        RemoveTree(root, m_rootDir, name);
    else if (mayRemove) // what is in it is not known to be nobody's
        root.RemoveSubdirectory(name);
    return true;
}

int CFileManager::IsOtherProcessAlive(const CRtString& name) {
    const int64_t id = std::strtoll(name.c_str(), nullptr, 10); // clamped when it is out of range
    return RtOs::IsProcessAlive(id) && id != int64_t{RtOs::GetProcessId()} ? 1 : 0;
}

void CFileManager::HouseKeeping_m() {
    RT_LOG(RT_LOG_TRACE, "CFileManager::HouseKeeping_m. Dir:" << m_dataDir);
    m_houseKeepingWalk = std::make_unique<RtOs::DirectoryWalk>(m_dataDir, true);
    ExamineNext_m();
}

void CFileManager::ExamineNext_m() {
    const CRtString extension = ".sdd";
    CRtString name;
    bool isDirectory = false;
    while (m_houseKeepingWalk->Next(name, isDirectory)) {
        if (isDirectory || name == extension || !RtOs::HasExtension(name, extension))
            continue;
        if (RtOs::FindLastSeparator(name) != std::string_view::npos)
            continue; // some systems allow it in a name, and it would lead out of the directory
        ExamineFile(name.Left(name.size() - extension.size()));
        // A thread that stops takes no more: the run is given up and begins anew another time.
        if (RT_FAILED(PostToReadwrThread(new CFMFunctor0(this, &CFileManager::ExamineNext_m), 0)))
            EndHouseKeeping();
        return;
    }
    m_lastHouseKeeping = static_cast<uint32_t>(CRtTimeValue::GetTimeOfDay().GetSec());
    EndHouseKeeping();
}

void CFileManager::EndHouseKeeping() {
    m_houseKeepingWalk.reset();
    m_houseKeepingPosted = false;
}

void CFileManager::ExamineFile(const CRtString& stem) {
    FMFileID id;
    FMFileIDFromString(stem, id);
    if (IsFileOpen(stem) || !ClaimForHouseKeeping(id))
        return;
    {
        const FileRef file(new (std::nothrow) CFMFile(stem));
        if (file && file->HasDiskFiles() && file->TakeDiskFile() && file->IsHouseKeeping())
            file->ClerDiskFile_m();
    }
    const std::lock_guard lock(m_registryMutex);
    m_claimed = false;
    m_claimEnded.notify_all();
}

// False when the file is open, being opened, or has work left. While the claim stands it cannot be
// opened.
bool CFileManager::ClaimForHouseKeeping(const FMFileID& id) {
    const std::lock_guard lock(m_registryMutex);
    const bool named = !(id == FMFileID_None);
    if (named && (m_id2files.contains(id) || m_liveFiles.contains(id) || m_openingID == id))
        return false;
    m_claimed = true;
    m_claimedID = id;
    return true;
}
