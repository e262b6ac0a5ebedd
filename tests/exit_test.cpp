// Stores that are pending when the manager stops and the process ends, for each kind of caller thread.
#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>

#include "testing/kit.h"

namespace {

constexpr uint32_t BLOCKS = 1000;
constexpr char SHARED_DIR[] = "FILEMANAGER_TEST_DIR";
constexpr FMFileID ID{0x11111111, 0x2222, 0x3333, {1, 2, 3, 4, 5, 6, 7, 8}};

std::string Content(uint32_t id) { return Pattern(id, 3000 + id); }

// Queues BLOCKS stores.
void Fill(const TempDir& dir) {
    IFileManager* manager = IFileManager::Instance();
    manager->Initialize(CRtString(dir.path.string()), 7, 1);
    FMFileInfo info = Description();
    info.fileID = ID;
    FileRef file;
    manager->CreateFile(file.Receive(), info);
    for (uint32_t id = 1; id <= BLOCKS; ++id)
        Write(*Cache::Block(*file, id), Content(id));
}

void UnInitializeAndExit(const TempDir& dir) {
    Fill(dir);
    IFileManager::Instance()->UnInitialize();
    std::exit(0);
}

struct Ending {
    const char* name;
    void (*end)(const TempDir& dir);
};
const Ending ENDINGS[] = {
    {"OnACallerThreadOfTheProgram",
     [](const TempDir& dir) {
         CRtCallerThread callerThread; // its destructor never runs
         RtRunOnCallerThread([&] { UnInitializeAndExit(dir); }, false);
         callerThread.Run();
     }},
    {"OnTheCallerThreadOfTheRuntime",
     [](const TempDir& dir) {
         RtRunOnCallerThread([&] { UnInitializeAndExit(dir); }, true);
         std::this_thread::sleep_for(std::chrono::hours(1));
     }},
    {"FromMainWithACallerThreadOfTheRuntime",
     [](const TempDir& dir) {
         RtRunOnCallerThread(
             [&dir] {
                 Fill(dir);
                 IFileManager::Instance()->DetachFile(ID);
                 IFileManager::Instance()->UnInitialize();
             },
             false);
         std::exit(0);
     }},
    // The table of the closed file is pending in the caller thread's queue. The sink runs after the read/write thread
    // has ended, and after the destructors of the program's static objects: it is never destroyed.
    {"WithoutUnInitializeButWithASinkThatReadsAgain", [](const TempDir& dir) {
         static CountingSink* const sink = new CountingSink;
         sink->then = [](IFMBlock* asked, int) { asked->ReadData(sink); };
         const CRtCallerThread callerThread; // its destructor never runs
         Fill(dir);
         IFileManager::Instance()->DetachFile(ID);
         IFMFile* file = nullptr;
         IFMBlock* block = nullptr;
         IFileManager::Instance()->CreateFile(file, Description());
         file->GetBlock(block, 1, 1);
         block->ReadData(sink);
         std::exit(0);
     }}};

class Exit : public testing::TestWithParam<Ending> {};

} // namespace

TEST_P(Exit, StoresAllPendingBlocks) {
    // The child of a death test may run the test from the start: it uses the directory of its parent.
    const char* const shared = std::getenv(SHARED_DIR);
    const TempDir dir = shared ? TempDir(shared) : TempDir();
    SetVariable(SHARED_DIR, dir.path.string());
    EXPECT_EXIT(GetParam().end(dir), testing::ExitedWithCode(0), "");
    Cache cache(dir.path);
    const FileRef file = cache.Open(ID);
    ASSERT_TRUE(file);
    for (uint32_t id = 1; id <= BLOCKS; ++id) {
        const BlockRef block = Cache::Block(*file, id, 0);
        ASSERT_TRUE(block && Read(*block) == Content(id)) << id;
    }
}

INSTANTIATE_TEST_SUITE_P(Process, Exit, testing::ValuesIn(ENDINGS),
                         [](const auto& ending) { return std::string(ending.param.name); });
