// The lanes of the read/write thread: which events run first, and which loads do not read. The high-water mark, and
// the statistics. The simulator finds events that overtake others on which they depend.
#include <gtest/gtest.h>

#include <cstdlib>

#include "testing/kit.h"

namespace {

void ExpectMetrics(const FMStatistics& figures, std::initializer_list<const char*> lines) {
    const std::string text = FMFormatStatistics(figures).c_str();
    for (const std::string line : lines)
        EXPECT_NE(text.find("\nfilemanager_" + line + "\n"), std::string::npos) << line;
}

// A file with blocks 1 … count that are on disk and not in memory.
FileRef StoredFile(Cache& cache, uint32_t count, size_t length = 1000) {
    FileRef file = cache.Create();
    const FMFileID id = file->GetFileInfo().fileID;
    for (uint32_t block = 1; block <= count; ++block)
        Write(*Cache::Block(*file, block), Pattern(block, length));
    cache.Close(file);
    FMWaitUntilIdle();
    return cache.Open(id);
}

// What the read/write thread did, in the order of the log: w a write and r a read of a data file, h housekeeping.
std::string Order(const LogCapture& log) {
    std::string order;
    std::istringstream lines(log.Text());
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("CFileManager::HouseKeeping_m. "))
            order += 'h';
        else if (line.starts_with("CDiskFile::WriteData, ") && line.find(".sdd") < line.size())
            order += 'w';
        else if (line.starts_with("CDiskFile::ReaddData, ") && line.find(".sdd") < line.size())
            order += 'r';
    }
    return order;
}

} // namespace

TEST(Lanes, RunInTheOrderThatTheirRulesGive) {
    TestClock clock;
    CRtEventQueue queue;
    std::string order;
    const auto post = [&](int priority, char name, int count) {
        for (int i = 0; i < count; ++i)
            queue.PostEvent(new TestEvent([&order, name] { order += name; }), priority);
    };
    post(RT_PRIORITY_LOW, 'l', 1);
    queue.RunDue();
    post(RT_PRIORITY_LOW, 'l', 2);
    post(RT_PRIORITY_NORMAL, 'n', 3);
    post(RT_PRIORITY_HIGH, 'h', 18);
    queue.RunDue();
    EXPECT_EQ(order, "lhhhhhhhhnhhhhhhhhnhhnll"); // 8 of high, 1 of normal
    // The low lane has its turn once per second.
    post(RT_PRIORITY_LOW, 'l', 2);
    post(RT_PRIORITY_HIGH, 'h', 2);
    clock.Advance(1000);
    queue.RunDue();
    EXPECT_TRUE(order.ends_with("nllhlhl")) << order; // not two of low in a row
}

TEST(Lanes, LoadsRunBeforePendingStoresAndHousekeepingRunsAfterThem) {
    TestClock clock;
    LogCapture log;
    Cache cache;
    const FileRef file = StoredFile(cache, 2);
    CountingSink sink;
    clock.Advance(60'000);
    const Gate gate(5);
    cache.thread.RunDue();  // the tick posts housekeeping
    clock.Advance(-60'000); // the second in which the low lane has had its turn
    for (const uint32_t block : {3U, 4U})
        Write(*Cache::Block(*file, block), Pattern(block, 70'000)); // too large for a batch
    Cache::Block(*file, 1, 0)->ReadData(&sink);
    EXPECT_EQ(Read(*Cache::Block(*file, 2, 0)), Pattern(2, 1000)); // opens the gate
    FMWaitUntilIdle();
    EXPECT_EQ(Order(log), "ww" // of StoredFile
                          "rrwwh");
}

TEST(Lanes, AdjacentStoresAreWrittenTogetherThoughLoadsAndOtherStoresLieBetween) {
    Cache cache;
    const FileRef file = StoredFile(cache, 4);
    CountingSink sink;
    const uint64_t batches = ReadStatistics().storeBatches;
    {
        const Gate gate;
        for (uint32_t block = 5; block <= 7; ++block) {
            Write(*Cache::Block(*file, block), Pattern(block, 1000));
            Write(*Cache::Block(*file, block - 3, 0), Pattern(block, 1000)); // in place
        }
        Cache::Block(*file, 1, 0)->ReadData(&sink);
    }
    FMWaitUntilIdle();
    EXPECT_EQ(ReadStatistics().storeBatches - batches, 2U); // the new ranges, and the old ones
}

TEST(Lanes, ABatchHasSmallStoresAmongTheNext128) {
    Cache cache;
    const auto isBatch = [&](size_t first, size_t second, uint32_t between) {
        const FileRef file = cache.Create();
        const uint64_t batches = ReadStatistics().storeBatches;
        {
            const Gate gate;
            Write(*Cache::Block(*file, 1), std::string(first, 'x'));
            Write(*Cache::Block(*file, 2), std::string(second, 'x'));
            for (uint32_t id = 0; id < between; ++id) // too large
                Write(*Cache::Block(*file, 3 + id), std::string(65'537, 'x'));
            Write(*Cache::Block(*file, 2), std::string(second, 'y')); // in place, behind them
        }
        FMWaitUntilIdle();
        return ReadStatistics().storeBatches > batches;
    };
    EXPECT_TRUE(isBatch(65'536, 65'536, 127));
    EXPECT_FALSE(isBatch(65'537, 9, 0));
    EXPECT_FALSE(isBatch(9, 65'537, 0));
    EXPECT_FALSE(isBatch(9, 9, 128));
}

TEST(Lanes, OpeningAClosedFileWaitsForTheLoadsOfItsBlocks) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    constexpr uint32_t blocks = 300;
    FileRef file = StoredFile(cache, blocks, 70'000);
    const FMFileID id = file->GetFileInfo().fileID;
    std::vector<BlockRef> held;
    for (uint32_t block = 1; block <= blocks; ++block)
        held.push_back(Cache::Block(*file, block, 0));
    CountingSink sink;
    const Gate gate(blocks + 1); // the loads, the first event of the barrier
    cache.Close(file);
    for (const BlockRef& block : held)
        block->ReadData(&sink);
    file = cache.Open(id);
    EXPECT_TRUE(file) << "a load has opened the data file again";
    FMWaitUntilIdle();
    EXPECT_EQ(sink.results, std::vector<int>(blocks, 0));
}

TEST(Withdrawal, ALoadThatIsCancelledClosedOrReleasedReadsNothing) {
    LogCapture log;
    Cache cache;
    FileRef file = StoredFile(cache, 3);
    CountingSink sinks[3];
    const BlockRef cancelled = Cache::Block(*file, 1, 0);
    const BlockRef closed = Cache::Block(*file, 2, 0);
    {
        const Gate gate;
        for (const uint32_t block : {1U, 2U, 3U})
            Cache::Block(*file, block, 0)->ReadData(&sinks[block - 1]);
        cancelled->CancelReadData(&sinks[0]);
        BlockRef released;
        file->RemoveBlock(3, released.Receive());
        released.Reset();
        cache.Close(file);
    }
    Cache::RunReadwrQueue(); // the loads have ended; their completions are queued
    EXPECT_EQ(cancelled->ReadData(&sinks[0]), 0);
    EXPECT_EQ(Order(log), "www"); // the stores of StoredFile
    FMWaitUntilIdle();
    EXPECT_EQ(sinks[0].results, std::vector<int>{0}); // of a later load
    EXPECT_EQ(sinks[1].results, std::vector<int>{RT_ERROR_NOT_READY});
    EXPECT_EQ(sinks[2].results, std::vector<int>{RT_ERROR_NOT_READY});
    EXPECT_EQ(Read(*closed), Pattern(2, 1000));
}

TEST(HighWaterMark, ReportsOnceAboveAndOnceBelowHalf) {
    Cache cache;
    std::vector<bool> reports;
    const auto report = [&](bool isAbove) { reports.push_back(isAbove); };
    EXPECT_EQ(FMSetHighWaterMark(1, {}), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(FMSetHighWaterMark(139'999, report), 0);
    const FileRef file = cache.Create();
    const Gate gate;
    const auto write = [&](uint32_t block, size_t length, size_t expected) {
        Write(*Cache::Block(*file, block), Pattern(block, length));
        EXPECT_EQ(reports.size(), expected) << "called inside WriteData";
        cache.thread.RunDue();
    };
    const auto withdraw = [&](uint32_t block, size_t expected) { // by a rewrite
        Cache::Block(*file, block, 0)->WriteData(1, 0, CRtMessageBlock::Wrap("", 0).get());
        EXPECT_EQ(reports.size(), expected) << block;
        cache.thread.RunDue();
    };
    write(1, 70'000, 0);
    write(2, 69'999, 0); // the mark is reached, not exceeded
    write(3, 1, 0);
    EXPECT_EQ(reports, std::vector<bool>{true});
    ExpectMetrics(ReadStatistics(), {"pending_blocks 3", "pending_bytes 140000"});
    EXPECT_EQ(FMGetUnstoredBytes(), 140'000U);
    withdraw(2, 1);
    withdraw(3, 1); // half
    withdraw(1, 1);
    EXPECT_EQ(reports, (std::vector{true, false}));
    Write(*Cache::Block(*file, 4), Pattern(4, 140'000));
    withdraw(4, 2); // before the report runs
    write(5, 70'000, 2);
    FMSetHighWaterMark(50'000, report); // it is exceeded
    FMSetHighWaterMark(60'000, report); // and so is another one, which is reported once
    cache.thread.RunDue();
    FMSetHighWaterMark(60'000, report);
    cache.thread.RunDue();
    EXPECT_EQ(reports, (std::vector{true, false, true, true}));
    FMSetHighWaterMark(50'000, report);
    FMSetHighWaterMark(0, {}); // a report that is queued calls nothing
    cache.thread.RunDue();
    EXPECT_EQ(reports.size(), 4U);
}

TEST(HighWaterMark, AChangeWithoutACallerThreadIsReportedLater) {
    LogCapture log(RT_LOG_ERROR);
    Cache cache;
    std::vector<bool> reports;
    FMSetHighWaterMark(50, [&](bool isAbove) { reports.push_back(isAbove); });
    FileRef file = cache.Create();
    fs::create_directory(cache.Path(file->GetFileInfo().fileID, ".sdd")); // the store fails
    BlockRef block = Cache::Block(*file, 1);
    Write(*block, Pattern(1, 100));
    cache.Stop();
    EXPECT_EQ(FMGetUnstoredBytes(), 100U);
    block.Reset();
    EXPECT_EQ(FMGetUnstoredBytes(), 0U);
    EXPECT_EQ(log.Count(" Assert failed"), 0U);
    cache.Start();
    FMWaitUntilIdle();
    EXPECT_EQ(reports, std::vector{true});
    Write(*Cache::Block(*cache.Create(), 1), "x");
    FMWaitUntilIdle();
    EXPECT_EQ(reports, (std::vector{true, false}));
    FMSetHighWaterMark(0, {});
}

TEST(Statistics, FiguresCountStoresAndLoadsAndThoseThatFail) {
    TestClock clock;
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    FileRef file = StoredFile(cache, 5);
    const FMFileID id = file->GetFileInfo().fileID;
    cache.Close(file);
    fs::resize_file(cache.Path(id, ".sdd"), 4500);
    file = cache.Open(id);
    for (const uint32_t block : {1U, 1U, 5U})
        Read(*Cache::Block(*file, block, 0)); // a miss, a hit, a failure
    CountingSink sink;
    Cache::Block(*file, 2, 0)->ReadData(&sink); // a miss
    FMWaitUntilIdle();
    ExpectMetrics(ReadStatistics(),
                  {"stores_total 5", "store_bytes_total 5000", "loads_total 2",
                   "load_bytes_total 2000", "load_failures_total 1", "read_hits_total 1",
                   "read_misses_total 3", "open_files 1", "resident_blocks 2", "memory_bytes 2000",
                   "stored_blocks 5", // all slots of the loaded table
                   "stored_bytes 5000", "pending_blocks 0", "failed_blocks 0",
                   "store_wait_seconds_count 5", "load_wait_seconds_count 3",
                   "load_disk_seconds_count 3"});
    cache.Close(file);
    ExpectMetrics(ReadStatistics(), {"open_files 0", "resident_blocks 0", "memory_bytes 0",
                                     "stored_blocks 0", "stored_bytes 0"});
    file = cache.Create();
    const fs::path data = cache.Path(file->GetFileInfo().fileID, ".sdd");
    fs::create_directory(data); // in the place of the data file
    Write(*Cache::Block(*file, 1), Pattern(1, 700));
    FMWaitUntilIdle();
    ExpectMetrics(ReadStatistics(), {"store_failures_total 1", "failed_blocks 1",
                                     "failed_bytes 700", "pending_bytes 0"});
    EXPECT_EQ(FMGetUnstoredBytes(), 700U);
    fs::remove(data);
    clock.Advance(60'000);
    cache.thread.RunDue(); // the tick
    FMWaitUntilIdle();
    ExpectMetrics(ReadStatistics(),
                  {"store_retries_total 1", "stores_total 6", "failed_blocks 0", "failed_bytes 0"});
}

TEST(Statistics, TextIsAcceptedByTheMonitoringSystem) {
    FMStatistics figures;
    figures.loadDisk.counts[0] = 2;
    figures.loadDisk.counts[11] = 3;
    figures.loadDisk.counts.back() = 1;
    figures.loadDisk.sumUs = 70'000'123;
    figures.stores = 18'446'744'073'709'551'615U;
    ExpectMetrics(figures, {"stores_total 18446744073709551615",
                            "load_disk_seconds_bucket{le=\"0.000001\"} 2",
                            "load_disk_seconds_bucket{le=\"0.001024\"} 2",
                            "load_disk_seconds_bucket{le=\"0.002048\"} 5",
                            "load_disk_seconds_bucket{le=\"67.108864\"} 5",
                            "load_disk_seconds_bucket{le=\"+Inf\"} 6",
                            "load_disk_seconds_sum 70.000123", "load_disk_seconds_count 6"});

    std::istringstream text(FMFormatStatistics({}).c_str());
    for (std::string line; std::getline(text, line);)
        EXPECT_TRUE(line.starts_with("#") || line.ends_with(" 0") || line.ends_with(" 0.000000"))
            << line;

    const char* const promtool = std::getenv("PROMTOOL"); // ./run sets it
    if (!promtool || !*promtool)
        return;
    const TempDir dir;
    fs::current_path(dir.path);
    WriteFile(dir.path / "metrics", FMFormatStatistics(figures).c_str());
    const std::string command = std::string("'") + promtool + "' check metrics <metrics 2>&1";
    EXPECT_EQ(std::system(command.c_str()), 0);
}
