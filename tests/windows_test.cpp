// Windows only: drives, attributes, directory links, open files that cannot be removed, and processes that
// share a cache, which are started here instead of forked.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <thread>

#include "FMCatalog.h"
#include "testing/kit.h"
#include "util/filemanager/filemanager.h"

// After the library's headers; support_windows.cpp includes it before them.
#include <windows.h>
#undef CreateFile

static_assert(sizeof(void*) == 4 && sizeof(long) == 4);

// As in support_windows.cpp.
PROCESS_INFORMATION StartProcess(const std::string& program, std::string line, uint32_t flags);
std::string OwnProgram();

namespace {

constexpr char OTHERS_DIR[] = "FILEMANAGER_OTHERS_DIR";
constexpr char FINISHED[] = "{00000000-0000-4000-8000-000000000001}";
constexpr char OPEN[] = "{00000000-0000-4000-8000-000000000002}";

FMFileInfo Described(const char* id) {
    FMFileInfo info = Description();
    FMFileIDFromString(id, info.fileID);
    return info;
}

// Runs a disabled test case of this program in another process until Kill.
class OtherProcess {
public:
    OtherProcess(const TempDir& dir, const std::string& testCase) {
        SetVariable(OTHERS_DIR, dir.path.string());
        m_info = StartProcess(
            OwnProgram(), "other --gtest_also_run_disabled_tests --gtest_filter=" + testCase, 0);
        while (!fs::exists(dir.path / "ready") &&
               WaitForSingleObject(m_info.hProcess, 10) == WAIT_TIMEOUT) {
        }
    }
    void Kill() {
        TerminateProcess(m_info.hProcess, 1);
        WaitForSingleObject(m_info.hProcess, INFINITE);
        CloseHandle(m_info.hProcess);
    }

private:
    PROCESS_INFORMATION m_info{};
};

[[noreturn]] void StayUntilKilled(const TempDir& dir) {
    WriteFile(dir.path / "ready", "");
    std::this_thread::sleep_for(std::chrono::hours(1));
    std::_Exit(1);
}

} // namespace

// The other process: stores and closes one file, and keeps a second one open with a stored block.
TEST(DISABLED_Other, StoresAndStays) {
    const TempDir dir(fs::path(std::getenv(OTHERS_DIR)));
    Cache cache(dir.path);
    for (const char* id : {FINISHED, OPEN}) {
        FileRef file = cache.Create(Described(id));
        Write(*Cache::Block(*file, 1), Pattern(1, 5000));
        if (id == FINISHED)
            cache.Close(file);
        FMWaitUntilIdle();
    }
    StayUntilKilled(dir);
}

TEST(Windows, ServerLocksItsOpenFilesAndAKillLosesNoStoredFile) {
    TestClock clock;
    LogCapture log(RT_LOG_WARNING);
    const TempDir dir;
    OtherProcess other(dir, "DISABLED_Other.StoresAndStays");
    Cache cache(dir.path);
    FMCachedFile found;
    for (const char* id : {FINISHED, OPEN}) {
        EXPECT_EQ(FMDescribeCachedFile("", id, found), RT_OK);
        EXPECT_EQ(found.isOpenElsewhere, id == OPEN);
    }
    FileRef mine = cache.Create(Described(OPEN));
    Write(*Cache::Block(*mine, 1), Pattern(4, 300));
    clock.Advance(int64_t{100} * 86400 * 1000);
    FMWaitUntilIdle(); // housekeeping finds the open file expired and keeps it
    EXPECT_TRUE(ReadFile(cache.Path(Described(OPEN).fileID, ".sdd")) == Pattern(1, 5000));
    EXPECT_EQ(Read(*Cache::Block(*mine, 1)), Pattern(4, 300));
    cache.Stop();
    cache.manager->Initialize({}, 0, 1); // would clear the store
    cache.Stop();
    EXPECT_EQ(log.Count("CFileManager::ClearDiskCache, another process uses the store"), 2U);
    other.Kill();
    cache.Start();
    EXPECT_FALSE(cache.Open(Described(OPEN).fileID)); // never closed: has no information file
    const FileRef file = cache.Open(Described(FINISHED).fileID);
    ASSERT_TRUE(file);
    EXPECT_TRUE(Read(*Cache::Block(*file, 1, 0)) == Pattern(1, 5000));
}

TEST(Windows, LaterClearingRemovesFilesThatWereOpenAndFollowsNoDirectoryLink) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache(0, 0);
    EXPECT_TRUE(GetFileAttributesA((cache.dir.path / "confcache").string().c_str()) &
                FILE_ATTRIBUTE_HIDDEN);
    cache.Stop();
    const fs::path root = cache.dir.path / "confcache";
    const TempDir outside;
    WriteFile(outside.path / "kept", "x");
    WriteFile(root / "0" / "free" / "file", "x");
    WriteFile(root / "0" / "held" / "file", "x");
    const bool isJunction = MakeDirectoryLink(outside.path, root / "0" / "link");
    ASSERT_TRUE(fs::exists(root / "0" / "link" / "kept"));
    FILE* held = std::fopen((root / "0" / "held" / "file").string().c_str(), "rb");
    ASSERT_TRUE(held);
    cache.Start();
    EXPECT_TRUE(fs::exists(root / "0" / "held" / "file"));
    EXPECT_FALSE(fs::exists(root / "0" / "free"));
    EXPECT_TRUE(fs::exists(outside.path / "kept"));
    std::fclose(held);
    cache.Stop();
    EXPECT_TRUE(fs::exists(outside.path / "kept"));
    EXPECT_FALSE(fs::exists(root / "0" / "held"));
    EXPECT_EQ(fs::exists(root), !isJunction); // the emulator does not remove its own links
}

TEST(Windows, StoreDoesNotHangIfTheDataFileIsADanglingLink) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    const FMFileInfo info = Description();
    const fs::path target = cache.dir.path / "target";
    fs::create_directory(target);
    MakeDirectoryLink(target, cache.Path(info.fileID, ".sdd"));
    fs::remove(target);
    const FileRef file = cache.Create(info);
    Write(*Cache::Block(*file, 1), "bytes");
    FMWaitUntilIdle();
    EXPECT_EQ(Read(*Cache::Block(*file, 1)), "bytes");
}

TEST(Windows, DefaultRootIsTheFixedDriveWithTheMostFreeSpace) {
    LogCapture log;
    const CRtCallerThread callerThread;
    IFileManager::Instance()->Initialize("", 7, 1);
    IFileManager::Instance()->UnInitialize();
    const std::string line = "CFileManager::SetDataDir, data dir=";
    const size_t at = log.Text().find(line);
    ASSERT_NE(at, std::string::npos);
    const std::string chosen = log.Text().substr(at + line.size(), 3);
    EXPECT_TRUE(fs::remove(chosen + "sdstore"));
    EXPECT_EQ(GetDriveTypeA(chosen.c_str()), DRIVE_FIXED);
    char drives[512] = {};
    ASSERT_GT(GetLogicalDriveStringsA(sizeof(drives), drives), 0U);
    for (const char* drive = drives; *drive; drive += std::string(drive).size() + 1) {
        constexpr uint64_t usedMeanwhile = uint64_t{1} << 30;
        std::error_code error;
        const fs::space_info space = fs::space(drive, error);
        if (!error && GetDriveTypeA(drive) == DRIVE_FIXED) {
            EXPECT_GE(fs::space(chosen).available + usedMeanwhile, space.available) << drive;
        }
    }
}

// A root that ends in a slash gets a backslash appended.
TEST(Windows, SlashesAreAcceptedAsSeparators) {
    LogCapture log(RT_LOG_WARNING);
    const TempDir dir;
    const CRtCallerThread callerThread;
    const std::string path = (dir.path / "made").generic_string() + "/";
    IFileManager::Instance()->Initialize(CRtString(path), 7, 1);
    EXPECT_TRUE(fs::is_directory(dir.path / "made" / "sdstore"));
    IFileManager::Instance()->UnInitialize();
    EXPECT_EQ(log.Text(), "");
}

TEST(Windows, HousekeepingIgnoresTheCaseOfExtensions) {
    TestClock clock;
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache(1, 7);
    const fs::path store = cache.dir.path / "sdstore";
    for (const char* name : {"one.SDD", "two.Sdd", "three.sdd"})
        WriteFile(store / name, "unreadable");
    WriteFile(store / "kept.sddx", "other");
    clock.Advance(60'000);
    FMWaitUntilIdle();
    EXPECT_EQ(CountFiles(store), 1U);
    EXPECT_TRUE(fs::exists(store / "kept.sddx"));
}
