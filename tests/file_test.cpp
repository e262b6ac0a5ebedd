// Files, the registry of open files, disk files and the limit of open streams.
#include <gtest/gtest.h>

#include <chrono>
#include <future>

#include "FMCatalog.h"
#include "testing/kit.h"
#include "testing/node.h"
#include "util/filemanager/filemanager.h"

TEST(Registry, LastDetachClosesTheFile) {
    LogCapture log;
    Cache cache;
    FileRef file;
    BlockRef block;
    CFileManager& manager = *CFileManager::Instance();
    FMFileInfo none = Description();
    none.fileID = FMFileID_None;
    EXPECT_EQ(manager.CreateFile(file.Receive(), none), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(manager.OpenFile(file.Receive(), FMFileID_None, 1), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(manager.GetBlock(block.Receive(), FMFileID_None, 1, 1), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(manager.AttachFile(FMFileID_None), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(manager.DetachFile(FMFileID_None), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(manager.RemoveBlock(FMFileID_None, 1, block.Receive()), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(manager.GetBlocks(FMFileID_None).size(), 0U);
    EXPECT_EQ(log.Count("util/filemanager/filemanager:"), 7U);

    file = cache.Create();
    const FMFileID id = file->GetFileInfo().fileID;
    EXPECT_EQ(manager.GetBlock(block.Receive(), id, 1, 1), 0);
    EXPECT_EQ(&manager.GetBlocks(id), &file->GetBlocks());
    EXPECT_EQ(manager.RemoveBlock(id, 1, block.Receive()), 0);
    EXPECT_EQ(manager.GetBlock(block.Receive(), id, 1, 0), RT_ERROR_NOT_FOUND);
    bool hasRun = false;
    EXPECT_EQ(manager.PostToCallerThread(new TestEvent([&] { hasRun = true; }), 1), 0);
    EXPECT_TRUE(hasRun);
    using Claim = CFMLiveFiles::CClaim;
    const Claim claim(manager.GetLiveFiles(), {1, 2, 3, {}}, Claim::WAIT);
    EXPECT_FALSE(Claim(manager.GetLiveFiles(), {1, 2, 3, {}}, Claim::IF_FREE).IsHeld());
    EXPECT_TRUE(Claim(manager.GetLiveFiles(), {2, 2, 3, {}}, Claim::IF_FREE).IsHeld());
    EXPECT_EQ(manager.AttachFile(id), 0);
    EXPECT_EQ(manager.AttachFile(id), 0);
    EXPECT_EQ(manager.DetachFile(id), 0);
    EXPECT_EQ(manager.IsFileOpen(FMFileIDToString(id)), 1);
    EXPECT_EQ(manager.DetachFile(id), 0);
    EXPECT_EQ(manager.IsFileOpen(FMFileIDToString(id)), 0);
    EXPECT_EQ(file->GetBlocks().size(), 0U);
    EXPECT_EQ(file->GetBlock(block.Receive(), 1, 1), RT_ERROR_NOT_READY); // closed
}

TEST(File, TableGrowsWhenABlockIsRequested) {
    LogCapture log(RT_LOG_WARNING);
    Cache cache;
    FMFileInfo info = Description(100);
    info.num = 8193; // more than 8192: the default of 64
    FileRef file = cache.Create(info);
    IFMBlock* block = nullptr;
    const auto get = [&](uint32_t id, int create) {
        const int result = file->GetBlock(block, id, create);
        if (result == 0)
            block->ReleaseReference();
        return result;
    };
    EXPECT_EQ(get(164, 0), RT_ERROR_NOT_FOUND);
    const struct {
        uint32_t id;
        int result;
        uint32_t slots;
    } requests[] = {{99, RT_ERROR_INVALID_ARG, 64},
                    {163, 0, 64},
                    {164, 0, 128},
                    {1100, 0, 1008},
                    {2140, 0, 2048},
                    {3100, 0, 3008}, // more than 2048: a log line
                    {100 + FM_TABLE_SLOTS_MAX, RT_ERROR_INVALID_ARG, 3008},
                    {99 + FM_TABLE_SLOTS_MAX, 0, FM_TABLE_SLOTS_MAX}};
    for (const auto& request : requests) {
        EXPECT_EQ(log.Count("CFMFile::GetBlock, huge file. fileID="), request.id > 3100 ? 1U : 0U);
        EXPECT_EQ(get(request.id, 1), request.result) << request.id;
        EXPECT_EQ(file->GetFileInfo().num, request.slots) << request.id;
        EXPECT_EQ(file->GetBlocks().size(), request.slots) << request.id;
    }
    EXPECT_EQ(log.Count(" Assert failed: blockID>=m_fileInfo.blockBeg"), 1U);
    EXPECT_EQ(file->RemoveBlock(100 + FM_TABLE_SLOTS_MAX, block), RT_ERROR_INVALID_ARG);

    file = cache.Create(UINT32_MAX - 1); // the identifiers would overflow within the table
    EXPECT_EQ(get(UINT32_MAX, 1), 0);
    EXPECT_EQ(get(0, 1), RT_ERROR_INVALID_ARG);
}

TEST(File, CreatingAFileDoesNotWaitForItsPredecessor) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    const FMFileInfo info = Description();
    FileRef first = cache.Create(info);
    Write(*Cache::Block(*first, 1), Pattern(1, 700));
    cache.Close(first);
    std::promise<void> go;
    std::future_status waited = std::future_status::deferred;
    CFileManager::Instance()->PostToReadwrThread(
        new TestEvent([&] { waited = go.get_future().wait_for(std::chrono::seconds(10)); }), 0);
    FileRef second = cache.Create(info);
    std::vector<CRtString> names;
    FMListCachedFiles("", names, names); // waits for closed files, but not for the predecessor
    go.set_value();
    FMWaitUntilIdle();
    EXPECT_EQ(waited, std::future_status::ready) << "the caller waited for the read/write thread";
    cache.Close(second); // it has stored nothing: the files of the first one still exist
    FMWaitUntilIdle();
    const FileRef found = cache.Open(info.fileID);
    ASSERT_TRUE(found);
    EXPECT_EQ(Read(*Cache::Block(*found, 1, 0)), Pattern(1, 700));
}

TEST(File, BlockLogsItsDestructorLineBeforeItReleasesItsOwners) {
    class Owner final : public Node {
    public:
        explicit Owner(LogCapture& log) : Node(1, true, false, 1), m_log(log) {}
        uint32_t ReleaseReference() override {
            lines = m_log.Count("CFMBlock::~CFMBlock, blockID=");
            return Node::ReleaseReference();
        }
        size_t lines = 0;

    private:
        LogCapture& m_log;
    };
    LogCapture log;
    Owner owner(log);
    Cache cache;
    FileRef file = cache.Create();
    Cache::Block(*file, 1)->SetOwner(&owner, 1);
    cache.Close(file);
    EXPECT_EQ(owner.references, 0);
    EXPECT_EQ(owner.lines, 1U);
}

TEST(DiskFile, RefusesImpossibleRangesAndReportsFailures) {
    LogCapture log;
    const Cache cache;
    const fs::path path = cache.dir.path / "a file";
    const CRtComAutoPtr<CDiskFile> file(new CDiskFile(CRtString(path.string())));
    char bytes[8] = {};
    EXPECT_EQ(file->WriteData(nullptr, 0, 4, 1), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(file->ReaddData(bytes, 0, 0), RT_ERROR_INVALID_ARG);
    EXPECT_FALSE(fs::exists(path));
    const uint64_t far = (uint64_t{1} << 32) + 5;
    EXPECT_EQ(file->WriteData("far", far, 3, 1), 0); // a sparse file
    EXPECT_EQ(file->ReaddData(bytes, far, 3), 0);
    EXPECT_STREQ(bytes, "far");
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(file->ReaddData(bytes, far, 4), RT_ERROR_IO);
    EXPECT_EQ(file->ReaddData(bytes, UINT64_MAX - 1, 1), RT_ERROR_IO);
    EXPECT_EQ(file->RemoveMee(), 0);
    EXPECT_EQ(file->RemoveMee(), 0);        // a missing file
    fs::create_directories(path / "in it"); // cannot be deleted as a file
    EXPECT_EQ(file->RemoveMee(), RT_ERROR_IO);
    for (const char* step : {"fread", "fseek", "unlink"})
        EXPECT_EQ(log.Count(step + std::string(" Failed. ")),
                  *step == 'f' && step[1] == 'r' ? 2U : 1U)
            << step;
    EXPECT_EQ(file->Open("", 1), RT_ERROR_INVALID_ARG);
    EXPECT_FALSE(file->Reaches(far + 4)); // it is closed
    const CRtComAutoPtr<CDiskFile> nameless(new CDiskFile(""));
    EXPECT_EQ(nameless->WriteData("x", 0, 1, 1), RT_ERROR_IO);
    EXPECT_EQ(nameless->RemoveMee(), 0);
    const CDiskFile::Opening& opening = nameless->GetOpening();
    EXPECT_FALSE(opening.count > 0 || opening.isCreated || opening.isForeign);
    EXPECT_TRUE(nameless->GetKnownLength() == 0 && !nameless->IsTooShort() && nameless->IsSynced());
    EXPECT_EQ(nameless->AddReference(), 2U);
    EXPECT_EQ(nameless->ReleaseReference(), 1U);
    const CRtString other((cache.dir.path / "another file").string());
    EXPECT_EQ(file->Open(other, 0), RT_ERROR_IO);
    EXPECT_EQ(file->Open(other, 1), 0);
    EXPECT_EQ(file->GetFileName(), other);
    file->Close();
    const CRtComAutoPtr<CInfoFile> lost(
        new CInfoFile(CRtString((cache.dir.path / "missing" / "file").string())));
    EXPECT_EQ(lost->WriteData("x", 0, 1, 1), RT_ERROR_IO);
    EXPECT_EQ(lost->WriteBlockInfo("x", 1), RT_ERROR_NOT_READY); // before the description
    EXPECT_EQ(lost->Open(other, 1), 0);
    EXPECT_EQ(lost->WriteFileInfo(nullptr, 4), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(lost->WriteFileInfo("x", 0), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(lost->WriteFileInfo("x", 1), 0);
    EXPECT_EQ(lost->WriteBlockInfo(nullptr, 0), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(lost->WriteBlockInfo("yz", 2), 0);
    EXPECT_EQ(log.Count("fread Failed. Error Ret: 0"), 2U);
    EXPECT_EQ(log.Count("CDiskFile::Open, filename=" + std::string(other.view()) + " this="), 3U);
    EXPECT_EQ(ReadFile(other.c_str()), std::string("IFSD\1\0\0\0x\2\0\0\0yz", 15));
    EXPECT_EQ(log.Count("CDiskFile::WriteData, filename=" + std::string(other.view())), 14U);
}

TEST(DiskFile, AStoreLogsItsTransferThenTheOpeningAndRemovesAnOlderTableThenItsData) {
    LogCapture log;
    Cache cache;
    FileRef file = cache.Create();
    const FMFileInfo info = file->GetFileInfo();
    Write(*Cache::Block(*file, 1), "older");
    FMWaitUntilIdle();
    std::string text = log.Text();
    EXPECT_LT(text.find("CDiskFile::WriteData, filename="),
              text.find("CDiskFile::Open, filename="));
    EXPECT_EQ(log.Count("CDiskFile::RemoveMee"), 0U); // there was none
    cache.Close(file);
    FMWaitUntilIdle();
    file = cache.Create(info);
    Write(*Cache::Block(*file, 1), "newer");
    FMWaitUntilIdle();
    EXPECT_EQ(log.Count("CDiskFile::RemoveMee, filename="), 2U);
    text = log.Text();
    const size_t at = text.find("CDiskFile::RemoveMee");
    EXPECT_LT(text.find(".sdi", at), text.find(".sdd", at));
}

TEST(Streams, MoreOpenFilesThanStreamsWork) {
    LogCapture log(RT_LOG_WARNING);
    ASSERT_TRUE(LimitStreams(64)); // the library uses half of them
    TestClock clock;
    Cache cache(0);
    std::vector<FILE*> taken;
    const size_t before = CountHandles();
    for (const size_t others : {0U, 48U}) { // streams that the rest of the process uses
        while (taken.size() < others)
            taken.push_back(std::fopen(NULL_DEVICE, "rb"));
        std::vector<FileRef> files;
        for (uint32_t i = 0; i < 100; ++i) {
            files.push_back(cache.Create());
            Write(*Cache::Block(*files.back(), 1), Pattern(i, 500));
        }
        FMWaitUntilIdle();
        if (others == 0) {
            EXPECT_LE(CountHandles(), before + 32);
        }
        clock.Advance(600'000);
        for (uint32_t i = 0; i < files.size(); ++i) {
            EXPECT_FALSE(Cache::Block(*files[i], 1)->FreeMemory());
            EXPECT_TRUE(Read(*Cache::Block(*files[i], 1)) == Pattern(i, 500));
        }
        for (FileRef& file : files)
            cache.Close(file);
        FMWaitUntilIdle();
    }
    for (FILE* stream : taken)
        std::fclose(stream);
    EXPECT_EQ(log.Text(), "");
}

TEST(File, ASyncReachesOpenFilesAndWhatWasWrittenBeforeTheyWereOpened) {
    Cache cache;
    FileRef open = cache.Create();
    FileRef closed = cache.Create();
    Write(*Cache::Block(*open, 1), "bytes");
    Write(*Cache::Block(*closed, 1), "bytes");
    const FMFileID id = closed->GetFileInfo().fileID;
    cache.Close(closed);
    FMWaitUntilIdle();
    const LogCapture log(RT_LOG_ERROR);
    std::vector<FMUnsavedBlock> unsaved;
    const FileRef again = cache.Open(id);
    EXPECT_EQ(Read(*Cache::Block(*again, 1)), "bytes"); // opens its data file
    EXPECT_EQ(FMSync(unsaved), RT_OK) << log.Text();
    EXPECT_TRUE(unsaved.empty());
}
