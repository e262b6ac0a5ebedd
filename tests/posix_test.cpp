// What is so on POSIX systems alone: modes and permissions, the user's own directories, links that change
// places with directories, directories that are removed while they are in use.
#include <gtest/gtest.h>
#include <unistd.h>

#include <thread>

#include "support.h"
#include "util/filemanager/filemanager.h"

namespace {

size_t Files(const fs::path& path) {
    const fs::recursive_directory_iterator all(path);
    return static_cast<size_t>(std::count_if(
        begin(all), end(all), [](const auto& entry) { return entry.is_regular_file(); }));
}

} // namespace

TEST(DataDir, ComesBackWhenItIsRemovedWhileTheSystemRuns) {
    LogCapture log;
    Cache cache(0);
    const FileRef file = cache.Create();
    const FMFileID id = file->GetFileInfo().fileID;
    Write(*Cache::Block(*file, 1), "first");
    cache.Settle();
    const fs::path dataDir = cache.Path(id, "").parent_path();
    EXPECT_EQ(fs::status(dataDir).permissions(), fs::perms(0700));
    EXPECT_EQ(fs::status(cache.Path(id, ".sdd")).permissions(), fs::perms(0600));
    EXPECT_EQ(dataDir.filename(), std::to_string(getpid()));
    fs::remove_all(dataDir.parent_path());
    const FileRef other = cache.Create();
    Write(*Cache::Block(*other, 1), "second");
    cache.Settle();
    EXPECT_EQ(ReadFile(cache.Path(other->GetFileInfo().fileID, ".sdd")), "second");
    EXPECT_EQ(log.Count("CFileManager::CreateDir. mkdir:"), 4U);
    EXPECT_EQ(log.Count("CFileManager::SetDataDir, data dir=" + cache.dir.path.string() +
                        "\\confcache\\" + std::to_string(getpid()) + "\\"),
              1U);
}

TEST(DataDir, IsMadeWithItsParentsWhateverTheSeparators) {
    const TempDir dir;
    LogCapture log;
    const std::string base = dir.path.string();
    EXPECT_EQ(CFileManager::CreateDir(CRtString(base + "\\a/b//\\c\\")), 0);
    EXPECT_TRUE(fs::is_directory(dir.path / "a" / "b" / "c"));
    EXPECT_EQ(log.Count("CFileManager::CreateDir. mkdir:"), 3U);
    EXPECT_EQ(CFileManager::DirExists(CRtString(base + "\\a\\b\\")), 1);
    WriteFile(dir.path / "file", "");
    EXPECT_EQ(CFileManager::DirExists(CRtString(base + "\\file")), 0);
    EXPECT_EQ(CFileManager::FileExists(CRtString(base + "\\file")), 1);
    EXPECT_EQ(CFileManager::FileExists(CRtString(base + "\\a")), 1);
    EXPECT_EQ(CFileManager::CreateDir(CRtString(base + "\\file\\below")), 0);
    EXPECT_EQ(log.Count("CFileManager::CreateDir. mkdir Error. Dir: "), 2U);
    CFileManager::RemoveDir(CRtString(base + "\\a\\"));
    EXPECT_FALSE(fs::exists(dir.path / "a"));
}

TEST(DataDir, OfBlanksOnlyIsTheUsersOwn) {
    const TempDir home;
    setenv("XDG_CACHE_HOME", home.path.c_str(), 1);
    LogCapture log;
    const CRtCallerThread three;
    IFileManager::Instance()->Initialize("   ", 7, 1);
    EXPECT_TRUE(fs::is_directory(home.path / "sdstore"));
    EXPECT_EQ(log.Count("CFileManager::GetMaxDrive, GetLogicalDriveStrings len fail"), 1U);
    IFileManager::Instance()->UnInitialize();
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
    const IdleProcess other;
    WriteFile(outside.path / std::to_string(other.Id()) / "kept", "x");
    fs::create_directory_symlink(outside.path, root);
    cache.Start();
    cache.Stop();
    EXPECT_TRUE(fs::is_symlink(root));
    EXPECT_TRUE(fs::exists(outside.path / std::to_string(other.Id()) / "kept"));
    fs::remove_all(outside.path / std::to_string(other.Id()));
    fs::remove_all(outside.path / std::to_string(getpid()));
    CFileManager::RemoveDir(CRtString(root.string() + "\\"));
    EXPECT_FALSE(fs::is_symlink(root)); // the link itself goes
    EXPECT_EQ(Files(outside.path), before);
}

TEST(HouseKeeping, OfNamesThatLeadElsewhereEndsAndTouchesNothingThere) {
    TestClock clock;
    LogCapture quiet(RT_LOG_SILENT);
    const TempDir outside;
    WriteFile(outside.path / "precious", "precious");
    Cache cache(1, 7);
    WriteFile(cache.dir.path / "victim.sdd", "kept");
    WriteFile(cache.dir.path / "sdstore" / "..\\victim.sdd", ""); // the library's separator
    const FMFileID nowhere = Description().fileID;
    const FMFileID elsewhere = Description().fileID;
    fs::create_symlink(outside.path / "none", cache.Path(nowhere, ".sdi"));
    WriteFile(cache.Path(nowhere, ".sdd"), "");
    fs::create_symlink(outside.path / "precious", cache.Path(elsewhere, ".sdd"));
    EXPECT_FALSE(cache.Open(nowhere)); // neither there nor to be made
    clock.Advance(60'000);
    cache.thread.RunDue();
    cache.Stop();
    EXPECT_TRUE(fs::exists(cache.dir.path / "victim.sdd"));
    EXPECT_FALSE(fs::exists(cache.Path(nowhere, ".sdd")));
    EXPECT_FALSE(fs::is_symlink(cache.Path(nowhere, ".sdi")));
    EXPECT_FALSE(fs::is_symlink(cache.Path(elsewhere, ".sdd")));
    EXPECT_EQ(ReadFile(outside.path / "precious"), "precious");
    EXPECT_FALSE(fs::exists(outside.path / "none"));
}
