// Blocks: limits and times, and the loads that a rewrite overtakes. The simulator tests everything else.
#include <gtest/gtest.h>

#include <memory>
#include <thread>

#include "testing/kit.h"
#include "util/filemanager/filemanager.h"

TEST(Block, AnIncompleteBlockIsAliveUntil8192MsAfterItsLastPiece) {
    TestClock clock;
    LogCapture log;
    Cache cache;
    const FileRef file = cache.Create();
    const BlockRef block = Cache::Block(*file, 1);
    EXPECT_EQ(block->WriteData(6, 0, nullptr), RT_ERROR_INVALID_ARG);
    EXPECT_FALSE(block->IsAlive());
    const CRtMessageChain piece = CRtMessageBlock::CreateCopy("ab", 2);
    EXPECT_EQ(block->WriteData(6, 0, piece.get()), 0);
    clock.Advance(8191);
    EXPECT_TRUE(block->IsAlive());
    clock.Advance(1);
    EXPECT_FALSE(block->IsAlive());
    piece->Append(CRtMessageBlock::CreateCopy("cd", 2)); // one piece of two message blocks
    EXPECT_EQ(block->WriteData(6, 2, piece.get()), 0);
    EXPECT_TRUE(block->IsAlive());
    EXPECT_EQ(Read(*block), "ababcd");
    CRtMessageBlock* view = nullptr;
    EXPECT_EQ(block->ReadData(2, UINT32_MAX, view), RT_ERROR_INVALID_ARG); // the sum overflows
    EXPECT_EQ(block->WriteData(6, 0, block->GetData()), 0);                // its own bytes
    EXPECT_EQ(Read(*block), "ababcd");
    EXPECT_EQ(log.Count("CFMBlock::WriteData, rewrite data! m_position=6,m_totalLen=6,"
                        "blockLen=6,dataPos=0 this="),
              1U);
}

TEST(Block, OneLoadServesAllWaitingSinksInOrder) {
    TestClock clock;
    LogCapture log;
    Cache cache(0);
    const FileRef file = cache.Create();
    const BlockRef block = Cache::Block(*file, 5);
    Write(*block, Pattern(5, 200'001));
    FMWaitUntilIdle();
    clock.Advance(240'000);
    EXPECT_TRUE(block->FreeMemory());
    clock.tick -= 1'000'000; // a clock set back
    EXPECT_TRUE(block->FreeMemory());
    clock.tick += 1'000'001;
    EXPECT_FALSE(block->FreeMemory());
    std::vector<int> order;
    CountingSink first, second, cancelled;
    first.then = [&](IFMBlock*, int) {
        order.push_back(1);
        block->CancelReadData(&cancelled);
    };
    second.then = [&](IFMBlock*, int) { order.push_back(2); };
    for (CountingSink* sink : {&first, &second, &first, &cancelled})
        EXPECT_EQ(block->ReadData(sink), 0);
    EXPECT_EQ(block->ReadData(nullptr), RT_ERROR_INVALID_ARG);
    EXPECT_TRUE(order.empty());
    FMWaitUntilIdle();
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
    EXPECT_TRUE(cancelled.results.empty());
    EXPECT_EQ(log.Count("CDiskFile::ReaddData, filename="), 1U);
    // A load does not count as an access: the next collection releases the bytes.
    EXPECT_FALSE(block->FreeMemory());
    EXPECT_TRUE(Read(*block) == Pattern(5, 200'001)); // in parts
}

// A rewrite makes a load in flight stale, whether the load begins before or after the rewrite.
TEST(Block, StaleLoadDoesNotReplaceRewrittenBytes) {
    TestClock clock;
    LogCapture log(RT_LOG_ERROR);
    Cache cache;
    const FileRef file = cache.Create();
    Write(*Cache::Block(*file, 1), "the range at offset 0 is never written again");
    uint32_t id = 1;
    for (const auto& [length, isBegun] :
         {std::pair<size_t, bool>{500, true}, {501, true}, {500, false}, {501, false}}) {
        const BlockRef block = Cache::Block(*file, ++id);
        Write(*block, Pattern(1, 500));
        FMWaitUntilIdle();
        clock.Advance(240'001);
        ASSERT_FALSE(block->FreeMemory());
        CountingSink sink;
        auto gate = isBegun ? nullptr : std::make_unique<Gate>();
        const uint64_t loads = ReadStatistics().loads;
        EXPECT_EQ(block->ReadData(&sink), 0);
        if (isBegun)
            Cache::RunReadwrQueue(); // the load has run, its completion is queued
        Write(*block, Pattern(2, length));
        gate.reset();
        Cache::RunReadwrQueue();
        clock.Advance(240'001);
        ASSERT_FALSE(block->FreeMemory());
        FMWaitUntilIdle();
        EXPECT_EQ(sink.results, std::vector<int>{0});
        EXPECT_TRUE(Read(*block) == Pattern(2, length));
        EXPECT_EQ(ReadStatistics().loads - loads, isBegun ? 2U : 1U);
    }
    EXPECT_EQ(log.Count("Assert failed"), 0U) << log.Text();
}

// A stale load after which no other one can start: its sink was cancelled, or the manager was stopped.
TEST(Block, AStaleLoadEndsWithoutAnotherOne) {
    TestClock clock;
    LogCapture quiet(RT_LOG_SILENT);
    for (const bool isCancelled : {true, false}) {
        Cache cache;
        const FileRef file = cache.Create();
        const BlockRef block = Cache::Block(*file, 1);
        CountingSink sink;
        Write(*Cache::Block(*file, 2), "the range at offset 0 is never written again");
        for (const uint32_t version : {1U, 2U}) {
            Write(*block, Pattern(version, 500));
            Cache::RunReadwrQueue();
            clock.Advance(240'001);
            ASSERT_FALSE(block->FreeMemory());
            if (version == 1)
                block->ReadData(&sink);
            Cache::RunReadwrQueue(); // the completion is queued
        }
        if (isCancelled)
            block->CancelReadData(&sink);
        else
            cache.Stop();
        FMWaitUntilIdle();
        EXPECT_EQ(sink.results, std::vector<int>(isCancelled ? 0 : 1, RT_ERROR_NOT_READY));
        if (isCancelled)
            continue;
        EXPECT_EQ(block->ReadData(&sink), RT_ERROR_NOT_READY);
        EXPECT_EQ(Read(*block), "error 10001");
    }
}

TEST(Block, ASinkThatWaitsForItsCallIsNotAddedAgain) {
    LogCapture quiet(RT_LOG_SILENT);
    TestClock clock;
    Cache cache;
    const FileRef file = cache.Create();
    const BlockRef block = Cache::Block(*file, 1);
    Write(*block, Pattern(1, 500));
    FMWaitUntilIdle();
    clock.Advance(240'001);
    CFMDiskEntry& entry = static_cast<CFMFile&>(*file).GetEntry();
    ASSERT_FALSE(block->FreeMemory());
    entry.LoseData(); // the load fails, so the bytes do not become resident
    CountingSink first, second;
    first.then = [&](IFMBlock*, int) { EXPECT_EQ(block->ReadData(&second), 0); };
    for (CountingSink* sink : {&first, &second})
        EXPECT_EQ(block->ReadData(sink), 0);
    FMWaitUntilIdle();
    EXPECT_EQ(second.results, std::vector<int>{RT_ERROR_IO});
    // Bytes that are lost on disk stay in memory.
    const BlockRef resident = Cache::Block(*file, 2);
    Write(*resident, Pattern(2, 500));
    FMWaitUntilIdle();
    entry.LoseData();
    clock.Advance(240'001);
    EXPECT_TRUE(resident->FreeMemory());
}

// At the end of the process, the post of a store may be refused after another store has taken it along.
TEST(Block, AStoreThatIsRefusedWaitsForTheWriteThatHasTakenIt) {
    const LogCapture quiet(RT_LOG_SILENT);
    const Cache cache;
    const CRtComAutoPtr<CFMFile> file(new CFMFile(Description()));
    const CRtComAutoPtr<CFMBlock> block(new CFMServerBlock(file.Get(), 1, 0));
    CFMStores& stores = file->GetStores();
    auto event =
        std::make_unique<CFMStoreEvent>(block.Get(), 3, 0, CRtMessageBlock::CreateCopy("x", 1));
    CFMStoreEvent& store = *event;
    CFMStore* batch[2] = {};
    std::atomic<bool> isEnded = false;
    {
        const auto lock = stores.LockShared();
        stores.Add(store);
        EXPECT_EQ(stores.TakeBatch(store, batch), 1U);
    }
    std::jthread end([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        isEnded = true;
        CFMBlock& written = *block.Get(); // its serial is another one: it was rewritten
        EXPECT_EQ(written.WriteToFile(store.GetBytes(), store), RT_ERROR_NOT_READY);
    });
    event.reset();
    EXPECT_TRUE(isEnded && stores.IsIdle());
}

TEST(Block, AStaleFirstLoadOfALoadedBlockIsDropped) {
    LogCapture log;
    Cache cache;
    FileRef file = cache.Create();
    const FMFileID id = file->GetFileInfo().fileID;
    Write(*Cache::Block(*file, 1), Pattern(1, 1000));
    cache.Close(file);
    file = cache.Open(id);
    const BlockRef block = Cache::Block(*file, 1, 0);
    CountingSink sink;
    EXPECT_EQ(block->ReadData(&sink), 0);
    const CRtMessageChain half = CRtMessageBlock::CreateCopy(Pattern(2, 500).data(), 500);
    EXPECT_EQ(block->WriteData(1000, 0, half.get()), 0);
    FMWaitUntilIdle();
    EXPECT_EQ(sink.results, std::vector<int>{RT_ERROR_NOT_READY});
    EXPECT_EQ(log.Count(" Assert failed: !m_data"), 0U);
}
