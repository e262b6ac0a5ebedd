// Clearing the cache and housekeeping: what goes, what stays, and what is never touched.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>
#include <set>
#include <thread>

#include "support.h"
#include "util/filemanager/filemanager.h"

namespace {

// A process that runs until the end of the scope.
class OtherProcess {
public:
    OtherProcess() : id(fork()) {
        if (id == 0) {
            pause();
            _exit(0);
        }
    }
    ~OtherProcess() { End(); }
    void End() {
        if (m_ended)
            return;
        m_ended = true;
        kill(id, SIGKILL);
        waitpid(id, nullptr, 0);
    }
    const pid_t id;

private:
    bool m_ended = false;
};

size_t Files(const fs::path& path) {
    const fs::recursive_directory_iterator all(path);
    return static_cast<size_t>(std::count_if(
        begin(all), end(all), [](const auto& entry) { return entry.is_regular_file(); }));
}

std::string InfoFile(const FMFileInfo& info, int64_t createTime) {
    CRtMessageChain body;
    FMEncodeFileBody(info, static_cast<uint32_t>(createTime), body);
    const std::string bytes(body->FlattenChained().view());
    std::string length(4, '\0');
    length[0] = static_cast<char>(bytes.size());
    return "IFSD" + length + bytes + std::string("\2\0\0\0\0\0", 6);
}

// A cached file of an earlier run.
FMFileID Leave(const Cache& cache, int64_t createTime, uint32_t flag = 0) {
    const FMFileInfo info = Description(1, flag);
    WriteFile(cache.Path(info.fileID, ".sdi"), InfoFile(info, createTime));
    WriteFile(cache.Path(info.fileID, ".sdd"), "data");
    return info.fileID;
}

} // namespace

TEST(Clearing, OfAClientLeavesOnlyDirectoriesOfRunningProcesses) {
    LogCapture quiet(RT_LOG_SILENT);
    OtherProcess other;
    OtherProcess ended;
    ended.End();
    Cache cache(0, 0);
    cache.Stop();
    EXPECT_FALSE(fs::exists(cache.dir.path / "confcache"));
    const fs::path root = cache.dir.path / "confcache";
    const std::string alive = std::to_string(other.id);
    const std::vector<std::string> dead{
        std::to_string(ended.id), std::to_string(getpid()), "0", "-1", "tmp", "4294967296",
        "99999999999999999999"};
    for (const std::string& name : dead)
        WriteFile(root / name / "sub" / "file", "x");
    WriteFile(root / alive / "file", "x");
    WriteFile(root / (alive + "abc") / "file", "x");
    WriteFile(root / "loose", "x");
    cache.Start();
    for (const std::string& name : dead)
        EXPECT_EQ(fs::exists(root / name), name == std::to_string(getpid())) << name;
    EXPECT_TRUE(fs::exists(root / alive / "file") && fs::exists(root / (alive + "abc") / "file"));
    EXPECT_TRUE(fs::exists(root / "loose"));
    EXPECT_TRUE(fs::is_empty(root / std::to_string(getpid())));
    FileRef file = cache.Create();
    Write(*Cache::Block(*file, 1), "bytes");
    cache.Close(file);
    other.End();
    cache.Stop(); // what was still waiting to be written does not come back either
    EXPECT_FALSE(fs::exists(root));
    cache.Settle();
    EXPECT_FALSE(fs::exists(root));
}

TEST(Clearing, OfAServerIsConfinedToItsStore) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache(1, 0);
    cache.Stop();
    WriteFile(cache.dir.path / "12" / "of somebody else", "x");
    WriteFile(cache.dir.path / "loose", "x");
    WriteFile(cache.dir.path / "sdstore" / "left" / "over", "x");
    cache.Start();
    EXPECT_TRUE(fs::is_empty(cache.dir.path / "sdstore"));
    cache.Stop();
    EXPECT_FALSE(fs::exists(cache.dir.path / "sdstore"));
    EXPECT_EQ(Files(cache.dir.path), 2U);
}

// The default root is the user's own folder, with everything else that lies there.
TEST(Clearing, LeavesTheRestOfADefaultRootAlone) {
    LogCapture quiet(RT_LOG_SILENT);
    const TempDir home;
    setenv("HOME", home.path.c_str(), 1);
    unsetenv("XDG_CACHE_HOME");
    WriteFile(home.path / "letter", "x");
    WriteFile(home.path / ".cache" / "12" / "of somebody else", "x");
    WriteFile(home.path / ".cache" / "sdstore" / "left over", "x");
    const CRtCallerThread three;
    IFileManager::Instance()->Initialize("", 0, 1);
    EXPECT_TRUE(fs::is_empty(home.path / ".cache" / "sdstore"));
    IFileManager::Instance()->UnInitialize();
    EXPECT_EQ(Files(home.path), 2U);
}

// What cannot be removed stays, with the directories above it, until it can.
TEST(Clearing, FinishesLaterWhatItCannotRemoveNow) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache(0, 0);
    cache.Stop();
    const fs::path root = cache.dir.path / "confcache";
    WriteFile(root / "0" / "locked" / "file", "x");
    WriteFile(root / "0" / "free" / "file", "x");
    fs::permissions(root / "0" / "locked", fs::perms(0500));
    constexpr uid_t nobody = 65534;
    const bool superuser = geteuid() == 0; // whom permissions do not hold back
    if (superuser) {
        ASSERT_EQ(chown(cache.dir.path.c_str(), nobody, nobody), 0);
        for (const auto& entry : fs::recursive_directory_iterator(cache.dir.path))
            ASSERT_EQ(chown(entry.path().c_str(), nobody, nobody), 0);
        ASSERT_EQ(seteuid(nobody), 0);
    }
    cache.Start();
    EXPECT_TRUE(fs::exists(root / "0" / "locked" / "file"));
    EXPECT_FALSE(fs::exists(root / "0" / "free"));
    fs::permissions(root / "0" / "locked", fs::perms(0700));
    cache.Stop();
    EXPECT_FALSE(fs::exists(root));
    if (superuser) {
        ASSERT_EQ(seteuid(0), 0);
    }
}

// The paths of a process are fixed by its first run: as a client it must not take a server's root for
// a cache of its own.
TEST(Clearing, OfAClientAfterAServerLeavesTheServersRootAlone) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache(1, 7);
    cache.Stop();
    WriteFile(cache.dir.path / "12" / "of somebody else", "x");
    cache.manager->Initialize(CRtString(cache.dir.path.string()), 0, 0);
    cache.Stop();
    EXPECT_EQ(Files(cache.dir.path), 1U);
}

// Links inside the tree lead out of it, and change places with directories while the clearing runs.
TEST(Clearing, FollowsNoLinkOutOfTheCache) {
    LogCapture quiet(RT_LOG_SILENT);
    const TempDir outside;
    for (int i = 0; i < 50; ++i)
        WriteFile(outside.path / std::to_string(i) / "kept", "x");
    const size_t before = Files(outside.path);
    Cache cache(0, 0);
    cache.Stop();
    const fs::path root = cache.dir.path / "confcache";
    std::atomic<bool> stop{false};
    std::thread swapper([&] {
        std::error_code ignored;
        while (!stop) {
            for (int i = 0; i < 20 && !stop; ++i) {
                const fs::path place = root / "tree" / std::to_string(i);
                fs::rename(place, root / "aside", ignored);
                fs::create_directory_symlink(outside.path, place, ignored);
                fs::rename(place, root / "aside link", ignored);
                fs::rename(root / "aside", place, ignored);
            }
        }
    });
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    while (std::chrono::steady_clock::now() < end) {
        std::error_code ignored;
        fs::create_directories(root / "tree", ignored);
        for (int i = 0; i < 20; ++i) {
            fs::create_directories(root / "tree" / std::to_string(i) / "sub", ignored);
            fs::create_symlink(outside.path / "0" / "kept", root / "tree" / "file link", ignored);
            fs::create_directory_symlink(outside.path, root / "tree" / "link", ignored);
        }
        CFileManager::RemoveDir(CRtString(root.string() + "\\"));
    }
    stop = true;
    swapper.join();
    cache.Start();
    cache.Stop(); // the next clearing finishes the work
    EXPECT_FALSE(fs::exists(root));
    EXPECT_EQ(Files(outside.path), before);
    // The root itself is a link: nothing beyond it goes, nor does the link while a process works there.
    const OtherProcess other;
    WriteFile(outside.path / std::to_string(other.id) / "kept", "x");
    fs::create_directory_symlink(outside.path, root);
    cache.Start();
    cache.Stop();
    EXPECT_TRUE(fs::is_symlink(root));
    EXPECT_TRUE(fs::exists(outside.path / std::to_string(other.id) / "kept"));
    fs::remove_all(outside.path / std::to_string(other.id));
    fs::remove_all(outside.path / std::to_string(getpid()));
    CFileManager::RemoveDir(CRtString(root.string() + "\\"));
    EXPECT_FALSE(fs::is_symlink(root)); // the link itself goes
    EXPECT_EQ(Files(outside.path), before);
}

TEST(HouseKeeping, TakesWhatIsExpiredTemporaryOrUnreadable) {
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
        clock.Advance(60'000);
        cache.thread.RunDue();
        while (CFileManager::Instance()->IsHouseKeepingPosted())
            std::this_thread::yield();
    };
    run();
    for (const FMFileID& id : kept)
        EXPECT_TRUE(fs::exists(cache.Path(id, ".sdd")) && fs::exists(cache.Path(id, ".sdi")));
    for (const FMFileID& id : gone)
        EXPECT_FALSE(fs::exists(cache.Path(id, ".sdd")) || fs::exists(cache.Path(id, ".sdi")));
    EXPECT_TRUE(fs::exists(cache.Path(open->GetFileInfo().fileID, ".sdd")));
    EXPECT_TRUE(fs::exists(cache.Path(made->GetFileInfo().fileID, ".sdd")));
    EXPECT_TRUE(fs::exists(store / ".sdd") && fs::exists(store / "directory.sdd"));
    EXPECT_FALSE(fs::exists(store / "no identifier.sdd"));
    // A clock that is set back by a year, and forward again: each is a run, and nothing new goes.
    for (const int64_t jump : {-365 * day, 365 * day}) {
        clock.seconds += jump;
        WriteFile(store / "witness.sdd", "");
        run();
        EXPECT_FALSE(fs::exists(store / "witness.sdd"));
        EXPECT_TRUE(fs::exists(cache.Path(kept[1], ".sdd")));
    }
}

TEST(HouseKeeping, OverThousandsOfFilesHoldsNobodyUpAndTakesNoOpenFile) {
    TestClock clock;
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache(1, 0);
    const int64_t now = clock.seconds;
    std::vector<FMFileID> expired;
    std::vector<FMFileID> fresh;
    std::vector<FileRef> open;
    for (int i = 0; i < 10'000; ++i) {
        const FMFileID id = Leave(cache, i % 2 == 0 ? now - 10 * 86'400 : now);
        if (i % 20 == 0) {
            open.push_back(cache.Open(id));
            ASSERT_TRUE(open.back());
        } else {
            (i % 2 == 0 ? expired : fresh).push_back(id);
        }
    }
    clock.Advance(60'000);
    cache.thread.RunDue();
    std::mt19937 random(3);
    std::set<std::string> taken; // what the caller opened in time and has not closed
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
                taken.erase(stem);
            } else {
                taken.insert(stem);
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
    for (const std::string& stem : taken)
        EXPECT_TRUE(fs::exists(cache.dir.path / "sdstore" / (stem + ".sdd")));
    open.clear();
    cache.Stop();
    cache.Start();
}
