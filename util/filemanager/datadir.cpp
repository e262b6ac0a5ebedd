// The choice of the data directory, its lock, and operations on directories.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

#include "FMCatalog.h"
#include "RtHome.h"
#include "RtLog.h"
#include "filemanager.h"
#include "mistakes.h"

namespace {

constexpr char FALLBACK_HOME[] = "/opt/quillmer";

CRtString WithoutBackslash(const CRtString& dir) {
    return !dir.empty() && dir.back() == '\\' ? dir.Left(dir.size() - 1) : dir;
}

// Removes the last name and all separators before it. Empty if the path has no parent to create.
CRtString ParentOf(const CRtString& path) {
    size_t end = RtOs::FindLastSeparator(path);
    while (end > 0 && RtOs::FindLastSeparator(path.Left(end)) == end - 1)
        --end;
    return end == std::string_view::npos ? CRtString() : path.Left(end);
}

// With its separator.
CRtString DirectoryOf(const CRtString& path) {
    const size_t separator = RtOs::FindLastSeparator(path);
    return separator == std::string_view::npos ? CRtString(".\\") : path.Left(separator + 1);
}

void LogRemoveDir(const CRtString& dir) {
    RT_LOG(RT_LOG_TRACE, "CFileManager::RemoveDir. Dir:" << dir);
}

CRtString WithBackslash(CRtString dir) {
    if (!dir.view().ends_with('\\'))
        dir += '\\';
    return dir;
}

// Removes the files of the walk's directory; returns the names of its subdirectories.
std::vector<CRtString> RemoveFiles(RtOs::DirectoryWalk& walk, uint32_t& held) {
    std::vector<CRtString> subdirectories;
    CRtString name;
    bool isDirectory = false;
    while (walk.Next(name, isDirectory)) {
        if (isDirectory)
            subdirectories.push_back(name);
        else
            held += CFileManager::IsHeld(walk.RemoveFile(name)) ? 1 : 0;
    }
    return subdirectories;
}

// Removes everything in the walk's directory. Works through open directories: every removed entry belongs to
// the tree even if another process renames directories concurrently. A level of depth costs a list of names,
// but neither a descriptor nor a stack frame, since another process determines the depth.
void RemoveContents(RtOs::DirectoryWalk& walk, CRtString path, uint32_t& held) {
    std::vector<std::vector<CRtString>> levels{
        RemoveFiles(walk, held)}; // names still to be removed
    for (;;) {
        if (levels.back().empty()) {
            levels.pop_back();
            if (levels.empty() || !walk.Leave())
                return;
            path.resize(path.size() - levels.back().back().size() - 1);
        } else {
            const CRtString name = levels.back().back() + "\\";
            LogRemoveDir(path + name);
            if (walk.Enter(levels.back().back())) {
                path += name;
                levels.push_back(RemoveFiles(walk, held));
                continue;
            }
        }
        held += CFileManager::IsHeld(walk.RemoveSubdirectory(levels.back().back())) ? 1 : 0;
        levels.back().pop_back();
    }
}

} // namespace

void CFileManager::SetDataDir(const CRtString& dataDir) {
    if (!m_rootDir.empty())
        return;
    m_rootDir = dataDir.TrimBlanks();
    if (m_rootDir.empty())
        m_rootDir = GetDefaultDataDir();
    m_rootDir = WithBackslash(m_rootDir);
    m_rootIsOurs = !m_isServer;
    if (m_rootIsOurs)
        m_rootDir += CRtString(FM_CLIENT_STORES) + "\\";
    char processId[64];
    std::snprintf(processId, sizeof(processId), "%u", RtOs::GetProcessId());
    m_dataDir = m_rootDir + (m_isServer ? FM_SERVER_STORE : processId) + "\\";
    RT_LOG(RT_LOG_TRACE, "CFileManager::SetDataDir, data dir=" << m_dataDir);
}

int CFileManager::CheckDataDir() {
    if (!DirExists(m_dataDir)) {
        CreateDir(m_dataDir);
        RtOs::SetHidden(m_rootDir);
    }
    UseDataDir();
    return 1;
}

// Retries the outermost missing directory: its error is the cause.
void CFileManager::ReportMissingDataDir() {
    const auto isThere = [](const CRtString& path) {
        return RtOs::GetEntryKind(path) == RtOs::EntryKind::Directory;
    };
    CRtString path = WithoutBackslash(m_dataDir);
    if (isThere(path))
        return;
    for (CRtString parent = ParentOf(path); !parent.empty() && !isThere(parent);
         parent = ParentOf(path))
        path = parent;
    if (RtOs::MakeDirectory(path))
        return; // another process has removed it: the next store creates the rest
    FM_REPORT_MISTAKE("IFileManager::Initialize, mistake: the store directory "
                      << m_dataDir << " cannot be created, so blocks stay in memory only: " << path
                      << ": " << RtOs::GetErrorText(RtOs::GetErrno())
                      << ". Pass a directory that this process may create.");
}

// Every tick renews the shared lock: another process may have held the exclusive lock to clear the cache, and
// may have removed the directory, so that the path now names another one. False if another process holds the
// exclusive lock.
bool CFileManager::UseDataDir() {
    auto use = std::make_unique<RtOs::DirectoryUse>(m_dataDir);
    const bool isRefused = use->IsRefused();
    const auto lock = m_live.Lock();
    if (use->IsHeld()) // else keep the previous lock
        m_dataDirUse.swap(use);
    return !isRefused;
}

// A concurrent clear would delete new files, so wait for it.
void CFileManager::WaitForClearing() {
    constexpr std::chrono::milliseconds timeout(10'000);
    constexpr std::chrono::milliseconds pause(10);
    for (auto waited = pause; !UseDataDir(); waited += pause) {
        if (waited > timeout) {
            RT_LOG(RT_LOG_WARNING,
                   "CFileManager::Initialize, another process clears, dir=" << m_dataDir);
            return;
        }
        std::this_thread::sleep_for(pause);
        CheckDataDir();
    }
}

void CFileManager::EndDirectoryUse() {
    const auto lock = m_live.Lock();
    m_dataDirUse.reset();
}

CRtString CFileManager::GetDefaultDataDir() {
    CRtString drive = GetMaxDrive();
    if (!drive.empty())
        return drive;
    CRtString folder;
    if (RtOs::GetUserDataDir(folder))
        return WithBackslash(folder);
    return GetDefaultDir();
}

CRtString CFileManager::GetMaxDrive() {
    const uint32_t size = RtOs::GetDriveStrings(0, nullptr);
    if (size == 0) {
        RT_LOG(RT_LOG_WARNING, "CFileManager::GetMaxDrive, GetLogicalDriveStrings len fail");
        return {};
    }
    std::vector<char> drives(size_t{size} + 1); // one more NUL: the last entry is always terminated
    const uint32_t length = RtOs::GetDriveStrings(size, drives.data());
    if (length == 0) {
        RT_LOG(RT_LOG_WARNING, "CFileManager::GetMaxDrive, GetLogicalDriveStrings real fail");
        return {};
    }
    CRtString lpDSMax;
    uint64_t most = 0;
    for (size_t position = 0; position <= std::min(length, size - 1);) {
        const CRtString drive(drives.data() + position);
        if (drive.size() < 2)
            break;
        uint64_t available = 0;
        if (RtOs::GetDriveKind(drive.c_str()) == RtOs::DRIVE_KIND_FIXED &&
            RtOs::GetDriveFreeBytes(drive.c_str(), available) && available > most) {
            most = available;
            lpDSMax = drive;
        }
        position += drive.size() + 1;
    }
    if (lpDSMax.empty())
        RT_LOG(RT_LOG_WARNING, "CFileManager::GetMaxDrive, lpDSMax is null");
    return lpDSMax;
}

CRtString CFileManager::GetDefaultDir() {
    CRtString dir;
    if (const char* home = get_quillmer_home_dir()) {
        dir = CRtString(home).TrimBlanks();
        RT_LOG(RT_LOG_TRACE, "CFileManager::GetDefaultDir get_quillmer_home_dir: " << dir);
    }
    if (dir.empty()) {
        dir = FALLBACK_HOME;
        RT_LOG(RT_LOG_TRACE, "CFileManager::GetDefaultDir, homeDir is null, set homedir =" << dir);
    }
    return dir;
}

int CFileManager::DirExists(const CRtString& dir) {
    const CRtString path = WithoutBackslash(dir);
    const bool exists = RtOs::GetEntryKind(path) == RtOs::EntryKind::Directory;
    RT_LOG(RT_LOG_TRACE,
           "CFileManager::DirExists. Dir:" << path << (exists ? " is exist." : " is not exist."));
    return exists ? 1 : 0;
}

int CFileManager::FileExists(const CRtString& path) {
    return RtOs::GetEntryKind(path) != RtOs::EntryKind::Missing ? 1 : 0;
}

int CFileManager::CreateDir(const CRtString& dir) {
    CRtString path = WithoutBackslash(dir);
    if (DirExists(path))
        return 0;
    std::vector<CRtString> missing;
    do {
        missing.push_back(path);
        path = ParentOf(path);
    } while (!path.empty() && !DirExists(path));
    for (auto it = missing.rbegin(); it != missing.rend(); ++it) {
        if (RtOs::MakeDirectory(*it)) {
            RT_LOG(RT_LOG_TRACE, "CFileManager::CreateDir. mkdir:" << *it);
            Instance()->m_live.NoteNewDirectoryIn(DirectoryOf(*it));
        } else
            RT_LOG(RT_LOG_WARNING, "CFileManager::CreateDir. mkdir Error. Dir: " << *it);
    }
    return 0;
}

// Whether an entry stays because another process holds it.
bool CFileManager::IsHeld(bool isRemoved) { return !isRemoved && RtOs::IsInUse(RtOs::GetErrno()); }

void CFileManager::RemoveDir(const CRtString& dir) {
    uint32_t held = 0;
    RemoveDir(dir, held);
}

void CFileManager::RemoveDir(const CRtString& dir, uint32_t& held) {
    LogRemoveDir(dir);
    {
        RtOs::DirectoryWalk walk(dir);
        RemoveContents(walk, WithBackslash(dir), held);
    }
    held += IsHeld(RtOs::RemoveEmptyDirectory(dir) == 0) ? 1 : 0;
}

void CFileManager::RemoveTree(RtOs::DirectoryWalk& parent, const CRtString& base,
                              const CRtString& name, uint32_t& held) {
    const CRtString path = base + name + "\\";
    LogRemoveDir(path);
    {
        RtOs::DirectoryWalk walk(parent, name);
        RemoveContents(walk, path, held);
    }
    held += IsHeld(parent.RemoveSubdirectory(name)) ? 1 : 0;
}
