// The catalog: lists and describes cached files, from disk or from the live objects of this process.
#include "FMCatalog.h"

#include <algorithm>
#include <optional>
#include <span>
#include <string>
#include <system_error>

#include "RtLog.h"
#include "RtResult.h"
#include "RtTimeValue.h"
#include "catalogcheck.h"
#include "filemanager.h"
#include "mistakes.h"
#include "os/RtOs.h"

namespace {

using FileRef = CRtComAutoPtr<CFMFile>;

// Length of the longest valid information file; no more is read.
constexpr uint32_t INFO_FILE_MAX =
    FM_INFO_BODY_OFFSET + FM_INFO_FILE_BODY_MAX + FM_INFO_LENGTH_SIZE + FM_INFO_BLOCK_BODY_MAX;

// Null unless the manager is running, and on other threads than the caller thread. `call`: for the log.
CFileManager* RunningManager(const char* call) {
    CFMMistakes::CheckThread(call);
    CFileManager* const manager =
        CRtEventQueue::IsCallerThread() ? CFileManager::IfAlive() : nullptr;
    return manager && manager->IsRunning() ? manager : nullptr;
}

// The path of the directory with a separator at its end. False if there is no RunningManager to tell it.
bool LocateDirectory(const CRtString& directory, const char* call, CRtString& path) {
    path = directory;
    if (directory.empty()) {
        CFileManager* const manager = RunningManager(call);
        if (!manager)
            return false;
        path = manager->GetDataDir();
    }
    if (RtOs::FindLastSeparator(path) != path.size() - 1)
        path += '\\';
    return true;
}

enum class Found { File, Other, Missing };

// What a name of a listing is by now. A file that cannot be examined is listed: its description says why.
Found Examine(const CRtString& path, bool isData) {
    RtOs::FileStamp stamp;
    if (!RtOs::GetStamp(path, stamp) || stamp.exists || (isData && stamp.isSpecial))
        return Found::File;
    return RtOs::GetEntryKind(path) == RtOs::EntryKind::Missing ? Found::Missing : Found::Other;
}

CRtString StemOf(const FMFileID& id) { return FMFileIDToString(id); }

void Sort(std::vector<CRtString>& names) { std::ranges::sort(names, {}, &CRtString::view); }

// --- The information file -----------------------------------------------------------------------

// Removes a length and a body of that length from the front. False if `rest` is too short or the body empty.
bool TakeBody(std::span<const char>& rest, uint32_t most, CRtMessageChain& body) {
    uint8_t prefix[FM_INFO_LENGTH_SIZE] = {};
    if (rest.size() < sizeof(prefix))
        return false;
    std::copy_n(rest.begin(), sizeof(prefix), prefix);
    const uint32_t length = FMGetLength(prefix);
    rest = rest.subspan(sizeof(prefix));
    if (length == 0 || length > most || length > rest.size())
        return false;
    body = CRtMessageBlock::Wrap(rest.data(), length);
    rest = rest.subspan(length);
    return body != nullptr;
}

const char* FaultText(FMDescription found) {
    constexpr const char* texts[] = {
        "", // in the order of FMDescription
        "has a damaged description",
        "has a description without an identifier",
        "has a description with an impossible number of slots",
        "has a description with a name that is too long",
    };
    return texts[static_cast<size_t>(found)];
}

// The decoder has written log lines, which do not name the file.
void LogDamage(const CRtString& path, const FMCachedFile& file, const char* what) {
    RT_LOG(RT_LOG_ERROR, "FMDescribeCachedFile, the information file "
                             << what << ", fileID=" << FMFileIDToString(file.fileID)
                             << ",path=" << path);
}

void ParseTable(const CRtString& path, FMCachedFile& file, CRtMessageBlock& body,
                FMTableFacts& facts) {
    const uint64_t length = body.GetChainedLength();
    file.isTableComplete = FMDecodeBlockBody(body, file.entries);
    facts.slots = FMSlotsToLoad(file.info.num, file.infoLength);
    uint64_t used = FM_INFO_COUNT_SIZE;
    for (const FMBlockEntry& entry : file.entries)
        used += FMEntrySize(entry);
    facts.bytesBehind = file.isTableComplete ? length - used : 0;
    if (!file.isTableComplete)
        LogDamage(path, file, "has a block table that ends early");
}

// Sets `infoFault`, or the description and the table.
void ParseInfo(const CRtString& path, FMCachedFile& file, std::span<const char> bytes,
               FMTableFacts& facts) {
    const std::string_view magic(FM_INFO_MAGIC, FM_INFO_MAGIC_SIZE);
    const bool isInfo = std::string_view(bytes.data(), bytes.size()).starts_with(magic);
    std::span<const char> rest = isInfo ? bytes.subspan(FM_INFO_LENGTH_OFFSET) : bytes;
    CRtMessageChain body;
    if (!isInfo || !TakeBody(rest, FM_INFO_FILE_BODY_MAX, body)) {
        file.infoFault = "is not an information file, or is damaged";
        return;
    }
    const FMDescription found = FMReadDescription(*body, file.info, file.createTime);
    file.infoFault = FaultText(found);
    file.isDescribed = found == FMDescription::Sound;
    if (found == FMDescription::Damaged)
        LogDamage(path, file, FaultText(found));
    if (!file.isDescribed)
        file.info = {};
    else if (TakeBody(rest, FM_INFO_BLOCK_BODY_MAX, body))
        ParseTable(path, file, *body, facts);
    else
        file.infoFault = "has a damaged or missing block table";
}

// Returns 0 or an errno value.
int ReadInfoBytes(const CRtString& path, FMCachedFile& file, std::vector<char>& bytes) {
    int error = 0;
    bool isCreated = false;
    RtOs::FileStamp stamp;
    const int stream = RtOs::OpenFile(path, RtOs::OPEN_READ, error, isCreated, stamp);
    if (stream == RtOs::NO_FILE) // a link or a directory is no information file
        RtOs::GetStamp(path, stamp);
    file.hasInfo = stamp.exists;
    file.infoLength = stamp.length;
    bytes.resize(static_cast<size_t>(std::min<uint64_t>(stamp.length, INFO_FILE_MAX)));
    if (FMIsDirectory(path, stamp)) // on POSIX it can be opened
        error = static_cast<int>(std::errc::is_a_directory);
    else if (stream == RtOs::NO_FILE)
        error = file.hasInfo ? error : 0;
    else if (!bytes.empty() &&
             RtOs::ReadAt(stream, 0, bytes.data(), static_cast<uint32_t>(bytes.size())) !=
                 RtOs::Transfer::Done)
        error = static_cast<int>(std::errc::io_error);
    else
        error = 0;
    if (stream != RtOs::NO_FILE)
        RtOs::CloseFile(stream);
    return error;
}

void ReadInfo(const CRtString& path, FMCachedFile& file, FMTableFacts& facts) {
    std::vector<char> bytes;
    if (const int error = ReadInfoBytes(path, file, bytes); error != 0) {
        file.isUnreadable = true;
        file.infoFault = CRtString("cannot be read: " + std::generic_category().message(error));
    } else if (file.hasInfo) {
        ParseInfo(path, file, bytes, facts);
    }
}

// --- Open files ---------------------------------------------------------------------------------

// The file objects of this process that live on the path. If there is one, the manager's directory is fixed.
std::vector<FileRef> FindLive(CFileManager* manager, const CRtString& dataPath,
                              const FMFileID& id) {
    if (!manager)
        return {};
    std::vector<FileRef> live = manager->GetLiveFiles().Get(&id);
    if (live.empty())
        return live;
    const CRtString own = manager->GetDataDir() + StemOf(id) + FM_DATA_EXTENSION;
    RtOs::FileStamp found;
    RtOs::FileStamp ours;
    const bool isOwn = dataPath == own || (RtOs::GetStamp(dataPath, found) &&
                                           RtOs::GetStamp(own, ours) && found.IsSameFile(ours));
    return isOwn ? live : std::vector<FileRef>();
}

void FindOpenings(CFileManager* manager, const CRtString& dataPath, FMCachedFile& file) {
    std::vector<FileRef> live = FindLive(manager, dataPath, file.fileID);
    file.isOpenHere = manager && !live.empty() && manager->FindOpenAt(file.fileID);
    if (live.empty()) {
        file.isOpenElsewhere = RtOs::IsLocked(dataPath);
        return;
    }
    // While a store of a closed file waits for another process, its disk entry stays locked.
    std::erase_if(live, [](const FileRef& each) { return each->IsClosing(); });
    file.isOpenElsewhere = !live.empty() && std::ranges::all_of(live, [](const FileRef& each) {
        return each->GetEntry().IsLockedElsewhere();
    });
}

void DescribeLive(const FileRef& live, const CRtString& base, FMCachedFile& file,
                  FMTableFacts& facts) {
    file.entries = live->GetEntries(); // before the lengths: the data file only grows
    file.info = live->GetFileInfo();
    file.createTime = live->GetCreateTime();
    file.isDescribed = file.isTableComplete = true;
    facts.slots = file.entries.size();
    RtOs::FileStamp info; // empty after a failure
    RtOs::GetStamp(base + file.stem + FM_INFO_EXTENSION, info);
    file.hasInfo = info.exists;
    file.infoLength = info.length;
}

// --- Removal ------------------------------------------------------------------------------------

// The exclusive lock on a data file. A missing data file is created, so that no load can create it first.
class RemovalLock {
public:
    explicit RemovalLock(const CRtString& path) {
        bool isCreated = false;
        RtOs::FileStamp stamp;
        m_file =
            RtOs::OpenFile(path, RtOs::OPEN_CREATE | RtOs::OPEN_ALONE, m_error, isCreated, stamp);
    }
    ~RemovalLock() {
        if (m_file != RtOs::NO_FILE)
            RtOs::CloseFile(m_file);
    }
    RemovalLock(const RemovalLock&) = delete;
    RemovalLock& operator=(const RemovalLock&) = delete;

    int Result() const {
        if (m_file != RtOs::NO_FILE)
            return RT_OK;
        return RtOs::IsInUse(m_error) ? RT_ERROR_NOT_READY : RT_ERROR_IO;
    }

private:
    int m_file = RtOs::NO_FILE;
    int m_error = 0;
};

bool IsGone(const CRtString& path) {
    return RtOs::RemoveFile(path) == 0 || RtOs::IsNoSuchFile(RtOs::GetErrno());
}

} // namespace

int FMListCachedFiles(const CRtString& directory, std::vector<CRtString>& stems,
                      std::vector<CRtString>& others) {
    stems.clear();
    others.clear();
    CRtString base;
    if (!LocateDirectory(directory, "FMListCachedFiles", base))
        return RT_ERROR_NOT_READY;
    if (directory.empty())
        CFileManager::Instance()->SettleClosedFiles(nullptr);
    RtOs::DirectoryWalk walk(base, true);
    if (!walk.IsOpen())
        return RT_ERROR_NOT_FOUND;
    CRtString name;
    bool isDirectory = false;
    while (walk.Next(name, isDirectory)) {
        CRtString stem;
        const bool isData = !isDirectory && FMTakeStem(name, FM_DATA_EXTENSION, stem);
        const bool isCached = isData || (!isDirectory && FMTakeStem(name, FM_INFO_EXTENSION, stem));
        const Found found = isCached ? Examine(base + name, isData) : Found::Other;
        if (found == Found::File)
            stems.push_back(stem);
        else if (found == Found::Other)
            others.push_back(name);
    }
    if (directory.empty()) {
        for (const FMFileID& id : CFileManager::Instance()->GetOpenPaths())
            stems.push_back(StemOf(id));
    }
    Sort(stems);
    Sort(others);
    stems.erase(std::unique(stems.begin(), stems.end()), stems.end());
    return RT_OK;
}

int FMDescribeCachedFile(const CRtString& directory, const CRtString& stem, FMCachedFile& file) {
    file = {};
    CRtString base;
    constexpr std::string_view refused("/\\\0", 3); // NUL: the system would end the path there
    if (stem.empty() || stem.view().find_first_of(refused) != std::string_view::npos)
        return RT_ERROR_INVALID_ARG;
    if (!LocateDirectory(directory, "FMDescribeCachedFile", base))
        return RT_ERROR_NOT_READY;
    file.stem = stem;
    FMFileIDFromString(stem, file.fileID);
    if (StemOf(file.fileID) != stem)
        file.fileID = FMFileID_None; // the library opens the canonical spelling only
    const CRtString dataPath = base + stem + FM_DATA_EXTENSION;
    FMTableFacts facts;
    // Before the information file: the other process may close the file in between, and write it.
    CFileManager* const manager = CFileManager::IfAlive();
    if (manager && directory.empty())
        manager->SettleClosedFiles(&file.fileID);
    FindOpenings(manager, dataPath, file);
    if (manager && directory.empty() && file.isOpenHere)
        DescribeLive(manager->FindOpenAt(file.fileID), base, file, facts);
    else
        ReadInfo(base + stem + FM_INFO_EXTENSION, file, facts);
    RtOs::FileStamp data;
    RtOs::GetStamp(dataPath, data);
    file.hasData = data.exists;
    file.dataLength = data.length;
    file.isDataSpecial = data.isSpecial;
    if (!file.hasInfo && !file.hasData && !file.isDataSpecial && !file.isOpenHere)
        return RT_ERROR_NOT_FOUND;
    const bool isRead = file.isDescribed && file.infoFault.empty();
    if (!isRead && !file.isOpenElsewhere) // another process may have created the file since
        FindOpenings(manager, dataPath, file);
    file.isLoadable = isRead && !(file.fileID == FMFileID_None);
    FMCheckCachedFile(file, facts, CRtTimeValue::GetTimeOfDay().GetSec());
    return RT_OK;
}

int FMRemoveCachedFile(const CRtString& directory, const CRtString& stem, bool force) {
    FMCachedFile file;
    if (directory.empty())
        return RT_ERROR_INVALID_ARG;
    if (const int result = FMDescribeCachedFile(directory, stem, file); RT_FAILED(result))
        return result;
    if (file.isOpenHere &&
        !force) // its descriptor, and with it the lock, may be closed to save descriptors
        return RT_ERROR_NOT_READY;
    CRtString base;
    LocateDirectory(directory, "FMRemoveCachedFile", base);
    const CRtString dataPath = base + stem + FM_DATA_EXTENSION;
    std::optional<RemovalLock> lock(std::in_place, dataPath);
    // Without a data file there is nothing to lock, and a full disk must not prevent the removal.
    const bool mayGoOn = force || (!file.hasData && lock->Result() == RT_ERROR_IO);
    if (RT_FAILED(lock->Result()) && !mayGoOn)
        return lock->Result();
    if (!IsGone(base + stem + FM_INFO_EXTENSION))
        return RT_ERROR_IO;
    if (IsGone(dataPath))
        return RT_OK;
    lock.reset(); // Windows removes no file with an open handle
    return IsGone(dataPath) ? RT_OK : RT_ERROR_IO;
}

FMExpiry FMJudgeExpiry(const FMCachedFile& file, uint16_t clearDays, int64_t now) {
    using When = FMExpiry::When;
    constexpr int64_t secondsPerDay = 86400;
    const int64_t lastDay = int64_t{clearDays} + 1;
    const auto due = [&file](CRtString reason) -> FMExpiry {
        if (file.isOpenHere || file.isOpenElsewhere)
            return {When::Unknown, 0, "open"};
        return {When::NextRun, 0, std::move(reason)};
    };
    if (!file.hasData && !file.isDataSpecial) // housekeeping examines data files only
        return {When::Never, 0, "no data file"};
    if (file.isUnreadable) // for this user; the server may run as another one
        return {When::Unknown, 0, file.infoFault};
    if (!file.isDescribed)
        return due(file.hasInfo ? "damaged description" : "no information file");
    const FMLifetime lifetime = FMJudgeLifetime(file.info.flag, file.createTime, lastDay, now);
    if (lifetime == FMLifetime::Temporary)
        return due("temporary");
    if (lifetime == FMLifetime::Kept)
        return {When::Never, 0, "kept"};
    const auto age = static_cast<uint64_t>(FMAgeInDays(file.createTime, now));
    if (lifetime == FMLifetime::Expired)
        return due(file.createTime == 0 ? "no creation time" : FMCount(age, "day") + " old");
    return {When::Later, file.createTime + (lastDay + 1) * secondsPerDay,
            FMCount(age, "day") + " old"};
}

int FMStartHousekeeping() {
    CFileManager* const manager = RunningManager("FMStartHousekeeping");
    return manager ? manager->StartHouseKeeping() : RT_ERROR_NOT_READY;
}
