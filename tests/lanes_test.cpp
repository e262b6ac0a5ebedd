// The lanes of the read/write thread: loads run before stores, and each rule that depends on the order of events
// still holds. Withdrawn loads, the high-water mark, and the statistics.
#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>

#include "FMStatistics.h"
#include "testing/kit.h"
#include "util/filemanager/filemanager.h"

namespace {

FMStatistics Figures() {
    FMStatistics figures;
    FMGetStatistics(figures);
    return figures;
}

uint64_t Sum(const FMHistogram& histogram) {
    uint64_t sum = 0;
    for (const uint64_t count : histogram.counts)
        sum += count;
    return sum;
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

// The transfers of data files whose path contains `part`, in the order of the log: "w" or "r" for each.
std::string Transfers(const LogCapture& log, const std::string& part) {
    std::string order;
    const std::string text = log.Text();
    for (size_t at = 0; (at = text.find("CDiskFile::", at)) != std::string::npos; ++at) {
        const std::string line = text.substr(at, text.find('\n', at) - at);
        if (line.find(part) == std::string::npos || line.find(".sdd") == std::string::npos)
            continue;
        if (line.starts_with("CDiskFile::WriteData, "))
            order += 'w';
        else if (line.starts_with("CDiskFile::ReaddData, "))
            order += 'r';
    }
    return order;
}

std::string Stem(IFMFile& file) { return FMFileIDToString(file.GetFileInfo().fileID).c_str(); }

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
    EXPECT_EQ(order, "l"
                     "hhhhhhhh"
                     "n"
                     "hhhhhhhh"
                     "n"
                     "hh"
                     "n"
                     "ll");
    // The low lane has its turn once per second.
    order.clear();
    post(RT_PRIORITY_LOW, 'l', 2);
    post(RT_PRIORITY_HIGH, 'h', 2);
    clock.Advance(1000);
    queue.RunDue();
    EXPECT_EQ(order, "hlhl"); // the last event before them was a low one
}

TEST(Lanes, ASingleReadRunsBeforeAllPendingStores) {
    LogCapture log;
    Cache cache;
    FileRef file = StoredFile(cache, 2);
    const FileRef other = cache.Create();
    CountingSink sink;
    const Gate gate(66);
    for (uint32_t block = 1; block <= 64; ++block)
        Write(*Cache::Block(*other, block), Pattern(block, 70'000)); // too large for a batch
    Cache::Block(*file, 1, 0)->ReadData(&sink);
    EXPECT_EQ(Read(*Cache::Block(*file, 2, 0)), Pattern(2, 1000)); // opens the gate
    FMWaitUntilIdle();
    EXPECT_EQ(sink.results, std::vector<int>{0});
    const std::string order = Transfers(log, ".sdd").substr(2); // behind the stores of StoredFile
    EXPECT_EQ(order, "rr" + std::string(64, 'w'));
}

TEST(Lanes, StoresAdvanceWhileLoadsQueue) {
    LogCapture log;
    Cache cache;
    FileRef file = StoredFile(cache, 30);
    std::vector<std::unique_ptr<CountingSink>> sinks;
    {
        const Gate gate;
        for (uint32_t block = 31; block <= 32; ++block)
            Write(*Cache::Block(*file, block), Pattern(block, 70'000));
        for (uint32_t block = 1; block <= 30; ++block) {
            sinks.push_back(std::make_unique<CountingSink>());
            Cache::Block(*file, block, 0)->ReadData(sinks.back().get());
        }
    }
    FMWaitUntilIdle();
    const std::string order = Transfers(log, Stem(*file)).substr(30); // behind the first 30 stores
    EXPECT_EQ(order.find('w'), 7U) << order; // the gate was the first of eight
    EXPECT_EQ(order.find('w', 8), 16U) << order;
}

TEST(Lanes, AdjacentStoresAreWrittenTogetherThoughLoadsAndOtherStoresLieBetween) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    FileRef file = StoredFile(cache, 4);
    const FMFileID id = file->GetFileInfo().fileID;
    CountingSink sink;
    const uint64_t batches = Figures().storeBatches;
    {
        const Gate gate;
        for (uint32_t block = 5; block <= 7; ++block) {
            Write(*Cache::Block(*file, block), Pattern(block, 1000));
            Write(*Cache::Block(*file, block - 3, 0), Pattern(block, 1000)); // in place
        }
        Cache::Block(*file, 1, 0)->ReadData(&sink);
    }
    FMWaitUntilIdle();
    EXPECT_EQ(Figures().storeBatches - batches, 2U); // the new ranges, and the old ones
    cache.Close(file);
    FMWaitUntilIdle();
    file = cache.Open(id);
    for (uint32_t block = 1; block <= 7; ++block)
        EXPECT_EQ(Read(*Cache::Block(*file, block, 0)),
                  Pattern(block > 1 && block < 5 ? block + 3 : block, 1000));
}

// If the events were in other lanes, these would fail: a table before the stores that it names, a removal before
// them, a successor's first store before the predecessor's last.
TEST(Lanes, WhatDependsOnTheOrderOfStoresStaysInTheirLane) {
    LogCapture log;
    Cache cache;
    constexpr uint32_t blocks = 200;
    FileRef file = StoredFile(cache, 9);
    std::vector<std::unique_ptr<CountingSink>> sinks;
    FileRef saved = cache.Create();
    FileRef removed = cache.Create(1, FM_FILE_TEMPORARY);
    const FileRef replaced = cache.Create();
    const FMFileID savedID = saved->GetFileInfo().fileID;
    const FMFileID removedID = removed->GetFileInfo().fileID;
    FMFileInfo successorInfo = Description();
    successorInfo.fileID = replaced->GetFileInfo().fileID;
    {
        const Gate gate;
        for (const FileRef& each : {removed, replaced})
            Write(*Cache::Block(*each, 1), Pattern(1, 70'000));
        for (uint32_t block = 1; block <= blocks; ++block)
            Write(*Cache::Block(*saved, block), Pattern(block, 70'000));
        cache.Close(saved);
        cache.Close(removed);
        const FileRef successor = cache.Create(successorInfo);
        Write(*Cache::Block(*successor, 1), Pattern(2, 70'000));
        for (uint32_t block = 1; block <= 9; ++block) {
            sinks.push_back(std::make_unique<CountingSink>());
            Cache::Block(*file, block, 0)->ReadData(sinks.back().get());
        }
    }
    while (FMGetUnstoredBytes() > 0)
        cache.thread.RunDue(); // a table that is requested too early is written too early
    FMWaitUntilIdle();
    for (const auto& sink : sinks)
        EXPECT_EQ(sink->results, std::vector<int>{0});
    EXPECT_FALSE(fs::exists(cache.Path(removedID, ".sdd")));
    EXPECT_EQ(ReadFile(cache.Path(successorInfo.fileID, ".sdd")), Pattern(2, 70'000));
    EXPECT_EQ(log.Count(" Assert failed: "), 0U) << log.Text(); // of a store that came too late
    saved = cache.Open(savedID);
    ASSERT_TRUE(saved);
    for (uint32_t block = 1; block <= blocks; ++block)
        EXPECT_EQ(Read(*Cache::Block(*saved, block, 0)), Pattern(block, 70'000));
}

TEST(Lanes, OpeningAClosedFileWaitsForItsStores) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    constexpr uint32_t blocks = 300;
    FileRef file = cache.Create();
    const FMFileID id = file->GetFileInfo().fileID;
    // The stores, the request for the table, the first event of the barrier.
    const Gate gate(blocks + 2);
    for (uint32_t block = 1; block <= blocks; ++block)
        Write(*Cache::Block(*file, block), Pattern(block, 70'000));
    cache.Close(file);
    file = cache.Open(id);
    ASSERT_TRUE(file);
    for (uint32_t block = 1; block <= blocks; ++block)
        EXPECT_EQ(Read(*Cache::Block(*file, block, 0)), Pattern(block, 70'000));
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

TEST(Lanes, HousekeepingRunsAfterStoresThatWerePostedLater) {
    TestClock clock;
    LogCapture log;
    Cache cache;
    FMWaitUntilIdle(); // the probe takes the turn of the low lane in this second
    const FileRef file = cache.Create();
    {
        const Gate gate;
        clock.Advance(60'000);
        cache.thread.RunDue(); // the tick posts housekeeping
        Write(*Cache::Block(*file, 1), Pattern(1, 70'000));
        EXPECT_TRUE(CFileManager::Instance()->IsHouseKeepingPosted());
        clock.Advance(-60'000); // still the same second
    }
    FMWaitUntilIdle();
    const std::string text = log.Text();
    EXPECT_LT(text.find("CDiskFile::WriteData, "), text.find("CFileManager::HouseKeeping_m. "));
    EXPECT_NE(text.find("CFileManager::HouseKeeping_m. "), std::string::npos);
}

TEST(Lanes, StoppingWaitsForLoadsAndStoresAlike) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    constexpr uint32_t blocks = 300;
    FileRef file = StoredFile(cache, blocks);
    const FMFileID id = file->GetFileInfo().fileID;
    CountingSink sink;
    const Gate gate(blocks + 2); // loads, the store, the first event of the barrier
    Write(*Cache::Block(*file, blocks + 1), Pattern(21, 70'000));
    for (uint32_t block = 1; block <= blocks; ++block)
        Cache::Block(*file, block, 0)->ReadData(&sink);
    cache.Stop();
    cache.thread.RunDue();
    EXPECT_EQ(sink.results, std::vector<int>(blocks, 0));
    cache.Start();
    file = cache.Open(id);
    EXPECT_EQ(Read(*Cache::Block(*file, blocks + 1, 0)), Pattern(21, 70'000));
}

TEST(Lanes, WaitUntilIdleWaitsForEveryLane) {
    Cache cache;
    std::string order;
    {
        const Gate gate;
        for (const auto& [priority, name] :
             {std::pair(RT_PRIORITY_LOW, 'l'), {RT_PRIORITY_NORMAL, 'n'}, {RT_PRIORITY_HIGH, 'h'}})
            CFileManager::Instance()->PostToReadwrThread(
                new TestEvent([&order, name = name] { order += name; }), 0, priority);
    }
    EXPECT_EQ(FMWaitUntilIdle(), 0);
    EXPECT_EQ(order.size(), 3U);
}

// --- Withdrawal ---------------------------------------------------------------------------------

TEST(Withdrawal, ACancelledLoadReadsNothingAndANewRequestRevokesTheCancellation) {
    LogCapture log;
    Cache cache;
    FileRef file = StoredFile(cache, 2);
    const BlockRef block = Cache::Block(*file, 1, 0);
    const BlockRef second = Cache::Block(*file, 2, 0);
    CountingSink cancelled;
    CountingSink waiting;
    {
        const Gate gate;
        EXPECT_EQ(block->ReadData(&cancelled), 0);
        EXPECT_EQ(block->CancelReadData(&cancelled), 0);
        EXPECT_EQ(second->ReadData(&cancelled), 0);
        EXPECT_EQ(second->CancelReadData(&cancelled), 0);
        EXPECT_EQ(second->ReadData(&waiting), 0);
    }
    FMWaitUntilIdle();
    EXPECT_TRUE(cancelled.results.empty());
    EXPECT_EQ(waiting.results, std::vector<int>{0});
    EXPECT_FALSE(block->IsInMemory());
    EXPECT_EQ(Transfers(log, Stem(*file)), "wwr"); // two stores, one load
    // After that the block can be read as before.
    EXPECT_EQ(block->ReadData(&waiting), 0);
    FMWaitUntilIdle();
    EXPECT_EQ(waiting.results, (std::vector<int>{0, 0}));
}

TEST(Withdrawal, ARequestBetweenTheWithdrawnLoadAndItsCompletionStartsTheNextLoad) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    FileRef file = StoredFile(cache, 1);
    const BlockRef block = Cache::Block(*file, 1, 0);
    CountingSink sink;
    {
        const Gate gate;
        block->ReadData(&sink);
        block->CancelReadData(&sink);
    }
    Cache::RunReadwrQueue(); // the load has ended; its completion is queued
    EXPECT_EQ(block->ReadData(&sink), 0);
    FMWaitUntilIdle();
    EXPECT_EQ(sink.results, std::vector<int>{0});
}

TEST(Withdrawal, ClosingTheFileOrReleasingTheBlockReadsNothing) {
    LogCapture log;
    Cache cache;
    FileRef file = StoredFile(cache, 4);
    CountingSink ofClosed;
    CountingSink ofUnread;
    CountingSink ofReleased;
    CountingSink ofRevoked;
    CountingSink ofHeld;
    const BlockRef held = Cache::Block(*file, 1, 0);
    const BlockRef readAgain = Cache::Block(*file, 3, 0);
    const BlockRef unread = Cache::Block(*file, 4, 0);
    {
        const Gate gate;
        held->ReadData(&ofClosed);
        readAgain->ReadData(&ofRevoked);
        unread->ReadData(&ofUnread);
        BlockRef released = Cache::Block(*file, 2, 0);
        released->ReadData(&ofReleased);
        IFMBlock* removed = nullptr;
        file->RemoveBlock(2, removed);
        removed->ReleaseReference();
        released.Reset();
        const FMFileID id = file->GetFileInfo().fileID;
        cache.manager->DetachFile(id);
        CountingSink second;
        readAgain->ReadData(&second); // serves the first sink, too
        readAgain->CancelReadData(&second);
    }
    // The load has ended without reading, and its completion is queued: a new request starts the next load.
    Cache::RunReadwrQueue();
    held->ReadData(&ofHeld);
    FMWaitUntilIdle();
    EXPECT_EQ(ofHeld.results, std::vector<int>{0});
    EXPECT_EQ(ofRevoked.results, std::vector<int>{0});
    EXPECT_EQ(ofClosed.results, std::vector<int>{0}); // served by that load, too
    EXPECT_EQ(ofUnread.results, std::vector<int>{RT_ERROR_NOT_READY});
    EXPECT_EQ(ofReleased.results, std::vector<int>{RT_ERROR_NOT_READY});
    EXPECT_EQ(Transfers(log, Stem(*file)), "wwwwrr"); // the stores of StoredFile
}

// --- The high-water mark and the statistics -----------------------------------------------------

TEST(HighWaterMark, ReportsOnceAboveAndOnceBelowHalf) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    std::vector<bool> reports;
    EXPECT_EQ(FMSetHighWaterMark(1, {}), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(FMSetHighWaterMark(100'000, [&](bool isAbove) { reports.push_back(isAbove); }), 0);
    const FileRef file = cache.Create();
    {
        const Gate gate;
        for (uint32_t block = 1; block <= 3; ++block) {
            Write(*Cache::Block(*file, block), Pattern(block, 70'000));
            EXPECT_EQ(FMGetUnstoredBytes(), block * 70'000U);
        }
        EXPECT_TRUE(reports.empty()) << "called inside WriteData";
        cache.thread.RunDue();
        EXPECT_EQ(reports, std::vector<bool>{true});
    }
    FMWaitUntilIdle();
    EXPECT_EQ(reports, (std::vector<bool>{true, false}));
    EXPECT_EQ(FMGetUnstoredBytes(), 0U);
    // A mark that is exceeded when it is set; a rewrite withdraws the bytes; then the mark is removed.
    {
        const Gate gate;
        Write(*Cache::Block(*file, 1), Pattern(4, 70'000));
        FMSetHighWaterMark(50'000, [&](bool isAbove) { reports.push_back(isAbove); });
        cache.thread.RunDue();
        EXPECT_EQ(reports.size(), 3U);
        const CRtMessageChain piece = CRtMessageBlock::CreateCopy("x", 1);
        Cache::Block(*file, 1, 0)->WriteData(70'000, 0, piece.get());
        EXPECT_EQ(FMGetUnstoredBytes(), 0U);
        cache.thread.RunDue();
        EXPECT_EQ(reports, (std::vector<bool>{true, false, true, false}));
        FMSetHighWaterMark(0, {});
        Write(*Cache::Block(*file, 2), Pattern(5, 70'000));
    }
    FMWaitUntilIdle();
    EXPECT_EQ(reports.size(), 4U);
}

TEST(Statistics, FiguresAddUp) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    const FMStatistics before = Figures();
    FileRef file = StoredFile(cache, 5);
    const FMFileID id = file->GetFileInfo().fileID;
    cache.Close(file);
    fs::resize_file(cache.Path(id, ".sdd"), 4500);
    file = cache.Open(id);
    EXPECT_EQ(Read(*Cache::Block(*file, 1, 0)), Pattern(1, 1000)); // a miss
    EXPECT_EQ(Read(*Cache::Block(*file, 1, 0)), Pattern(1, 1000)); // a hit
    CountingSink sink;
    Cache::Block(*file, 5, 0)->ReadData(&sink);
    FMWaitUntilIdle();
    ASSERT_EQ(sink.results.size(), 1U);
    EXPECT_NE(sink.results[0], 0);

    const FMStatistics after = Figures();
    EXPECT_EQ(after.stores - before.stores, 5U);
    EXPECT_EQ(after.storeBytes - before.storeBytes, 5000U);
    EXPECT_EQ(after.loads - before.loads, 1U);
    EXPECT_EQ(after.loadBytes - before.loadBytes, 1000U);
    EXPECT_EQ(after.loadFailures - before.loadFailures, 1U);
    EXPECT_EQ(after.readHits - before.readHits, 1U);
    EXPECT_EQ(after.readMisses - before.readMisses, 2U);
    EXPECT_EQ(Sum(after.storeWait) - Sum(before.storeWait), 5U);
    EXPECT_EQ(Sum(after.loadWait) - Sum(before.loadWait), 2U);
    EXPECT_EQ(Sum(after.loadDisk) - Sum(before.loadDisk), 2U);
    EXPECT_EQ(after.openFiles, 1U);
    EXPECT_EQ(after.residentBlocks, 1U);
    EXPECT_EQ(after.memoryBytes, 1000U);
    EXPECT_EQ(after.storedBlocks, 5U); // all slots of the loaded table
    EXPECT_EQ(after.storedBytes, 5000U);
    EXPECT_EQ(after.pendingBlocks + after.failedBlocks, 0U);
    cache.Close(file);
    FMWaitUntilIdle();
    const FMStatistics closed = Figures();
    EXPECT_EQ(closed.openFiles + closed.residentBlocks + closed.storedBlocks + closed.storedBytes +
                  closed.memoryBytes,
              0U);
}

TEST(Statistics, AFailedStoreCountsAsUnstoredUntilARetrySucceeds) {
    TestClock clock;
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    std::vector<bool> reports;
    FMSetHighWaterMark(500, [&](bool isAbove) { reports.push_back(isAbove); });
    const FileRef file = cache.Create();
    const fs::path data = cache.Path(file->GetFileInfo().fileID, ".sdd");
    fs::create_directory(data); // in the place of the data file
    const FMStatistics before = Figures();
    Write(*Cache::Block(*file, 1), Pattern(1, 1000));
    FMWaitUntilIdle();
    FMStatistics after = Figures();
    EXPECT_EQ(after.storeFailures - before.storeFailures, 1U);
    EXPECT_EQ(after.failedBlocks, 1U);
    EXPECT_EQ(after.failedBytes, 1000U);
    EXPECT_EQ(after.pendingBytes, 0U);
    EXPECT_EQ(FMGetUnstoredBytes(), 1000U);
    EXPECT_EQ(reports, std::vector<bool>{true});
    fs::remove(data);
    clock.Advance(60'000);
    cache.thread.RunDue(); // the tick
    FMWaitUntilIdle();
    after = Figures();
    EXPECT_EQ(after.storeRetries - before.storeRetries, 1U);
    EXPECT_EQ(after.stores - before.stores, 1U);
    EXPECT_EQ(after.failedBlocks + after.failedBytes + FMGetUnstoredBytes(), 0U);
    EXPECT_EQ(reports, (std::vector<bool>{true, false}));
}

TEST(Statistics, TextIsAcceptedByTheMonitoringSystem) {
    FMStatistics figures;
    figures.loadDisk.counts[0] = 2;
    figures.loadDisk.counts[11] = 3;
    figures.loadDisk.counts.back() = 1;
    figures.loadDisk.sumUs = 70'000'123;
    figures.stores = 18'446'744'073'709'551'615U;
    const std::string text = FMFormatStatistics(figures).c_str();
    for (const char* line : {"filemanager_stores_total 18446744073709551615\n",
                             "filemanager_load_disk_seconds_bucket{le=\"0.000001\"} 2\n",
                             "filemanager_load_disk_seconds_bucket{le=\"0.001024\"} 2\n",
                             "filemanager_load_disk_seconds_bucket{le=\"0.002048\"} 5\n",
                             "filemanager_load_disk_seconds_bucket{le=\"67.108864\"} 5\n",
                             "filemanager_load_disk_seconds_bucket{le=\"+Inf\"} 6\n",
                             "filemanager_load_disk_seconds_sum 70.000123\n",
                             "filemanager_load_disk_seconds_count 6\n", "# EOF\n"})
        EXPECT_NE(text.find(line), std::string::npos) << line;

    const char* const promtool = std::getenv("PROMTOOL"); // ./run sets it
    if (!promtool || !*promtool)
        return;
    const TempDir dir;
    const std::string file = (dir.path / "metrics").string();
    WriteFile(file, text);
    const std::string command =
        "'" + std::string(promtool) + "' check metrics <'" + file + "' 2>&1"; // with its findings
    EXPECT_EQ(std::system(command.c_str()), 0);
}
