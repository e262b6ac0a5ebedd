// A full file system, a stalled disk, and the number of system calls and allocations of a small file. The simulator makes
// single calls fail.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <csignal>

#include "FMCatalog.h"
#include "testing/faults.h"
#include "testing/kit.h"

using namespace faults;

namespace {

// A small file system if the process may mount one, else a limit on the size of files.
class SmallDisk {
public:
    explicit SmallDisk(const fs::path& dir) : m_dir(dir) {
        m_mounted = ::unshare(CLONE_NEWNS) == 0 &&
                    ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                    ::mount("none", m_dir.c_str(), "tmpfs", 0, "size=2m") == 0;
        std::cout << (m_mounted ? "a file system of 2 MiB\n" : "a limit on the size of files\n");
        std::signal(SIGXFSZ, SIG_IGN);
    }
    // Leaves space for a few more pages of 4096 bytes.
    void Fill() {
        constexpr uint64_t pages = 4;
        struct statvfs now {};
        ::statvfs(m_dir.c_str(), &now);
        Limit(m_mounted ? (now.f_blocks - now.f_bfree + pages) * now.f_frsize : pages * 4096);
    }
    void Limit(uint64_t bytes) {
        const std::string size = "size=" + std::to_string(bytes);
        const rlimit limit{bytes, RLIM_INFINITY};
        EXPECT_EQ(m_mounted ? ::mount("none", m_dir.c_str(), nullptr, MS_REMOUNT, size.c_str())
                            : ::setrlimit(RLIMIT_FSIZE, &limit),
                  0);
    }

private:
    const fs::path m_dir;
    bool m_mounted = false;
};

} // namespace

TEST(Fault, StoresAndTablesArePendingUntilAFullDiskHasSpaceAgain) {
    TempDir dir;
    SmallDisk disk(dir.path);
    TestClock clock;
    Cache cache(dir.path);
    FileRef a = cache.Create();
    FileRef b = cache.Create();
    FMFileInfo large = Description();
    large.num = 8192; // a table of 32 KiB
    FileRef c = cache.Create(large);
    const FMFileID ids[] = {a->GetFileInfo().fileID, b->GetFileInfo().fileID,
                            c->GetFileInfo().fileID};
    for (IFMFile* file : {a.Get(), b.Get(), c.Get()})
        Write(*Cache::Block(*file, 1), Pattern(1, 700));
    FMWaitUntilIdle();
    const LogCapture log;
    disk.Fill();
    cache.Close(c); // its table stays pending
    FMWaitUntilIdle();
    EXPECT_EQ(log.Count("SaveFileInfo_m, WriteBlockInfo error"), 1U);
    disk.Fill();
    for (IFMFile* file : {a.Get(), a.Get(), b.Get()}) {
        const BlockRef block = Cache::Block(*file, file->GetBlocks()[1] ? 3 : 2);
        Write(*block, Pattern(2, 30'000));
    }
    FMWaitUntilIdle();
    clock.Advance(60'001);
    FMWaitUntilIdle();
    EXPECT_EQ(log.Count("WriteToFile, WriteData failed"), 6U);
    EXPECT_EQ(Read(*Cache::Block(*a, 2)), Pattern(2, 30'000));
    Cache::RunReadwrQueue();
    disk.Limit(2 << 20);
    cache.Close(b); // retries its store once
    clock.Advance(60'001);
    FMWaitUntilIdle();
    cache.Stop();
    a.Reset();
    cache.Start();
    for (const FMFileID& id : ids) {
        const FileRef file = cache.Open(id);
        ASSERT_TRUE(file);
        EXPECT_EQ(Read(*Cache::Block(*file, 1, 0)), Pattern(1, 700));
        for (const uint32_t block : {2U, 3U})
            EXPECT_TRUE(id == ids[2] || (id == ids[1] && block == 3) ||
                        Read(*Cache::Block(*file, block, 0)) == Pattern(2, 30'000));
    }
}

// docs/benchmarks.md lists the calls.
TEST(Fault, OpeningReadingAndClosingASmallFileTakesElevenCallsAndFewAllocations) {
    Cache cache;
    const auto count = [&cache](uint32_t kinds) {
        FileRef file = cache.Create();
        const FMFileID id = file->GetFileInfo().fileID;
        Write(*Cache::Block(*file, 1), Pattern(1, 4096));
        cache.Close(file);
        FMWaitUntilIdle();
        Begin(cache.dir.path, {.action = STALL, .kinds = kinds, .forever = true}); // counts
        file = cache.Open(id);
        CRtMessageBlock* bytes = nullptr;
        Cache::Block(*file, 1, 0)->ReadData(0, 4096, bytes);
        bytes->DestroyChained();
        cache.Close(file);
        const uint32_t hits = Hits();
        Lift();
        std::cout << hits << (kinds == ALLOCATE ? " allocations\n" : " calls\n");
        EXPECT_GT(hits, 0U);
        EXPECT_LE(hits, kinds == ALLOCATE ? 25U : 11U);
    };
    count(ANY_OPERATION);
    count(ALLOCATE);
}

TEST(Fault, DescribingAFileReadsItsInformationFileOnceAndChangesNothing) {
    Cache cache;
    FileRef file = cache.Create();
    const CRtString stem = FMFileIDToString(file->GetFileInfo().fileID);
    for (uint32_t id = 1; id <= 7000; ++id) // a table of more than 64 KiB
        Write(*Cache::Block(*file, id), "x");
    FMWaitUntilIdle();
    FMCachedFile described; // from the live object: nothing is in an information file yet
    EXPECT_EQ(FMDescribeCachedFile("", stem, described), RT_OK);
    EXPECT_TRUE(described.isOpenHere && !described.hasInfo && described.findings.empty());
    EXPECT_EQ(described.storedBlocks, 7000U);
    const CRtString directory(cache.Path(file->GetFileInfo().fileID, "").parent_path().string());
    EXPECT_EQ(FMDescribeCachedFile(directory, stem, described), RT_OK);
    EXPECT_TRUE(described.isOpenHere && !described.isLoadable && described.dataLength == 7000);
    ASSERT_EQ(described.findings.size(), 1U);
    EXPECT_FALSE(described.findings[0].isFault);
    cache.Close(file);
    FMWaitUntilIdle();
    const auto count = [&](uint32_t kinds) {
        Begin(cache.dir.path, {.action = STALL, .kinds = kinds, .forever = true}); // counts
        EXPECT_EQ(FMDescribeCachedFile("", stem, described), RT_OK);
        Lift();
        return Hits();
    };
    EXPECT_EQ(count(READ), 1U);
    EXPECT_EQ(count(OPEN), 2U); // the data file for the query of its lock
    EXPECT_EQ(count(WRITE | REMOVE | MAKE_DIR | REMOVE_DIR), 0U);
    EXPECT_TRUE(described.isLoadable && !described.isOpenHere && !described.isOpenElsewhere);
    EXPECT_EQ(described.storedBlocks, 7000U);
    EXPECT_EQ(described.highestBlock, 7000U);
}

TEST(Fault, UnInitializeWaitsForAStalledDisk) {
    Cache cache;
    const FMFileID id = [&] {
        FileRef file = cache.Create();
        FMWaitUntilIdle();
        Begin(cache.dir.path, {.action = STALL, .kinds = WRITE, .stallMs = 10'000}); // in real time
        Write(*Cache::Block(*file, 1), Pattern(1, 700));
        return file->GetFileInfo().fileID;
    }();
    {
        const LogCapture log(RT_LOG_WARNING);
        cache.Stop();
        const std::string text = log.Text();
        const size_t at = text.find("CFileManager::UnInitialize, waiting for the disk, in use:");
        ASSERT_NE(at, std::string::npos);
        EXPECT_LT(text.find(cache.Path(id, ".sdd").filename().string(), at), text.find('\n', at));
    }
    EXPECT_EQ(Hits(), 1U);
    cache.Start();
    const FileRef file = cache.Open(id);
    ASSERT_TRUE(file);
    EXPECT_EQ(Read(*Cache::Block(*file, 1, 0)), Pattern(1, 700));
}
