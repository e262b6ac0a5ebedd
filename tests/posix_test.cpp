// POSIX only: modes and permissions, the user's home and cache directories, races of links with directories,
// and directories that are removed while in use.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "FMCatalog.h"
#include "testing/kit.h"
#include "util/filemanager/filemanager.h"
#include "util/runtime/os/RtOs.h"

TEST(DataDir, DirectoriesAndFilesAreForTheirUserOnly) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache(0);
    const FileRef file = cache.Create();
    const fs::path data = cache.Path(file->GetFileInfo().fileID, ".sdd");
    Write(*Cache::Block(*file, 1), "bytes");
    FMWaitUntilIdle();
    EXPECT_EQ(fs::status(data.parent_path()).permissions(), fs::perms(0700));
    EXPECT_EQ(fs::status(data).permissions(), fs::perms(0600));
}

TEST(DataDir, CreateDirCreatesParentsWithAnyMixOfSeparators) {
    const TempDir dir;
    LogCapture log;
    const std::string base = dir.path.string();
    EXPECT_EQ(CFileManager::CreateDir(CRtString(base + "\\a/b//\\c\\")), 0);
    EXPECT_TRUE(fs::is_directory(dir.path / "a" / "b" / "c"));
    EXPECT_EQ(log.Count("CFileManager::CreateDir. mkdir:"), 3U);
    WriteFile(dir.path / "file", "");
    EXPECT_EQ(CFileManager::DirExists(CRtString(base + "\\file")), 0);
    EXPECT_EQ(CFileManager::CreateDir(CRtString(base + "\\file\\below")), 0);
    CFileManager::CreateDir(CRtString("\\" + std::string(300, 'n'))); // too long a name
    EXPECT_EQ(log.Count("CFileManager::CreateDir. mkdir Error. Dir: "), 3U);
    EXPECT_EQ(CFileManager::DirExists(""), 0);
    fs::create_directory(dir.path / "a/b/d");
    CFileManager::RemoveDir(CRtString(base + "\\a\\"));
    for (const char* removed : {"c\\", "d\\"})
        EXPECT_EQ(log.Count("CFileManager::RemoveDir. Dir:" + base + "\\a\\b\\" + removed), 1U);
    EXPECT_FALSE(fs::exists(dir.path / "a"));
}

class IsXdgCacheHomeSet : public testing::TestWithParam<bool> {};
INSTANTIATE_TEST_SUITE_P(DataDir, IsXdgCacheHomeSet, testing::Bool(),
                         testing::PrintToStringParamName());

// The default root is the user's cache directory, which contains other files too.
TEST_P(IsXdgCacheHomeSet, BlankRootSelectsTheUsersCacheDirectoryAndClearingKeepsItsOtherFiles) {
    LogCapture quiet(RT_LOG_SILENT);
    const TempDir home;
    const fs::path root = home.path / (GetParam() ? "elsewhere" : ".cache");
    setenv("HOME", home.path.c_str(), 1);
    setenv("XDG_CACHE_HOME", GetParam() ? root.c_str() : "", 1);
    WriteFile(home.path / "letter", "x");
    WriteFile(root / "12" / "foreign file", "x");
    WriteFile(root / "sdstore" / "left over", "x");
    const CRtCallerThread callerThread;
    IFileManager::Instance()->Initialize("   ", 0, 1);
    EXPECT_TRUE(fs::is_empty(root / "sdstore"));
    IFileManager::Instance()->UnInitialize();
    EXPECT_EQ(CountFiles(home.path), 2U);
}

// A file that cannot be removed stays, and so do its parent directories.
TEST(Clearing, LaterClearingRemovesFilesThatAnEarlierOneCouldNot) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache(0, 0);
    cache.Stop();
    const fs::path root = cache.dir.path / "confcache";
    const fs::path locked = root / "0" / "locked";
    WriteFile(locked / "file", "x");
    WriteFile(root / "0" / "free" / "file", "x");
    fs::permissions(locked, fs::perms(0500));
    fs::create_directory(root / "closed");
    fs::permissions(root / "closed", fs::perms(0)); // cannot be opened, but is empty
    const uid_t user = geteuid();
    if (user == 0) { // root ignores permissions
        constexpr uid_t ordinary = 65534;
        for (const fs::path& path :
             {cache.dir.path, root, root / "0", root / "0/free", locked, root / "closed"})
            ASSERT_EQ(chown(path.c_str(), ordinary, ordinary), 0);
        ASSERT_EQ(seteuid(ordinary), 0);
    }
    cache.Start();
    EXPECT_TRUE(fs::exists(locked / "file"));
    EXPECT_FALSE(fs::exists(root / "0" / "free") || fs::exists(root / "closed"));
    fs::permissions(locked, fs::perms(0700));
    cache.Stop();
    EXPECT_FALSE(fs::exists(root));
    EXPECT_EQ(seteuid(user), 0);
}

// Links in the tree lead out of it; a thread swaps them with directories while the clearing runs.
TEST(Clearing, FollowsNoLinkOutOfTheCache) {
    LogCapture quiet(RT_LOG_SILENT);
    const TempDir outside;
    for (int i = 0; i < 50; ++i)
        WriteFile(outside.path / std::to_string(i) / "kept", "x");
    Cache cache(0, 0);
    cache.Stop();
    const fs::path root = cache.dir.path / "confcache";
    const auto place = [&](int i) { return root / "tree" / std::to_string(i % 20); };
    std::jthread swapper([&](const std::stop_token& end) {
        std::error_code ignored;
        for (int i = 0; !end.stop_requested(); ++i) {
            fs::rename(place(i), root / "aside", ignored);
            fs::create_directory_symlink(outside.path, place(i), ignored);
            fs::rename(place(i), root / "aside link", ignored);
            fs::rename(root / "aside", place(i), ignored);
        }
    });
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    while (std::chrono::steady_clock::now() < end) {
        std::error_code ignored;
        for (int i = 0; i < 20; ++i)
            fs::create_directories(place(i) / "sub", ignored);
        fs::create_symlink(outside.path / "0" / "kept", root / "tree" / "file link", ignored);
        fs::create_directory_symlink(outside.path, root / "tree" / "link", ignored);
        CFileManager::RemoveDir(CRtString(root.string() + "\\"));
    }
    swapper.request_stop();
    swapper.join();
    cache.Start();
    cache.Stop(); // the next clearing finishes the work
    EXPECT_FALSE(fs::exists(root));
    EXPECT_EQ(CountFiles(outside.path), 50U);
    // The root itself is a link: its target is kept, and so is the link while another process uses the cache.
    IdleProcess other;
    const std::string id = std::to_string(other.Id());
    const TempDir target;
    WriteFile(target.path / id / "kept", "x");
    WriteFile(target.path / "loose", "x");
    fs::create_directory_symlink(target.path, root);
    cache.Start();
    EXPECT_TRUE(fs::is_symlink(root));
    other.End();
    cache.Stop();
    EXPECT_FALSE(fs::is_symlink(root)); // the link itself is removed
    EXPECT_EQ(CountFiles(target.path), 2U);
}

// What the catalog predicts for pipes, links and directories is what the run does.
TEST(HouseKeeping, EntriesThatAreNoRegularFilesDoNotLeadOutOfTheStore) {
    const LogCapture log;
    const TempDir outside;
    WriteFile(outside.path / "precious", "precious");
    Cache cache(1, 7);
    const int64_t now = CRtTimeValue::GetTimeOfDay().GetSec();
    std::vector<FMFileID> ids;
    for (const int64_t createTime : {int64_t{1}, now, int64_t{1}, now, int64_t{1}, now}) {
        const FMFileInfo info = Description();
        ids.push_back(info.fileID);
        WriteFile(cache.Path(info.fileID, ".sdi"), InfoFile(info, {2, '\0'}, createTime));
    }
    const auto data = [&](int i) { return cache.Path(ids[i], ".sdd"); };
    const auto info = [&](int i) { return cache.Path(ids[i], ".sdi"); };
    mkfifo(data(0).c_str(), 0600);
    mkfifo(data(1).c_str(), 0600);
    fs::create_symlink(outside.path / "precious", data(2));
    fs::remove(info(2));
    fs::remove(info(3));
    fs::create_directory(info(3));
    WriteFile(data(3), "bytes");
    fs::create_directory(data(4));
    fs::remove(info(5));
    fs::create_symlink(outside.path / "none", info(5));
    WriteFile(data(5), "bytes");
    WriteFile(cache.dir.path / "victim.sdd", "kept");
    WriteFile(cache.dir.path / "sdstore" / "..\\victim.sdd", ""); // a backslash in a name

    EXPECT_FALSE(cache.Open(ids[5])); // a dangling link: can be neither opened nor created
    std::vector<CRtString> stems{"former"};
    std::vector<CRtString> others{"former"};
    EXPECT_EQ(FMListCachedFiles("", stems, others), RT_OK);
    EXPECT_EQ(stems.size(), 6U);
    EXPECT_EQ(others.size(), 4U); // 2 directories, the link to an information file, the backslash
    FMCachedFile file;
    EXPECT_EQ(FMDescribeCachedFile("", "..\\victim", file), RT_ERROR_INVALID_ARG);
    std::vector<FMExpiry::When> predicted;
    for (const FMFileID& id : ids) {
        EXPECT_EQ(FMDescribeCachedFile("", FMFileIDToString(id), file), RT_OK);
        predicted.push_back(FMJudgeExpiry(file, 7, now).when);
    }
    using enum FMExpiry::When;
    EXPECT_EQ(predicted, (std::vector{NextRun, Later, NextRun, Unknown, Never, NextRun}));
    WriteFile(cache.dir.path / "sdstore" / "\x1B[2J.sdd", "x");
    FMStartHousekeeping();
    FMWaitUntilIdle();
    EXPECT_GT(log.Count("\\x1B[2J.sdd"), 0U); // cannot control the terminal
    const auto exists = [](const fs::path& path) { return fs::exists(fs::symlink_status(path)); };
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(exists(data(i)), predicted[i] != NextRun) << i;
        EXPECT_EQ(exists(info(i)), predicted[i] != NextRun) << i;
    }
    const CRtString store((cache.dir.path / "sdstore").string());
    EXPECT_EQ(FMRemoveCachedFile(store, FMFileIDToString(ids[3]), false), RT_ERROR_IO);
    EXPECT_TRUE(exists(data(3)));
    EXPECT_EQ(FMRemoveCachedFile(store, FMFileIDToString(ids[1]), false), RT_OK);
    EXPECT_FALSE(exists(data(1)));
    EXPECT_TRUE(fs::exists(cache.dir.path / "victim.sdd"));
    EXPECT_EQ(ReadFile(outside.path / "precious"), "precious");
    EXPECT_FALSE(fs::exists(outside.path / "none"));
}

TEST(Fingerprint, FileTimesBeyondTheYear2262DoNotOverflow) {
    const TempDir dir;
    const fs::path path = dir.path / "file";
    WriteFile(path, "bytes");
    constexpr time_t far = 11'000'000'000; // in the year 2318
    std::vector<RtOs::FileStamp> stamps;
    for (const timespec time : {timespec{far, 5}, timespec{far, 6}, timespec{far + 1, 5}}) {
        const timespec times[] = {time, time};
        struct stat info {};
        ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
        ASSERT_EQ(stat(path.c_str(), &info), 0);
        if (info.st_mtim.tv_sec != time.tv_sec || info.st_mtim.tv_nsec != time.tv_nsec)
            GTEST_SKIP() << "this file system has no such times";
        ASSERT_TRUE(RtOs::GetStamp(CRtString(path.string()), stamps.emplace_back()));
    }
    EXPECT_FALSE(stamps[0] == stamps[1] || stamps[0] == stamps[2] || stamps[1] == stamps[2]);
}

TEST(Clearing, RemovesATreeDeeperThanTheDescriptorLimit) {
    LogCapture quiet(RT_LOG_SILENT);
    const TempDir dir;
    const TempDir outside;
    WriteFile(outside.path / "kept", "x");
    fs::path path = dir.path / "tree";
    for (int depth = 0; depth < 300; ++depth) {
        path /= "d";
        WriteFile(path / "file", "x");
        fs::create_directory_symlink(outside.path, path / "link");
        fs::create_directory(path / "empty");
    }
    ASSERT_TRUE(LimitStreams(64));
    CFileManager::RemoveDir(CRtString((dir.path / "tree").string() + "\\"));
    EXPECT_FALSE(fs::exists(dir.path / "tree"));
    EXPECT_EQ(CountFiles(outside.path), 1U);
}

// If a directory is moved out of the tree during the removal, ".." leads out of the tree.
TEST(DirectoryWalk, LeaveDoesNotEnterAnotherDirectory) {
    const TempDir dir;
    const TempDir outside;
    fs::create_directories(dir.path / "a" / "b");
    RtOs::DirectoryWalk walk(CRtString(dir.path.string()));
    ASSERT_TRUE(walk.Enter("a") && walk.Enter("b"));
    ASSERT_TRUE(walk.Leave() && walk.Enter("b"));
    fs::rename(dir.path / "a" / "b", outside.path / "b");
    EXPECT_FALSE(walk.Leave());
    EXPECT_FALSE(walk.IsOpen());
}

TEST(Mistakes, ARelativeDataDirectoryWithoutAParentIsReported) {
    LogCapture log(RT_LOG_ERROR);
    {
        const TempDir removed;
        fs::current_path(removed.path);
    }
    const Cache cache(fs::path("relative"));
    EXPECT_EQ(log.Count("stay in memory only: relative: ENOENT "), 1U);
}

TEST(Mistakes, AMistakeStopsTheProcessInItsDebugger) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) { // this test is its debugger
        LogCapture quiet(RT_LOG_SILENT);
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        FileRef file;
        IFileManager::Instance()->CreateFile(file.Receive(), Description());
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSTOPPED(status) && WSTOPSIG(status) == SIGTRAP) << status;
    ptrace(PTRACE_CONT, child, nullptr, nullptr);
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}
