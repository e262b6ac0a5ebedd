// Clearing of the whole cache.
#include <cstdlib>

#include "RtLog.h"
#include "filemanager.h"

void CFileManager::ClearDiskCache() {
    RT_LOG(RT_LOG_TRACE, "CFileManager::ClearDiskCache, data dir=" << m_rootDir);
    EndDirectoryUse();
    for (const FileRef& file : m_live.Get(nullptr)) // closed files too: references keep them alive
        file->GetEntry().CloseStreams();            // Windows does not remove an open file
    uint32_t held = 0;
    // The application chooses a server's root directory: it may contain more than the store.
    if (!m_rootIsOurs) {
        ClearStore(held);
    } else if (RemoveDeadDirectories(false, held) == 0) {
        RT_LOG(RT_LOG_TRACE, "CFileManager::RemoveDir. Dir:" << m_rootDir);
        held = 0; // what is still held is counted again
        if (RemoveDeadDirectories(true, held) == 0)
            RtOs::RemoveEmptyDirectory(m_rootDir); // best effort: fails if a new entry was created
    }
    if (held > 0)
        RT_LOG(
            RT_LOG_WARNING,
            "CFileManager::ClearDiskCache, other processes hold files or directories, which stay "
            "until the next clearing: "
                << held << ", dir=" << m_rootDir);
}

void CFileManager::ClearStore(uint32_t& held) {
    RtOs::DirectoryWalk store(m_dataDir, true); // other processes may reach it through a link
    if (!store.IsOpen())
        held += IsHeld(RtOs::RemoveEmptyDirectory(m_dataDir) == 0) ? 1 : 0; // a dangling link
    else if (store.TakeAlone())
        RemoveDir(m_dataDir, held);
    else
        RT_LOG(RT_LOG_WARNING,
               "CFileManager::ClearDiskCache, another process uses the store, dir=" << m_dataDir);
}

// Removes the directories of processes that have ended and, with `filesToo`, the files in the root. Returns
// the number of directories of other running processes. Each process is tested just before its directory
// would be removed. If the root is a link, nothing is removed: only directories of running processes count.
int CFileManager::RemoveDeadDirectories(bool filesToo, uint32_t& held) {
    RtOs::DirectoryWalk root(m_rootDir);
    RtOs::DirectoryWalk beyondLink(m_rootDir, true);
    const bool mayRemove = root.IsOpen();
    RtOs::DirectoryWalk& walk = mayRemove ? root : beyondLink;
    int alive = 0;
    CRtString name;
    bool isDirectory = false;
    while (walk.Next(name, isDirectory)) {
        if (isDirectory)
            alive += RemoveIfDead(walk, name, mayRemove, held) ? 0 : 1;
        else if (filesToo && mayRemove)
            held += IsHeld(root.RemoveFile(name)) ? 1 : 0;
    }
    return alive;
}

// A process of another container has process identifiers of its own namespace: it may use a directory that is
// named after no process here, or after this process. Only the lock on the directory shows that.
bool CFileManager::RemoveIfDead(RtOs::DirectoryWalk& root, const CRtString& name, bool mayRemove,
                                uint32_t& held) {
    RtOs::DirectoryWalk directory(root, name);
    if (IsOtherProcessAlive(name) || (directory.IsOpen() && !directory.TakeAlone()))
        return false;
    if (mayRemove && directory.IsOpen())
        RemoveTree(root, m_rootDir, name, held);
    else if (mayRemove) // it may be in use: remove it only if it is empty
        held += IsHeld(root.RemoveSubdirectory(name)) ? 1 : 0;
    return true;
}

int CFileManager::IsOtherProcessAlive(const CRtString& name) {
    const int64_t id = std::strtoll(name.c_str(), nullptr, 10); // saturates on overflow
    return RtOs::IsProcessAlive(id) && id != int64_t{RtOs::GetProcessId()} ? 1 : 0;
}
