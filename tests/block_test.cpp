// Blocks: writes, rewrites, synchronous and asynchronous reads, reentrant sinks, and the data file.
#include <gtest/gtest.h>

#include <future>

#include "testing/kit.h"
#include "util/filemanager/filemanager.h"

namespace {

size_t MemoryInUse() { return CFileManager::Instance()->GetMemoryInUse(); }

} // namespace

TEST(Block, AcceptsPiecesInOrderOnly) {
    TestClock clock;
    LogCapture log;
    Cache cache;
    const FileRef file = cache.Create();
    const BlockRef block = Cache::Block(*file, 1);
    const CRtMessageChain forty = CRtMessageBlock::CreateCopy(Pattern(1, 40).data(), 40);
    const CRtMessageChain sixty = CRtMessageBlock::CreateCopy(Pattern(2, 20).data(), 20);
    sixty->Append(CRtMessageBlock::CreateCopy(Pattern(3, 40).data(), 40));
    EXPECT_EQ(block->WriteData(100, 0, nullptr), RT_ERROR_INVALID_ARG);
    EXPECT_FALSE(block->IsAlive());
    EXPECT_EQ(block->WriteData(100, 0, forty.get()), 0);
    EXPECT_EQ(block->WriteData(100, 50, sixty.get()), RT_ERROR_INVALID_ARG);
    clock.Advance(8191);
    EXPECT_TRUE(block->IsAlive());
    clock.Advance(1);
    EXPECT_FALSE(block->IsAlive());
    EXPECT_EQ(block->WriteData(100, 40, sixty.get()), 0);
    EXPECT_TRUE(block->IsComplete() && block->IsAlive());
    EXPECT_EQ(sixty->GetChainedLength(), 60U);
    EXPECT_EQ(block->WriteData(100, 100, forty.get()), RT_ERROR_INVALID_ARG);

    const std::string bytes = Pattern(1, 40) + Pattern(2, 20) + Pattern(3, 40);
    EXPECT_EQ(Read(*block), bytes);
    CRtMessageBlock* view = nullptr;
    EXPECT_EQ(block->ReadData(20, UINT32_MAX - 10, view), RT_ERROR_INVALID_ARG);
    FMWaitUntilIdle();
    EXPECT_EQ(log.Count("CDiskFile::WriteData, filename="), 1U);
    EXPECT_EQ(ReadFile(cache.Path(file->GetFileInfo().fileID, ".sdd")), bytes);
}

TEST(Block, RewriteReleasesTheOldBufferAtOnceAndLeavesViewsOfItIntact) {
    LogCapture log;
    Cache cache;
    const FileRef file = cache.Create();
    const BlockRef block = Cache::Block(*file, 1);
    const BlockRef second = Cache::Block(*file, 2);
    {
        std::atomic<bool> go{false}; // events posted before this is set stay queued
        CFileManager::Instance()->PostToReadwrThread(new TestEvent([&go] { go.wait(false); }), 0);
        Write(*block, Pattern(1, 1000));
        CRtMessageChain owned;
        EXPECT_EQ(block->ReadData(0, 1000, RtReceive(owned)), 0);
        // The chain is a view of the block's own bytes, which the rewrite releases.
        const std::string rotated = Pattern(1, 1000).substr(10) + Pattern(1, 10);
        EXPECT_EQ(block->WriteData(1000, 0, block->GetData()), 0);
        EXPECT_EQ(Read(*block), Pattern(1, 1000));
        Write(*block, rotated);
        EXPECT_EQ(Bytes(owned), Pattern(1, 1000));
        EXPECT_EQ(Read(*block), rotated);
        EXPECT_EQ(MemoryInUse(), 1000U);
        Write(*second, Pattern(2, 77));
        Write(*block, Pattern(3, 50)); // another length: a new range, behind the second block
        go = true;
        go.notify_one();
        Cache::RunReadwrQueue(); // after all earlier events
    }
    FMWaitUntilIdle();
    EXPECT_EQ(log.Count("CFMBlock::WriteData, rewrite data! m_position=1000,m_totalLen=1000,"
                        "blockLen=1000,dataPos=0 this="),
              2U);
    const std::string disk = ReadFile(cache.Path(file->GetFileInfo().fileID, ".sdd"));
    ASSERT_GE(disk.size(), 127U);
    EXPECT_EQ(disk.substr(disk.size() - 127), Pattern(2, 77) + Pattern(3, 50));
    EXPECT_EQ(log.Count("CDiskFile::WriteData, filename="), 2U) << "withdrawn stores ran";
}

TEST(Block, OneLoadServesAllWaitingSinksInOrder) {
    TestClock clock;
    LogCapture log;
    Cache cache(0);
    const FileRef file = cache.Create();
    const BlockRef block = Cache::Block(*file, 5);
    Write(*block, Pattern(5, 5000));
    FMWaitUntilIdle();
    const auto release = [&] {
        clock.Advance(240'001);
        return block->FreeMemory();
    };
    clock.Advance(240'000);
    EXPECT_TRUE(block->FreeMemory());
    clock.tick -= 1'000'000; // a clock set back
    EXPECT_TRUE(block->FreeMemory());
    clock.tick += 1'000'001;
    EXPECT_FALSE(block->FreeMemory());
    EXPECT_EQ(MemoryInUse(), 0U);
    std::vector<int> order;
    CountingSink a, b, c;
    a.then = [&](IFMBlock*, int) {
        order.push_back(1);
        block->CancelReadData(&c);
    };
    b.then = [&](IFMBlock*, int) { order.push_back(2); };
    for (CountingSink* sink : {&a, &b, &a, &c})
        EXPECT_EQ(block->ReadData(sink), 0);
    EXPECT_EQ(block->ReadData(nullptr), RT_ERROR_INVALID_ARG);
    EXPECT_TRUE(order.empty());
    FMWaitUntilIdle();
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
    EXPECT_TRUE(c.results.empty());
    EXPECT_EQ(log.Count("CDiskFile::ReaddData, filename="), 1U);
    EXPECT_EQ(block->ReadData(&c), 0); // resident: completes at once
    EXPECT_EQ(c.results, std::vector<int>{0});
    // A load does not count as an access: the next collection releases the bytes.
    EXPECT_FALSE(block->FreeMemory());
    EXPECT_EQ(Read(*block), Pattern(5, 5000));
    EXPECT_TRUE(block->FreeMemory());
    EXPECT_FALSE(release());
}

// A rewrite makes a load in flight stale, whether the load begins before or after the rewrite.
TEST(Block, StaleLoadDoesNotReplaceRewrittenBytes) {
    TestClock clock;
    LogCapture log(RT_LOG_ERROR);
    Cache cache;
    const FileRef file = cache.Create();
    Write(*Cache::Block(*file, 1), "the range at offset 0 is never written again");
    for (const auto& [length, isBegun] :
         {std::pair<size_t, bool>{500, true}, {501, true}, {500, false}, {501, false}}) {
        const auto id = static_cast<uint32_t>(length + (isBegun ? 0 : 1000));
        const BlockRef block = Cache::Block(*file, id);
        Write(*block, Pattern(1, 500));
        FMWaitUntilIdle();
        clock.Advance(240'001);
        ASSERT_FALSE(block->FreeMemory());
        CountingSink sink;
        std::promise<void> go;
        if (!isBegun)
            CFileManager::Instance()->PostToReadwrThread(
                new TestEvent([&] { go.get_future().wait(); }), 0, RT_PRIORITY_HIGH);
        EXPECT_EQ(block->ReadData(&sink), 0);
        if (isBegun)
            Cache::RunReadwrQueue(); // the load has run, its completion is queued
        Write(*block, Pattern(2, length));
        go.set_value();
        Cache::RunReadwrQueue();
        clock.Advance(240'001);
        ASSERT_FALSE(block->FreeMemory());
        FMWaitUntilIdle();
        EXPECT_EQ(sink.results, std::vector<int>{0});
        EXPECT_TRUE(Read(*block) == Pattern(2, length));
    }
    EXPECT_EQ(log.Count("Assert failed"), 0U) << log.Text();
}

TEST(Block, ReadOfAnEmptyBlockFailsAndADisplacedFileLeavesTheDataFileAlone) {
    LogCapture log;
    Cache cache;
    FileRef file = cache.Create();
    const BlockRef block = Cache::Block(*file, 1);
    CountingSink sink;
    EXPECT_EQ(block->ReadData(&sink), 0); // nothing written yet
    FMWaitUntilIdle();
    EXPECT_EQ(sink.results, std::vector<int>{RT_ERROR_NOT_READY});
    EXPECT_EQ(log.Count("util/filemanager/fmblock:"), 1U);
    EXPECT_EQ(log.Count(" Assert failed: IsComplete()"), 1U);

    // A new file with the same identifier takes the data file over.
    Write(*block, Pattern(1, 100));
    const FileRef successor = cache.Create(file->GetFileInfo());
    Write(*block, Pattern(2, 100));
    Write(*Cache::Block(*successor, 1), Pattern(3, 100));
    FMWaitUntilIdle();
    EXPECT_EQ(Read(*block), Pattern(2, 100));
    EXPECT_EQ(ReadFile(cache.Path(file->GetFileInfo().fileID, ".sdd")), Pattern(3, 100));
}
