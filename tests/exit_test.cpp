// Stores that are pending when the manager stops and the process ends, for each kind of caller thread.
#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>

#include "testing/kit.h"

namespace {

constexpr uint32_t BLOCKS = 1000;
constexpr char SHARED_DIR[] = "FILEMANAGER_TEST_DIR";

// The child of a death test may run the test from the start: it uses the directory of its parent.
struct SharedDir {
    SharedDir() { SetVariable(SHARED_DIR, dir.path.string()); }
    const TempDir dir = std::getenv(SHARED_DIR) ? TempDir(std::getenv(SHARED_DIR)) : TempDir();
};

std::string Content(uint32_t id) { return Pattern(id, 3000 + id); }

// Queues BLOCKS stores.
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
        CRtCallerThread callerThread;
        FillDetachAndUnInitialize(dir);
    }
    std::exit(0); // like a return from main
}

void OnACallerThreadOfTheProgram(const TempDir& dir) {
    CRtCallerThread callerThread; // its destructor never runs
    RtRunOnCallerThread([&] { FillUnInitializeAndExit(dir); }, false);
    callerThread.Run();
}

void FromMainWithACallerThreadOfTheRuntime(const TempDir& dir) {
    RtRunOnCallerThread([&] { FillDetachAndUnInitialize(dir); }, false);
    std::exit(0);
}

void OnTheCallerThreadOfTheRuntime(const TempDir& dir) {
    RtRunOnCallerThread([&] { FillUnInitializeAndExit(dir); }, true);
    std::this_thread::sleep_for(std::chrono::hours(1));
}

// The table of a closed file is pending in the caller thread's queue when the process ends.
void WithoutUnInitialize(const TempDir& dir) {
    const CRtCallerThread callerThread; // its destructor never runs
    IFileManager::Instance()->DetachFile(Fill(dir));
    std::exit(0);
}

// The sink runs at process end, after the read/write thread has ended.
void WithASinkThatReadsAgain(const TempDir& dir) {
    // Never destroyed: the sink is called after the destructors of the program's static objects.
    static CountingSink* const sink = new CountingSink;
    static IFMBlock* block = nullptr;
    sink->then = [](IFMBlock* asked, int) { asked->ReadData(sink); };
    const CRtCallerThread callerThread;
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
    {"OnACallerThreadOfTheProgram", OnACallerThreadOfTheProgram},
    {"FromMainWithACallerThreadOfTheRuntime", FromMainWithACallerThreadOfTheRuntime},
    {"OnTheCallerThreadOfTheRuntime", OnTheCallerThreadOfTheRuntime},
    {"WithoutUnInitialize", WithoutUnInitialize},
    {"WithASinkThatReadsAgain", WithASinkThatReadsAgain},
};

class Exit : public testing::TestWithParam<Ending> {};

} // namespace

TEST_P(Exit, StoresAllPendingBlocks) {
    const SharedDir shared;
    EXPECT_EXIT(GetParam().end(shared.dir), testing::ExitedWithCode(0), "");
    ExpectAllThere(shared.dir);
}

INSTANTIATE_TEST_SUITE_P(Process, Exit, testing::ValuesIn(ENDINGS),
                         [](const auto& ending) { return std::string(ending.param.name); });
