// Files, the registry of open files, disk files and the data directory.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include "support.h"
#include "util/filemanager/filemanager.h"

TEST(Registry, CountsUsesAndClosesAtTheLast) {
    LogCapture log;
    Cache cache;
    IFMFile* raw = nullptr;
    IFMBlock* block = nullptr;
    IFileManager& manager = *cache.manager;
    FMFileInfo none = Description();
    none.fileID = FMFileID_None;
    EXPECT_EQ(manager.CreateFile(raw, none), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(manager.OpenFile(raw, FMFileID_None, 1), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(manager.GetBlock(block, FMFileID_None, 1, 1), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(manager.AttachFile(FMFileID_None), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(manager.DetachFile(FMFileID_None), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(log.Count("util/filemanager/filemanager:"), 5U);
    EXPECT_EQ(log.Count("CFileManager::AttachFile, fildID={00000000-0000-0000-0000-000000000000}"),
              1U);
    const FMFileID unknown = Description().fileID;
    EXPECT_EQ(manager.AttachFile(unknown), RT_ERROR_NOT_FOUND);
    EXPECT_EQ(manager.DetachFile(unknown), RT_ERROR_NOT_FOUND);
    EXPECT_EQ(log.Count(" Assert failed: m_id2files.end() != it"), 2U);
    EXPECT_EQ(manager.GetBlock(block, unknown, 1, 1), RT_ERROR_NOT_FOUND);

    FileRef file = cache.Create();
    const FMFileID id = file->GetFileInfo().fileID;
    EXPECT_EQ(manager.AttachFile(id), 0);
    EXPECT_EQ(manager.AttachFile(id), 0);
    EXPECT_EQ(manager.GetBlock(block, id, 1, 1), 0);
    Write(*block, "bytes");
    block->ReleaseReference();
    EXPECT_EQ(manager.DetachFile(id), 0);
    EXPECT_TRUE(cache.Open(id, 0));
    EXPECT_EQ(manager.DetachFile(id), 0);
    EXPECT_FALSE(cache.Open(id, 0));
    EXPECT_EQ(manager.GetBlock(block, id, 1, 1), RT_ERROR_NOT_FOUND); // on disk only
    EXPECT_EQ(file->GetBlocks().size(), 0U);
    EXPECT_EQ(file->GetBlock(block, 1, 1), RT_ERROR_NOT_READY); // closed
    file = cache.Open(id, 1);
    ASSERT_TRUE(file);
    EXPECT_TRUE(cache.Open(id, 0));

    CFileManager& inside = *CFileManager::Instance();
    EXPECT_EQ(inside.IsFileOpen(FMFileIDToString(id)), 1);
    EXPECT_EQ(inside.IsFileOpen("tmp"), 0);
    EXPECT_EQ(inside.GetBlocks(id).size(), 64U);
    EXPECT_EQ(&inside.GetBlocks(unknown), &inside.GetBlocks(FMFileID_None));
    EXPECT_EQ(inside.RemoveBlock(unknown, 1, block), RT_ERROR_NOT_FOUND);
    EXPECT_EQ(inside.RemoveBlock(id, 1, block), 0);
    BlockRef::Adopt(block);
    EXPECT_EQ(log.Count("util/filemanager/"), 5U + 2 + 1);
}

TEST(File, GrowsItsTableAsBlocksAreAskedFor) {
    LogCapture log;
    Cache cache;
    FMFileInfo info = Description(100);
    info.num = 8193;
    FileRef file = cache.Create(info);
    EXPECT_EQ(log.Count(",flag=0,blockbeg=100,num=8193 this="), 1U);
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

    info = Description(UINT32_MAX - 1); // the identifiers end before the table does
    file = cache.Create(info);
    EXPECT_EQ(get(UINT32_MAX, 1), 0);
    EXPECT_EQ(get(0, 1), RT_ERROR_INVALID_ARG);
}

TEST(DiskFile, MakesReadsExtendsAndRemoves) {
    LogCapture log;
    const Cache cache;
    const fs::path path = cache.dir.path / "a file";
    const CRtComAutoPtr<CDiskFile> file(new CDiskFile(CRtString(path.string())));
    char bytes[8] = {};
    EXPECT_EQ(file->WriteData(nullptr, 0, 4, 1), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(file->ReaddData(bytes, 0, 0), RT_ERROR_INVALID_ARG);
    EXPECT_FALSE(fs::exists(path));
    EXPECT_EQ(log.Count(" Assert failed: lpBuffer && dwLength >0"), 1U);
    EXPECT_EQ(log.Count(" Assert failed: lpBuffer && dwLength>0"), 1U);
    EXPECT_EQ(file->ReaddData(bytes, 0, 4), RT_ERROR_IO);
    EXPECT_EQ(log.Count("CDiskFile::ReaddData. fread Failed. Error Ret: 0 fileName="), 1U);
    EXPECT_EQ(fs::file_size(path), 0U);
    EXPECT_EQ(file->WriteData("late", 6, 4, 1), 0);
    EXPECT_EQ(ReadFile(path), std::string(6, '\0') + "late");
    EXPECT_EQ(file->ReaddData(bytes, 7, 4), RT_ERROR_IO);
    EXPECT_EQ(file->WriteData("x", 0, 1, 1), 0); // opened afresh, contents kept
    EXPECT_EQ(file->ReaddData(bytes, 6, 4), 0);
    EXPECT_STREQ(bytes, "late");
    const uint64_t far = (uint64_t{1} << 32) + 5;
    EXPECT_EQ(file->WriteData("far", far, 3, 1), 0); // a sparse file
    EXPECT_EQ(fs::file_size(path), far + 3);
    EXPECT_EQ(file->ReaddData(bytes, far, 3), 0);
    EXPECT_STREQ(bytes, "fare");
    EXPECT_EQ(file->ReaddData(bytes, UINT64_MAX - 1, 1), RT_ERROR_IO);
    EXPECT_EQ(log.Count("CDiskFile::ReaddData. fseek Failed. Error Ret: 0 fileName="), 1U);
    EXPECT_EQ(file->RemoveMee(), 0);
    EXPECT_FALSE(fs::exists(path));
    EXPECT_EQ(file->RemoveMee(), 0);
    fs::create_directory(path); // cannot be deleted as a file
    fs::create_directory(path / "in it");
    EXPECT_EQ(file->RemoveMee(), RT_ERROR_IO);
    EXPECT_EQ(log.Count("CDiskFile::RemoveMee. unlink Failed. Error Ret: -1 Filename="), 1U);
    EXPECT_EQ(file->WriteData("x", 0, 1, 1), RT_ERROR_IO);
    EXPECT_EQ(log.Count("CDiskFile::Open. fopen Failed. error="), 2U);
    EXPECT_EQ(log.Count("CDiskFile::WriteData. Can't Open File. this="), 1U);

    const CRtComAutoPtr<CDiskFile> nameless(new CDiskFile(""));
    EXPECT_EQ(log.Count(" Assert failed: !strFileName.empty()"), 1U);
    EXPECT_EQ(nameless->Open("", 1), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(nameless->ReaddData(bytes, 0, 1), RT_ERROR_IO);
    EXPECT_EQ(log.Count("CDiskFile::IsOpen. File cann't open, filename= this="), 1U);
    EXPECT_EQ(nameless->RemoveMee(), 0);
}

TEST(DataDir, ComesBackWhenItIsRemovedWhileTheSystemRuns) {
    LogCapture log;
    Cache cache(0);
    const FileRef file = cache.Create();
    const FMFileID id = file->GetFileInfo().fileID;
    Write(*Cache::Block(*file, 1), "first");
    cache.Settle();
    const fs::path dataDir = cache.Path(id, "").parent_path();
    EXPECT_EQ(fs::status(dataDir).permissions(), fs::perms(0700));
    EXPECT_EQ(dataDir.filename(), std::to_string(getpid()));
    fs::remove_all(dataDir.parent_path());
    const FileRef other = cache.Create();
    Write(*Cache::Block(*other, 1), "second");
    cache.Settle();
    EXPECT_EQ(ReadFile(cache.Path(other->GetFileInfo().fileID, ".sdd")), "second");
    EXPECT_EQ(log.Count("CFileManager::CreateDir. mkdir:"), 4U);
    EXPECT_EQ(log.Count("CFileManager::SetDataDir, data dir=" + cache.dir.path.string() +
                        "\\confcache\\" + std::to_string(getpid()) + "\\"),
              1U);
}

TEST(DataDir, IsMadeWithItsParentsWhateverTheSeparators) {
    const TempDir dir;
    LogCapture log;
    const std::string base = dir.path.string();
    EXPECT_EQ(CFileManager::CreateDir(CRtString(base + "\\a/b//\\c\\")), 0);
    EXPECT_TRUE(fs::is_directory(dir.path / "a" / "b" / "c"));
    EXPECT_EQ(log.Count("CFileManager::CreateDir. mkdir:"), 3U);
    EXPECT_EQ(CFileManager::DirExists(CRtString(base + "\\a\\b\\")), 1);
    WriteFile(dir.path / "file", "");
    EXPECT_EQ(CFileManager::DirExists(CRtString(base + "\\file")), 0);
    EXPECT_EQ(CFileManager::FileExists(CRtString(base + "\\file")), 1);
    EXPECT_EQ(CFileManager::FileExists(CRtString(base + "\\a")), 1);
    EXPECT_EQ(CFileManager::CreateDir(CRtString(base + "\\file\\below")), 0);
    EXPECT_EQ(log.Count("CFileManager::CreateDir. mkdir Error. Dir: "), 2U);
    CFileManager::RemoveDir(CRtString(base + "\\a\\"));
    EXPECT_FALSE(fs::exists(dir.path / "a"));
}

TEST(DataDir, OfBlanksOnlyIsTheUsersOwn) {
    const TempDir home;
    setenv("XDG_CACHE_HOME", home.path.c_str(), 1);
    LogCapture log;
    const CRtCallerThread three;
    IFileManager::Instance()->Initialize("   ", 7, 1);
    EXPECT_TRUE(fs::is_directory(home.path / "sdstore"));
    EXPECT_EQ(log.Count("CFileManager::GetMaxDrive, GetLogicalDriveStrings len fail"), 1U);
    IFileManager::Instance()->UnInitialize();
}

// More open files than the process may have streams, and the rest of the process takes nearly all.
TEST(Streams, RunOutForNobody) {
    LogCapture log(RT_LOG_WARNING);
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = 64;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    TestClock clock;
    Cache cache(0);
    std::vector<FileRef> files;
    const auto writeSome = [&](uint32_t count) {
        for (uint32_t i = 0; i < count; ++i) {
            files.push_back(cache.Create());
            Write(*Cache::Block(*files.back(), 1), Pattern(i, 500));
        }
        cache.Settle();
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
    while (FILE* stream = std::fopen("/dev/null", "rb"))
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
