// Stores that are queued when the manager stops and the process ends, in every arrangement of thread 3.
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

void FillDetachAndUnInitialize(const TempDir& dir) {
    IFileManager::Instance()->DetachFile(Fill(dir));
    IFileManager::Instance()->UnInitialize();
}

void FillUnInitializeAndExit(const TempDir& dir) {
    Fill(dir);
    IFileManager::Instance()->UnInitialize();
    std::exit(0);
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

// --- How a process ends -------------------------------------------------------------------------

struct Ending {
    const char* name;
    void (*end)(const TempDir& dir);
};

void FromMain(const TempDir& dir) {
    {
        CRtCallerThread three;
        FillDetachAndUnInitialize(dir);
    }
    std::exit(0); // as a return from main does
}

void OnAnOwnThreadThree(const TempDir& dir) {
    CRtCallerThread three; // never given back
    RtRunOnCallerThread([&] { FillUnInitializeAndExit(dir); }, false);
    three.Run();
}

void FromMainWhileTheRuntimeRunsThreadThree(const TempDir& dir) {
    RtRunOnCallerThread([&] { FillDetachAndUnInitialize(dir); }, false);
    std::exit(0);
}

void OnTheRuntimesThreadThree(const TempDir& dir) {
    RtRunOnCallerThread([&] { FillUnInitializeAndExit(dir); }, true);
    std::this_thread::sleep_for(std::chrono::hours(1));
}

// Closed information still waits in thread 3's queue when the process ends.
void WithoutUnInitialize(const TempDir& dir) {
    const CRtCallerThread three; // never given back
    IFileManager::Instance()->DetachFile(Fill(dir));
    std::exit(0);
}

// While the process ends: the read/write thread is gone by then.
void WithASinkThatAsksAgain(const TempDir& dir) {
    // Lives until the end, which is after the program's own static objects.
    static CountingSink* const sink = new CountingSink;
    static IFMBlock* block = nullptr;
    sink->then = [](IFMBlock* asked, int) { asked->ReadData(sink); };
    const CRtCallerThread three;
    IFileManager* manager = IFileManager::Instance();
    manager->DetachFile(Fill(dir));
    IFMFile* file = nullptr;
    manager->CreateFile(file, Description());
    file->GetBlock(block, 1, 1);
    block->ReadData(sink);
    std::exit(0);
}

constexpr Ending ENDINGS[] = {
    {"FromMain", FromMain},
    {"OnAnOwnThreadThree", OnAnOwnThreadThree},
    {"FromMainWhileTheRuntimeRunsThreadThree", FromMainWhileTheRuntimeRunsThreadThree},
    {"OnTheRuntimesThreadThree", OnTheRuntimesThreadThree},
    {"WithoutUnInitialize", WithoutUnInitialize},
    {"WithASinkThatAsksAgain", WithASinkThatAsksAgain},
};

class Exit : public testing::TestWithParam<Ending> {};

} // namespace

TEST_P(Exit, LeavesAllOnDisk) {
    const SharedDir shared;
    EXPECT_EXIT(GetParam().end(shared.dir), testing::ExitedWithCode(0), "");
    ExpectAllThere(shared.dir);
}

INSTANTIATE_TEST_SUITE_P(Process, Exit, testing::ValuesIn(ENDINGS),
                         [](const auto& ending) { return std::string(ending.param.name); });
