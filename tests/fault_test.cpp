// A stalled disk, no memory, and the number of system calls and allocations of a small file. The simulator makes single
// calls fail.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <exception>
#include <fstream>
#include <functional>
#include <map>

#include "FMCatalog.h"
#include "FMDurability.h"
#include "testing/faults.h"
#include "testing/kit.h"
#include "testing/others.h"
#include "util/filemanager/filemanager.h"
#include "util/filemanager/statistics.h"

using namespace faults;

namespace {

// What a child process that runs `work` returns: a new process for the library.
int InChild(const std::function<int()>& work) noexcept { // a child must not return
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(work());
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status)) << "signal " << WTERMSIG(status);
    return WEXITSTATUS(status);
}

enum Starved : int { NO_FAILURE, COPED, TERMINATED, FAULTY };

// Creates a file, reads blocks of a saved file and writes another one while allocations fail.
Starved Starve(const fs::path& dir, const FMFileID& id, const Plan& plan) {
    std::set_terminate([] { ::_exit(TERMINATED); });
    RtSetLogSink([](void*, int, const char*) {}, nullptr, RT_LOG_ERROR);
    Cache cache(dir);
    FileRef file;
    CountingSink sink;
    sink.results.reserve(8);
    const CRtMessageChain piece = CRtMessageBlock::CreateCopy(Pattern(3, 800).data(), 800);
    FMFileInfo info = Description(0);
    Begin(dir, plan);
    bool isRight = true;
    if (cache.manager->CreateFile(file.Receive(), info) == RT_OK) {
        BlockRef block;
        if (file->GetBlock(block.Receive(), 0, 1) == RT_OK)
            block->WriteData(800, 0, piece.get());
        FMCachedFile described;
        FMDescribeCachedFile("", FMFileIDToString(info.fileID), described);
        block.Reset();
        cache.Close(file);
    }
    if (cache.manager->OpenFile(file.Receive(), id, 1) == RT_OK) {
        BlockRef block;
        CRtMessageChain view;
        if (file->GetBlock(block.Receive(), 2, 0) == RT_OK &&
            block->ReadData(0, 9, RtReceive(view)) == RT_OK) {
            isRight = Bytes(view) == "the other";
            block->WriteData(9, 0, view.get()); // in place
        }
        if (file->GetBlock(block.Receive(), 1, 0) == RT_OK)
            block->ReadData(&sink);
        if (file->GetBlock(block.Receive(), 3, 1) == RT_OK) {
            const int result = block->WriteData(800, 0, piece.get());
            isRight =
                isRight && (result == RT_OK ? block->IsComplete() : block->GetPosition() == 0);
            block->WriteData(800, 0, piece.get()); // a rewrite
        }
        FMWaitUntilIdle();
    }
    Lift();
    const bool hasFailed = Hits() > 0;
    file = cache.Open(id);
    if (!file || Read(*Cache::Block(*file, 1, 0)) != Pattern(1, 700))
        return FAULTY;
    const BlockRef written = Cache::Block(*file, 3);
    isRight = isRight && (written->IsComplete() || Write(*written, Pattern(3, 800)) == RT_OK);
    isRight = isRight && Read(*written) == Pattern(3, 800) && sink.results.size() <= 1;
    cache.Close(file);
    cache.Stop();
    cache.thread.RunDue();
    file.Reset();
    isRight = isRight && g_statistics.Get(CFMStatistics::FilesCreated) ==
                             g_statistics.Get(CFMStatistics::FilesDestroyed) + 1; // `written`
    return !isRight ? FAULTY : hasFailed ? COPED : NO_FAILURE;
}

} // namespace

// An allocation of the standard library that fails ends the process, as a kill does.
TEST(Fault, AFailingAllocationLosesNothingThatWasSaved) {
    const FMFileID id = Description().fileID;
    for (const bool isLasting : {false, true}) {
        std::map<int, int> ends;
        for (uint32_t nth = 1; ends[NO_FAILURE] == 0; nth += SLOWNESS) {
            const TempDir dir;
            InChild([&] {
                Cache cache(dir.path);
                FMFileInfo info = Description();
                info.fileID = id;
                FileRef file = cache.Create(info);
                Write(*Cache::Block(*file, 1), Pattern(1, 700));
                Write(*Cache::Block(*file, 2), "the other");
                cache.Close(file);
                return 0;
            });
            const int end = InChild([&] {
                return Starve(dir.path, id, {FAIL, ALLOCATE, nth, isLasting, 0, 0});
            });
            const int found = InChild([&] {
                Cache cache(dir.path);
                const FileRef file = cache.Open(id);
                if (!file || Read(*Cache::Block(*file, 1, 0)) != Pattern(1, 700))
                    return 1;
                const bool isThere = Read(*Cache::Block(*file, 3)) == Pattern(3, 800);
                return isThere || end == TERMINATED ? 0 : 3;
            });
            ASSERT_TRUE(end != FAULTY && found == 0)
                << "allocation " << nth << " ended " << end << " found " << found;
            ++ends[end];
        }
        std::cout << ends[COPED] << " coped with, " << ends[TERMINATED] << " ended the process\n";
        EXPECT_TRUE(isLasting || ends[COPED] > 0);
    }
}

// The address space has no room for the stack of a thread.
TEST(Fault, WithoutAReadWriteThreadBlocksStayInMemory) {
    const TempDir dir;
    const int end = InChild([&] {
        LogCapture log(RT_LOG_ERROR);
        Cache cache(dir.path, false);
        std::ifstream statm("/proc/self/statm");
        rlim_t pages = 0;
        statm >> pages;
        const rlim_t most = pages * static_cast<rlim_t>(::sysconf(_SC_PAGESIZE)) + (4U << 20);
        const rlimit full{most, most};
        if (::setrlimit(RLIMIT_AS, &full) != 0)
            return 1;
        cache.Start();
        if (log.Count("CFileManager::Initialize, Start Local R/W Thread error. ret=") != 1)
            return 2;
        FileRef file = cache.Create();
        if (log.Count(" Assert failed: m_pReadwrTd && m_pCallerTd") != 1)
            return 3;
        Write(*Cache::Block(*file, 1), "bytes");
        std::vector<FMUnsavedBlock> unsaved;
        const bool isRefused =
            FMFlush(unsaved) == RT_ERROR_NOT_READY && FMStartHousekeeping() == RT_ERROR_NOT_READY &&
            FMStartHousekeeping() == RT_ERROR_NOT_READY && FMWaitUntilIdle() == RT_OK;
        return isRefused && Read(*Cache::Block(*file, 1, 0)) == "bytes" ? 0 : 4;
    });
    EXPECT_EQ(end, 0);
}

// docs/benchmarks.md lists the calls.
TEST(Fault, OpeningReadingAndClosingASmallFileTakesElevenCallsAndFewAllocations) {
    Cache cache;
    const auto count = [&cache](uint32_t kinds) {
        FileRef file = cache.Create();
        const FMFileID id = file->GetFileInfo().fileID;
        Write(*Cache::Block(*file, 1), Pattern(1, 4096));
        cache.Close(file);
        FMWaitUntilIdle();
        Begin(cache.dir.path, {.action = STALL, .kinds = kinds, .forever = true}); // counts
        file = cache.Open(id);
        CRtMessageBlock* bytes = nullptr;
        Cache::Block(*file, 1, 0)->ReadData(0, 4096, bytes);
        bytes->DestroyChained();
        cache.Close(file);
        Lift();
        return Hits();
    };
    const uint32_t calls = count(ANY_OPERATION);
    const uint32_t allocations = count(ALLOCATE);
    std::cout << calls << " calls, " << allocations << " allocations\n";
    EXPECT_TRUE(calls > 0 && calls <= 11);
    EXPECT_TRUE(allocations > 0 && allocations <= 25);
}

TEST(Fault, DescribingAFileReadsItsInformationFileOnceAndChangesNothing) {
    Cache cache;
    FileRef file = cache.Create();
    const FMFileID id = file->GetFileInfo().fileID;
    const CRtString stem = FMFileIDToString(id);
    FMCachedFile described; // from the live object: there are no files yet
    EXPECT_EQ(FMDescribeCachedFile("", stem, described), RT_OK);
    EXPECT_TRUE(described.isOpenHere && !described.hasData);
    for (uint32_t block = 1; block <= 7000; ++block) // a table of more than 64 KiB
        Write(*Cache::Block(*file, block), "x");
    FMWaitUntilIdle();
    // From the live object: nothing is in an information file yet.
    EXPECT_EQ(FMDescribeCachedFile("", stem, described), RT_OK);
    EXPECT_TRUE(described.isOpenHere && !described.hasInfo && described.findings.empty());
    EXPECT_EQ(described.storedBlocks, 7000U);
    const CRtString directory(cache.Path(file->GetFileInfo().fileID, "").parent_path().string());
    EXPECT_EQ(FMDescribeCachedFile(directory, stem, described), RT_OK);
    EXPECT_TRUE(described.isOpenHere && !described.isLoadable && described.dataLength == 7000);
    ASSERT_EQ(described.findings.size(), 1U);
    EXPECT_FALSE(described.findings[0].isFault);
    EXPECT_EQ(FMDescribeCachedFile(CRtString(cache.dir.path.string()), stem, described),
              RT_ERROR_NOT_FOUND);
    WriteFile(cache.dir.path / (std::string(stem.view()) + ".sdd"), "x"); // in another directory
    EXPECT_EQ(FMDescribeCachedFile(CRtString(cache.dir.path.string()), stem, described), RT_OK);
    EXPECT_FALSE(described.isOpenHere);
    {
        const Gate gate;
        Write(*Cache::Block(*file, 7001), "x");
        cache.Close(file);
        EXPECT_EQ(FMDescribeCachedFile(directory, stem, described), RT_OK);
        EXPECT_FALSE(described.isOpenHere || described.isOpenElsewhere);
    }
    FMWaitUntilIdle();
    const auto count = [&](uint32_t kinds) {
        Begin(cache.dir.path, {.action = STALL, .kinds = kinds, .forever = true}); // counts
        EXPECT_EQ(FMDescribeCachedFile("", stem, described), RT_OK);
        Lift();
        return Hits();
    };
    EXPECT_EQ(count(READ), 1U);
    EXPECT_EQ(count(OPEN), 2U); // the data file for the query of its lock
    EXPECT_EQ(count(WRITE | REMOVE | MAKE_DIR | REMOVE_DIR), 0U);
    EXPECT_TRUE(described.isLoadable && !described.isOpenHere && !described.isOpenElsewhere);
    EXPECT_EQ(described.infoLength, fs::file_size(cache.Path(id, ".sdi")));
    EXPECT_EQ(described.storedBlocks, 7001U);
    EXPECT_EQ(described.highestBlock, 7001U);
    fs::resize_file(cache.Path(id, ".sdd"), (1U << 30) + 1);
    EXPECT_EQ(FMDescribeCachedFile("", stem, described), RT_OK);
    EXPECT_EQ(described.findings.at(0).what, "the data file has 1.0 GiB");
}

// At each call, the call fails, or another program removes the files.
TEST(Fault, TheCatalogIsRightAboutAFileThatVanishesOrCannotBeExamined) {
    const LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    const CRtString store((cache.dir.path / "." / FM_SERVER_STORE).string()); // another spelling
    std::vector<CRtString> stems;
    std::vector<CRtString> others;
    FMCachedFile found;
    for (const bool isRemoved : {false, true}) {
        for (const bool isOpen : {false, true}) {
            for (uint32_t call = 1, hits = 1; hits > 0; ++call) {
                FileRef file = cache.Create();
                const FMFileID id = file->GetFileInfo().fileID;
                const CRtString stem = FMFileIDToString(id);
                const auto remove = [&] {
                    fs::remove(cache.Path(id, ".sdd"));
                    fs::remove(cache.Path(id, ".sdi"));
                };
                Write(*Cache::Block(*file, 1), "bytes");
                cache.Close(file);
                FMWaitUntilIdle();
                if (isOpen)
                    file = cache.Open(id);
                SetCallback(remove);
                const size_t handles = CountHandles();
                Begin(cache.dir.path,
                      {.action = isRemoved ? CALL : FAIL, .nth = call, .error = EIO});
                const int listed = FMListCachedFiles(store, stems, others);
                const int described = FMDescribeCachedFile(isOpen ? "" : store, stem, found);
                const int removed = FMRemoveCachedFile(store, stem, isOpen);
                hits = Hits();
                Lift();
                EXPECT_EQ(CountHandles(), handles);
                // An error of readdir looks like the end of the directory.
                const bool isShort = isRemoved || FirstHit() == std::string_view("readdir64");
                EXPECT_TRUE(isShort || listed != RT_OK || std::ranges::count(stems, stem) == 1);
                EXPECT_TRUE(described == RT_OK ? found.isOpenHere == isOpen : isRemoved);
                EXPECT_EQ(found.isLoadable,
                          described == RT_OK && found.infoFault.empty() && found.isDescribed);
                EXPECT_TRUE(removed != RT_OK || !fs::exists(cache.Path(id, ".sdd")));
                EXPECT_TRUE(removed != RT_OK || !fs::exists(cache.Path(id, ".sdi")));
                EXPECT_TRUE(hits > 0 || removed == RT_OK);
                if (file)
                    cache.Close(file);
                FMWaitUntilIdle();
                remove();
            }
        }
    }
}

TEST(Fault, AStoreThatCanBeCreatedLaterIsNotReported) {
    const LogCapture log(RT_LOG_ERROR);
    const TempDir dir;
    Begin(dir.path, {.action = FAIL, .kinds = MAKE_DIR, .error = EACCES});
    const Cache cache(dir.path);
    EXPECT_EQ(Hits(), 1U);
    EXPECT_EQ(log.Text(), "");
}

TEST(Fault, AFullDiskDoesNotPreventTheRemovalOfAnInformationFile) {
    const LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    const CRtString store((cache.dir.path / FM_SERVER_STORE).string());
    const FMFileInfo info = Description();
    WriteFile(cache.Path(info.fileID, ".sdi"), InfoFile(info, {2, '\0'}));
    Begin(cache.dir.path, {.action = FAIL, .kinds = OPEN, .forever = true, .error = ENOSPC});
    EXPECT_EQ(FMRemoveCachedFile(store, FMFileIDToString(info.fileID), false), RT_OK);
    Lift();
    EXPECT_EQ(CountFiles(cache.dir.path), 0U);
    WriteFile(cache.Path(info.fileID, ".sdd"), "data");
    Begin(cache.dir.path,
          {.action = FAIL, .kinds = REMOVE, .nth = 2, .forever = true, .error = EACCES});
    EXPECT_EQ(FMRemoveCachedFile(store, FMFileIDToString(info.fileID), false), RT_ERROR_IO);
}

TEST(Fault, ADataFileThatIsReplacedAtAnyCallOfAReadNeverYieldsForeignBytes) {
    const LogCapture quiet(RT_LOG_SILENT);
    TestClock clock;
    Cache cache;
    for (uint32_t call = 1, hits = 1; hits > 0; ++call) {
        const FileRef file = cache.Create();
        const BlockRef block = Cache::Block(*file, 1);
        Write(*block, Pattern(1, 5000));
        FMWaitUntilIdle();
        clock.Advance(240'001);
        ASSERT_FALSE(block->FreeMemory());
        static_cast<CFMFile&>(*file).GetEntry().CloseStreams();
        const fs::path foreign = cache.dir.path / "foreign";
        WriteFile(foreign, Pattern(2, 5000));
        SetCallback([&] { fs::rename(foreign, cache.Path(file->GetFileInfo().fileID, ".sdd")); });
        Begin(cache.dir.path, {.action = CALL, .nth = call});
        const std::string bytes = Read(*block);
        hits = Hits();
        Lift();
        EXPECT_TRUE(bytes == Pattern(1, 5000) || bytes.starts_with("error")) << "at call " << call;
    }
}

TEST(Fault, ARewriteOrARetryWithoutMemoryKeepsTheBytes) {
    const LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    const FileRef file = cache.Create();
    const BlockRef block = Cache::Block(*file, 1);
    const fs::path data = cache.Path(file->GetFileInfo().fileID, ".sdd");
    fs::create_directory(data);
    Write(*block, "bytes");
    FMWaitUntilIdle(); // the store has failed
    CRtMessageChain view;
    EXPECT_EQ(block->ReadData(0, 5, RtReceive(view)), 0); // a further copy is allocated
    const Plan noMemory{FAIL, ALLOCATE, 1, false, 0, 0};
    Begin(cache.dir.path, noMemory);
    EXPECT_EQ(block->WriteData(5, 0, view.get()), RT_ERROR_NULL_OBJECT);
    Begin(cache.dir.path, noMemory);
    static_cast<CFMFile&>(*file).RetryFailedStores();
    EXPECT_EQ(Hits(), 1U);
    Lift();
    EXPECT_EQ(FMGetBlockStatus(*block).condition, FMBlockCondition::Failed);
    fs::remove(data);
    static_cast<CFMFile&>(*file).RetryFailedStores();
    FMWaitUntilIdle();
    EXPECT_EQ(ReadFile(data), "bytes");
}

// The stamp is compared if it is known, else the identity and the length.
TEST(Fault, AnOpeningFindsAFileForeignThatAnotherProgramHasChanged) {
    const LogCapture quiet(RT_LOG_SILENT);
    const TempDir dir;
    const fs::path path = dir.path / "file";
    const auto isForeign = [&](bool isKnown, const std::function<void()>& change) {
        fs::remove(path);
        const CRtComAutoPtr<CDiskFile> file(new CDiskFile(CRtString(path.string())));
        EXPECT_EQ(file->WriteData("four", 0, 4, 1), 0);
        if (!isKnown)
            Begin(dir.path, {FAIL, LOOK, 1, true, EIO, 0});
        file->Close();
        Lift();
        change();
        EXPECT_TRUE(file->TakeExisting() && file->HasStream());
        return file->GetOpening().isForeign;
    };
    for (const bool isKnown : {false, true}) {
        EXPECT_FALSE(isForeign(isKnown, [] {}));
        EXPECT_EQ(isForeign(isKnown, [&] { WriteFile(path, "longer"); }), isKnown);
        EXPECT_TRUE(isForeign(isKnown, [&] { fs::resize_file(path, 3); }));
        EXPECT_TRUE(isForeign(isKnown, [&] {
            WriteFile(dir.path / "new", "four");
            fs::rename(dir.path / "new", path);
        }));
    }
}

// Damage to the table of an open file, before a block is rewritten in place.
TEST(Fault, ARewriteRevokesItsEntryInADamagedTableOrFails) {
    const LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    const auto tableAt = static_cast<uint32_t>(FM_INFO_BODY_OFFSET + FM_INFO_FILE_BODY_FIXED +
                                               Description().name.size() + FM_INFO_LENGTH_SIZE);
    const auto rewrite = [&](const std::function<void(const fs::path&)>& damage, const Plan& plan) {
        FileRef file = cache.Create();
        const FMFileID id = file->GetFileInfo().fileID;
        const fs::path info = cache.Path(id, ".sdi");
        for (const uint32_t block : {1U, 2U})
            Write(*Cache::Block(*file, block), Pattern(block, 500));
        cache.Close(file);
        FMWaitUntilIdle();
        file = cache.Open(id);
        damage(info);
        Begin(cache.dir.path, plan);
        Write(*Cache::Block(*file, 2), Pattern(3, 500));
        FMWaitUntilIdle();
        Lift();
        const bool isWritten =
            ReadFile(cache.Path(id, ".sdd")) == Pattern(1, 500) + Pattern(3, 500);
        for (const FMBlockEntry& entry : sim::ReadTable(info))
            EXPECT_TRUE(!isWritten || entry.blockID != 2 || entry.posInFile < 0);
        cache.Close(file);
        FMWaitUntilIdle();
        file = cache.Open(id);
        EXPECT_EQ(file ? Read(*Cache::Block(*file, 2)) : "", Pattern(3, 500));
        return isWritten;
    };
    const auto nothing = [](const fs::path&) {};
    const auto overwrite = [=](uint32_t at, const char* bytes) {
        return [=](const fs::path& info) { sim::Overwrite(info, tableAt + at, bytes); };
    };
    EXPECT_TRUE(rewrite(nothing, {}));
    EXPECT_TRUE(rewrite([=](const fs::path& info) { fs::resize_file(info, tableAt - 2); }, {}));
    EXPECT_TRUE(rewrite([=](const fs::path& info) { fs::resize_file(info, tableAt + 9); }, {}));
    EXPECT_TRUE(rewrite(overwrite(FM_INFO_COUNT_SIZE + FM_INFO_ENTRY_SIZE * 2 - 1, "\x80"), {}));
    EXPECT_TRUE(rewrite([](const fs::path& info) { fs::remove(info); }, {}));
    EXPECT_TRUE(rewrite(
        [](const fs::path& info) {
            fs::copy_file(info, info.parent_path() / "copy");
            fs::rename(info.parent_path() / "copy", info);
        },
        {}));
    const auto tooLong = [=](const fs::path& info) {
        sim::Overwrite(info, tableAt - 4, "\xff\xff\xff");
    };
    EXPECT_TRUE(rewrite(tooLong, {}));
    EXPECT_FALSE(rewrite(tooLong, {FAIL, WRITE, 1, true, ENOSPC, 0}));
    EXPECT_FALSE(rewrite(nothing, {FAIL, READ, 1, true, EIO, 0}));
    EXPECT_FALSE(rewrite(nothing, {FAIL, WRITE, 1, true, ENOSPC, 0}));
}

TEST(Fault, UnInitializeWaitsForAStalledDiskAndNamesTheFile) {
    LogCapture log(RT_LOG_WARNING);
    Cache cache;
    FileRef file = cache.Create();
    const FMFileID id = file->GetFileInfo().fileID;
    FMWaitUntilIdle();
    Begin(cache.dir.path, {.action = STALL, .kinds = WRITE, .stallMs = 1'500}); // in real time
    Write(*Cache::Block(*file, 1), Pattern(1, 700));
    file.Reset();
    cache.Stop();
    const std::string text = log.Text();
    const size_t at = text.find("CFileManager::UnInitialize, waiting for the disk, in use:");
    ASSERT_NE(at, std::string::npos);
    EXPECT_LT(text.find(cache.Path(id, ".sdd").filename().string(), at), text.find('\n', at));
    EXPECT_EQ(Hits(), 1U);
    cache.Start();
    file = cache.Open(id);
    ASSERT_TRUE(file);
    EXPECT_EQ(Read(*Cache::Block(*file, 1, 0)), Pattern(1, 700));
}
