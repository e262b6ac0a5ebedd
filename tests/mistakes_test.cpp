// Mistakes of an application: each one is reported once, in a line that says what to do.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <thread>

#include "FMCatalog.h"
#include "FMStatistics.h"
#include "testing/kit.h"
#include "util/filemanager/fmfile.h"

namespace {

using testing::HasSubstr;

void On(const std::function<void()>& work) { std::thread(work).join(); }

// A program, in the child process of a death test: the process ends after `work`.
void RunProgram(const std::function<void(IFileManager& manager, const fs::path& store)>& work) {
    const TempDir dir;
    static CRtCallerThread thread;
    IFileManager* manager = IFileManager::Instance();
    manager->Initialize(CRtString(dir.path.string()), 7, 1);
    work(*manager, dir.path / FM_SERVER_STORE);
    std::exit(0);
}

std::string Text(const FMFileID& id) { return FMFileIDToString(id).c_str(); }

} // namespace

TEST(Mistakes, ACallOnAWrongThreadIsReportedOnce) {
    LogCapture log(RT_LOG_ERROR);
    Cache cache;
    const FileRef file = cache.Create();
    const BlockRef block = Cache::Block(*file, 1);
    On([&] { block->IsComplete(); });
    On([&] { Write(*block, "x"); });
    RtRunOnCallerThread([&] { EXPECT_TRUE(block->IsComplete()); }, true);
    EXPECT_EQ(
        log.Count(
            "IFMBlock::IsComplete, mistake: called on a thread that is not the caller thread. "
            "Call it on the thread that created CRtCallerThread, or through "
            "RtRunOnCallerThread."),
        1U);
    EXPECT_EQ(log.Count("mistake"), 1U) << log.Text();
}

TEST(Mistakes, InitializeOnAnotherThreadThanTheCallerThreadIsReported) {
    LogCapture log(RT_LOG_ERROR);
    const TempDir dir;
    IFileManager* manager =
        IFileManager::Instance(); // no CRtCallerThread: the runtime starts a thread
    manager->Initialize(CRtString(dir.path.string()), 7, 1);
    EXPECT_EQ(
        log.Count("IFileManager::Initialize, mistake: called on a thread that is not the caller"),
        1U);
    RtRunOnCallerThread([&] { manager->UnInitialize(); }, true);
    EXPECT_EQ(log.Count("mistake"), 1U) << log.Text();
}

TEST(Mistakes, AMarkThatIsSetOnAnotherThreadIsReported) {
    LogCapture log(RT_LOG_ERROR);
    const Cache cache;
    On([] { FMSetHighWaterMark(0, {}); });
    EXPECT_EQ(log.Count("FMSetHighWaterMark, mistake: called on a thread"), 1U) << log.Text();
}

TEST(Mistakes, UseBeforeInitializeIsReportedAndWritesNothing) {
    LogCapture log(RT_LOG_ERROR);
    const TempDir dir;
    fs::current_path(dir.path);
    Cache cache(dir.path / "cache", false);
    FileRef file = cache.Create();
    const FMFileID id = file->GetFileInfo().fileID;
    EXPECT_EQ(
        log.Count(
            "IFileManager::CreateFile, mistake: the manager is not initialized, so the blocks "
            "of the file stay in memory only. Call IFileManager::Initialize first."),
        1U);
    EXPECT_FALSE(cache.Open(Description().fileID));
    Write(*Cache::Block(*file, 1), "abc");
    cache.Start();
    static_cast<CFMFile&>(*file).RetryFailedStores();
    FMWaitUntilIdle();
    EXPECT_EQ(Read(*Cache::Block(*file, 1)), "abc");
    EXPECT_EQ(log.Count("mistake"), 1U) << log.Text();
    cache.Close(file);
    FMWaitUntilIdle();
    EXPECT_EQ(CountFiles(dir.path), 0U);
    EXPECT_FALSE(cache.Open(id));
}

TEST(Mistakes, ADataDirectoryThatCannotBeCreatedIsReportedWithItsError) {
    LogCapture log(RT_LOG_ERROR);
    const TempDir dir;
    WriteFile(dir.path / "file", "");
    const Cache cache(dir.path / "file" / "below");
    EXPECT_EQ(log.Count("IFileManager::Initialize, mistake: the store directory " +
                        (dir.path / "file" / "below").string()),
              1U)
        << log.Text();
    EXPECT_EQ(log.Count(" cannot be created, so blocks stay in memory only: "), 1U);
    EXPECT_EQ(
        log.Count("file: EEXIST (File exists). Pass a directory that this process may create."), 1U)
        << log.Text();
}

TEST(Mistakes, WhatCannotBeSavedIsReportedAtItsCreation) {
    LogCapture log(RT_LOG_ERROR);
    Cache cache;
    FMFileInfo info = Description(0);
    info.name = CRtString(std::string(2010, 'n'));
    FileRef file = cache.Create(info);
    EXPECT_EQ(log.Count("mistake"), 0U) << log.Text();
    const std::string name = "fileID=" + Text(info.fileID) + ",path=";
    Cache::Block(*file, 0);
    Cache::Block(*file, 0); // it exists
    EXPECT_EQ(log.Count("IFMFile::GetBlock, mistake: block 0 cannot be saved"), 1U);
    Cache::Block(*file, FM_INFO_SLOTS_MAX);
    EXPECT_EQ(log.Count("IFMFile::GetBlock, mistake: block 65535 cannot be saved"), 1U);
    EXPECT_EQ(log.Count(name), 2U) << log.Text();
    for (const size_t length : {2011, 2012}) { // each file, not only the first
        FMFileInfo longer = Description();
        longer.name = CRtString(std::string(length, 'n'));
        cache.Create(longer);
        EXPECT_EQ(
            log.Count(
                "IFileManager::CreateFile, mistake: the name has " + std::to_string(length) +
                " bytes, so the file cannot be loaded again. Use at most 2010 bytes. fileID=" +
                Text(longer.fileID) + ",path="),
            1U)
            << log.Text();
    }
}

TEST(Mistakes, ExceededLimitsAreReportedWithTheirFile) {
    LogCapture log(RT_LOG_ERROR);
    Cache cache;
    const FileRef file = cache.Create();
    const std::string name = "blockID=1,fileID=" + Text(file->GetFileInfo().fileID) + ",path=";
    const BlockRef block = Cache::Block(*file, 1);
    const CRtMessageChain piece = CRtMessageBlock::Wrap("abc", 3);
    EXPECT_EQ(block->WriteData(10, 0, piece.get()), 0);
    EXPECT_EQ(block->WriteData(11, 3, piece.get()), 0);
    EXPECT_EQ(block->WriteData(12, 6, piece.get()), 0);
    EXPECT_EQ(
        log.Count(
            "IFMBlock::WriteData, mistake: blockLen is 11, but the first piece set the length of "
            "the block to 10, which the block keeps."),
        1U);
    EXPECT_EQ(log.Count(name), 1U) << log.Text();
    constexpr uint32_t large = cmax_block_data_len + 1;
    EXPECT_EQ(Cache::Block(*file, 2)->WriteData(large, 0, piece.get()), 0);
    EXPECT_EQ(
        log.Count("IFMBlock::WriteData, mistake: blockLen is 16777217, and the limit is 16777216"),
        1U);
    int64_t offset = 0;
    static_cast<CFMFile&>(*file).AllocPosition(offset, cmax_filea_data_len - 2);
    for (const uint32_t id : {3U, 4U})
        Write(*Cache::Block(*file, id), "x");
    EXPECT_EQ(log.Count("mistake: the data file exceeds the limit of 1073741824 bytes"), 0U);
    for (const uint32_t id : {5U, 6U})
        Write(*Cache::Block(*file, id), "x");
    EXPECT_EQ(log.Count("mistake: the data file exceeds the limit of 1073741824 bytes"), 1U)
        << log.Text();
}

TEST(Mistakes, FilesThatUnInitializeCannotSaveAreCountedAndNamed) {
    LogCapture log(RT_LOG_ERROR);
    Cache cache;
    FileRef file = cache.Create();
    const FMFileID id = file->GetFileInfo().fileID;
    Write(*Cache::Block(*file, 1), "abc");
    FMWaitUntilIdle();
    fs::create_directory(cache.Path(id, ".sdi"));
    cache.Stop();
    EXPECT_EQ(log.Count("IFileManager::UnInitialize, mistake: files in "), 1U) << log.Text();
    EXPECT_EQ(log.Count(" that were not saved: 1. "), 1U);
    EXPECT_EQ(
        log.Count("call Initialize and UnInitialize before the process ends. fileID=" + Text(id)),
        1U)
        << log.Text();
    EXPECT_GT(log.Count("CDiskFile::Open, system error E"), 0U);
    fs::remove(cache.Path(id, ".sdi"));
    cache.Start();
    cache.Stop();
    cache.Start();
    EXPECT_EQ(log.Count(" were not saved"), 1U);
    const FileRef again = cache.Open(id);
    ASSERT_TRUE(again);
    EXPECT_EQ(Read(*Cache::Block(*again, 1, 0)), "abc");
}

TEST(Mistakes, BlocksThatACloseLosesAreCounted) {
    LogCapture log(RT_LOG_ERROR);
    Cache cache;
    FileRef file = cache.Create();
    const FMFileID id = file->GetFileInfo().fileID;
    fs::create_directory(cache.Path(id, ".sdd"));
    for (const uint32_t block : {1U, 2U})
        Write(*Cache::Block(*file, block), "abc");
    cache.Close(file);
    Cache::RunReadwrQueue(); // the stores fail for the last time
    fs::remove(cache.Path(id, ".sdd"));
    FMWaitUntilIdle();
    EXPECT_EQ(log.Count("closed file that could not be stored are lost: 2. To find them before "
                        "the close, call FMFlush. fileID=" +
                        Text(id)),
              1U)
        << log.Text();
}

TEST(MistakesDeathTest, AProcessWhoseUnInitializeHasReportedItsFilesDoesNotRepeatIt) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto program = [](IFileManager& manager, const fs::path& store) {
        const FMFileInfo info = Description();
        FileRef file;
        manager.CreateFile(file.Receive(), info);
        fs::create_directories(store / (Text(info.fileID) + ".sdi"));
        Write(*Cache::Block(*file, 1), "abc");
        manager.UnInitialize();
    };
    EXPECT_EXIT(RunProgram(program), testing::ExitedWithCode(0),
                testing::AllOf(HasSubstr("UnInitialize, mistake: files in "),
                               testing::Not(HasSubstr("process end, mistake"))));
}

TEST(MistakesDeathTest, AProcessThatEndsWithoutUnInitializeCountsItsUnsavedFiles) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto program = [](IFileManager& manager, const fs::path&) {
        for (int i = 0; i < 41; ++i) {
            FileRef file;
            manager.CreateFile(file.Receive(), Description());
            Cache::Block(*file, 1);
            BlockRef removed; // else file and block would reference each other at the end
            file->RemoveBlock(1, removed.Receive());
        }
    };
    EXPECT_EXIT(
        RunProgram(program), testing::ExitedWithCode(0),
        testing::AllOf(HasSubstr("process end, mistake: files in "),
                       HasSubstr(" that were not saved: 41. Call IFileManager::UnInitialize "
                                 "before the process ends. fileID={"),
                       HasSubstr("process end, not saved: fileID={")));
}

TEST(Mistakes, ResultCodesHaveANameAndAText) {
    EXPECT_STREQ(RtResultName(RT_OK), "RT_OK");
    EXPECT_STREQ(RtResultName(10015), "RT_ERROR_NOT_READY");
    EXPECT_STREQ(RtResultText(10011), "not found");
    EXPECT_STREQ(RtResultName(10012), "unknown result code");
}

// --- Deep recursion -----------------------------------------------------------------------------

namespace {

// A sink that reads the same resident block again from inside its call. Compiled as an application is.
class RecursiveSink final : public IFMBlockSink {
public:
#if defined(__GNUC__) && !defined(__clang__)
    __attribute__((optimize("O2")))
#endif
    void
    OnBlockDataReady(IFMBlock* block, int) override {
        const volatile char here = 0;
        last = reinterpret_cast<uintptr_t>(&here);
        if (depth == 0)
            first = last;
        if (++depth < LEVELS)
            block->ReadData(this);
    }
    static constexpr uintptr_t LEVELS = 4'000; // the stack of a thread has 1 MiB on some systems
    uintptr_t depth = 0;
    uintptr_t first = 0;
    uintptr_t last = 0;
};

} // namespace

TEST(Recursion, OneLevelNeedsLessThan200BytesOfStack) {
#ifdef FILEMANAGER_SANITIZED
    GTEST_SKIP() << "sanitizers enlarge the frames";
#endif
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    const FileRef file = cache.Create();
    const BlockRef block = Cache::Block(*file, 1);
    Write(*block, "abc");
    RecursiveSink sink;
    EXPECT_EQ(block->ReadData(&sink), 0);
    EXPECT_EQ(sink.depth, RecursiveSink::LEVELS);
    EXPECT_LT((sink.first - sink.last) / RecursiveSink::LEVELS, 200U);
}
