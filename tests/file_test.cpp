// Files, the registry of open files, disk files and the data directory.
#include <gtest/gtest.h>

#include "testing/kit.h"
#include "util/filemanager/filemanager.h"

TEST(Registry, LastDetachClosesTheFile) {
    LogCapture log;
    Cache cache;
    FileRef file;
    BlockRef block;
    IFileManager& manager = *cache.manager;
    FMFileInfo none = Description();
    none.fileID = FMFileID_None;
    EXPECT_EQ(manager.CreateFile(file.Receive(), none), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(manager.OpenFile(file.Receive(), FMFileID_None, 1), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(manager.GetBlock(block.Receive(), FMFileID_None, 1, 1), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(manager.AttachFile(FMFileID_None), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(manager.DetachFile(FMFileID_None), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(log.Count("util/filemanager/filemanager:"), 5U);

    file = cache.Create();
    const FMFileID id = file->GetFileInfo().fileID;
    EXPECT_EQ(manager.AttachFile(id), 0);
    EXPECT_EQ(manager.AttachFile(id), 0);
    Write(*Cache::Block(*file, 1), "bytes");
    EXPECT_EQ(manager.DetachFile(id), 0);
    EXPECT_TRUE(cache.Open(id, 0));
    EXPECT_EQ(manager.DetachFile(id), 0);
    EXPECT_FALSE(cache.Open(id, 0));
    EXPECT_EQ(file->GetBlocks().size(), 0U);
    EXPECT_EQ(file->GetBlock(block.Receive(), 1, 1), RT_ERROR_NOT_READY); // closed
    file = cache.Open(id, 1);
    ASSERT_TRUE(file);

    const FMFileID unknown = Description().fileID;
    CFileManager& inside = *CFileManager::Instance();
    EXPECT_EQ(inside.IsFileOpen(FMFileIDToString(id)), 1);
    EXPECT_EQ(inside.IsFileOpen("tmp"), 0);
    EXPECT_EQ(inside.GetBlocks(id).size(), 64U);
    EXPECT_EQ(&inside.GetBlocks(unknown), &inside.GetBlocks(FMFileID_None));
    EXPECT_EQ(inside.RemoveBlock(unknown, 1, block.Receive()), RT_ERROR_NOT_FOUND);
    EXPECT_EQ(inside.RemoveBlock(id, 1, block.Receive()), 0);
}

TEST(File, TableGrowsWhenABlockIsRequested) {
    LogCapture log;
    Cache cache;
    FMFileInfo info = Description(100);
    info.num = 8193;
    FileRef file = cache.Create(info);
    IFMBlock* block = nullptr;
    const auto get = [&](uint32_t id, int create) {
        const int result = file->GetBlock(block, id, create);
        if (result == 0)
            block->ReleaseReference();
        return result;
    };
    EXPECT_EQ(file->GetFileInfo().num, 64U);
    block = reinterpret_cast<IFMBlock*>(&info);
    EXPECT_EQ(get(164, 0), RT_ERROR_NOT_FOUND);
    EXPECT_NE(block, nullptr);
    EXPECT_EQ(get(163, 0), RT_ERROR_NOT_FOUND);
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(get(99, 1), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(log.Count(" Assert failed: blockID>=m_fileInfo.blockBeg"), 1U);
    EXPECT_EQ(get(164, 1), 0);
    EXPECT_EQ(file->GetBlocks().size(), 128U);
    EXPECT_EQ(get(1100, 1), 0);
    EXPECT_EQ(file->GetFileInfo().num, 1008U);
    EXPECT_EQ(log.Count("huge file"), 0U);
    EXPECT_EQ(get(3100, 1), 0);
    EXPECT_EQ(file->GetFileInfo().num, 3008U);
    EXPECT_EQ(log.Count("CFMFile::GetBlock, huge file. fileID="), 1U);
    EXPECT_EQ(get(UINT32_MAX, 1), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(get(100 + FM_TABLE_SLOTS_MAX, 1), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(get(99 + FM_TABLE_SLOTS_MAX, 1), 0);
    EXPECT_EQ(file->GetBlocks().size(), FM_TABLE_SLOTS_MAX);
    EXPECT_EQ(file->RemoveBlock(100 + FM_TABLE_SLOTS_MAX, block), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(file->RemoveBlock(101, block), 0);
    EXPECT_EQ(block, nullptr);

    info = Description(UINT32_MAX - 1); // the identifiers would overflow within the table
    file = cache.Create(info);
    EXPECT_EQ(get(UINT32_MAX, 1), 0);
    EXPECT_EQ(get(0, 1), RT_ERROR_INVALID_ARG);
}

TEST(DiskFile, CreatesReadsExtendsAndRemovesItsFile) {
    LogCapture log;
    const Cache cache;
    const fs::path path = cache.dir.path / "a file";
    const CRtComAutoPtr<CDiskFile> file(new CDiskFile(CRtString(path.string())));
    char bytes[8] = {};
    EXPECT_EQ(file->WriteData(nullptr, 0, 4, 1), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(file->ReaddData(bytes, 0, 0), RT_ERROR_INVALID_ARG);
    EXPECT_FALSE(fs::exists(path));
    EXPECT_EQ(file->ReaddData(bytes, 0, 4), RT_ERROR_IO);
    EXPECT_EQ(fs::file_size(path), 0U);
    EXPECT_EQ(file->WriteData("late", 6, 4, 1), 0);
    EXPECT_EQ(ReadFile(path), std::string(6, '\0') + "late");
    EXPECT_EQ(file->ReaddData(bytes, 7, 4), RT_ERROR_IO);
    EXPECT_EQ(file->WriteData("x", 0, 1, 1), 0); // opened again, contents kept
    EXPECT_EQ(log.Count("CDiskFile::Open, filename="), 3U);
    EXPECT_EQ(file->ReaddData(bytes, 6, 4), 0);
    EXPECT_STREQ(bytes, "late");
    const uint64_t far = (uint64_t{1} << 32) + 5;
    EXPECT_EQ(file->WriteData("far", far, 3, 1), 0); // a sparse file
    EXPECT_EQ(fs::file_size(path), far + 3);
    EXPECT_EQ(file->ReaddData(bytes, far, 3), 0);
    EXPECT_STREQ(bytes, "fare");
    EXPECT_EQ(file->ReaddData(bytes, UINT64_MAX - 1, 1), RT_ERROR_IO);
    EXPECT_EQ(file->RemoveMee(), 0);
    EXPECT_FALSE(fs::exists(path));
    EXPECT_EQ(file->RemoveMee(), 0);
    fs::create_directory(path); // cannot be deleted as a file
    fs::create_directory(path / "in it");
    EXPECT_EQ(file->RemoveMee(), RT_ERROR_IO);
    EXPECT_EQ(file->WriteData("x", 0, 1, 1), RT_ERROR_IO);

    EXPECT_EQ(log.Count(" Failed. "), 2U + 1 + 1 + 2); // fread, fseek, unlink and fopen

    const CRtComAutoPtr<CDiskFile> nameless(new CDiskFile(""));
    EXPECT_EQ(nameless->Open("", 1), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(nameless->ReaddData(bytes, 0, 1), RT_ERROR_IO);
    EXPECT_EQ(nameless->RemoveMee(), 0);
}

// More open files than the limit of streams, most of which the rest of the process uses.
TEST(Streams, MoreOpenFilesThanStreamsWork) {
    LogCapture log(RT_LOG_WARNING);
    ASSERT_TRUE(LimitStreams(64));
    TestClock clock;
    Cache cache(0);
    std::vector<FileRef> files;
    const auto writeSome = [&](uint32_t count) {
        for (uint32_t i = 0; i < count; ++i) {
            files.push_back(cache.Create());
            Write(*Cache::Block(*files.back(), 1), Pattern(i, 500));
        }
        FMWaitUntilIdle();
        clock.Advance(600'000);
    };
    const auto readAndReopenAll = [&] {
        for (uint32_t i = 0; i < files.size(); ++i) {
            EXPECT_FALSE(Cache::Block(*files[i], 1)->FreeMemory());
            EXPECT_TRUE(Read(*Cache::Block(*files[i], 1)) == Pattern(i, 500));
            Write(*Cache::Block(*files[i], 2), Pattern(i + 1, 500));
            const FMFileID id = files[i]->GetFileInfo().fileID;
            cache.Close(files[i]);
            files[i] = cache.Open(id);
            ASSERT_TRUE(files[i] && Read(*Cache::Block(*files[i], 2)) == Pattern(i + 1, 500));
        }
        files.clear();
    };
    writeSome(300);
    readAndReopenAll();
    cache.Stop();
    cache.Start();
    std::vector<FILE*> taken;
    while (FILE* stream = std::fopen(NULL_DEVICE, "rb"))
        taken.push_back(stream);
    for (int i = 0; i < 6; ++i) {
        std::fclose(taken.back());
        taken.pop_back();
    }
    writeSome(100);
    readAndReopenAll();
    for (FILE* stream : taken)
        std::fclose(stream);
    EXPECT_EQ(log.Text(), "");
}
