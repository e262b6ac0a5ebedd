// Several processes in one directory, and files that other processes truncate or remove.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

#include "FMCatalog.h"
#include "RtThread.h"
#include "testing/kit.h"
#include "util/filemanager/filemanager.h"

namespace {

// A process that runs `work` on a cache directory and then pauses until it is killed.
class OtherProcess {
public:
    // Construct before the first use of the manager, so that the child starts with a new manager.
    OtherProcess(const TempDir& dir, int isServer, const std::function<void(IFileManager&)>& work) {
        int ready[2];
        if (pipe(ready) != 0 || (m_pid = fork()) < 0)
            throw std::runtime_error("no other process");
        if (m_pid == 0) {
            const CRtCallerThread callerThread;
            IFileManager* manager = IFileManager::Instance();
            manager->Initialize(CRtString(dir.path.string()), 7, isServer);
            work(*manager);
            const bool told = write(ready[1], "!", 1) == 1;
            pause();
            std::_Exit(told ? EXIT_SUCCESS : EXIT_FAILURE);
        }
        close(ready[1]);
        char byte = 0;
        m_isReady = read(ready[0], &byte, 1) == 1;
        close(ready[0]);
    }
    ~OtherProcess() { Kill(); }
    OtherProcess(const OtherProcess&) = delete;
    OtherProcess& operator=(const OtherProcess&) = delete;

    bool IsReady() const { return m_isReady; }
    pid_t Id() const { return m_pid; }
    void Kill() {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
        m_pid = 0;
    }

private:
    pid_t m_pid = 0;
    bool m_isReady = false;
};

// Creates a file and stores its block 1.
FileRef Store(IFileManager& manager, const FMFileInfo& info, uint32_t seed) {
    FileRef file;
    BlockRef block;
    manager.CreateFile(file.Receive(), info);
    file->GetBlock(block.Receive(), 1, 1);
    Write(*block, Pattern(seed, 5000));
    FMWaitUntilIdle();
    return file;
}

// Each call of the clock advances it by two seconds, so that every check that is due once per second is due. A
// chosen call runs an action, on the thread that looks.
class SteppingClock final : public IRtClock {
public:
    SteppingClock() { RtSetClock(this); }
    ~SteppingClock() override { RtSetClock(nullptr); }
    uint64_t TickCountMs() override {
        const std::lock_guard lock(m_mutex);
        if (m_left > 0 && --m_left == 0)
            m_action();
        return m_tick += 2000;
    }
    CRtTimeValue TimeOfDay() override { return CRtTimeValue(1'700'000'000, 0); }
    void Arm(int calls, std::function<void()> action) {
        const std::lock_guard lock(m_mutex);
        m_action = std::move(action);
        m_left = calls;
    }
    // Disarms the clock; true if the action has run.
    bool Disarm() {
        const std::lock_guard lock(m_mutex);
        return std::exchange(m_left, -1) == 0;
    }
    void Advance(uint64_t ms) {
        const std::lock_guard lock(m_mutex);
        m_tick += ms;
    }

private:
    std::mutex m_mutex;
    uint64_t m_tick = 1'000'000;
    int m_left = -1;
    std::function<void()> m_action;
};

} // namespace

TEST(Sharing, ServerLocksItsOpenFilesUntilItIsKilled) {
    TestClock clock;
    LogCapture log(RT_LOG_WARNING);
    const TempDir dir;
    const FMFileInfo old = Description();
    FMFileInfo created = Description();
    const auto earlier = [&](IFileManager& manager) {
        Store(manager, old, 1);
        manager.UnInitialize();
    };
    ASSERT_TRUE(OtherProcess(dir, 1, earlier).IsReady());
    OtherProcess other(dir, 1, [&](IFileManager& manager) {
        FileRef file;
        BlockRef block;
        if (manager.OpenFile(file.Receive(), old.fileID, 1) == 0 &&
            file->GetBlock(block.Receive(), 2, 1) == 0)
            Write(*block, Pattern(2, 100));
        Store(manager, created, 3);
    });
    ASSERT_TRUE(other.IsReady());

    Cache cache(dir.path);
    const size_t handles = CountHandles();
    EXPECT_FALSE(cache.Open(old.fileID));
    EXPECT_EQ(CountHandles(), handles);
    EXPECT_FALSE(cache.Open(created.fileID)); // no information file: the data file is not opened
    EXPECT_EQ(log.Count("CFileManager::LoadFile, another process has the file, fileID="), 1U);
    FMCachedFile file;
    for (const FMFileID& id : {old.fileID, created.fileID}) {
        EXPECT_EQ(FMDescribeCachedFile("", FMFileIDToString(id), file), RT_OK);
        EXPECT_TRUE(file.isOpenElsewhere && !file.isOpenHere);
        EXPECT_TRUE(std::ranges::none_of(file.findings, &FMFinding::isFault));
        EXPECT_EQ(FMJudgeExpiry(file, 7, int64_t{1} << 40).reason, "open");
    }
    EXPECT_FALSE(file.hasInfo);
    const CRtString store((dir.path / "sdstore").string());
    EXPECT_EQ(FMRemoveCachedFile(store, FMFileIDToString(old.fileID), false), RT_ERROR_NOT_READY);
    EXPECT_TRUE(fs::exists(cache.Path(old.fileID, ".sdi")));
    FileRef mine = cache.Create(created);
    EXPECT_EQ(FMDescribeCachedFile("", FMFileIDToString(created.fileID), file), RT_OK);
    EXPECT_TRUE(file.isOpenElsewhere && file.isOpenHere);
    Write(*Cache::Block(*mine, 1), Pattern(4, 300));
    clock.Advance(int64_t{100} * 86400 * 1000);
    FMWaitUntilIdle(); // housekeeping finds both files expired and keeps them
    EXPECT_EQ(Read(*Cache::Block(*mine, 1)), Pattern(4, 300));
    EXPECT_EQ(ReadFile(cache.Path(created.fileID, ".sdd")), Pattern(3, 5000));
    EXPECT_TRUE(fs::exists(cache.Path(old.fileID, ".sdi")));

    // The kill loses its unsaved blocks and releases its locks: the pending store of this process succeeds.
    other.Kill();
    clock.Advance(60'000);
    FMWaitUntilIdle();
    EXPECT_EQ(ReadFile(cache.Path(created.fileID, ".sdd")), Pattern(4, 300));
    FileRef again = cache.Open(old.fileID);
    ASSERT_TRUE(again);
    for (const CRtString& directory : {CRtString(), CRtString((dir.path / "sdstore").string())}) {
        EXPECT_EQ(FMDescribeCachedFile(directory, FMFileIDToString(old.fileID), file), RT_OK);
        EXPECT_TRUE(file.isOpenHere && !file.isOpenElsewhere);
    }
    EXPECT_EQ(Read(*Cache::Block(*again, 1, 0)), Pattern(1, 5000));
    EXPECT_FALSE(Cache::Block(*again, 2, 0));
    EXPECT_EQ(FMRemoveCachedFile(store, file.stem, false),
              RT_ERROR_NOT_READY); // open in this process
    cache.Close(again);
    EXPECT_EQ(FMRemoveCachedFile(store, file.stem, false), RT_OK);
    EXPECT_FALSE(fs::exists(cache.Path(old.fileID, ".sdi")) ||
                 fs::exists(cache.Path(old.fileID, ".sdd")));
    EXPECT_EQ(FMRemoveCachedFile(store, file.stem, true), RT_ERROR_NOT_FOUND);
    EXPECT_EQ(FMRemoveCachedFile(store, "..\\x", true), RT_ERROR_INVALID_ARG);
}

TEST(Sharing, QueryOfTheLockNeverMakesAnOpenFail) {
    LogCapture quiet(RT_LOG_SILENT);
    const TempDir dir;
    const FMFileInfo info = Description();
    const CRtString store((dir.path / "sdstore").string());
    const auto query = [&](IFileManager& manager) {
        Store(manager, info, 1);
        manager.UnInitialize();
        std::thread([&] {
            for (FMCachedFile file;;)
                FMDescribeCachedFile(store, FMFileIDToString(info.fileID), file);
        }).detach();
    };
    const OtherProcess first(dir, 1, query);
    ASSERT_TRUE(first.IsReady());
    Cache cache(dir.path);
    for (int i = 0; i < 3000; ++i) {
        FileRef file = cache.Open(info.fileID);
        ASSERT_TRUE(file) << i;
        cache.Close(file);
    }
}

TEST(Sharing, ClearingKeepsDirectoriesThatOtherProcessesUse) {
    for (const int isServer : {1, 0}) {
        LogCapture log(RT_LOG_WARNING);
        const TempDir dir;
        OtherProcess other(dir, isServer,
                           [](IFileManager& manager) { Store(manager, Description(), 1); });
        ASSERT_TRUE(other.IsReady());
        fs::path used = dir.path / (isServer ? "sdstore" : "confcache");
        if (!isServer) { // as in another container: no process here has that identifier
            fs::rename(used / std::to_string(other.Id()), used / "999999999");
            used /= "999999999";
        }
        const auto clear = [&](IFileManager& manager) {
            manager.UnInitialize();
            manager.Initialize({}, 0, isServer); // clears at start and at end
            manager.UnInitialize();
        };
        ASSERT_TRUE(OtherProcess(dir, isServer, clear).IsReady());
        EXPECT_FALSE(fs::is_empty(used));
        other.Kill();
        ASSERT_TRUE(OtherProcess(dir, isServer, clear).IsReady());
        EXPECT_FALSE(fs::exists(used));
    }
}

// A process that clears holds the exclusive lock on the directory, as this test does.
TEST(Sharing, ServerWaitsForAClearingProcessThenHoldsTheSharedLock) {
    TestClock clock;
    const TempDir dir;
    const fs::path store = dir.path / "sdstore";
    const auto takeAlone = [&store] {
        const int fd = open(store.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        return std::pair(fd, flock(fd, LOCK_EX | LOCK_NB) == 0);
    };
    fs::create_directory(store);
    const auto [fd, isAlone] = takeAlone();
    ASSERT_TRUE(isAlone);
    std::atomic<bool> cleared{false};
    std::thread clearing([&cleared, held = fd] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        cleared = true;
        close(held);
    });
    Cache cache(dir.path);
    EXPECT_TRUE(cleared);
    clearing.join();
    EXPECT_FALSE(takeAlone().second);
    fs::rename(store, dir.path / "aside");
    fs::create_directory(store);
    clock.Advance(60'000);
    FMWaitUntilIdle();
    EXPECT_FALSE(takeAlone().second);
}

TEST(Sharing, FileChangedWhileItsStreamWasClosedIsNotWritten) {
    LogCapture log(RT_LOG_WARNING);
    ASSERT_TRUE(LimitStreams(64)); // the library uses half of them
    Cache cache;
    std::vector<FileRef> files;
    for (uint32_t i = 0; i < 40; ++i) {
        files.push_back(cache.Create());
        Write(*Cache::Block(*files.back(), 1), Pattern(i, 100));
        FMWaitUntilIdle();
    }
    const fs::path path = cache.Path(files[0]->GetFileInfo().fileID, ".sdd");
    WriteFile(path, Pattern(99, 200));
    Write(*Cache::Block(*files[0], 2), Pattern(2, 300));
    FMWaitUntilIdle();
    EXPECT_EQ(ReadFile(path), Pattern(99, 200));
    EXPECT_EQ(Read(*Cache::Block(*files[0], 2)), Pattern(2, 300));
    EXPECT_EQ(log.Count("another process has changed the file, filename="), 1U);
}

TEST(Sharing, TruncatedBytesDoNotComeBackAsZeros) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    FileRef file = cache.Create();
    const FMFileID id = file->GetFileInfo().fileID;
    for (uint32_t i = 1; i <= 3; ++i)
        Write(*Cache::Block(*file, i), Pattern(i, 1000));
    cache.Close(file);
    FMWaitUntilIdle();
    fs::resize_file(cache.Path(id, ".sdd"), 1500);
    file = cache.Open(id);
    ASSERT_TRUE(file);
    EXPECT_EQ(Read(*Cache::Block(*file, 3)), "error 10001");
    CountingSink sink;
    EXPECT_EQ(Cache::Block(*file, 2)->ReadData(&sink), 0);
    FMWaitUntilIdle();
    EXPECT_EQ(sink.results, std::vector<int>{RT_ERROR_IO});
    Write(*Cache::Block(*file, 4), Pattern(4, 1000)); // extends the data file beyond the cut
    FMWaitUntilIdle();
    const auto onDisk = [&](const char* extension) { return ReadFile(cache.Path(id, extension)); };
    const std::string info = onDisk(".sdi"), data = onDisk(".sdd"); // the state after a crash
    for (const uint32_t lost : {2U, 3U})
        EXPECT_EQ(Read(*Cache::Block(*file, lost, 0)), "error 10001");
    cache.Close(file);
    cache.Stop();
    WriteFile(cache.Path(id, ".sdi"), info);
    WriteFile(cache.Path(id, ".sdd"), data);
    cache.Start();
    file = cache.Open(id);
    EXPECT_TRUE(!file || Read(*Cache::Block(*file, 2, 0)).starts_with("error 1"));
}

TEST(Sharing, UnInitializeReleasesAllLocks) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    FileRef file = cache.Create();
    const fs::path data = cache.Path(file->GetFileInfo().fileID, ".sdd");
    Write(*Cache::Block(*file, 1), Pattern(1, 100));
    cache.manager->DetachFile(file->GetFileInfo().fileID);
    const BlockRef kept = Cache::Block(*cache.Create(), 1);
    cache.Stop(); // queued events still reference the file
    const int fd = open(data.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(flock(fd, LOCK_EX | LOCK_NB), 0);
    close(fd);
    cache.Start();
}

TEST(Sharing, ReplacedDataFileNeverYieldsForeignBytes) {
    LogCapture quiet(RT_LOG_SILENT);
    SteppingClock clock;
    Cache cache;
    bool fired = true;
    for (int look = 1; fired; ++look) {
        const FileRef file = cache.Create();
        const FMFileID id = file->GetFileInfo().fileID;
        const BlockRef block = Cache::Block(*file, 1);
        Write(*block, Pattern(1, 5000));
        FMWaitUntilIdle();
        clock.Advance(240'001);
        ASSERT_FALSE(block->FreeMemory());
        const fs::path foreign = cache.dir.path / "foreign";
        WriteFile(foreign, Pattern(2, 5000));
        clock.Arm(look, [&] { fs::rename(foreign, cache.Path(id, ".sdd")); });
        const std::string bytes = Read(*block);
        fired = clock.Disarm();
        EXPECT_TRUE(bytes == Pattern(1, 5000) || bytes.starts_with("error")) << "at look " << look;
    }
}

TEST(Sharing, CloseStoresResidentBlocksAgainAfterTheirFilesWereRemovedOrTruncated) {
    TestClock clock;
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    for (const bool isLoaded : {false, true}) {
        for (const bool isRemoved : {true, false}) {
            FileRef file = cache.Create();
            const FMFileID id = file->GetFileInfo().fileID;
            for (const uint32_t block : {1U, 2U})
                Write(*Cache::Block(*file, block), Pattern(block, 1000));
            FMWaitUntilIdle();
            if (isLoaded) { // the blocks are resident, and nothing has changed since the last close
                cache.Close(file);
                file = cache.Open(id);
                for (const uint32_t block : {1U, 2U})
                    Read(*Cache::Block(*file, block, 0));
            }
            if (isRemoved)
                fs::remove_all(cache.Path(id, "").parent_path());
            else
                fs::resize_file(cache.Path(id, ".sdd"), 1500);
            cache.Close(file);
            FMWaitUntilIdle();
            file = cache.Open(id);
            ASSERT_TRUE(file);
            for (const uint32_t block : {1U, 2U})
                EXPECT_EQ(Read(*Cache::Block(*file, block, 0)), Pattern(block, 1000));
        }
    }
}

TEST(Sharing, AReadOfTruncatedBytesLeavesTheRestReadable) {
    TestClock clock;
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    FileRef file = cache.Create();
    const FMFileID id = file->GetFileInfo().fileID;
    for (const uint32_t block : {1U, 2U})
        Write(*Cache::Block(*file, block), Pattern(block, 1000));
    cache.Close(file);
    file = cache.Open(id);
    fs::resize_file(cache.Path(id, ".sdd"), 1999);
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(Read(*Cache::Block(*file, 2, 0)), "error 10001");
    cache.Close(file);
    FMWaitUntilIdle();
    file = cache.Open(id);
    ASSERT_TRUE(file);
    EXPECT_EQ(Read(*Cache::Block(*file, 1, 0)), Pattern(1, 1000));
}

TEST(Sharing, AnInformationFileThatWasReplacedWhileOpenIsWrittenInItsPlace) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    FileRef file = cache.Create();
    const FMFileID id = file->GetFileInfo().fileID;
    Write(*Cache::Block(*file, 1), Pattern(1, 1000));
    cache.Close(file);
    file = cache.Open(id);
    const fs::path info = cache.Path(id, ".sdi");
    fs::remove(info);
    Write(*Cache::Block(*file, 2), Pattern(2, 1000));
    cache.Close(file);
    FMWaitUntilIdle();
    file = cache.Open(id);
    ASSERT_TRUE(file);
    for (const uint32_t block : {1U, 2U})
        EXPECT_EQ(Read(*Cache::Block(*file, block, 0)), Pattern(block, 1000));
}
