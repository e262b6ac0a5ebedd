// The states of a block, and calls that flush or wait without a manager or a function.
#include "FMDurability.h"

#include <gtest/gtest.h>

#include <functional>

#include "FMCatalog.h"
#include "testing/kit.h"
#include "util/filemanager/filemanager.h"

namespace {

using Condition = FMBlockCondition;

Condition ConditionOf(const BlockRef& block) { return FMGetBlockStatus(*block).condition; }
bool Survives(const BlockRef& block) { return FMGetBlockStatus(*block).survivesKill; }

} // namespace

TEST(Durability, ABlockGoesThroughItsStates) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    FileRef file = cache.Create();
    const fs::path data = cache.Path(file->GetFileInfo().fileID, ".sdd");
    const BlockRef block = Cache::Block(*file, 1);
    EXPECT_EQ(ConditionOf(block), Condition::Empty);
    const auto state = [&] { return static_cast<CFMBlock&>(*block).GetState(); };
    EXPECT_EQ(state(), BLOCK_STATE_EMPTY);
    const CRtMessageChain piece = CRtMessageBlock::Wrap("ab", 2);
    block->WriteData(4, 0, piece.get());
    EXPECT_EQ(ConditionOf(block), Condition::Filling);
    EXPECT_EQ(state(), BLOCK_STATE_FILLING);
    fs::create_directory(data); // the path cannot be written as a file
    block->WriteData(4, 2, piece.get());
    Cache::RunReadwrQueue();
    EXPECT_EQ(ConditionOf(block), Condition::Failed);
    EXPECT_EQ(state(), BLOCK_STATE_COMPLETE);
    fs::remove(data);
    static_cast<CFMFile&>(*file).RetryFailedStores();
    Cache::RunReadwrQueue();
    EXPECT_EQ(ConditionOf(block), Condition::Stored);
    EXPECT_EQ(state(), BLOCK_STATE_STORED);
    EXPECT_FALSE(Survives(block)); // no table names it
    std::vector<FMUnsavedBlock> unsaved;
    EXPECT_EQ(FMFlush(unsaved), RT_OK);
    EXPECT_TRUE(Survives(block));
    fs::resize_file(data, 1);
    Write(*Cache::Block(*file, 2), "x"); // the store finds the data file truncated
    FMWaitUntilIdle();
    EXPECT_EQ(ConditionOf(block), Condition::Lost);
    static_cast<CFMFile&>(*file).RetryFailedStores();
    FMWaitUntilIdle();
    EXPECT_EQ(ConditionOf(block), Condition::Stored);
    EXPECT_FALSE(Survives(block)); // its entry was revoked
}

// Of the files that exist at the call, FMFlushAsync waits for one that is closed in between. Files that are created
// later cannot postpone the end.
TEST(Durability, FlushAsyncWaitsForTheFilesOfItsCall) {
    LogCapture quiet(RT_LOG_SILENT);
    CRtEventQueue::SetStepping(true);
    Cache cache;
    int flushed = -1;
    const auto closeNew = [&](FileRef& file) {
        Write(*Cache::Block(*file, 2), Pattern(2, 70'000)); // too long for a batch
        cache.Close(file);
    };
    FileRef file = cache.Create();
    const CRtString stem = FMFileIDToString(file->GetFileInfo().fileID);
    Write(*Cache::Block(*file, 1), Pattern(1, 100));
    EXPECT_EQ(FMFlushAsync([&](int result, const auto& unsaved) {
                  flushed = unsaved.empty() ? result : -1;
              }),
              RT_OK);
    closeNew(file);
    for (int turn = 0; turn < 10 && flushed < 0; ++turn) {
        CRtEventQueue::Stepped()->Step();
        file = cache.Create();
        closeNew(file);
        cache.thread.RunDue();
    }
    EXPECT_EQ(flushed, RT_OK);
    EXPECT_GT(CRtEventQueue::Stepped()->GetCount(), 0U);
    FMCachedFile found;
    const CRtString store((cache.dir.path / FM_SERVER_STORE).string());
    EXPECT_EQ(FMDescribeCachedFile(store, stem, found), RT_OK);
    EXPECT_EQ(found.storedBlocks, 2U);
}

TEST(Durability, CallsBeforeTheManagerExistsAreRefused) {
    const CRtCallerThread thread;
    std::vector<FMUnsavedBlock> unsaved(1);
    std::vector<CRtString> names;
    FMCachedFile found;
    FMStatistics figures;
    figures.openFiles = 1;
    EXPECT_EQ(FMFlush(unsaved), RT_ERROR_NOT_READY);
    EXPECT_EQ(FMSync(unsaved), RT_ERROR_NOT_READY);
    EXPECT_EQ(unsaved.size(), 1U);
    EXPECT_EQ(FMFlushAsync([](int, const auto&) {}), RT_ERROR_NOT_READY);
    EXPECT_EQ(FMListCachedFiles("", names, names), RT_ERROR_NOT_READY);
    EXPECT_EQ(FMDescribeCachedFile("", "stem", found), RT_ERROR_NOT_READY);
    EXPECT_EQ(FMDescribeCachedFile("", "", found), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(FMDescribeCachedFile(".", FMFileIDToString({1, 2, 3, {}}), found),
              RT_ERROR_NOT_FOUND);
    EXPECT_EQ(FMRemoveCachedFile("", "stem", true), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(FMStartHousekeeping(), RT_ERROR_NOT_READY);
    FMGetStatistics(figures);
    EXPECT_EQ(figures.openFiles, 0U);
}

TEST(Durability, AFlushListsTheBlocksOfClosedFilesWhoseTableIsPending) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    FileRef file = cache.Create();
    const FMFileID id = file->GetFileInfo().fileID;
    Cache::Block(*file, 1);
    const BlockRef block = Cache::Block(*file, 2);
    Write(*block, "bytes");
    FMWaitUntilIdle();
    fs::create_directory(cache.Path(id, ".sdi")); // the table cannot be written
    cache.Close(file);
    std::vector<FMUnsavedBlock> unsaved(1);
    EXPECT_EQ(FMFlush(unsaved), RT_ERROR_IO);
    ASSERT_EQ(unsaved.size(), 1U);
    EXPECT_TRUE(unsaved[0].fileID == id && unsaved[0].blockID == 2);
    EXPECT_FALSE(cache.Open(id)); // what is on disk is older than the closed file
    fs::remove(cache.Path(id, ".sdi"));
    EXPECT_EQ(FMFlush(unsaved), RT_OK);
    EXPECT_TRUE(unsaved.empty());
    cache.Stop();
    EXPECT_FALSE(cache.Open(FMFileID{1, 2, 3, {}}));
    FileRef late = cache.Open(id); // without a read/write thread
    ASSERT_TRUE(late);
    cache.Close(late);
}

TEST(Durability, CallsWithoutAFunctionOrAfterTheStopAreRefused) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    std::vector<FMUnsavedBlock> unsaved;
    FMCachedFile found;
    EXPECT_EQ(FMFlushAsync({}), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(FMCallWhenIdle({}), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(FMDescribeCachedFile("", CRtString(std::string("a\0b", 3)), found),
              RT_ERROR_INVALID_ARG);
    int flushed = RT_OK;
    EXPECT_EQ(FMFlushAsync([&](int result, const auto&) { flushed = result; }), RT_OK);
    cache.Stop();
    EXPECT_EQ(FMFlush(unsaved), RT_ERROR_NOT_READY);
    int calls = 0; // FMCallWhenIdle needs no read/write thread
    EXPECT_EQ(FMCallWhenIdle([&](int result) { calls += result == RT_OK ? 1 : 0; }), RT_OK);
    cache.Start(); // the flush belongs to the former run
    EXPECT_EQ(FMWaitUntilIdle(5000), RT_OK);
    EXPECT_EQ(flushed, RT_ERROR_NOT_READY);
    EXPECT_EQ(calls, 1);
}

TEST(Idle, WaitUntilIdleKeepsItsTimeLimit) {
    Cache cache;
    bool isOver = false;
    const std::function<void()> post = [&] {
        if (!isOver)
            RtRunOnCallerThread(post, false);
    };
    post();
    EXPECT_EQ(FMWaitUntilIdle(50), RT_ERROR_NOT_READY);
    isOver = true;
    EXPECT_EQ(FMWaitUntilIdle(), 0);
}
