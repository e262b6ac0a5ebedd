// Clearing the cache and housekeeping: which files are removed, and which are kept.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <set>

#include "FMCatalog.h"
#include "testing/kit.h"
#include "util/filemanager/filemanager.h"

namespace {

// Creates a cached file of an earlier run.
FMFileID Leave(const Cache& cache, int64_t createTime, uint32_t flag = 0) {
    const FMFileInfo info = Description(1, flag);
    WriteFile(cache.Path(info.fileID, ".sdi"), InfoFile(info, std::string(2, '\0'), createTime));
    WriteFile(cache.Path(info.fileID, ".sdd"), "data");
    return info.fileID;
}

bool AnyExists(const Cache& cache, const FMFileID& id) {
    return fs::exists(cache.Path(id, ".sdd")) || fs::exists(cache.Path(id, ".sdi"));
}

} // namespace

TEST(Clearing, ClientKeepsOnlyDirectoriesOfRunningProcesses) {
    LogCapture log(RT_LOG_WARNING);
    IdleProcess other;
    IdleProcess ended;
    const std::string deadId = std::to_string(ended.Id());
    ended.End();
    Cache cache(0, 0);
    cache.Stop();
    const fs::path root = cache.dir.path / "confcache";
    EXPECT_FALSE(fs::exists(root));
    const std::string alive = std::to_string(other.Id());
    const std::string own = std::to_string(RtOs::GetProcessId());
    const std::vector<std::string> kept{alive + "/file", alive + "abc/file", "loose"};
    const std::vector<std::string> dead{deadId, "0", "-1", "tmp", "4294967296"};
    for (const std::string& name : kept)
        WriteFile(root / name, "x");
    for (const std::string& name : dead)
        WriteFile(root / name / "sub" / "file", "x");
    WriteFile(root / own / "sub" / "file", "x");
    cache.Start();
    for (const std::string& name : kept)
        EXPECT_TRUE(fs::exists(root / name)) << name;
    for (const std::string& name : dead)
        EXPECT_FALSE(fs::exists(root / name)) << name;
    EXPECT_TRUE(fs::is_empty(root / own));
    FileRef file = cache.Create();
    Write(*Cache::Block(*file, 1), "bytes");
    cache.Close(file);
    other.End();
    cache.Stop(); // a pending table is not written after the clearing
    FMWaitUntilIdle();
    EXPECT_FALSE(fs::exists(root));
    EXPECT_EQ(log.Count("other processes hold files"), 0U);
}

// The first run fixes the paths of the process: a later run as client must not clear the server's root either.
TEST(Clearing, ServerClearsNothingOutsideItsStore) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache(1, 0);
    cache.Stop();
    WriteFile(cache.dir.path / "12" / "foreign file", "x");
    WriteFile(cache.dir.path / "loose", "x");
    WriteFile(cache.dir.path / "sdstore" / "left" / "over", "x");
    cache.Start();
    EXPECT_TRUE(fs::is_empty(cache.dir.path / "sdstore"));
    cache.Stop();
    EXPECT_FALSE(fs::exists(cache.dir.path / "sdstore"));
    cache.manager->Initialize(CRtString(cache.dir.path.string()), 0, 0);
    cache.Stop();
    EXPECT_EQ(CountFiles(cache.dir.path), 2U);
}

TEST(HouseKeeping, RemovesExpiredTemporaryAndUnreadableFiles) {
    TestClock clock;
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache(1, 7);
    const int64_t now = clock.seconds;
    const int64_t day = 86'400;
    const std::vector<FMFileID> kept{Leave(cache, now - 9 * day + 120), Leave(cache, now),
                                     Leave(cache, now + 400 * day),
                                     Leave(cache, now - 100 * day, FM_FILE_KEPT)};
    const std::vector<FMFileID> gone{Leave(cache, now - 9 * day),
                                     Leave(cache, now, FM_FILE_TEMPORARY),
                                     Leave(cache, now, FM_FILE_TEMPORARY | FM_FILE_KEPT),
                                     Leave(cache, now),
                                     Leave(cache, now),
                                     Leave(cache, 0)};
    fs::remove(cache.Path(gone[3], ".sdi"));
    WriteFile(cache.Path(gone[4], ".sdi"), "no information");
    const FileRef open = cache.Open(Leave(cache, now - 100 * day));
    static_cast<CFMFile&>(*open)
        .GetEntry()
        .CloseStreams(); // without its lock, as when too many are open
    const fs::path store = cache.dir.path / "sdstore";
    WriteFile(store / ".sdd", "ignored");
    WriteFile(store / "no identifier.sdd", "unreadable");
    fs::create_directory(store / "directory.sdd");

    using When = FMExpiry::When;
    const auto expiry = [](const FMFileID& id, int64_t at) {
        FMCachedFile file;
        EXPECT_EQ(FMDescribeCachedFile("", FMFileIDToString(id), file), RT_OK);
        return FMJudgeExpiry(file, 7, at);
    };
    for (const FMFileID& id : kept)
        EXPECT_NE(expiry(id, now).when, When::NextRun);
    for (const FMFileID& id : gone)
        EXPECT_EQ(expiry(id, now).when, When::NextRun);
    EXPECT_EQ(expiry(gone[0], now).dueTime, 0);
    EXPECT_EQ(expiry(gone[5], now).reason, "no creation time");
    EXPECT_EQ(expiry(kept[0], now).dueTime, now + 120);
    EXPECT_EQ(expiry(kept[0], now + 119).when, When::Later);
    EXPECT_EQ(expiry(kept[0], now + 120).when, When::NextRun);
    EXPECT_EQ(expiry(open->GetFileInfo().fileID, now).when, When::Unknown);

    for (const int64_t jump : {int64_t{0}, -365 * day, 365 * day}) { // also after the clock was set
        clock.seconds += jump;
        EXPECT_EQ(FMStartHousekeeping(), RT_OK);
        FMWaitUntilIdle();
        for (const FMFileID& id : kept)
            EXPECT_TRUE(fs::exists(cache.Path(id, ".sdd")) && fs::exists(cache.Path(id, ".sdi")));
        EXPECT_TRUE(fs::exists(cache.Path(open->GetFileInfo().fileID, ".sdd")));
        for (const FMFileID& id : gone)
            EXPECT_FALSE(AnyExists(cache, id));
        EXPECT_TRUE(fs::exists(store / ".sdd") && fs::exists(store / "directory.sdd"));
        EXPECT_FALSE(fs::exists(store / "no identifier.sdd"));
        WriteFile(store / "no identifier.sdd", "unreadable");
    }
}

TEST(HouseKeeping, RunOverThousandsOfFilesDoesNotBlockCallersOrRemoveOpenFiles) {
    TestClock clock;
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    std::vector<FMFileID> expired;
    for (uint32_t i = 0; i < 5'000 / SLOWNESS; ++i)
        expired.push_back(Leave(cache, clock.seconds - 10 * 86'400));
    EXPECT_EQ(FMStartHousekeeping(), RT_OK);
    cache.Stop(); // the run is abandoned
    cache.Start();
    EXPECT_EQ(FMStartHousekeeping(), RT_OK);
    EXPECT_EQ(FMStartHousekeeping(), RT_ERROR_NOT_READY); // one runs
    std::mt19937 random(3);
    std::set<size_t> opened; // in time, and not closed
    std::chrono::steady_clock::duration longest{};
    while (CFileManager::Instance()->IsHouseKeepingPosted()) {
        const size_t i = random() % expired.size();
        const auto start = std::chrono::steady_clock::now();
        FileRef file = cache.Open(expired[i]);
        longest = std::max(longest, std::chrono::steady_clock::now() - start);
        if (!file)
            continue;
        ASSERT_TRUE(fs::exists(cache.Path(expired[i], ".sdd")));
        opened.insert(i);
        if (random() % 2 == 0) {
            cache.Close(file);
            opened.erase(i);
        }
    }
    EXPECT_LT(longest, std::chrono::seconds(1)); // the whole run takes longer
    EXPECT_FALSE(opened.empty());
    for (size_t i = 0; i < expired.size(); ++i)
        EXPECT_TRUE(!opened.contains(i) || fs::exists(cache.Path(expired[i], ".sdd")));
}

// A table that could not be written is dropped when the cache is cleared: else a tick would write it afterwards.
TEST(Clearing, DropsPendingTables) {
    TestClock clock;
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache(1, 7);
    for (const auto& [before, after] : {std::pair{7, 0}, std::pair{0, 7}}) {
        cache.Stop();
        cache.manager->Initialize("", static_cast<uint16_t>(before), 1);
        FileRef file = cache.Create();
        const fs::path info = cache.Path(file->GetFileInfo().fileID, ".sdi");
        fs::create_directory(info); // the table cannot be written
        Write(*Cache::Block(*file, 1), "bytes");
        cache.Close(file);
        cache.Stop();
        fs::remove(info);
        cache.manager->Initialize("", static_cast<uint16_t>(after), 1);
        clock.Advance(60'000);
        FMWaitUntilIdle(); // a tick
        EXPECT_FALSE(fs::exists(info)) << before;
    }
}
