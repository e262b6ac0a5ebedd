// Stores that are queued when the manager stops and the process ends, in every arrangement of thread 3;
// starting again and again in one process.
#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>

#include "support.h"

namespace {

constexpr uint32_t BLOCKS = 1000;
constexpr char SHARED_DIR[] = "FILEMANAGER_TEST_DIR";

// The child of a death test may run its test from the beginning: it works in its parent's directory.
struct SharedDir {
    SharedDir() { SetVariable(SHARED_DIR, dir.path.string()); }
    const TempDir dir = std::getenv(SHARED_DIR) ? TempDir(std::getenv(SHARED_DIR)) : TempDir();
};

std::string Content(uint32_t id) { return Pattern(id, 3000 + id); }

// Leaves BLOCKS stores queued behind each other.
FMFileID Fill(const TempDir& dir) {
    IFileManager* manager = IFileManager::Instance();
    manager->Initialize(CRtString(dir.path.string()), 7, 1);
    IFMFile* file = nullptr;
    FMFileInfo info = Description();
    FMFileIDFromString("{11111111-2222-3333-4444-555555555555}", info.fileID);
    manager->CreateFile(file, info);
    for (uint32_t id = 1; id <= BLOCKS; ++id)
        Write(*Cache::Block(*file, id), Content(id));
    file->ReleaseReference();
    return info.fileID;
}

void FillAndUnInitialize(const TempDir& dir, bool detachFirst) {
    const FMFileID id = Fill(dir);
    if (detachFirst)
        IFileManager::Instance()->DetachFile(id);
    IFileManager::Instance()->UnInitialize();
}

void ExpectAllThere(const TempDir& dir) {
    Cache cache;
    cache.Stop();
    FMFileID id;
    FMFileIDFromString("{11111111-2222-3333-4444-555555555555}", id);
    fs::remove_all(cache.dir.path / "sdstore");
    fs::rename(dir.path / "sdstore", cache.dir.path / "sdstore");
    cache.Start();
    const FileRef file = cache.Open(id);
    ASSERT_TRUE(file);
    for (uint32_t block = 1; block <= BLOCKS; ++block) {
        const BlockRef found = Cache::Block(*file, block, 0);
        ASSERT_TRUE(found && Read(*found) == Content(block)) << block;
    }
}

} // namespace

TEST(Exit, FromMainWithAnOwnThreadThree) {
    const SharedDir shared;
    const TempDir& dir = shared.dir;
    EXPECT_EXIT(
        {
            {
                CRtCallerThread three;
                FillAndUnInitialize(dir, true);
            }
            std::exit(0); // as a return from main does
        },
        testing::ExitedWithCode(0), "");
    ExpectAllThere(dir);
}

TEST(Exit, ThroughExitOnAnOwnThreadThreeThatIsNeverGivenBack) {
    const SharedDir shared;
    const TempDir& dir = shared.dir;
    EXPECT_EXIT(
        {
            CRtCallerThread three;
            RtRunOnCallerThread(
                [&] {
                    FillAndUnInitialize(dir, false);
                    std::exit(0);
                },
                false);
            three.Run();
        },
        testing::ExitedWithCode(0), "");
    ExpectAllThere(dir);
}

TEST(Exit, ThroughExitFromMainWhileTheRuntimeRunsThreadThree) {
    const SharedDir shared;
    const TempDir& dir = shared.dir;
    EXPECT_EXIT(
        {
            RtRunOnCallerThread([&] { FillAndUnInitialize(dir, true); }, false);
            std::exit(0);
        },
        testing::ExitedWithCode(0), "");
    ExpectAllThere(dir);
}

TEST(Exit, ThroughExitOnTheRuntimesThreadThree) {
    const SharedDir shared;
    const TempDir& dir = shared.dir;
    EXPECT_EXIT(
        {
            RtRunOnCallerThread(
                [&] {
                    FillAndUnInitialize(dir, false);
                    std::exit(0);
                },
                true);
            std::this_thread::sleep_for(std::chrono::hours(1));
        },
        testing::ExitedWithCode(0), "");
    ExpectAllThere(dir);
}

// Closed information still waits in thread 3's queue when the process ends without UnInitialize.
TEST(Exit, WithoutUnInitializeWhatWasClosedIsWritten) {
    const SharedDir shared;
    const TempDir& dir = shared.dir;
    EXPECT_EXIT(
        {
            const CRtCallerThread three; // never given back
            IFileManager::Instance()->DetachFile(Fill(dir));
            std::exit(0);
        },
        testing::ExitedWithCode(0), "");
    ExpectAllThere(dir);
}

// A sink that asks again while the process ends: the read/write thread is gone by then.
TEST(Exit, WithASinkThatAsksAgain) {
    const SharedDir shared;
    const TempDir& dir = shared.dir;
    EXPECT_EXIT(
        {
            // Lives until the end, which is after the program's own static objects.
            static CountingSink* const sink = new CountingSink;
            static IFMBlock* block = nullptr;
            sink->then = [](IFMBlock* asked, int) { asked->ReadData(sink); };
            const CRtCallerThread three;
            IFileManager* manager = IFileManager::Instance();
            manager->Initialize(CRtString(dir.path.string()), 7, 1);
            IFMFile* file = nullptr;
            manager->CreateFile(file, Description());
            file->GetBlock(block, 1, 1);
            block->ReadData(sink);
            std::exit(0);
        },
        testing::ExitedWithCode(0), "");
}

TEST(Again, TenRunsInOneProcessLeaveNothingBehind) {
    LogCapture log;
    size_t threads = 0;
    size_t descriptors = 0;
    {
        Cache cache(0);
        cache.Stop();
        for (int run = 0; run < 10; ++run) {
            cache.Start();
            EXPECT_EQ(cache.manager->Initialize("", 0, 1), 0); // a second call changes nothing
            FileRef file = cache.Create();
            const FMFileID id = file->GetFileInfo().fileID;
            Write(*Cache::Block(*file, 1), Content(1));
            cache.Close(file);
            FileRef again = cache.Open(id);
            FileRef displaced = cache.Create();
            cache.Create(displaced->GetFileInfo());
            Write(*Cache::Block(*displaced, 1), Content(2));
            CountingSink sink;
            Cache::Block(*again, 1)->ReadData(&sink);
            again.Reset();
            displaced.Reset();
            cache.Stop();
            cache.Stop();
            while (cache.thread.RunDue() > 0) {
            }
            EXPECT_EQ(sink.results.size(), 1U);
            const auto nowThreads = CountThreads();
            const auto nowDescriptors = CountHandles();
            EXPECT_TRUE(run == 0 || (threads == nowThreads && descriptors == nowDescriptors));
            threads = nowThreads;
            descriptors = nowDescriptors;
        }
    }
    EXPECT_EQ(log.Count("CFMBlock::CFMBlock,"), log.Count("CFMBlock::~CFMBlock,"));
    EXPECT_EQ(log.Count("CFMFile::CFMFile,"), log.Count("CFMFile::~CFMFile,"));
    EXPECT_EQ(log.Count("CDiskFile::CDiskFile,"), log.Count("CDiskFile::~CDiskFile,"));
    EXPECT_EQ(log.Count("CFileManager::UnInitialize, End. "), 10U + 1);
    EXPECT_EQ(log.Count("CFileManager::SetDataDir, data dir="), 1U);
    EXPECT_EQ(log.Count("CFileManager::UnInitialize, statistics  cache: [memo-Max=67108864 Cur=0]"),
              1U);
}
