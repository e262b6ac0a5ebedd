// Mistakes of an application: each one is reported once, in a line that says what to do.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <span>
#include <thread>

#include "FMCatalog.h"
#include "FMDurability.h"
#include "FMStatistics.h"
#include "testing/kit.h"
#include "util/filemanager/fmfile.h"
#include "util/filemanager/mistakes.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;

std::string Text(const FMFileID& id) { return FMFileIDToString(id).c_str(); }

// A program, in the child process of a death test: it ends with files whose tables cannot be written.
void RunProgram(int files, bool isStopped) {
    const TempDir dir;
    static CRtCallerThread thread;
    IFileManager* manager = IFileManager::Instance();
    manager->Initialize(CRtString(dir.path.string()), 7, 1);
    for (int i = 0; i < files; ++i) {
        const FMFileInfo info = Description();
        fs::create_directories(dir.path / FM_SERVER_STORE / (Text(info.fileID) + ".sdi"));
        FileRef file;
        manager->CreateFile(file.Receive(), info);
        Cache::Block(*file, 1);
        BlockRef removed; // else file and block would reference each other at the end
        file->RemoveBlock(1, removed.Receive());
    }
    if (isStopped)
        manager->UnInitialize();
    std::exit(0);
}

} // namespace

class OfServer : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(Mistakes, OfServer, testing::Range(0, 2),
                         testing::PrintToStringParamName());

TEST_P(OfServer, TheFirstCallOnAWrongThreadIsReported) {
    LogCapture log(RT_LOG_ERROR);
    Cache cache(GetParam());
    const FileRef file = cache.Create();
    const BlockRef block = Cache::Block(*file, 1);
    RtRunOnCallerThread([&] { EXPECT_FALSE(block->IsComplete()); }, true);
    EXPECT_EQ(log.Text(), "");
    FileRef found;
    BlockRef none;
    CRtMessageBlock* view = nullptr;
    uint16_t count = 0;
    const auto& noID = FMFileID_None;
    const std::pair<std::string, std::function<void()>> calls[] = {
        {"IFMBlock::IsComplete", [&] { block->IsComplete(); }},
        {"IFMBlock::IsInMemory", [&] { block->IsInMemory(); }},
        {"IFMBlock::IsAlive", [&] { block->IsAlive(); }},
        {"IFMBlock::GetTotalLen", [&] { block->GetTotalLen(); }},
        {"IFMBlock::GetPosition", [&] { block->GetPosition(); }},
        {"IFMBlock::GetData", [&] { block->GetData(); }},
        {"IFMBlock::FreeMemory", [&] { block->FreeMemory(); }},
        {"IFMBlock::WriteData", [&] { block->WriteData(1, 1, nullptr); }},
        {"IFMBlock::ReadData", [&] { block->ReadData(nullptr); }},
        {"IFMBlock::ReadData", [&] { block->ReadData(1, 0, view); }},
        {"IFMBlock::CancelReadData", [&] { block->CancelReadData(nullptr); }},
        {"IFMBlock::AddRetrieve", [&] { block->AddRetrieve(nullptr, 1); }},
        {"IFMBlock::CancelRetrieve", [&] { block->CancelRetrieve(nullptr); }},
        {"IFMBlock::GetRetrieves", [&] { block->GetRetrieves(); }},
        {"IFMBlock::GetRetrieveType", [&] { block->GetRetrieveType({}); }},
        {"IFMBlock::SetOwner", [&] { block->SetOwner(nullptr, 1); }},
        {"IFMBlock::HasOwner", [&] { block->HasOwner(); }},
        {"IFMBlock::GetOwner", [&] { block->GetOwner(); }},
        {"IFMFile::GetBlock", [&] { file->GetBlock(none.Receive(), 9, 0); }},
        {"IFMFile::GetBlocks", [&] { file->GetBlocks(); }},
        {"IFMFile::RemoveBlock", [&] { file->RemoveBlock(9, none.Receive()); }},
        {"IFMFile::CancelRetrieve", [&] { file->CancelRetrieve(nullptr, 1); }},
        {"IFileManager::CreateFile",
         [&] { cache.manager->CreateFile(found.Receive(), FMFileInfo()); }},
        {"IFileManager::OpenFile", [&] { cache.manager->OpenFile(found.Receive(), noID, 0); }},
        {"IFileManager::AttachFile", [&] { cache.manager->AttachFile(noID); }},
        {"IFileManager::DetachFile", [&] { cache.manager->DetachFile(noID); }},
        {"IFileManager::GetBlock", [&] { cache.manager->GetBlock(none.Receive(), noID, 9, 0); }},
        {"FMGetBlockStatus", [&] { FMGetBlockStatus(*block); }},
        {"FMSetHighWaterMark", [] { FMSetHighWaterMark(0, {}); }},
        {"FMStartHousekeeping", [] { EXPECT_EQ(FMStartHousekeeping(), RT_ERROR_NOT_READY); }},
        {"FMCallWhenIdle", [] { EXPECT_EQ(FMCallWhenIdle([](int) {}), RT_ERROR_NOT_READY); }},
        {"FMFlushAsync",
         [] { EXPECT_EQ(FMFlushAsync([](int, const auto&) {}), RT_ERROR_NOT_READY); }},
        {"IFMBlock::GetOwners", [&] { block->GetOwners({}, &count, nullptr); }},
    };
    const auto checked = std::span(calls).first(std::size(calls) -
                                                (GetParam() ? 0 : 1)); // a client has no GetOwners
    for (const auto& [name, call] : checked) {
        const std::string line =
            name + ", mistake: called on a thread that is not the caller thread. Call it on the "
                   "thread that created CRtCallerThread, or through RtRunOnCallerThread.";
        const size_t before = log.Count(line);
        CFMMistakes::Reset();
        for (int i = 0; i < 2; ++i)
            std::thread(call).join();
        EXPECT_EQ(log.Count(line), before + 1) << name;
    }
}

// Without a CRtCallerThread, the runtime starts a caller thread.
TEST(Mistakes, InitializeOnAnotherThreadThanTheCallerThreadIsReported) {
    LogCapture log(RT_LOG_ERROR);
    const TempDir dir;
    IFileManager::Instance()->Initialize(CRtString(dir.path.string()), 7, 1);
    RtRunOnCallerThread([] { IFileManager::Instance()->UnInitialize(); }, true);
    EXPECT_EQ(log.Count("IFileManager::Initialize, mistake: called on a thread that is not the"),
              1U);
    EXPECT_EQ(log.Count("mistake"), 1U) << log.Text();
}

TEST(Mistakes, UseBeforeInitializeIsReportedAndWritesNothing) {
    LogCapture log(RT_LOG_ERROR);
    const TempDir dir;
    fs::current_path(dir.path);
    Cache cache(dir.path / "cache", false);
    FileRef file = cache.Create();
    const FMFileID id = file->GetFileInfo().fileID;
    file = cache.Create(file->GetFileInfo()); // replaces the other
    EXPECT_EQ(
        log.Count(
            "IFileManager::CreateFile, mistake: the manager is not initialized, so the blocks "
            "of the file stay in memory only. Call IFileManager::Initialize first."),
        1U);
    EXPECT_FALSE(cache.Open(Description().fileID));
    const BlockRef block = Cache::Block(*file, 1);
    Write(*block, "abc");
    EXPECT_EQ(FMGetBlockStatus(*block).condition, FMBlockCondition::Failed);
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
    const std::string text = log.Text();
    EXPECT_THAT(text, HasSubstr("IFileManager::Initialize, mistake: the store directory " +
                                (dir.path / "file" / "below").string()));
    EXPECT_THAT(text, HasSubstr(" cannot be created, so blocks stay in memory only: "));
    EXPECT_THAT(text, HasSubstr("file: EEXIST (File exists). Pass a directory that this process "
                                "may create."));
}

TEST(Mistakes, ABlockOrANameThatCannotBeSavedIsReportedWithItsFile) {
    LogCapture log(RT_LOG_ERROR);
    Cache cache;
    for (const size_t length : {2010, 2011, 2012}) { // each file, not only the first
        FMFileInfo info = Description(0);
        info.name = CRtString(std::string(length, 'n'));
        const FileRef file = cache.Create(info);
        EXPECT_EQ(
            log.Count(
                "IFileManager::CreateFile, mistake: the name has " + std::to_string(length) +
                " bytes, so the file cannot be loaded again. Use at most 2010 bytes. fileID=" +
                Text(info.fileID) + ",path="),
            length > 2010 ? 1U : 0U);
    }
    const FileRef file = cache.Create(0);
    for (const uint32_t block :
         {0U, 0U, FM_INFO_SLOTS_MAX - 1, FM_INFO_SLOTS_MAX}) // 0 is created once
        Cache::Block(*file, block);
    const std::string text = "IFMFile::GetBlock, mistake: block ";
    EXPECT_EQ(log.Count(text + "0 cannot be saved"), 1U);
    EXPECT_EQ(log.Count(text + "65535 cannot be saved"), 1U);
    EXPECT_EQ(log.Count("fileID=" + Text(file->GetFileInfo().fileID) + ",path="), 2U) << log.Text();
}

TEST(Mistakes, ExceededLimitsAreReportedOnce) {
    LogCapture log(RT_LOG_ERROR);
    Cache cache;
    const FileRef file = cache.Create();
    const CRtMessageChain piece = CRtMessageBlock::Wrap("abc", 3);
    for (const uint32_t part : {0U, 1U, 2U})
        EXPECT_EQ(Cache::Block(*file, 1)->WriteData(10 + part, 3 * part, piece.get()), 0);
    constexpr uint32_t large = cmax_block_data_len + 1;
    EXPECT_EQ(Cache::Block(*file, 2)->WriteData(large, 0, piece.get()), 0);
    int64_t offset = 0;
    static_cast<CFMFile&>(*file).AllocPosition(offset, cmax_filea_data_len - 1);
    Write(*Cache::Block(*file, 3), "x"); // the last byte that fits
    EXPECT_EQ(log.Count("the data file exceeds"), 0U);
    EXPECT_EQ(log.Count("Assert failed: m_position < cmax_filea_data_len"), 0U);
    for (const uint32_t id : {4U, 5U})
        Write(*Cache::Block(*file, id), "x");
    for (const char* text :
         {"IFMBlock::WriteData, mistake: blockLen is 11, but the first piece set the length of the "
          "block to 10, which the block keeps.",
          "IFMBlock::WriteData, mistake: blockLen is 16777217, and the limit is 16777216",
          "mistake: the data file exceeds the limit of 1073741824 bytes"})
        EXPECT_EQ(log.Count(text), 1U) << log.Text();
    EXPECT_EQ(log.Count("Assert failed: m_position < cmax_filea_data_len"), 2U);
    EXPECT_EQ(log.Count("blockID=1,fileID=" + Text(file->GetFileInfo().fileID) + ",path="), 1U);
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
    cache.Start(); // writes the pending table
    EXPECT_TRUE(cache.Open(id));
    cache.Stop();
    EXPECT_EQ(log.Count(" were not saved"), 1U);
}

TEST(Mistakes, BlocksThatACloseLosesAreCounted) {
    LogCapture log(RT_LOG_ERROR);
    Cache cache;
    FileRef file = cache.Create();
    const FMFileID id = file->GetFileInfo().fileID;
    fs::create_directory(cache.Path(id, ".sdd"));
    for (const uint32_t block : {1U, 2U})
        Write(*Cache::Block(*file, block), "abc");
    Cache::RunReadwrQueue(); // the stores fail
    cache.Close(file);
    Cache::RunReadwrQueue(); // for the last time
    fs::remove(cache.Path(id, ".sdd"));
    FMWaitUntilIdle();
    EXPECT_EQ(log.Count("closed file that could not be stored are lost: 2. To find them before "
                        "the close, call FMFlush. fileID=" +
                        Text(id)),
              1U)
        << log.Text();
}

TEST(MistakesDeathTest, AProcessThatEndsReportsTheFilesThatUnInitializeHasNotReported) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(RunProgram(41, false), testing::ExitedWithCode(0),
                AllOf(HasSubstr("process end, mistake: files in "),
                      HasSubstr(" that were not saved: 41. Call IFileManager::UnInitialize before "
                                "the process ends. fileID={"),
                      HasSubstr("process end, not saved: fileID={")));
    EXPECT_EXIT(RunProgram(1, true), testing::ExitedWithCode(0),
                AllOf(HasSubstr("UnInitialize, mistake: files in "),
                      testing::Not(HasSubstr("process end, mistake"))));
}

TEST(Mistakes, ResultCodesHaveANameAndAText) {
    EXPECT_STREQ(RtResultName(RT_OK), "RT_OK");
    EXPECT_STREQ(RtResultName(10015), "RT_ERROR_NOT_READY");
    EXPECT_STREQ(RtResultText(10011), "not found");
    EXPECT_STREQ(RtResultName(10012), "unknown result code");
}

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
        (depth == 0 ? first : last) = reinterpret_cast<uintptr_t>(&here);
        if (++depth < LEVELS)
            block->ReadData(this);
    }
    static constexpr uintptr_t LEVELS = 4'000; // the stack of a thread has 1 MiB on some systems
    uintptr_t depth = 0, first = 0, last = 0;
};

} // namespace

TEST(Recursion, OneLevelNeedsLessThan200BytesOfStack) {
#ifdef FILEMANAGER_SANITIZED
    GTEST_SKIP() << "sanitizers enlarge the frames";
#endif
    Cache cache;
    const FileRef file = cache.Create();
    Write(*Cache::Block(*file, 1), "abc");
    RecursiveSink sink;
    EXPECT_EQ(Cache::Block(*file, 1)->ReadData(&sink), 0);
    EXPECT_EQ(sink.depth, RecursiveSink::LEVELS);
    EXPECT_LT((sink.first - sink.last) / RecursiveSink::LEVELS, 200U);
}
