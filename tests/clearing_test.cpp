// Clearing the cache and housekeeping: which files are removed, and which are kept.
#include <gtest/gtest.h>

#include <random>
#include <set>
#include <thread>

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

} // namespace

TEST(Clearing, ClientKeepsOnlyDirectoriesOfRunningProcesses) {
    LogCapture quiet(RT_LOG_SILENT);
    IdleProcess other;
    IdleProcess ended;
    const uint32_t endedId = ended.Id();
    ended.End();
    Cache cache(0, 0);
    cache.Stop();
    EXPECT_FALSE(fs::exists(cache.dir.path / "confcache"));
    const fs::path root = cache.dir.path / "confcache";
    const std::string alive = std::to_string(other.Id());
    const std::vector<std::string> dead{std::to_string(endedId),
                                        std::to_string(RtOs::GetProcessId()),
                                        "0",
                                        "-1",
                                        "tmp",
                                        "4294967296",
                                        "99999999999999999999"};
    for (const std::string& name : dead)
        WriteFile(root / name / "sub" / "file", "x");
    WriteFile(root / alive / "file", "x");
    WriteFile(root / (alive + "abc") / "file", "x");
    WriteFile(root / "loose", "x");
    cache.Start();
    for (const std::string& name : dead)
        EXPECT_EQ(fs::exists(root / name), name == std::to_string(RtOs::GetProcessId())) << name;
    EXPECT_TRUE(fs::exists(root / alive / "file") && fs::exists(root / (alive + "abc") / "file"));
    EXPECT_TRUE(fs::exists(root / "loose"));
    EXPECT_TRUE(fs::is_empty(root / std::to_string(RtOs::GetProcessId())));
    FileRef file = cache.Create();
    Write(*Cache::Block(*file, 1), "bytes");
    cache.Close(file);
    other.End();
    cache.Stop(); // a pending table is not written after the clearing
    EXPECT_FALSE(fs::exists(root));
    FMWaitUntilIdle();
    EXPECT_FALSE(fs::exists(root));
}

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
    EXPECT_EQ(CountFiles(cache.dir.path), 2U);
}

// The first run fixes the paths of the process. A later run as client must not clear the server's root, which
// may contain other files.
TEST(Clearing, ClientRunAfterAServerRunKeepsTheServersRoot) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache(1, 7);
    cache.Stop();
    WriteFile(cache.dir.path / "12" / "foreign file", "x");
    cache.manager->Initialize(CRtString(cache.dir.path.string()), 0, 0);
    cache.Stop();
    EXPECT_EQ(CountFiles(cache.dir.path), 1U);
}

TEST(HouseKeeping, RemovesExpiredTemporaryAndUnreadableFiles) {
    TestClock clock;
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache(1, 7);
    const int64_t now = clock.seconds;
    const int64_t day = 86'400;
    const std::vector<FMFileID> kept{
        Leave(cache, now - 9 * day + 120),
        Leave(cache, now),
        Leave(cache, now + 400 * day),
        Leave(cache, now - 100 * day, FM_FILE_KEPT),
    };
    std::vector<FMFileID> gone{Leave(cache, now - 9 * day),
                               Leave(cache, now - 400 * day),
                               Leave(cache, now, FM_FILE_TEMPORARY),
                               Leave(cache, now, FM_FILE_TEMPORARY | FM_FILE_KEPT),
                               Leave(cache, now),
                               Leave(cache, now)};
    fs::remove(cache.Path(gone[4], ".sdi"));
    WriteFile(cache.Path(gone[5], ".sdi"), "no information");
    FileRef open = cache.Open(Leave(cache, now - 100 * day));
    FileRef made = cache.Create();
    Write(*Cache::Block(*made, 1), "bytes");
    const fs::path store = cache.dir.path / "sdstore";
    WriteFile(store / ".sdd", "ignored");
    WriteFile(store / "other", "ignored");
    fs::create_directory(store / "directory.sdd");
    WriteFile(store / "no identifier.sdd", "unreadable");
    const auto run = [&] {
        EXPECT_EQ(FMStartHousekeeping(), RT_OK);
        EXPECT_EQ(FMStartHousekeeping(), RT_ERROR_NOT_READY); // one is queued
        FMWaitUntilIdle();
    };
    const auto expiry = [](const FMFileID& id, int64_t at) {
        FMCachedFile file;
        EXPECT_EQ(FMDescribeCachedFile("", FMFileIDToString(id), file), RT_OK);
        return FMJudgeExpiry(file, 7, at);
    };
    using When = FMExpiry::When;
    for (const FMFileID& id : kept)
        EXPECT_NE(expiry(id, now).when, When::NextRun);
    for (const FMFileID& id : gone)
        EXPECT_EQ(expiry(id, now).when, When::NextRun);
    EXPECT_EQ(expiry(kept[0], now).dueTime, now + 120);
    EXPECT_EQ(expiry(kept[0], now + 119).when, When::Later);
    EXPECT_EQ(expiry(kept[0], now + 120).when, When::NextRun);
    EXPECT_EQ(expiry(open->GetFileInfo().fileID, now).when, When::Unknown);
    run();
    for (const FMFileID& id : kept)
        EXPECT_TRUE(fs::exists(cache.Path(id, ".sdd")) && fs::exists(cache.Path(id, ".sdi")));
    for (const FMFileID& id : gone)
        EXPECT_FALSE(fs::exists(cache.Path(id, ".sdd")) || fs::exists(cache.Path(id, ".sdi")));
    EXPECT_TRUE(fs::exists(cache.Path(open->GetFileInfo().fileID, ".sdd")));
    EXPECT_TRUE(fs::exists(cache.Path(made->GetFileInfo().fileID, ".sdd")));
    EXPECT_TRUE(fs::exists(store / ".sdd") && fs::exists(store / "directory.sdd"));
    EXPECT_FALSE(fs::exists(store / "no identifier.sdd"));
    // The clock is set back by a year and forward again: a run removes nothing new.
    for (const int64_t jump : {-365 * day, 365 * day}) {
        clock.seconds += jump;
        WriteFile(store / "witness.sdd", "");
        run();
        EXPECT_FALSE(fs::exists(store / "witness.sdd"));
        EXPECT_TRUE(fs::exists(cache.Path(kept[1], ".sdd")));
    }
}

TEST(HouseKeeping, RunOverThousandsOfFilesDoesNotBlockCallersOrRemoveOpenFiles) {
    TestClock clock;
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache(1, 0);
    const int64_t now = clock.seconds;
    std::vector<FMFileID> expired;
    std::vector<FMFileID> fresh;
    std::vector<FileRef> open;
    for (uint32_t i = 0; i < 10'000 / SLOWNESS; ++i) {
        const FMFileID id = Leave(cache, i % 2 == 0 ? now - 10 * 86'400 : now);
        if (i % 20 == 0) {
            open.push_back(cache.Open(id));
            ASSERT_TRUE(open.back());
        } else {
            (i % 2 == 0 ? expired : fresh).push_back(id);
        }
    }
    EXPECT_EQ(FMStartHousekeeping(), RT_OK);
    std::mt19937 random(3);
    std::set<std::string> opened; // expired, but opened in time and not closed
    int64_t longest = 0;
    while (CFileManager::Instance()->IsHouseKeepingPosted()) {
        const FMFileID& id = expired[random() % expired.size()];
        const auto start = std::chrono::steady_clock::now();
        FileRef file = cache.Open(id);
        if (file) {
            ASSERT_TRUE(fs::exists(cache.Path(id, ".sdd")) && fs::exists(cache.Path(id, ".sdi")));
            const std::string stem = FMFileIDToString(id).c_str();
            if (random() % 2 == 0) {
                cache.Close(file);
                opened.erase(stem);
            } else {
                opened.insert(stem);
            }
        }
        const auto took = std::chrono::steady_clock::now() - start;
        longest = std::max<int64_t>(
            longest, std::chrono::duration_cast<std::chrono::milliseconds>(took).count());
    }
    RecordProperty("longest_open_ms", static_cast<int>(longest));
    EXPECT_LT(longest, 1000); // the whole run takes longer
    for (const FileRef& file : open)
        EXPECT_TRUE(fs::exists(cache.Path(file->GetFileInfo().fileID, ".sdd")));
    for (const FMFileID& id : fresh)
        EXPECT_TRUE(fs::exists(cache.Path(id, ".sdd")) && fs::exists(cache.Path(id, ".sdi")));
    for (const std::string& stem : opened)
        EXPECT_TRUE(fs::exists(cache.dir.path / "sdstore" / (stem + ".sdd")));
    open.clear();
    cache.Stop();
    cache.Start();
}
