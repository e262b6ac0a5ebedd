// The manager's tick: statistics, memory collection, the daily housekeeping.
#include <gtest/gtest.h>

#include "FMCatalog.h"
#include "testing/kit.h"
#include "util/filemanager/filemanager.h"

namespace {

void Tick(Cache& cache, TestClock& clock, int64_t ms = 60'000) {
    clock.Advance(ms);
    cache.thread.RunDue();
}

} // namespace

TEST(Timer, WritesStatisticsEveryThirdTickAndStartsHousekeepingDaily) {
    TestClock clock;
    LogCapture log;
    Cache cache(1);
    const auto runsAfter = [&](int64_t ms) {
        Tick(cache, clock, ms);
        FMWaitUntilIdle();
        return log.Count("CFileManager::HouseKeeping_m. Dir:");
    };
    std::vector<size_t> lines;
    for (int tick = 0; tick < 8; ++tick) {
        EXPECT_EQ(runsAfter(60'000), 1U);
        cache.Start(); // has no effect
        lines.push_back(log.Count("CFileManager::OnTimer, statistics "));
    }
    EXPECT_EQ(lines, (std::vector<size_t>{0, 1, 1, 1, 2, 2, 2, 3}));
    EXPECT_EQ(log.Count("statistics  cache: [memo-Max=536870912 Cur=0] [files Cur=0 c-0 d-0] "
                        "[blocks c-0 d-0] [time s-0 g-0 p-0]"),
              3U);
    EXPECT_EQ(runsAfter(86'399'000 - 7 * 60'000),
              1U); // since the first run: a day without a second
    EXPECT_EQ(runsAfter(61'000), 2U);
    CFileManager::Instance()->OnTimer(nullptr); // not its timer
    cache.Stop();
    EXPECT_EQ(runsAfter(2 * 86'400'000), 2U); // no tick without a manager
    EXPECT_EQ(FMStartHousekeeping(), RT_ERROR_NOT_READY);
}

TEST(Collection, ReleasesIdleBlocksOfAClientAtEveryTick) {
    TestClock clock;
    LogCapture log;
    Cache cache(0);
    const FileRef file = cache.Create();
    const BlockRef block = Cache::Block(*file, 1);
    const BlockRef half = Cache::Block(*file, 2);
    Write(*block, Pattern(1, 1000));
    const CRtMessageChain piece = CRtMessageBlock::CreateCopy("half", 4);
    half->WriteData(8, 0, piece.get());
    FMWaitUntilIdle();
    Tick(cache, clock, 240'000);
    EXPECT_TRUE(block->IsInMemory());
    clock.Advance(1);
    Tick(cache, clock);
    EXPECT_FALSE(block->IsInMemory());
    EXPECT_TRUE(half->IsInMemory());
    EXPECT_EQ(CFileManager::Instance()->GetMemoryInUse(), 8U);

    // Above twice the limit the idle time halves; a block that fails to be stored is never released.
    const uint32_t big = 48u << 20;
    for (uint32_t id = 3; id < 6; ++id)
        Write(*Cache::Block(*file, id), std::string(big, 'x'));
    EXPECT_EQ(Read(*block), Pattern(1, 1000));
    FMWaitUntilIdle();
    Tick(cache, clock, 120'000);
    EXPECT_TRUE(block->IsInMemory());
    EXPECT_EQ(log.Count("CFileManager::MemoyCollect, Max=67108864, Size=150995952"), 1U);
    clock.Advance(1);
    EXPECT_FALSE(block->FreeMemory());
    Tick(cache, clock);
    EXPECT_EQ(CFileManager::Instance()->GetMemoryInUse(), 8U + 2 * big); // below the limit again
    EXPECT_EQ(FMStartHousekeeping(), RT_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(log.Count("HouseKeeping_m"), 0U); // a client does no housekeeping
}

TEST(Collection, ReleasesNothingOnAServerBelowItsLimit) {
    TestClock clock;
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache(1);
    const FileRef file = cache.Create();
    const BlockRef block = Cache::Block(*file, 1);
    Write(*block, Pattern(1, 1000));
    const uint32_t most = 536'870'912 - 1000;
    const BlockRef filler = Cache::Block(*file, 2);
    const CRtMessageChain piece = CRtMessageBlock::CreateCopy("x", 1);
    EXPECT_EQ(filler->WriteData(most - 1, 0, piece.get()), 0);
    FMWaitUntilIdle();
    Tick(cache, clock, 600'000);
    EXPECT_TRUE(block->IsInMemory());
    EXPECT_EQ(filler->WriteData(most, 0, piece.get()), 0); // reaches the limit
    Tick(cache, clock);
    EXPECT_FALSE(block->IsInMemory());
}
