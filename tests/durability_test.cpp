// What is on disk while a file is open: the state of a block, FMFlush, the catalog, and waiting until both threads
// are idle.
#include "FMDurability.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>

#include "FMCatalog.h"
#include "testing/kit.h"
#include "util/filemanager/filemanager.h"

namespace {

using Condition = FMBlockCondition;
using Blocks = std::vector<uint32_t>;

Condition ConditionOf(const BlockRef& block) { return FMGetBlockStatus(*block).condition; }
bool Survives(const BlockRef& block) { return FMGetBlockStatus(*block).survivesKill; }

// Flushes. Returns the blocks that were not written.
Blocks Flush(int expected) {
    std::vector<FMUnsavedBlock> unsaved;
    EXPECT_EQ(FMFlush(unsaved), expected);
    Blocks ids;
    for (const FMUnsavedBlock& block : unsaved)
        ids.push_back(block.blockID);
    return ids;
}

// Until Unblock, the path cannot be written as a file.
void BlockPath(const fs::path& path) {
    fs::remove(path);
    fs::create_directory(path);
}
void Unblock(const fs::path& path) { fs::remove(path); }

} // namespace

TEST(Durability, ABlockGoesThroughItsStates) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    FileRef file = cache.Create();
    const fs::path data = cache.Path(file->GetFileInfo().fileID, ".sdd");
    const BlockRef block = Cache::Block(*file, 1);
    EXPECT_EQ(ConditionOf(block), Condition::Empty);
    const CRtMessageChain piece = CRtMessageBlock::Wrap("ab", 2);
    block->WriteData(4, 0, piece.get());
    EXPECT_EQ(ConditionOf(block), Condition::Filling);
    BlockPath(data);
    block->WriteData(4, 2, piece.get());
    Cache::RunReadwrQueue();
    EXPECT_EQ(ConditionOf(block), Condition::Failed);
    Unblock(data);
    static_cast<CFMFile&>(*file).RetryFailedStores();
    Cache::RunReadwrQueue();
    EXPECT_EQ(ConditionOf(block), Condition::Stored);
    EXPECT_FALSE(Survives(block)); // no table names it
    EXPECT_EQ(Flush(RT_OK), Blocks());
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

TEST(Durability, AFlushListsWhatItCouldNotWriteAndTheNextOneWritesIt) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    FileRef open = cache.Create();
    FileRef closed = cache.Create();
    FileRef temporary = cache.Create(1, FM_FILE_TEMPORARY);
    const fs::path openInfo = cache.Path(open->GetFileInfo().fileID, ".sdi");
    const fs::path closedInfo = cache.Path(closed->GetFileInfo().fileID, ".sdi");
    Write(*Cache::Block(*open, 7), "abc");
    Write(*Cache::Block(*closed, 8), "abc");
    Write(*Cache::Block(*temporary, 9), "abc");
    FMWaitUntilIdle();
    BlockPath(openInfo);
    BlockPath(closedInfo);
    cache.Close(closed); // its table stays pending
    EXPECT_EQ(Flush(RT_ERROR_IO), (Blocks{7, 8}));
    Unblock(openInfo);
    Unblock(closedInfo);
    EXPECT_EQ(Flush(RT_OK), Blocks());
    EXPECT_TRUE(fs::exists(closedInfo));
    EXPECT_TRUE(Survives(Cache::Block(*open, 7)));
    EXPECT_FALSE(Survives(Cache::Block(*temporary, 9)));
    Write(*Cache::Block(*open, 9), "abc");
    FMWaitUntilIdle();
    BlockPath(openInfo);
    EXPECT_EQ(Flush(RT_ERROR_IO), (Blocks{7, 9})); // the write may have torn the older table
    Unblock(openInfo);
    int result = -1;
    EXPECT_EQ(FMFlushAsync([&](int flushed, const auto&) { result = flushed; }), RT_OK);
    cache.Stop();
    Flush(RT_ERROR_NOT_READY);
    cache.Start(); // the callback belongs to the former run
    FMWaitUntilIdle();
    EXPECT_EQ(result, RT_ERROR_NOT_READY);
    EXPECT_EQ(FMFlushAsync({}), RT_ERROR_INVALID_ARG);
}

TEST(Idle, CallsComeAfterEverythingThatWasQueuedAndDoNotWaitForEachOther) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    FileRef file = cache.Create();
    const fs::path info = cache.Path(file->GetFileInfo().fileID, ".sdi");
    Write(*Cache::Block(*file, 1), "bytes");
    cache.Close(file); // its table is written in an event behind the store
    int calls = 0;
    bool wereTheyLast = false;
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(50);
    const std::function<void()> post = [&] {
        wereTheyLast = calls == 0;
        if (std::chrono::steady_clock::now() < end)
            RtRunOnCallerThread(post, false);
    };
    post();
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(FMCallWhenIdle([&](int result) { calls += result == RT_OK ? 1 : 0; }), RT_OK);
    EXPECT_EQ(FMCallWhenIdle({}), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(calls, 0);
    while (calls == 0)
        cache.thread.RunDue();
    EXPECT_EQ(calls, 8);
    EXPECT_TRUE(wereTheyLast);
    EXPECT_TRUE(fs::exists(info));
    cache.Stop(); // without a read/write thread, too
    EXPECT_EQ(FMCallWhenIdle([&](int) { ++calls; }), RT_OK);
    EXPECT_EQ(FMWaitUntilIdle(5000), RT_OK);
    EXPECT_EQ(calls, 9);
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

TEST(Catalog, AFileThatHasJustBeenClosedIsListedAsItsTableSays) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    FileRef file = cache.Create();
    const CRtString stem = FMFileIDToString(file->GetFileInfo().fileID);
    Write(*Cache::Block(*file, 1), "bytes");
    cache.Close(file); // store and table are queued
    FMCachedFile found;
    EXPECT_EQ(FMDescribeCachedFile("", stem, found), RT_OK);
    EXPECT_TRUE(found.isLoadable && found.findings.empty() && !found.isOpenHere);
    EXPECT_EQ(found.storedBlocks, 1U);
    std::vector<CRtString> stems;
    std::vector<CRtString> others;
    EXPECT_EQ(FMListCachedFiles("", stems, others), RT_OK);
    EXPECT_TRUE(stems == std::vector{stem} && others.empty());
    const CRtString nul(std::string(stem.c_str()) + FM_INFO_EXTENSION + '\0');
    EXPECT_EQ(FMDescribeCachedFile("", nul, found), RT_ERROR_INVALID_ARG);
}
