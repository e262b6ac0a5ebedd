// What is on disk while a file is open: the state of a block, and FMFlush.
#include "FMDurability.h"

#include <gtest/gtest.h>

#include "FMCatalog.h"
#include "FMStatistics.h"
#include "testing/kit.h"
#include "util/filemanager/filemanager.h"

namespace {

using Condition = FMBlockCondition;
using Unsaved = std::vector<FMUnsavedBlock>;

Condition ConditionOf(const BlockRef& block) { return FMGetBlockStatus(*block).condition; }
bool Survives(const BlockRef& block) { return FMGetBlockStatus(*block).survivesKill; }

std::vector<uint32_t> BlocksOf(const Unsaved& unsaved) {
    std::vector<uint32_t> ids;
    for (const FMUnsavedBlock& block : unsaved)
        ids.push_back(block.blockID);
    return ids;
}

} // namespace

TEST(Durability, ABlockGoesThroughItsStates) {
    LogCapture quiet(RT_LOG_SILENT);
    TestClock clock;
    Cache cache;
    FileRef file = cache.Create();
    const FMFileID id = file->GetFileInfo().fileID;
    BlockRef block = Cache::Block(*file, 1);
    EXPECT_EQ(ConditionOf(block), Condition::Empty);
    const CRtMessageChain piece = CRtMessageBlock::Wrap("ab", 2);
    block->WriteData(4, 0, piece.get());
    EXPECT_EQ(ConditionOf(block), Condition::Filling);
    fs::create_directory(cache.Path(id, ".sdd")); // the store fails
    block->WriteData(4, 2, piece.get());
    Cache::RunReadwrQueue();
    EXPECT_EQ(ConditionOf(block), Condition::Failed);
    fs::remove(cache.Path(id, ".sdd"));
    static_cast<CFMFile&>(*file).RetryFailedStores();
    Cache::RunReadwrQueue();
    EXPECT_EQ(ConditionOf(block), Condition::Stored);
    EXPECT_TRUE(FMGetBlockStatus(*block).isResident);
    EXPECT_FALSE(Survives(block)); // no table names it
    Unsaved unsaved;
    EXPECT_EQ(FMFlush(unsaved), RT_OK);
    EXPECT_TRUE(Survives(block));

    block.Reset();
    cache.Close(file);
    file = cache.Open(id);
    block = Cache::Block(*file, 1, 0);
    EXPECT_EQ(ConditionOf(block), Condition::Stored);
    EXPECT_FALSE(FMGetBlockStatus(*block).isResident);
    EXPECT_TRUE(Survives(block));
    const BlockRef resident = Cache::Block(*file, 2);
    Write(*resident, "x");
    EXPECT_EQ(FMFlush(unsaved), RT_OK);
    EXPECT_TRUE(Survives(resident));
    fs::resize_file(cache.Path(id, ".sdd"), 1);
    Write(*Cache::Block(*file, 3), "x"); // the store finds the data file truncated
    FMWaitUntilIdle();
    EXPECT_EQ(ConditionOf(block), Condition::Lost);
    EXPECT_FALSE(Survives(block));
    static_cast<CFMFile&>(*file).RetryFailedStores();
    FMWaitUntilIdle();
    EXPECT_EQ(ConditionOf(resident), Condition::Stored);
    EXPECT_FALSE(Survives(resident)); // its entry was revoked
    EXPECT_EQ(FMFlush(unsaved), RT_ERROR_IO);
    EXPECT_EQ(BlocksOf(unsaved), std::vector<uint32_t>{1});
    block->WriteData(4, 0, piece.get());
    EXPECT_FALSE(Survives(block));
}

TEST(Durability, AFlushListsWhatItCouldNotWriteAndTheNextOneWritesIt) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    FileRef open = cache.Create();
    FileRef closed = cache.Create();
    FileRef temporary = cache.Create(1, FM_FILE_TEMPORARY);
    const FMFileID ids[] = {open->GetFileInfo().fileID, closed->GetFileInfo().fileID};
    for (const FileRef* file : {&open, &closed, &temporary})
        Write(*Cache::Block(**file, 7), "abc");
    cache.Close(closed);
    FMWaitUntilIdle();
    for (const FMFileID& id : ids) {
        fs::remove(cache.Path(id, ".sdi"));
        fs::create_directory(cache.Path(id, ".sdi"));
    }
    closed = cache.Create(); // also a closed file whose table is pending
    const FMFileID pending = closed->GetFileInfo().fileID;
    Write(*Cache::Block(*closed, 8), "abc");
    FMWaitUntilIdle();
    fs::create_directory(cache.Path(pending, ".sdi"));
    cache.Close(closed);
    Unsaved unsaved;
    EXPECT_EQ(FMFlush(unsaved), RT_ERROR_IO);
    EXPECT_EQ(BlocksOf(unsaved), (std::vector<uint32_t>{7, 8}));
    EXPECT_TRUE(!unsaved.empty() && unsaved.front().fileID == ids[0]);
    for (const FMFileID& id : {ids[0], ids[1], pending})
        fs::remove(cache.Path(id, ".sdi"));
    EXPECT_EQ(FMFlush(unsaved), RT_OK);
    EXPECT_TRUE(unsaved.empty());
    EXPECT_TRUE(Survives(Cache::Block(*open, 7)));
    EXPECT_FALSE(Survives(Cache::Block(*temporary, 7)));
    Write(*Cache::Block(*open, 9), "abc");
    FMWaitUntilIdle();
    fs::remove(cache.Path(ids[0], ".sdi"));
    fs::create_directory(cache.Path(ids[0], ".sdi"));
    EXPECT_EQ(FMFlush(unsaved), RT_ERROR_IO); // the failed write may have torn the older table
    EXPECT_EQ(BlocksOf(unsaved), (std::vector<uint32_t>{7, 9}));
    fs::remove(cache.Path(ids[0], ".sdi"));
    int result = -1;
    EXPECT_EQ(FMFlushAsync([&](int flushed, const Unsaved&) { result = flushed; }), RT_OK);
    cache.Stop();
    EXPECT_EQ(FMFlush(unsaved), RT_ERROR_NOT_READY);
    cache.Start(); // the callback belongs to the former run
    FMWaitUntilIdle();
    EXPECT_EQ(result, RT_ERROR_NOT_READY);
    EXPECT_EQ(FMFlushAsync({}), RT_ERROR_INVALID_ARG);
}

TEST(Durability, ACallWhenIdleComesAfterEverythingThatWasQueued) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    FileRef file = cache.Create();
    const FMFileID id = file->GetFileInfo().fileID;
    for (uint32_t block = 1; block <= 100; ++block)
        Write(*Cache::Block(*file, block), Pattern(block, 100));
    cache.Close(file); // its table is written in an event behind the stores
    int result = -1;
    bool hasRun = false;
    const auto postAgain = [&] { RtRunOnCallerThread([&] { hasRun = result == -1; }, false); };
    RtRunOnCallerThread(postAgain, false);
    EXPECT_EQ(FMCallWhenIdle([&](int idle) { result = idle; }), RT_OK);
    EXPECT_EQ(result, -1);
    while (result == -1)
        cache.thread.RunDue();
    EXPECT_EQ(result, RT_OK);
    EXPECT_TRUE(hasRun);
    EXPECT_TRUE(fs::exists(cache.Path(id, ".sdi")));
    EXPECT_EQ(FMGetUnstoredBytes(), 0U);
    EXPECT_EQ(FMCallWhenIdle({}), RT_ERROR_INVALID_ARG);
}

TEST(Durability, CallsWhenIdleDoNotWaitForEachOther) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    int calls = 0;
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(FMCallWhenIdle([&](int result) { calls += result == RT_OK ? 1 : 0; }), RT_OK);
    EXPECT_EQ(FMWaitUntilIdle(5000), RT_OK);
    EXPECT_EQ(calls, 8);
    cache.Stop(); // without a read/write thread, too
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(FMCallWhenIdle([&](int) { ++calls; }), RT_OK);
    EXPECT_EQ(FMWaitUntilIdle(5000), RT_OK);
    EXPECT_EQ(calls, 10);
}

TEST(Catalog, AFileThatHasJustBeenClosedIsListedAsItsTableSays) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    FileRef file = cache.Create();
    const CRtString stem = FMFileIDToString(file->GetFileInfo().fileID);
    for (const uint32_t block : {1U, 2U})
        Write(*Cache::Block(*file, block), "bytes");
    cache.Close(file); // stores and table are queued
    std::vector<CRtString> stems;
    std::vector<CRtString> others;
    FMCachedFile found;
    EXPECT_EQ(FMDescribeCachedFile("", stem, found), RT_OK);
    EXPECT_TRUE(found.isLoadable && found.findings.empty() && !found.isOpenHere);
    EXPECT_EQ(found.storedBlocks, 2U);
    EXPECT_EQ(FMListCachedFiles("", stems, others), RT_OK);
    EXPECT_TRUE(stems.size() == 1 && stems.front() == stem && others.empty());
    const CRtString nul(std::string(stem.c_str()) + FM_INFO_EXTENSION + '\0');
    EXPECT_EQ(FMDescribeCachedFile("", nul, found), RT_ERROR_INVALID_ARG);
}
