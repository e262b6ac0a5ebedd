// The information file: what is saved, what loads, and the limits of the format.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "FMCatalog.h"
#include "FMDurability.h"
#include "testing/kit.h"
#include "util/filemanager/filemanager.h"
#include "util/filemanager/fmrules.h"

namespace {

std::string BlockBody(const std::vector<FMBlockEntry>& slots) {
    CRtMessageChain body;
    uint32_t left = 0;
    EXPECT_EQ(FMEncodeBlockBody(slots, body, left), 0);
    return Bytes(body);
}

// The catalog's states of the entries are what a load makes of them.
void ExpectAsDescribed(const FMCachedFile& described, const FileRef& file) {
    EXPECT_EQ(described.isLoadable, static_cast<bool>(file));
    using enum FMSlotState;
    for (size_t i = 0; i < described.states.size() && file; ++i) {
        const FMBlockEntry& entry = described.entries[i];
        const FMSlotState state = described.states[i];
        const BlockRef block = Cache::Block(*file, entry.blockID, 0);
        EXPECT_EQ(static_cast<bool>(block), state != NoBlock && state != Outside) << i;
        if (!block || state == Replaced)
            continue;
        EXPECT_EQ(block->GetTotalLen(), state == Stored || state == Beyond ? entry.totalLen : 0U);
        EXPECT_EQ(Read(*block).starts_with("error"), state != Stored) << i;
    }
}

// Loads information files that no save has written, with a data file of 1000 bytes.
class Loading : public testing::Test {
protected:
    Loading() { info.num = 16; }
    FileRef Load(const std::string& blockBody) { return LoadBytes(InfoFile(info, blockBody)); }
    FileRef LoadBytes(const std::string& infoFile) {
        cache.manager->DetachFile(info.fileID);
        FMWaitUntilIdle();
        WriteFile(cache.Path(info.fileID, ".sdi"), infoFile);
        WriteFile(cache.Path(info.fileID, ".sdd"), Pattern(0, 1000));
        FMCachedFile described;
        EXPECT_EQ(FMDescribeCachedFile("", FMFileIDToString(info.fileID), described), 0);
        FileRef file = cache.Open(info.fileID);
        ExpectAsDescribed(described, file);
        return file;
    }

    LogCapture log;
    Cache cache;
    FMFileInfo info = Description();
};

} // namespace

TEST(Info, TableNamesOnlyBytesInTheDataFile) {
    TestClock clock;
    LogCapture log;
    Cache cache;
    FMFileInfo info = Description(0);
    info.name = "";
    info.num = 4;
    FileRef file = cache.Create(info);
    for (const uint32_t id : {0U, 1U, 3U})
        Write(*Cache::Block(*file, id), Pattern(id, 10 + id));
    const CRtMessageChain half = CRtMessageBlock::CreateCopy("half", 4);
    EXPECT_EQ(Cache::Block(*file, 2)->WriteData(8, 0, half.get()), 0);
    info = file->GetFileInfo();
    cache.Close(file);
    FMWaitUntilIdle();
    const std::string onDisk = ReadFile(cache.Path(info.fileID, ".sdi"));
    EXPECT_EQ(onDisk, InfoFile(info, BlockBody({{}, {1, 11, 10}, {2, 0, 0}, {3, 13, 21}})));
    EXPECT_EQ(log.Count("CFMFile::SaveFileInfo, block 0 cannot be saved, fileID={"), 1U);

    // Bytes of an earlier, longer version are ignored. A new block is placed behind the furthest restored one.
    WriteFile(cache.Path(info.fileID, ".sdi"), onDisk + "left behind");
    file = cache.Open(info.fileID);
    ASSERT_TRUE(file);
    EXPECT_EQ(Cache::Block(*file, 2, 0)->GetTotalLen(), 0U);
    Write(*Cache::Block(*file, 2), "later");
    FMWaitUntilIdle();
    EXPECT_EQ(ReadFile(cache.Path(info.fileID, ".sdd")).substr(34), "later");
}

TEST_F(Loading, EntriesWithImpossibleNumbersBecomeBlocksWithoutDataOrAreSkipped) {
    const FileRef file = Load(BlockBody({{1, 100, 0},
                                         {2, 100, -1},
                                         {3, 0xFFFFFFFF, INT64_MAX},
                                         {4, 0x3FFFF000, 901},
                                         {5, 0xFFFFFFF0, 0x40000000},
                                         {6, 1, FM_INFO_OFFSET_MAX},
                                         {4000, 10, 100}}));
    ASSERT_TRUE(file);
    EXPECT_EQ(Read(*Cache::Block(*file, 1, 0)), Pattern(0, 1000).substr(0, 100));
    Write(*Cache::Block(*file, 7), "more");
    std::vector<FMUnsavedBlock> unsaved;
    EXPECT_EQ(FMFlush(unsaved), RT_OK); // what was damaged before is not listed
    EXPECT_EQ(log.Count("CDiskFile::ReaddData. fread Failed."), 0U); // no buffer was allocated
    EXPECT_EQ(log.Count("CFMFile::LoadBlokInfo, impossible place, blockID="), 3U);
    EXPECT_EQ(log.Count("CFMFile::LoadBlokInfo, block beyond the data file, blockID="), 2U);
    EXPECT_TRUE(
        Load(BlockBody({{7, 10, 0}, {4000, 10, 5}, {7, 10, 100}, {9, 10, 200}, {9, 5000, 300}})));
}

TEST_F(Loading, ATableThatEndsEarlyHasEmptySlotsAndWritesItsLogLines) {
    std::string cut = BlockBody({{1, 100, 0}, {2, 100, 100}});
    cut[0] = 9;
    const FileRef file = Load(cut.substr(0, cut.size() - 12));
    ASSERT_TRUE(file);
    EXPECT_TRUE(Cache::Block(*file, 1, 0)->IsComplete());
    EXPECT_FALSE(Cache::Block(*file, 2, 0)->IsComplete());
    EXPECT_EQ(log.Count("CFMFile::LoadBlokInfo, the table ends early, slots=2,fileID={"), 1U);
    // The length and the offset of one entry, for the catalog and for the load.
    EXPECT_EQ(log.Count("CRtByteStreamT::Read, can't read."), 4U);
    EXPECT_EQ(log.Count("FMDescribeCachedFile, the information file has a block table that ends "
                        "early, fileID={"),
              1U);
}

TEST_F(Loading, TheCatalogFindsWhatALoadIgnores) {
    const auto find = [&](const CRtString& stem) {
        FMCachedFile file;
        EXPECT_EQ(FMDescribeCachedFile("", stem, file), 0);
        std::vector<std::string> texts{std::to_string(file.storedBlocks) + " stored, " +
                                       std::to_string(file.blockBytes) + " bytes, up to block " +
                                       std::to_string(file.highestBlock)};
        for (const FMFinding& finding : file.findings)
            texts.push_back(std::string(finding.what.view()) + ": " + finding.effect.c_str() +
                            (finding.isFault ? "" : " (note)"));
        return texts;
    };
    const std::string temporary =
        "the file is temporary: closing the file removes it, and so does housekeeping (note)";
    const CRtString stem = FMFileIDToString(info.fileID);
    const std::string table = BlockBody({{1, 100, 0},
                                         {2, 100, 50},
                                         {4000, 10, 60},
                                         {4, 10, 250},
                                         {4001, 100, 200},
                                         {5, 100, 950},
                                         {7, 100, 960},
                                         {8, (16U << 20) + 1, 1060},
                                         {8, 10, 300}});
    info.flag = FM_FILE_TEMPORARY;
    WriteFile(cache.Path(info.fileID, ".sdi"), InfoFile(info, table + "xy", 0));
    WriteFile(cache.Path(info.fileID, ".sdd"), Pattern(0, 1000));
    EXPECT_EQ(
        find(stem),
        (std::vector<std::string>{
            "1 stored, 420 bytes, up to block 8",
            "there is no creation time: housekeeping removes the file as too old", temporary,
            "the block table has 2 bytes after its last entry: ignored",
            "block 4000 is outside the table, which has 16 slots from 1: not loaded",
            "block 4001 is outside the table, which has 16 slots from 1: not loaded",
            "block 5 ends at byte 1050, the data file at 1000: loaded without data",
            "block 5 is in the slot of block 6: loaded into its own slot",
            "block 7 ends at byte 1060, the data file at 1000: loaded without data",
            "block 8 has 16.0 MiB: can be used, but exceeds the limit of 16 MiB for a block (note)",
            "block 8 ends at byte 16778277, the data file at 1000: loaded, but cannot be read",
            "block 8 has two entries: the later entry is loaded",
            "block 2 overlaps block 1 by 50 bytes: both are loaded without data",
            "block 4000 overlaps block 2 by 10 bytes: loaded without data",
            "block 4 overlaps block 4001 by 10 bytes: loaded without data",
            "block 7 overlaps block 5 by 90 bytes: both are loaded without data",
            "780 unreferenced bytes in the data file: ignored (note)"}));
    const CRtString name = "no identifier";
    const std::string none = "0 stored, 0 bytes, up to block 0";
    const std::string path = (cache.dir.path / FM_SERVER_STORE / name.c_str()).string();
    WriteFile(path + ".sdi", InfoFile(info, BlockBody({})));
    EXPECT_EQ(find(name), (std::vector<std::string>{
                              none, "the name is not an identifier: not loaded", temporary}));
    WriteFile(path + ".sdd", "data");
    EXPECT_EQ(find(name),
              (std::vector<std::string>{
                  none, "the name is not an identifier: not loaded; housekeeping examines it",
                  temporary, "4 unreferenced bytes in the data file: ignored (note)"}));
}

TEST_F(Loading, TablesAndDescriptionsBeyondTheLimitsAreRefused) {
    EXPECT_TRUE(Load(std::string(2, '\0') + std::string(FM_INFO_BLOCK_BODY_MAX - 2, 'x')));
    EXPECT_FALSE(Load(std::string(FM_INFO_BLOCK_BODY_MAX + 1, '\0')));
    EXPECT_FALSE(Load(""));
    info.num = FM_TABLE_SLOTS_MAX + 1;
    EXPECT_FALSE(Load(BlockBody({})));
    info.num = FM_TABLE_SLOTS_MAX;
    const FileRef file = Load(BlockBody({}));
    ASSERT_TRUE(file);
    EXPECT_EQ(file->GetBlocks().size(), 8192U); // bounded by the length of the file
    info.num = 16;
    info.name = CRtString(std::string(FM_INFO_NAME_MAX + 1, 'n'));
    EXPECT_FALSE(Load(BlockBody({})));
    EXPECT_EQ(log.Count("LoadFileInfo, ReaddFileInfo error, ret=10008"), 1U);
    // Without the creation time the description has the maximum length; saved again it would be longer.
    info.name += "n";
    ASSERT_EQ(info.name.size(), FM_INFO_NAME_MAX + 2U);
    std::string bytes = InfoFile(info, BlockBody({}));
    const size_t length = FM_INFO_FILE_BODY_FIXED - 4 + info.name.size();
    uint8_t prefix[4];
    FMPutLength(static_cast<uint32_t>(length), prefix);
    bytes.replace(FM_INFO_LENGTH_OFFSET, 4, reinterpret_cast<const char*>(prefix), 4);
    bytes.erase(FM_INFO_BODY_OFFSET + length, 4);
    EXPECT_FALSE(LoadBytes(bytes));
    EXPECT_EQ(log.Count("CFMFile::LoadFileInfo, Decode file info error, ret=10008"), 2U);
    EXPECT_FALSE(LoadBytes(InfoFile(info, "").substr(0, FM_INFO_LENGTH_OFFSET + 1)));
    FMPutLength(4, prefix); // the body ends within the description
    bytes.replace(FM_INFO_LENGTH_OFFSET, 4, reinterpret_cast<const char*>(prefix), 4);
    EXPECT_FALSE(LoadBytes(bytes.substr(0, FM_INFO_BODY_OFFSET + 4)));
    EXPECT_EQ(log.Count("FMDescribeCachedFile, the information file has a damaged description"),
              1U);
    info.name = CRtString(std::string(FM_INFO_NAME_MAX, 'n'));
    EXPECT_TRUE(Load(BlockBody({})));
    EXPECT_EQ(log.Count("CFMFile::LoadFileInfo, Decode file info error, ret=10001"), 1U);
    EXPECT_FALSE(LoadBytes(InfoFile({}, BlockBody({})))); // without an identifier
    EXPECT_FALSE(LoadBytes("JFSD and so on and so on"));
    EXPECT_EQ(log.Count("LoadFileInfo, ReaddFileInfo error, ret=10015"), 1U);
}

TEST(Info, TablesAndNamesAtTheLimitsOfTheFormat) {
    LogCapture log(RT_LOG_WARNING);
    Cache cache;
    FileRef file = cache.Create();
    const FMFileID id = file->GetFileInfo().fileID;
    Write(*Cache::Block(*file, 65'535), "last that fits");
    Write(*Cache::Block(*file, 65'536), "beyond");
    cache.Close(file);
    file = cache.Open(id);
    ASSERT_TRUE(file);
    EXPECT_EQ(log.Count("table too large to save, slots left out="), 1U);
    EXPECT_EQ(Read(*Cache::Block(*file, 65'535, 0)), "last that fits");
    EXPECT_FALSE(Cache::Block(*file, 65'536, 0));

    CRtMessageChain body;
    uint32_t left = 0;
    EXPECT_EQ(FMEncodeBlockBody(std::vector<FMBlockEntry>(52'000, {7, 1, 1}), body, left), 0);
    EXPECT_EQ(left, 52'000U - 51'199);
    EXPECT_LE(body->GetChainedLength(), FM_INFO_BLOCK_BODY_MAX);

    for (const auto& [length, lost] : {std::pair{32'767, 1U}, {2'011, 1U}, {2'010, 0U}}) {
        FMFileInfo info = Description();
        info.name = CRtString(std::string(static_cast<size_t>(length), 'n'));
        file = cache.Create(info);
        Write(*Cache::Block(*file, 1), "x");
        std::vector<FMUnsavedBlock> unsaved;
        EXPECT_EQ(FMFlush(unsaved), lost > 0 ? RT_ERROR_IO : RT_OK);
        EXPECT_EQ(unsaved.size(), lost);
        cache.Close(file);
    }
    EXPECT_EQ(log.Count("CFMFile::SaveFileInfo, Encode file info error, ret=10001 this="), 2U);
}

TEST(Info, AnEntryOverlapsIfItSharesAByteWithAnother) {
    std::mt19937 random(7);
    for (int run = 0; run < 3000; ++run) {
        std::vector<FMBlockEntry> slots(2 + random() % 4);
        const auto pick = [&](uint32_t count) { return static_cast<uint32_t>(random() % count); };
        for (FMBlockEntry& entry : slots)
            entry = {pick(9), pick(4), int64_t{pick(12)} - 1};
        const auto states = FMJudgeEntries(slots, {2, 6, 11}, FMFindOverlaps(slots));
        for (size_t i = 0; i < slots.size(); ++i) {
            const FMBlockEntry& entry = slots[i];
            const auto shares = [&](const FMBlockEntry& other) {
                return &other != &entry && entry.posInFile >= 0 && other.posInFile >= 0 &&
                       std::max(entry.posInFile, other.posInFile) <
                           std::min(FMEndOf(entry), FMEndOf(other));
            };
            using enum FMSlotState;
            const bool isOutside = entry.blockID != 0 && (entry.blockID < 2 || entry.blockID > 7);
            const FMSlotState expected = isOutside                            ? Outside
                                         : std::ranges::any_of(slots, shares) ? Overlaps
                                         : entry.blockID == 0                 ? NoBlock
                                         : entry.posInFile < 0                ? Impossible
                                         : entry.totalLen == 0                ? Empty
                                         : FMEndOf(entry) > 11                ? Beyond
                                                                              : Stored;
            ASSERT_EQ(states[i], expected) << run << " " << i;
        }
    }
    EXPECT_EQ(FMAgeInDays(100, 99), 0); // from a clock that was set back
}

TEST(Info, ResultsThatNoCallHasFilledAreEmpty) {
    const FMCachedFile file;
    EXPECT_FALSE(file.hasInfo || file.hasData || file.isDataSpecial || file.isOpenHere ||
                 file.isOpenElsewhere || file.isUnreadable || file.isDescribed || file.isLoadable ||
                 file.isTableComplete);
    EXPECT_EQ(file.infoLength + file.dataLength + file.createTime + file.slots + file.highestBlock +
                  file.storedBlocks + file.blockBytes,
              0U);
    EXPECT_EQ(FMExpiry().dueTime + FMUnsavedBlock().blockID + FMRetrieveItem().m_pri, 0);
    EXPECT_FALSE(FMBlockStatus().isResident || FMBlockStatus().survivesKill);
    const FMFileInfo info;
    EXPECT_EQ(info.userValue + info.flag + info.blockBeg + info.num, 0U);
    const FMBlockEntry entry;
    EXPECT_EQ(entry.blockID + entry.totalLen + entry.posInFile, 0);
    EXPECT_EQ(SDAddress().m_port + SDAddress().m_value + SDDataAddressItem().m_tag, 0U);
}

TEST(Info, TwoObjectsNeverShareAPath) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    FileRef first = cache.Create();
    const FMFileID id = first->GetFileInfo().fileID;
    const BlockRef kept = Cache::Block(*first, 1);
    Write(*kept, Pattern(1, 100));
    cache.Close(first);
    const FileRef second = cache.Open(id);
    ASSERT_TRUE(second);
    EXPECT_EQ(Write(*kept, Pattern(9, 100)), RT_ERROR_NOT_READY); // its file is closed
    Write(*Cache::Block(*second, 2), Pattern(2, 100));
    FMWaitUntilIdle();
    EXPECT_EQ(Read(*kept), Pattern(1, 100));
    EXPECT_EQ(ReadFile(cache.Path(id, ".sdd")), Pattern(1, 100) + Pattern(2, 100));
}

TEST(Info, FileIsRegisteredUnderItsStoredIdentifierNotThatOfItsPath) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    FMFileInfo inside = Description();
    inside.num = 4;
    const FMFileID outside = Description().fileID;
    WriteFile(cache.Path(outside, ".sdi"), InfoFile(inside, BlockBody({{1, 3, 0}})));
    WriteFile(cache.Path(outside, ".sdd"), "abc");
    Write(*Cache::Block(*cache.Create(inside), 1), "displaced");
    // The load displaces the open file with the stored identifier, which has another path and keeps its data.
    const FileRef file = cache.Open(outside);
    ASSERT_TRUE(file);
    EXPECT_TRUE(cache.Open(inside.fileID, 0).Get() == file.Get());
    EXPECT_FALSE(cache.Open(outside, 0));
    EXPECT_EQ(cache.Open(outside).Get(), file.Get()); // the path has one object
    cache.Stop();
    cache.Start();
    const FileRef found = cache.Open(inside.fileID);
    ASSERT_TRUE(found);
    EXPECT_EQ(Read(*Cache::Block(*found, 1, 0)), "displaced");
}
