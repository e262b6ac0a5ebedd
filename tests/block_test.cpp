// Blocks: writing, rewriting, both reads, sinks that do as they please, and what lies on disk.
#include <gtest/gtest.h>

#include <thread>

#include "support.h"
#include "util/filemanager/filemanager.h"

namespace {

class HoldEvent final : public IRtEvent {
public:
    explicit HoldEvent(std::shared_ptr<std::atomic<bool>> go) : m_go(std::move(go)) {}
    int OnEventFire() override {
        while (!*m_go)
            std::this_thread::yield();
        return 0;
    }

private:
    std::shared_ptr<std::atomic<bool>> m_go;
};

// Keeps the read/write thread busy while it lives, so that what is posted meanwhile stays queued.
class HoldReadwrThread {
public:
    HoldReadwrThread() { CFileManager::Instance()->PostToReadwrThread(new HoldEvent(m_go), 0); }
    ~HoldReadwrThread() { *m_go = true; }

private:
    std::shared_ptr<std::atomic<bool>> m_go = std::make_shared<std::atomic<bool>>(false);
};

size_t MemoryInUse() { return CFileManager::Instance()->GetMemoryInUse(); }

} // namespace

TEST(Block, TakesItsPiecesInOrderAndNothingElse) {
    TestClock clock;
    LogCapture log;
    Cache cache;
    const FileRef file = cache.Create();
    const BlockRef block = Cache::Block(*file, 1);
    EXPECT_FALSE(block->IsAlive());
    CRtMessageBlock* view = nullptr;
    EXPECT_EQ(block->ReadData(0, 10, view), RT_ERROR_INVALID_ARG);

    const CRtMessageChain forty = CRtMessageBlock::CreateCopy(Pattern(1, 40).data(), 40);
    const CRtMessageChain sixty = CRtMessageBlock::CreateCopy(Pattern(2, 20).data(), 20);
    sixty->Append(CRtMessageBlock::CreateCopy(Pattern(3, 40).data(), 40));
    EXPECT_EQ(block->WriteData(100, 0, nullptr), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(block->WriteData(0, 0, forty.get()), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(block->WriteData(39, 0, forty.get()), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(block->GetTotalLen(), 0U);
    EXPECT_EQ(block->WriteData(100, 0, forty.get()), 0);
    EXPECT_EQ(block->WriteData(100, 50, sixty.get()), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(log.Count("CFMBlock::WriteData, m_position=40,dataPos=50,blockID=1 this="), 1U);
    EXPECT_EQ(block->GetPosition(), 40U);
    EXPECT_EQ(block->ReadData(0, 10, view), RT_ERROR_NOT_READY);
    EXPECT_EQ(block->ReadData(41, 1, view), RT_ERROR_INVALID_ARG);
    clock.Advance(8191);
    EXPECT_TRUE(block->IsAlive());
    clock.Advance(1);
    EXPECT_FALSE(block->IsAlive());
    EXPECT_EQ(block->WriteData(100, 40, sixty.get()), 0);
    EXPECT_TRUE(block->IsComplete() && block->IsAlive());
    EXPECT_EQ(sixty->GetChainedLength(), 60U);
    const CRtMessageChain empty = CRtMessageBlock::Create(0);
    EXPECT_EQ(block->WriteData(100, 100, empty.get()), 0);
    EXPECT_EQ(block->WriteData(100, 100, forty.get()), RT_ERROR_INVALID_ARG);

    const std::string bytes = Pattern(1, 40) + Pattern(2, 20) + Pattern(3, 40);
    EXPECT_EQ(Read(*block), bytes);
    ASSERT_EQ(block->ReadData(10, 10, view), 0);
    EXPECT_EQ(CRtMessageChain(view)->FlattenChained().view(), bytes.substr(10, 10));
    EXPECT_EQ(block->ReadData(90, 11, view), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(block->ReadData(20, UINT32_MAX - 10, view), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(block->ReadData(100, 0, view), 0);
    CRtMessageChain(view).reset();
    cache.Settle();
    EXPECT_EQ(log.Count("CDiskFile::WriteData, filename="), 1U);
    EXPECT_EQ(ReadFile(cache.Path(file->GetFileInfo().fileID, ".sdd")), bytes);
}

TEST(Block, ARewriteGivesTheOldBytesBackAtOnceAndKeepsViewsOfThem) {
    LogCapture log;
    Cache cache;
    const FileRef file = cache.Create();
    const BlockRef block = Cache::Block(*file, 1);
    const BlockRef second = Cache::Block(*file, 2);
    {
        const HoldReadwrThread hold;
        Write(*block, Pattern(1, 1000));
        CRtMessageBlock* view = nullptr;
        ASSERT_EQ(block->ReadData(0, 1000, view), 0);
        const CRtMessageChain owned(view);
        // Its own bytes, rotated: the chain that comes in ends with the rewrite.
        const std::string rotated = Pattern(1, 1000).substr(10) + Pattern(1, 10);
        EXPECT_EQ(block->WriteData(1000, 0, block->GetData()), 0);
        EXPECT_EQ(Read(*block), Pattern(1, 1000));
        Write(*block, rotated);
        EXPECT_EQ(owned->FlattenChained().view(), Pattern(1, 1000));
        EXPECT_EQ(Read(*block), rotated);
        EXPECT_EQ(MemoryInUse(), 1000U);
        Write(*second, Pattern(2, 77));
        Write(*block, Pattern(3, 50)); // another length: a new place, behind the second
    }
    cache.Settle();
    EXPECT_EQ(log.Count("CFMBlock::WriteData, rewrite data! m_position=1000,m_totalLen=1000,"
                        "blockLen=1000,dataPos=0 this="),
              2U);
    const std::string disk = ReadFile(cache.Path(file->GetFileInfo().fileID, ".sdd"));
    ASSERT_GE(disk.size(), 127U);
    EXPECT_EQ(disk.substr(disk.size() - 127), Pattern(2, 77) + Pattern(3, 50));
    EXPECT_EQ(log.Count("CDiskFile::WriteData, filename="), 2U) << "withdrawn stores ran";
}

TEST(Block, LoadsOnceForAllWhoWaitAndTellsThemInOrder) {
    TestClock clock;
    LogCapture log;
    Cache cache(0);
    const FileRef file = cache.Create();
    const BlockRef block = Cache::Block(*file, 5);
    Write(*block, Pattern(5, 5000));
    cache.Settle();
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
    cache.Settle();
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
    EXPECT_TRUE(c.results.empty());
    EXPECT_EQ(log.Count("CDiskFile::ReaddData, filename="), 1U);
    EXPECT_EQ(block->ReadData(&c), 0); // in memory: at once
    EXPECT_EQ(c.results, std::vector<int>{0});
    // The load was no access: the bytes go with the next collection.
    EXPECT_FALSE(block->FreeMemory());
    EXPECT_EQ(Read(*block), Pattern(5, 5000));
    EXPECT_TRUE(block->FreeMemory());
    EXPECT_FALSE(release());
}

// A load that is on its way when the block is written anew must not bring the old bytes back.
TEST(Block, ALoadOfFormerBytesIsNotTakenForTheNewOnes) {
    TestClock clock;
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    const FileRef file = cache.Create();
    for (const size_t length : {500, 501}) {
        const BlockRef block = Cache::Block(*file, static_cast<uint32_t>(length));
        Write(*block, Pattern(1, 500));
        cache.Settle();
        clock.Advance(240'001);
        ASSERT_FALSE(block->FreeMemory());
        CountingSink sink;
        EXPECT_EQ(block->ReadData(&sink), 0);
        CFileManager::Instance()->IsFileOpen(""); // the load has run, its completion is queued
        Write(*block, Pattern(2, length));
        CFileManager::Instance()->IsFileOpen("");
        clock.Advance(240'001);
        ASSERT_FALSE(block->FreeMemory());
        cache.Settle();
        EXPECT_EQ(sink.results, std::vector<int>{0});
        EXPECT_TRUE(Read(*block) == Pattern(2, length));
    }
}

TEST(Block, SinksMayDoAnythingFromInsideTheirCall) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    for (const bool damaged : {false, true}) {
        FileRef file = cache.Create();
        const FMFileID id = file->GetFileInfo().fileID;
        for (uint32_t i = 1; i <= 4; ++i)
            Write(*Cache::Block(*file, i), Pattern(i, 100));
        cache.Close(file);
        cache.Settle();
        if (damaged)
            fs::resize_file(cache.Path(id, ".sdd"), 0);
        const std::vector<int> once{damaged ? RT_ERROR_IO : 0};

        file = cache.Open(id);
        ASSERT_TRUE(file);
        BlockRef block = Cache::Block(*file, 1);
        CountingSink again, other;
        again.then = [&](IFMBlock* loaded, int) {
            if (again.results.size() < 3) {
                EXPECT_EQ(loaded->ReadData(&again), 0);
            }
        };
        block->ReadData(&again);
        block->ReadData(&other);
        cache.Settle();
        EXPECT_EQ(again.results, std::vector<int>(3, once[0]));
        EXPECT_EQ(other.results, once);

        block = Cache::Block(*file, 2);
        CountingSink dropping, last;
        dropping.then = [&](IFMBlock*, int) {
            IFMBlock* removed = nullptr;
            EXPECT_EQ(file->RemoveBlock(2, removed), 0);
            BlockRef::Adopt(removed);
            block.Reset();
        };
        block->ReadData(&dropping);
        block->ReadData(&last);
        cache.Settle();
        EXPECT_EQ(dropping.results, once);
        EXPECT_EQ(last.results, once);

        CountingSink detaching, stopping;
        detaching.then = [&](IFMBlock*, int) {
            file.Reset();
            EXPECT_EQ(cache.manager->DetachFile(id), 0);
        };
        stopping.then = [&](IFMBlock*, int) { cache.Stop(); };
        Cache::Block(*file, 3)->ReadData(&detaching);
        Cache::Block(*file, 4)->ReadData(&stopping);
        while (stopping.results.empty())
            cache.thread.RunDue();
        EXPECT_EQ(detaching.results, once);
        EXPECT_EQ(stopping.results, once);
        cache.Start();
    }
}

TEST(Block, AReadThatCannotBeServedSaysSo) {
    LogCapture log;
    Cache cache;
    FileRef file = cache.Create();
    const BlockRef block = Cache::Block(*file, 1);
    CountingSink sink;
    EXPECT_EQ(block->ReadData(&sink), 0); // nothing written yet
    cache.Settle();
    EXPECT_EQ(sink.results, std::vector<int>{RT_ERROR_NOT_READY});
    EXPECT_EQ(log.Count("util/filemanager/fmblock:"), 1U);
    EXPECT_EQ(log.Count(" Assert failed: IsComplete()"), 1U);

    // A file of the same identifier made anew takes the data file over.
    Write(*block, Pattern(1, 100));
    const FileRef anew = cache.Create(file->GetFileInfo());
    Write(*block, Pattern(2, 100));
    Write(*Cache::Block(*anew, 1), Pattern(3, 100));
    cache.Settle();
    EXPECT_EQ(Read(*block), Pattern(2, 100));
    EXPECT_EQ(ReadFile(cache.Path(file->GetFileInfo().fileID, ".sdd")), Pattern(3, 100));
}

// The file system refuses the bytes: they stay readable, nothing claims that they are stored, and the
// first tick after there is room again stores them.
TEST(Block, AStoreThatFailsIsTriedAgainUntilThereIsRoom) {
    if (!LimitFileSize(UINT64_MAX))
        GTEST_SKIP() << "this system has no limit on the size of files";
    TestClock clock;
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache(0);
    FileRef file = cache.Create();
    FileRef hopeless = cache.Create();
    FileRef late = cache.Create();
    const FMFileID id = file->GetFileInfo().fileID;
    const FMFileID hopelessID = hopeless->GetFileInfo().fileID;
    const FMFileID lateID = late->GetFileInfo().fileID;
    LimitFileSize(4096);
    for (uint32_t i = 1; i <= 3; ++i) {
        for (const FileRef& each : {file, hopeless, late})
            Write(*Cache::Block(*each, i), Pattern(i, 2000));
    }
    cache.Settle();
    clock.Advance(600'000);
    cache.Settle(); // a tick: tried again, in vain
    const BlockRef third = Cache::Block(*file, 3);
    EXPECT_TRUE(third->IsInMemory());
    EXPECT_FALSE(Cache::Block(*file, 2)->IsInMemory());
    EXPECT_EQ(Read(*third), Pattern(3, 2000));
    cache.Close(hopeless);
    cache.Settle();
    LimitFileSize(UINT64_MAX);
    cache.Close(late); // in time, and before any tick
    clock.Advance(60'000);
    cache.Settle();
    clock.Advance(600'000);
    cache.Settle();
    EXPECT_FALSE(third->IsInMemory());
    file.Reset();
    cache.Stop();
    cache.Start();
    file = cache.Open(id);
    hopeless = cache.Open(hopelessID);
    late = cache.Open(lateID);
    ASSERT_TRUE(file && hopeless && late);
    EXPECT_EQ(Read(*Cache::Block(*late, 3, 0)), Pattern(3, 2000));
    // A rewrite in place that fails leaves torn bytes: the entry of the former run must go.
    LimitFileSize(500);
    EXPECT_EQ(Write(*Cache::Block(*file, 2), Pattern(22, 2000)), 0);
    cache.Close(file);
    cache.Settle();
    LimitFileSize(UINT64_MAX);
    file = cache.Open(id);
    ASSERT_TRUE(file);
    EXPECT_FALSE(Cache::Block(*file, 2, 0)->IsComplete());
    EXPECT_EQ(Read(*Cache::Block(*file, 3, 0)), Pattern(3, 2000));
    EXPECT_EQ(Read(*Cache::Block(*hopeless, 2, 0)), Pattern(2, 2000));
    EXPECT_FALSE(Cache::Block(*hopeless, 3, 0)->IsComplete());
}
