// A full disk, a stalled disk, and the number of system calls and allocations of a small file. The simulator makes
// single calls fail.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>

#include "FMCatalog.h"
#include "testing/faults.h"
#include "testing/kit.h"
#include "util/filemanager/filemanager.h"

using namespace faults;

namespace {

// Files cannot grow beyond this length: the write ends early or fails, as on a full disk.
void LimitFiles(rlim_t bytes) {
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{bytes, RLIM_INFINITY};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
}

} // namespace

TEST(Fault, StoresAndTablesArePendingUntilAFullDiskHasSpaceAgain) {
    TestClock clock;
    Cache cache;
    FileRef open = cache.Create();
    FileRef closed = cache.Create();
    FMFileInfo large = Description();
    large.num = 8192; // a table of 32 KiB
    FileRef table = cache.Create(large);
    const FMFileID ids[] = {open->GetFileInfo().fileID, closed->GetFileInfo().fileID, large.fileID};
    for (IFMFile* file : {open.Get(), closed.Get(), table.Get()})
        Write(*Cache::Block(*file, 1), Pattern(1, 700));
    FMWaitUntilIdle();
    const LogCapture log;
    LimitFiles(16'384);
    cache.Close(table); // its table stays pending
    for (IFMFile* file : {open.Get(), closed.Get()})
        Write(*Cache::Block(*file, 2), Pattern(2, 30'000));
    FMWaitUntilIdle();
    EXPECT_EQ(log.Count("SaveFileInfo_m, WriteBlockInfo error"), 1U);
    clock.Advance(60'001);
    FMWaitUntilIdle();
    EXPECT_EQ(log.Count("WriteToFile, WriteData failed"), 4U); // the tick has retried
    EXPECT_EQ(Read(*Cache::Block(*open, 2)), Pattern(2, 30'000));
    LimitFiles(RLIM_INFINITY);
    cache.Close(closed); // retries its store
    clock.Advance(60'001);
    FMWaitUntilIdle();
    EXPECT_EQ(fs::file_size(cache.Path(ids[0], ".sdd")), 30'700U);
    EXPECT_GT(fs::file_size(cache.Path(ids[2], ".sdi")), 32'768U);
    cache.Close(open);
    for (const FMFileID& id : ids) {
        const FileRef file = cache.Open(id);
        ASSERT_TRUE(file);
        EXPECT_EQ(Read(*Cache::Block(*file, 1, 0)), Pattern(1, 700));
        EXPECT_TRUE(id == ids[2] || Read(*Cache::Block(*file, 2, 0)) == Pattern(2, 30'000));
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
        Lift();
        return Hits();
    };
    const uint32_t calls = count(ANY_OPERATION);
    const uint32_t allocations = count(ALLOCATE);
    std::cout << calls << " calls, " << allocations << " allocations\n";
    EXPECT_TRUE(calls > 0 && calls <= 11);
    EXPECT_TRUE(allocations > 0 && allocations <= 25);
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

TEST(Fault, ADataFileThatIsReplacedAtAnyCallOfAReadNeverYieldsForeignBytes) {
    const LogCapture quiet(RT_LOG_SILENT);
    TestClock clock;
    Cache cache;
    for (uint32_t call = 1, hits = 1; hits > 0; ++call) {
        const FileRef file = cache.Create();
        const BlockRef block = Cache::Block(*file, 1);
        Write(*block, Pattern(1, 5000));
        FMWaitUntilIdle();
        clock.Advance(240'001);
        ASSERT_FALSE(block->FreeMemory());
        static_cast<CFMFile&>(*file).GetEntry().CloseStreams();
        const fs::path foreign = cache.dir.path / "foreign";
        WriteFile(foreign, Pattern(2, 5000));
        SetCallback([&] { fs::rename(foreign, cache.Path(file->GetFileInfo().fileID, ".sdd")); });
        Begin(cache.dir.path, {.action = CALL, .nth = call});
        const std::string bytes = Read(*block);
        hits = Hits();
        Lift();
        EXPECT_TRUE(bytes == Pattern(1, 5000) || bytes.starts_with("error")) << "at call " << call;
    }
}

TEST(Fault, UnInitializeWaitsForAStalledDiskAndNamesTheFile) {
    LogCapture log(RT_LOG_WARNING);
    Cache cache;
    FileRef file = cache.Create();
    const FMFileID id = file->GetFileInfo().fileID;
    FMWaitUntilIdle();
    Begin(cache.dir.path, {.action = STALL, .kinds = WRITE, .stallMs = 1'500}); // in real time
    Write(*Cache::Block(*file, 1), Pattern(1, 700));
    file.Reset();
    cache.Stop();
    const std::string text = log.Text();
    const size_t at = text.find("CFileManager::UnInitialize, waiting for the disk, in use:");
    ASSERT_NE(at, std::string::npos);
    EXPECT_LT(text.find(cache.Path(id, ".sdd").filename().string(), at), text.find('\n', at));
    EXPECT_EQ(Hits(), 1U);
    cache.Start();
    file = cache.Open(id);
    ASSERT_TRUE(file);
    EXPECT_EQ(Read(*Cache::Block(*file, 1, 0)), Pattern(1, 700));
}
