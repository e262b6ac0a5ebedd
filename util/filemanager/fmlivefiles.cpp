#include "fmlivefiles.h"

#include <algorithm>
#include <utility>

#include "fmfile.h"

CFMLiveFiles::CFMLiveFiles() = default;
CFMLiveFiles::~CFMLiveFiles() = default;

void CFMLiveFiles::Forget(const FMFileID& pathID, const CFMFile* file, bool isUnsynced) {
    const std::lock_guard lock(m_mutex);
    if (isUnsynced)
        m_unsynced.Add({false, {pathID}, {}});
    const auto [first, last] = m_files.equal_range(pathID);
    const auto it =
        std::find_if(first, last, [file](const auto& each) { return each.second == file; });
    if (it != last)
        m_files.erase(it);
}

std::vector<CFMLiveFiles::FileRef> CFMLiveFiles::Get(const FMFileID* pathID,
                                                     std::set<FMFileID>* ending) {
    std::vector<FileRef> files;
    const std::lock_guard lock(m_mutex);
    auto [it, last] =
        pathID ? m_files.equal_range(*pathID) : std::pair(m_files.begin(), m_files.end());
    for (; it != last; ++it) {
        if (it->second->TryAddReference())
            files.push_back(FileRef::Adopt(it->second));
        else if (ending)
            ending->insert(it->first);
    }
    return files;
}

bool CFMLiveFiles::Contains(const FMFileID& pathID) {
    const std::lock_guard lock(m_mutex);
    return m_files.contains(pathID);
}

// --- Claims -------------------------------------------------------------------------------------

bool CFMLiveFiles::IsClaimed(const FMFileID& pathID) const {
    return std::ranges::find(m_claimed, pathID) != m_claimed.end();
}

CFMLiveFiles::CClaim::CClaim(CFMLiveFiles& files, const FMFileID& pathID, Wish wish)
    : m_files(files), m_pathID(pathID) {
    std::unique_lock lock(m_files.m_mutex);
    if (wish == WAIT)
        m_files.m_claimEnded.wait(lock, [&] { return !m_files.IsClaimed(pathID); });
    else if (!(pathID == FMFileID_None) &&
             (m_files.IsClaimed(pathID) || m_files.m_files.contains(pathID)))
        return;
    m_files.m_claimed.push_back(pathID);
    m_isHeld = true;
}

CFMLiveFiles::CClaim::~CClaim() {
    if (!m_isHeld)
        return;
    const std::lock_guard lock(m_files.m_mutex);
    m_files.m_claimed.erase(std::ranges::find(m_files.m_claimed, m_pathID));
    m_files.m_claimEnded.notify_all();
}

// --- Tables that could not be written -----------------------------------------------------------

void CFMLiveFiles::KeepUnsaved(CFMFile* file) {
    const auto isFile = [file](const FileRef& each) { return each.Get() == file; };
    if (std::ranges::none_of(m_unsaved, isFile))
        m_unsaved.emplace_back(file);
}

void CFMLiveFiles::SaveUnsaved() {
    std::vector<FileRef> files;
    files.swap(m_unsaved);
    for (const FileRef& file : files)
        file->SaveFileInfo_m(); // which keeps it again if it fails
}

// --- What FMSync has to write -------------------------------------------------------------------

// The list of an application that never calls FMSync must not grow with each file.
void CFMLiveFiles::Unsynced::Add(Unsynced more) {
    constexpr size_t most = 4096;
    closed.merge(more.closed);
    for (CRtString& dir : more.dirs) {
        if (std::ranges::find(dirs, dir) == dirs.end())
            dirs.push_back(std::move(dir));
    }
    isEvery = isEvery || more.isEvery || closed.size() > most;
    if (isEvery)
        closed.clear();
}

void CFMLiveFiles::NoteNewDirectoryIn(const CRtString& directory) {
    const std::lock_guard lock(m_mutex);
    m_unsynced.Add({false, {}, {directory}});
}

CFMLiveFiles::Unsynced CFMLiveFiles::TakeUnsynced() {
    const std::lock_guard lock(m_mutex);
    return std::exchange(m_unsynced, {});
}

void CFMLiveFiles::KeepUnsynced(Unsynced unsynced) {
    const std::lock_guard lock(m_mutex);
    m_unsynced.Add(std::move(unsynced));
}
