// Failing operations: each file operation of a fixed workload in turn, once and permanently, each allocation in
// turn, a full file system, a stalled disk. No crash, hang or leak; each readable block holds the bytes of one
// complete write; after the fault has passed, the cache works again.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <csignal>

#include "FMCatalog.h"
#include "util/filemanager/filemanager.h"
#include "workload.h"

using namespace faults;

namespace {

struct Fault {
    const char* name;
    uint32_t kinds;
    Action action;
    int error;
};

constexpr Fault FAULTS[] = {
    {"OpenNoDescriptor", OPEN, FAIL, EMFILE},
    {"OpenNoPermission", OPEN, FAIL, EACCES},
    {"ReadError", READ, FAIL, EIO},
    {"WriteFull", WRITE, FAIL, ENOSPC},
    {"WriteHalf", WRITE, HALF, EIO},
    {"CloseError", CLOSE, FAIL, EIO},
    {"RemoveNoPermission", REMOVE, FAIL, EACCES},
    {"MakeDirFull", MAKE_DIR, FAIL, ENOSPC},
    {"RemoveDirError", REMOVE_DIR, FAIL, EIO},
    {"LookError", LOOK, FAIL, EIO},
};

enum Lasts { ONCE, UNTIL_THE_RUN_ENDS, TO_THE_END };

class Failing : public testing::TestWithParam<std::tuple<Fault, Lasts>> {};

std::string NameOf(const testing::TestParamInfo<Failing::ParamType>& info) {
    const char* const lasts[] = {"Once", "UntilTheRunEnds", "ToTheEnd"};
    return std::string(std::get<0>(info.param).name) + lasts[std::get<1>(info.param)];
}

} // namespace

TEST_P(Failing, AtEveryOperation) {
    const auto& [fault, lasts] = GetParam();
    Plan plan{.action = fault.action,
              .kinds = fault.kinds,
              .forever = lasts != ONCE,
              .error = fault.error};
    // The workload looks at files a thousand times, and most of these calls come from few places.
    const uint32_t stride = fault.kinds == LOOK ? 3 * STRIDE : STRIDE;
    for (;; plan.nth += stride) {
        Trial trial;
        ASSERT_EQ(trial.Run(plan, &Workload::Run, lasts != TO_THE_END), "done")
            << "fault at operation " << plan.nth << ": " << FirstHit();
        if (Hits() == 0)
            break;
    }
    EXPECT_GT(plan.nth, 1U);
    std::cout << plan.nth / stride << " faults\n";
}

INSTANTIATE_TEST_SUITE_P(File, Failing,
                         testing::Combine(testing::ValuesIn(FAULTS),
                                          testing::Values(ONCE, UNTIL_THE_RUN_ENDS, TO_THE_END)),
                         NameOf);

// If an allocation that throws fails, the process ends through std::terminate.
class Starving : public testing::TestWithParam<bool> {};

TEST_P(Starving, AtEveryAllocation) {
    Plan plan{.action = FAIL, .kinds = ALLOCATE, .forever = GetParam()};
    uint32_t coped = 0;
    for (;; plan.nth += STRIDE) {
        Trial trial;
        const std::string end = trial.Run(plan, &Workload::RunShort);
        coped += end == "done" ? 1 : 0;
        ASSERT_TRUE(end == "done" || end == "terminated")
            << "allocation " << plan.nth << ": " << end;
        if (Hits() == 0)
            break;
        ASSERT_EQ(trial.Verify(), "done") << "after allocation " << plan.nth;
    }
    if (STRIDE == 1 &&
        !GetParam()) { // no run survives when all allocations fail from some point on
        EXPECT_GT(coped, 1U);
    }
    std::cout << coped << " of " << plan.nth / STRIDE << " coped with\n";
}

INSTANTIATE_TEST_SUITE_P(Memory, Starving, testing::Bool(),
                         [](const auto& lasts) { return lasts.param ? "FromThereOn" : "Once"; });

namespace {

// A small file system if the process may mount one, else a limit on the size of files.
class SmallDisk {
public:
    explicit SmallDisk(const fs::path& dir) : m_dir(dir) {
        m_mounted = ::unshare(CLONE_NEWNS) == 0 &&
                    ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                    ::mount("none", m_dir.c_str(), "tmpfs", 0, "size=2m") == 0;
        std::cout << (m_mounted ? "a file system of 2 MiB\n" : "a limit on the size of files\n");
        std::signal(SIGXFSZ, SIG_IGN);
    }
    // Leaves space for a few more pages of 4096 bytes.
    void Fill() {
        constexpr uint64_t pages = 4;
        struct statvfs now {};
        ::statvfs(m_dir.c_str(), &now);
        Limit(m_mounted ? (now.f_blocks - now.f_bfree + pages) * now.f_frsize : pages * 4096);
    }
    void Limit(uint64_t bytes) {
        const std::string size = "size=" + std::to_string(bytes);
        const rlimit limit{bytes, RLIM_INFINITY};
        EXPECT_EQ(m_mounted ? ::mount("none", m_dir.c_str(), nullptr, MS_REMOUNT, size.c_str())
                            : ::setrlimit(RLIMIT_FSIZE, &limit),
                  0);
    }

private:
    const fs::path m_dir;
    bool m_mounted = false;
};

} // namespace

TEST(Fault, StoresAndTablesArePendingUntilAFullDiskHasSpaceAgain) {
    Trial trial;
    const auto fill = [&trial](Workload& work) {
        SmallDisk disk(trial.dir.path);
        work.Start();
        work.Make(A, {9000});
        work.Make(B, {700}, 0, 8192); // with a table of 32 KiB
        work.Make(C, {700});
        work.Make(OLD, {700});
        FMWaitUntilIdle();
        {
            const LogCapture log;
            disk.Fill();
            work.Close(B); // its table stays pending
            FMWaitUntilIdle();
            EXPECT_EQ(log.Count("SaveFileInfo_m, WriteBlockInfo error"), 1U);
            disk.Fill();
            work.Put(A, 2, 30000);
            work.Put(A, 3, 30000);
            work.Put(C, 2, 30000);
            work.Put(OLD, 2, 30000);
            FMWaitUntilIdle();
            work.Advance(60'001);
            FMWaitUntilIdle();
            EXPECT_EQ(log.Count("WriteToFile, WriteData failed"), 8U);
        }
        work.Check(A);
        work.Close(OLD);
        work.Forget(OLD);
        // Its store has failed permanently, its table is pending.
        Cache::RunReadwrQueue();
        disk.Limit(2 << 20);
        work.Close(C); // closing retries its store once
        work.ExpectStoredByTick();
        work.Stop();
        work.Verify();
    };
    EXPECT_EQ(trial.Do({}, fill), "done");
}

// docs/benchmarks.md lists the calls.
TEST(Fault, OpeningReadingAndClosingASmallFileTakesElevenCallsAndFewAllocations) {
    Trial trial;
    const auto count = [&trial](uint32_t kinds) {
        Cache cache(trial.dir.path);
        FileRef file = cache.Create();
        const FMFileID id = file->GetFileInfo().fileID;
        Write(*Cache::Block(*file, 1), Pattern(1, 4096));
        cache.Close(file);
        FMWaitUntilIdle();
        Begin(trial.dir.path, {.action = STALL, .kinds = kinds, .forever = true}); // counts
        file = cache.Open(id);
        CRtMessageBlock* bytes = nullptr;
        Cache::Block(*file, 1, 0)->ReadData(0, 4096, bytes);
        bytes->DestroyChained();
        cache.Close(file);
        const uint32_t hits = Hits();
        Lift();
        std::cout << hits << (kinds == ALLOCATE ? " allocations\n" : " calls\n");
        EXPECT_GT(hits, 0U);
        EXPECT_LE(hits, kinds == ALLOCATE ? 25U : 11U);
    };
    EXPECT_EQ(InChild([&] { count(ANY_OPERATION); }), "done");
    EXPECT_EQ(InChild([&] { count(ALLOCATE); }), "done");
}

TEST(Fault, DescribingAFileReadsItsInformationFileOnceAndChangesNothing) {
    Trial trial;
    const auto count = [&trial](uint32_t kinds, uint32_t expected) {
        Cache cache(trial.dir.path);
        FileRef file = cache.Create();
        const CRtString stem = FMFileIDToString(file->GetFileInfo().fileID);
        for (uint32_t id = 1; id <= 7000; ++id) // a table of more than 64 KiB
            Write(*Cache::Block(*file, id), "x");
        FMWaitUntilIdle();
        FMCachedFile described; // from the live object: nothing is in an information file yet
        EXPECT_EQ(FMDescribeCachedFile("", stem, described), RT_OK);
        EXPECT_TRUE(described.isOpenHere && !described.hasInfo && described.findings.empty());
        EXPECT_EQ(described.storedBlocks, 7000U);
        const CRtString directory(
            cache.Path(file->GetFileInfo().fileID, "").parent_path().string());
        EXPECT_EQ(FMDescribeCachedFile(directory, stem, described), RT_OK);
        EXPECT_TRUE(described.isOpenHere && !described.isLoadable && described.dataLength == 7000);
        ASSERT_EQ(described.findings.size(), 1U);
        EXPECT_FALSE(described.findings[0].isFault);
        cache.Close(file);
        FMWaitUntilIdle();
        Begin(trial.dir.path, {.action = STALL, .kinds = kinds, .forever = true}); // counts
        EXPECT_EQ(FMDescribeCachedFile("", stem, described), RT_OK);
        const uint32_t hits = Hits();
        Lift();
        EXPECT_EQ(hits, expected);
        EXPECT_TRUE(described.isLoadable && !described.isOpenHere && !described.isOpenElsewhere);
        EXPECT_EQ(described.storedBlocks, 7000U);
        EXPECT_EQ(described.highestBlock, 7000U);
    };
    EXPECT_EQ(InChild([&] { count(READ, 1); }), "done");
    EXPECT_EQ(InChild([&] { count(OPEN, 2); }), "done"); // the data file for the query of its lock
    EXPECT_EQ(InChild([&] { count(WRITE | REMOVE | MAKE_DIR | REMOVE_DIR, 0); }), "done");
}

TEST(Fault, UnknownFingerprintDoesNotCountAsChanged) {
    Trial trial;
    const auto work = [&trial](Workload& workload) {
        workload.Start();
        workload.Make(A, {700, 900});
        FMWaitUntilIdle();
        IFMFile* file = nullptr;
        FMFileID id;
        FMFileIDFromString(CRtString(Workload::Name(A)), id);
        ASSERT_EQ(IFileManager::Instance()->OpenFile(file, id, 0), 0);
        Begin(trial.dir.path, {.action = FAIL, .kinds = LOOK, .error = EIO});
        static_cast<CFMFile*>(file)->GetEntry().CloseStreams();
        EXPECT_EQ(Hits(), 1U);
        Lift();
        file->ReleaseReference();
        workload.Put(A, 3, 500);
        workload.ExpectStoredByTick();
        workload.Stop();
        workload.Verify();
    };
    EXPECT_EQ(trial.Do({}, work), "done");
}

TEST(Fault, UnInitializeWaitsForAStalledDisk) {
    Trial trial;
    const auto stop = [](Workload& work) {
        work.Start();
        work.Make(A, {700});
        const LogCapture log(RT_LOG_WARNING);
        work.Stop();
        const std::string text = log.Text();
        const size_t at = text.find("CFileManager::UnInitialize, waiting for the disk, in use:");
        ASSERT_NE(at, std::string::npos);
        EXPECT_LT(text.find(Workload::Name(A) + ".sdd", at), text.find('\n', at));
    };
    EXPECT_EQ(trial.Do({.action = STALL, .kinds = WRITE, .stallMs = 10'000}, stop), "done");
    EXPECT_EQ(Hits(), 1U);
    EXPECT_EQ(trial.Verify(), "done"); // the stored block is present
}
