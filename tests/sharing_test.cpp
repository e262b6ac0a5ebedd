// Other servers in one directory, and data files that other programs truncate or replace. The tests hold the
// advisory locks of another server: a descriptor of its own conflicts with those of the library.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include "FMCatalog.h"
#include "testing/kit.h"
#include "util/filemanager/filemanager.h"
#include "util/runtime/os/RtOs.h"

namespace {

// A lock on a file or a directory, which ends with the object.
class Lock {
public:
    Lock(const fs::path& path, int operation)
        : m_fd(open(path.c_str(), O_RDONLY | O_CLOEXEC)),
          m_isHeld(flock(m_fd, operation | LOCK_NB) == 0) {}
    ~Lock() { Release(); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;
    bool IsHeld() const { return m_isHeld; }
    void Release() { close(std::exchange(m_fd, -1)); }

private:
    int m_fd;
    const bool m_isHeld;
};

bool IsFree(const fs::path& path) { return Lock(path, LOCK_EX).IsHeld(); }

// Creates a file, stores its blocks 1 to `count`, and closes it.
FMFileID Store(Cache& cache, uint32_t count) {
    FileRef file = cache.Create();
    const FMFileID id = file->GetFileInfo().fileID;
    for (uint32_t block = 1; block <= count; ++block)
        Write(*Cache::Block(*file, block), Pattern(block, 1000));
    cache.Close(file);
    FMWaitUntilIdle();
    return id;
}

} // namespace

TEST(Sharing, AFileThatAnotherServerHasOpenIsNotLoadedChangedOrRemoved) {
    TestClock clock;
    LogCapture log(RT_LOG_WARNING);
    Cache cache;
    const FMFileID saved = Store(cache, 1);
    const FMFileInfo unsaved = Description(); // the other server has not closed it yet
    WriteFile(cache.Path(unsaved.fileID, ".sdd"), Pattern(3, 5000));
    Lock savedLock(cache.Path(saved, ".sdd"), LOCK_EX);
    Lock unsavedLock(cache.Path(unsaved.fileID, ".sdd"), LOCK_EX);
    const size_t handles = CountHandles();
    EXPECT_FALSE(cache.Open(saved));
    EXPECT_EQ(CountHandles(), handles);
    EXPECT_FALSE(cache.Open(unsaved.fileID)); // no information file: the data file is not opened
    EXPECT_EQ(log.Count("CFileManager::LoadFile, another process has the file, fileID="), 1U);
    FMCachedFile file;
    for (const FMFileID& id : {saved, unsaved.fileID}) {
        EXPECT_EQ(FMDescribeCachedFile("", FMFileIDToString(id), file), RT_OK);
        EXPECT_TRUE(file.isOpenElsewhere && !file.isOpenHere);
        EXPECT_TRUE(std::ranges::none_of(file.findings, &FMFinding::isFault));
        EXPECT_EQ(FMJudgeExpiry(file, 7, int64_t{1} << 40).reason, "open");
    }
    fs::resize_file(cache.Path(saved, ".sdd"), 2000); // the other server writes
    EXPECT_EQ(FMDescribeCachedFile("", FMFileIDToString(saved), file), RT_OK);
    EXPECT_TRUE(file.findings.empty());
    FileRef mine = cache.Create(unsaved);
    EXPECT_EQ(FMDescribeCachedFile("", FMFileIDToString(unsaved.fileID), file), RT_OK);
    EXPECT_TRUE(file.isOpenElsewhere && file.isOpenHere);
    Write(*Cache::Block(*mine, 1), Pattern(4, 300));
    clock.Advance(int64_t{100} * 86400 * 1000);
    FMWaitUntilIdle(); // housekeeping finds both files expired and keeps them
    EXPECT_EQ(Read(*Cache::Block(*mine, 1)), Pattern(4, 300));
    EXPECT_EQ(ReadFile(cache.Path(unsaved.fileID, ".sdd")), Pattern(3, 5000));
    EXPECT_TRUE(fs::exists(cache.Path(saved, ".sdi")));

    savedLock.Release();
    unsavedLock.Release();
    clock.Advance(60'000);
    FMWaitUntilIdle(); // the pending store of this process succeeds, and it holds the lock
    EXPECT_EQ(ReadFile(cache.Path(unsaved.fileID, ".sdd")), Pattern(4, 300));
    EXPECT_FALSE(IsFree(cache.Path(unsaved.fileID, ".sdd")));
}

TEST(Sharing, RemoveCachedFileRefusesAnOpenFile) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    const FMFileID id = Store(cache, 1);
    const CRtString stem = FMFileIDToString(id);
    const CRtString store(cache.Path(id, "").parent_path().string());
    {
        const Lock other(cache.Path(id, ".sdd"), LOCK_EX);
        EXPECT_EQ(FMRemoveCachedFile(store, stem, false), RT_ERROR_NOT_READY);
    }
    FileRef file = cache.Open(id);
    ASSERT_TRUE(file);
    static_cast<CFMFile&>(*file).GetEntry().CloseStreams(); // the file is open, but not its stream
    EXPECT_EQ(FMRemoveCachedFile(store, stem, false), RT_ERROR_NOT_READY);
    cache.Close(file);
    EXPECT_EQ(FMRemoveCachedFile(store, stem, false), RT_OK);
    EXPECT_FALSE(fs::exists(cache.Path(id, ".sdi")) || fs::exists(cache.Path(id, ".sdd")));
    EXPECT_EQ(FMRemoveCachedFile(store, stem, true), RT_ERROR_NOT_FOUND);
    const FMFileID forced = Store(cache, 1);
    file = cache.Open(forced);
    EXPECT_EQ(FMRemoveCachedFile(store, FMFileIDToString(forced), true), RT_OK);
    EXPECT_FALSE(fs::exists(cache.Path(forced, ".sdi")) || fs::exists(cache.Path(forced, ".sdd")));
    EXPECT_EQ(FMRemoveCachedFile(store, "..\\x", true), RT_ERROR_INVALID_ARG);
}

TEST(Sharing, QueryOfTheLockNeverMakesAnOpenFail) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    const FMFileID id = Store(cache, 1);
    const std::jthread query([path = cache.Path(id, ".sdd").string()](std::stop_token end) {
        while (!end.stop_requested())
            RtOs::IsLocked(CRtString(path));
    });
    for (int i = 0; i < 3000; ++i) {
        FileRef file = cache.Open(id);
        ASSERT_TRUE(file) << i;
        cache.Close(file);
    }
}

class IsServer : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(Sharing, IsServer, testing::Range(0, 2),
                         testing::PrintToStringParamName());

TEST_P(IsServer, ClearingKeepsDirectoriesThatOtherProcessesUse) {
    LogCapture log(RT_LOG_WARNING);
    Cache cache(GetParam(), 0); // clears at start and at end
    cache.Stop();
    // The directory of a client in another container: no process here has that identifier.
    const fs::path used = cache.dir.path / (GetParam() ? "sdstore" : "confcache/999999999");
    WriteFile(used / "file", "x");
    Lock other(used, LOCK_SH);
    cache.Start();
    cache.Stop();
    EXPECT_TRUE(fs::exists(used / "file"));
    EXPECT_EQ(log.Count("CFileManager::ClearDiskCache, another process uses the store"),
              GetParam() ? 2U : 0U);
    other.Release();
    cache.Start();
    cache.Stop();
    EXPECT_FALSE(fs::exists(used));
}

// A process that clears holds the exclusive lock on the directory.
TEST(Sharing, ServerWaitsForAClearingProcessThenHoldsTheSharedLock) {
    TestClock clock;
    const TempDir dir;
    const fs::path store = dir.path / "sdstore";
    fs::create_directory(store);
    Lock clearing(store, LOCK_EX);
    std::atomic<bool> isCleared{false};
    std::jthread end([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        isCleared = true;
        clearing.Release();
    });
    Cache cache(dir.path);
    EXPECT_TRUE(isCleared);
    EXPECT_FALSE(IsFree(store));
    fs::rename(store, dir.path / "aside");
    fs::create_directory(store);
    clock.Advance(60'000);
    FMWaitUntilIdle(); // the tick locks the new directory
    EXPECT_FALSE(IsFree(store));
}

TEST(Sharing, FileChangedWhileItsStreamWasClosedIsNotWritten) {
    LogCapture log(RT_LOG_WARNING);
    Cache cache;
    const FileRef file = cache.Create();
    Write(*Cache::Block(*file, 1), Pattern(1, 100));
    FMWaitUntilIdle();
    static_cast<CFMFile&>(*file).GetEntry().CloseStreams(); // as when too many are open
    const fs::path path = cache.Path(file->GetFileInfo().fileID, ".sdd");
    WriteFile(path, Pattern(99, 200));
    Write(*Cache::Block(*file, 2), Pattern(2, 300));
    FMWaitUntilIdle();
    EXPECT_EQ(ReadFile(path), Pattern(99, 200));
    EXPECT_EQ(Read(*Cache::Block(*file, 2)), Pattern(2, 300));
    EXPECT_EQ(log.Count("another process has changed the file, filename="), 1U);
}

TEST(Sharing, AnotherProgramRemovesBothFilesAndTheNextStoresSucceed) {
    TestClock clock;
    LogCapture log(RT_LOG_WARNING);
    Cache cache;
    const FMFileID id = Store(cache, 1);
    FileRef file = cache.Open(id);
    CFMDiskEntry& entry = static_cast<CFMFile&>(*file).GetEntry();
    Write(*Cache::Block(*file, 2), Pattern(2, 1000));
    FMWaitUntilIdle();
    for (const uint32_t block : {3U, 4U, 5U}) {
        entry.CloseStreams();
        if (block == 3) {
            fs::remove(cache.Path(id, ".sdd"));
            fs::remove(cache.Path(id, ".sdi"));
        }
        Write(*Cache::Block(*file, block), Pattern(block, 1000));
        FMWaitUntilIdle();
    }
    EXPECT_EQ(log.Count("another process has changed the file"), 0U) << log.Text();
    EXPECT_EQ(ReadFile(cache.Path(id, ".sdd")).substr(2000),
              Pattern(3, 1000) + Pattern(4, 1000) + Pattern(5, 1000));
    cache.Close(file);
}

TEST(Sharing, ATemporaryFileThatAnotherServerHasTakenIsNotRemoved) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    for (const bool isChanged : {false, true}) {
        FileRef file = cache.Create(1, FM_FILE_TEMPORARY);
        const FMFileID id = file->GetFileInfo().fileID;
        Write(*Cache::Block(*file, 1), Pattern(1, 100));
        FMWaitUntilIdle();
        static_cast<CFMFile&>(*file).GetEntry().CloseStreams();
        if (isChanged)
            WriteFile(cache.Path(id, ".sdd"), "theirs");
        const Lock other(cache.Path(id, ".sdd"), isChanged ? LOCK_UN : LOCK_EX);
        cache.Close(file);
        FMWaitUntilIdle();
        EXPECT_TRUE(fs::exists(cache.Path(id, ".sdd"))) << isChanged;
    }
}

TEST(Sharing, ADetachedEntryDoesNotUseItsPath) {
    Cache cache;
    const CRtComAutoPtr<CFMFile> file(new CFMFile(Description()));
    CFMDiskEntry& entry = file->GetEntry();
    const RtOs::Piece piece{"x", 1};
    const CFMDiskEntry::Stored stored = entry.Store({&piece, 1}, 0);
    EXPECT_TRUE(stored.result == 0 && stored.epoch == FM_FIRST_EPOCH);
    const fs::path data = cache.Path(file->GetFileInfo().fileID, ".sdd");
    EXPECT_TRUE(entry.IsUnsynced() && !IsFree(data));
    EXPECT_TRUE(entry.Detach());
    EXPECT_TRUE(IsFree(data) && !entry.IsUnsynced() && !entry.Detach());
    EXPECT_EQ(entry.Store({&piece, 1}, 1).result, RT_ERROR_NOT_READY);
    CRtMessageChain bytes;
    EXPECT_EQ(entry.Load(0, 1, FM_FIRST_EPOCH, bytes), RT_ERROR_NOT_READY);
    entry.RemoveFiles();
    entry.MarkUnsynced();
    EXPECT_EQ(entry.SyncData(), 0);
    EXPECT_TRUE(!entry.IsUnsynced() && !entry.IsLockedElsewhere() && !file->GetDiskFile());
    {
        const CRtComAutoPtr<CFMFile> unloaded(
            new CFMFile(FMFileIDToString(file->GetFileInfo().fileID)));
        EXPECT_EQ(unloaded->GetEntry().Store({&piece, 1}, 0).result, 0); // it knows no table
    }
    const Lock other(data, LOCK_EX);
    EXPECT_TRUE(entry.IsLockedElsewhere());
    file->MarkInfoChanged();
    EXPECT_FALSE(file->IsUnsaved());
    file->GetStores().SetTable(std::make_unique<FMTable>());
    EXPECT_EQ(entry.WriteTable(file->GetStores()).description, RT_ERROR_NOT_READY);
    EXPECT_FALSE(fs::exists(cache.Path(file->GetFileInfo().fileID, ".sdi")));
    EXPECT_EQ(ReadFile(data), "x");
    const CRtComAutoPtr<CFMFile> temporary(new CFMFile(Description(1, FM_FILE_TEMPORARY)));
    temporary->MarkInfoChanged();
    EXPECT_FALSE(temporary->IsUnsaved()); // no later run loads it
}

TEST(Sharing, AReadOfTruncatedBytesLeavesTheRestReadable) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    const FMFileID id = Store(cache, 2);
    FileRef file = cache.Open(id);
    fs::resize_file(cache.Path(id, ".sdd"), 1999);
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(Read(*Cache::Block(*file, 2, 0)), "error 10001");
    cache.Close(file);
    FMWaitUntilIdle();
    file = cache.Open(id);
    ASSERT_TRUE(file);
    EXPECT_EQ(Read(*Cache::Block(*file, 1, 0)), Pattern(1, 1000));
}
