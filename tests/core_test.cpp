// Regression tests of faults in the core: the checks of each operation, the files that a close saves, and the
// order of log lines.
#include <gtest/gtest.h>

#include <chrono>
#include <future>

#include "testing/kit.h"
#include "util/filemanager/filemanager.h"

namespace {

size_t At(const std::string& text, const std::string& part) { return text.find(part); }

} // namespace

TEST(Core, AStaleFirstLoadOfALoadedBlockIsDropped) {
    LogCapture log;
    Cache cache;
    FileRef file = cache.Create();
    const FMFileID id = file->GetFileInfo().fileID;
    Write(*Cache::Block(*file, 1), Pattern(1, 1000));
    cache.Close(file);
    file = cache.Open(id);
    const BlockRef block = Cache::Block(*file, 1, 0);
    CountingSink sink;
    EXPECT_EQ(block->ReadData(&sink), 0);
    const CRtMessageChain half = CRtMessageBlock::CreateCopy(Pattern(2, 500).data(), 500);
    EXPECT_EQ(block->WriteData(1000, 0, half.get()), 0);
    FMWaitUntilIdle();
    EXPECT_EQ(sink.results, std::vector<int>{RT_ERROR_NOT_READY});
    EXPECT_EQ(log.Count(" Assert failed: !m_data"), 0U);
}

TEST(Core, ATruncatedFileLosesOnlyWhatItNoLongerHas) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    FileRef file = cache.Create();
    const FMFileID id = file->GetFileInfo().fileID;
    for (const uint32_t block : {1U, 2U, 3U})
        Write(*Cache::Block(*file, block), Pattern(block, 1000));
    cache.Close(file);
    FMWaitUntilIdle();
    fs::resize_file(cache.Path(id, ".sdd"), 2500);
    for (int run = 0; run < 2; ++run) { // as truncated, then as saved after a store
        file = cache.Open(id);
        ASSERT_TRUE(file);
        EXPECT_FALSE(Read(*Cache::Block(*file, 3, 0)) == std::string(1000, '\0'));
        for (const uint32_t block : {1U, 2U})
            EXPECT_EQ(Read(*Cache::Block(*file, block, 0)), Pattern(block, 1000));
        Write(*Cache::Block(*file, 4), Pattern(4, 1000));
        FMWaitUntilIdle();
        cache.Close(file);
        FMWaitUntilIdle();
    }
}

TEST(Core, DescriptionThatIsTooLongToBeSavedAgainDoesNotLoad) {
    LogCapture log(RT_LOG_WARNING);
    Cache cache;
    FMFileInfo info = Description();
    info.name = CRtString(std::string(2012, 'n'));
    std::string file = InfoFile(info, std::string(2, '\0'));
    // Without the creation time the body has 2046 bytes; saved again it would have 2050.
    const uint32_t length = FM_INFO_FILE_BODY_FIXED - 4 + 2012;
    uint8_t prefix[4];
    FMPutLength(length, prefix);
    file.replace(FM_INFO_LENGTH_OFFSET, 4, reinterpret_cast<const char*>(prefix), 4);
    file.erase(FM_INFO_BODY_OFFSET + length, 4);
    WriteFile(cache.Path(info.fileID, ".sdi"), file);
    EXPECT_FALSE(cache.Open(info.fileID));
    EXPECT_EQ(log.Count("CFMFile::LoadFileInfo, Decode file info error, ret=10008"), 1U);
}

TEST(Core, TruncatedTableWritesThreeLogLines) {
    LogCapture log(RT_LOG_WARNING);
    Cache cache;
    FMFileInfo info = Description();
    info.num = 4;
    WriteFile(cache.Path(info.fileID, ".sdi"),
              InfoFile(info, std::string("\xFF\xFF\1\0\0\0\1", 7)));
    const FileRef file = cache.Open(info.fileID);
    ASSERT_TRUE(file);
    EXPECT_FALSE(Cache::Block(*file, 1, 0)->IsComplete());
    EXPECT_EQ(log.Count("CRtByteStreamT::Read, can't read."),
              2U); // the length and the offset of one entry
    EXPECT_EQ(log.Count("CFMFile::LoadBlokInfo, the table ends early, slots=1,fileID={"), 1U);
}

TEST(Core, CreatingAFileDoesNotWaitForItsPredecessor) {
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
    FileRef third = cache.Create(info);
    go.set_value();
    FMWaitUntilIdle();
    EXPECT_EQ(waited, std::future_status::ready) << "CreateFile waited for the read/write thread";

    // The new files have stored nothing: the files of the first one still exist.
    second.Reset();
    cache.Close(third);
    FMWaitUntilIdle();
    FileRef found = cache.Open(info.fileID);
    ASSERT_TRUE(found);
    EXPECT_EQ(Read(*Cache::Block(*found, 1, 0)), Pattern(1, 700));

    // The first store of a successor removes them, even if the predecessor was closed later.
    cache.Close(found);
    found = cache.Open(info.fileID);
    Write(*Cache::Block(*found, 2), Pattern(2, 800));
    const FileRef last = cache.Create(info);
    Write(*Cache::Block(*last, 3), Pattern(3, 900));
    found.Reset();
    FMWaitUntilIdle();
    EXPECT_EQ(ReadFile(cache.Path(info.fileID, ".sdd")), Pattern(3, 900));
    EXPECT_FALSE(fs::exists(cache.Path(info.fileID, ".sdi")));
}

TEST(Core, TransferLogsItsLinesInOrderAndRemovalLogsOnlyExistingFiles) {
    LogCapture log;
    Cache cache;
    FileRef file = cache.Create();
    const FMFileID id = file->GetFileInfo().fileID;
    Write(*Cache::Block(*file, 1), Pattern(1, 100));
    FMWaitUntilIdle();
    const std::string text = log.Text();
    const size_t entry = At(text, "CDiskFile::WriteData, filename=");
    EXPECT_LT(entry, At(text, "CDiskFile::Open, filename="));
    EXPECT_NE(entry, std::string::npos);
    EXPECT_EQ(log.Count("CDiskFile::RemoveMee"), 0U);
    cache.Close(file);
    FMWaitUntilIdle();
    FMFileInfo again = Description();
    again.fileID = id;
    file = cache.Create(again);
    Write(*Cache::Block(*file, 1), Pattern(2, 100));
    FMWaitUntilIdle();
    EXPECT_EQ(log.Count("CDiskFile::RemoveMee, filename="), 2U); // the table, then the data
}

TEST(Core, BlockLogsItsDestructorLineBeforeItReleasesItsOwners) {
    class Node final : public CRtCounted<ISDUser> {
    public:
        explicit Node(LogCapture& log, size_t& lines) : m_log(log), m_lines(lines) {}
        ~Node() override { m_lines = m_log.Count("CFMBlock::~CFMBlock, blockID="); }
        const CTavoSID& GetNodeSID() override { return m_sid; }
        int IsP2P() override { return 1; }
        int IsPublic() override { return 0; }
        uint32_t GetAddressTag() override { return 0; }
        uint32_t GetIP() override { return 1; }
        const SDAddress& GetAddress() override { return m_address; }

    private:
        LogCapture& m_log;
        size_t& m_lines;
        CTavoSID m_sid;
        SDAddress m_address;
    };
    LogCapture log;
    Cache cache;
    FileRef file = cache.Create();
    size_t lines = 0;
    {
        const CRtComAutoPtr<Node> node(new Node(log, lines));
        Cache::Block(*file, 1)->SetOwner(node.Get(), 1);
    }
    cache.Close(file);
    EXPECT_EQ(lines, 1U);
}

TEST(Core, WaitUntilIdleKeepsItsTimeLimit) {
    Cache cache;
    class Endless final : public IRtEvent {
    public:
        explicit Endless(bool& isOver) : m_isOver(isOver) {}
        int OnEventFire() override {
            if (!m_isOver)
                CFileManager::Instance()->PostToCallerThread(new Endless(m_isOver), 0);
            return 0;
        }

    private:
        bool& m_isOver;
    };
    bool isOver = false;
    CFileManager::Instance()->PostToCallerThread(new Endless(isOver), 0);
    EXPECT_EQ(FMWaitUntilIdle(50), RT_ERROR_NOT_READY);
    isOver = true;
    EXPECT_EQ(FMWaitUntilIdle(), 0);
}
