// Windows only: files that another process holds, places of the data directory, directory links, the address space,
// and processes that share a cache, which are started here instead of forked.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <deque>
#include <iostream>
#include <map>
#include <thread>

#include "FMCatalog.h"
#include "FMDurability.h"
#include "testing/kit.h"
#include "util/filemanager/filemanager.h"

// After the library's headers; kit_windows.cpp includes it before them.
#include <windows.h>
#undef CreateFile

static_assert(sizeof(void*) == 4 && sizeof(long) == 4);

// As in kit_windows.cpp.
PROCESS_INFORMATION StartProcess(const std::string& program, std::string line, uint32_t flags);
std::string OwnProgram();

namespace {

using Duration = std::chrono::steady_clock::duration;
using std::chrono::milliseconds;

constexpr char OTHERS_DIR[] = "FILEMANAGER_OTHERS_DIR";
constexpr char OPERATION[] = "FILEMANAGER_OPERATION";
constexpr char FINISHED[] = "{00000000-0000-4000-8000-000000000001}";
constexpr char OPEN[] = "{00000000-0000-4000-8000-000000000002}";

FMFileInfo Described(const char* id) {
    FMFileInfo info = Description();
    FMFileIDFromString(id, info.fileID);
    return info;
}

void WaitFor(const fs::path& marker) {
    while (!fs::exists(marker))
        Sleep(5);
}

// Runs a disabled test case of this program in another process.
class OtherProcess {
public:
    OtherProcess(const fs::path& dir, const std::string& testCase) {
        SetVariable(OTHERS_DIR, dir.string());
        const std::string options = "other --gtest_brief=1 --gtest_also_run_disabled_tests ";
        const std::string filter = "--gtest_filter=DISABLED_Other." + testCase;
        m_process = StartProcess(OwnProgram(), options + filter, 0).hProcess;
        while (!fs::exists(dir / "ready") && WaitForSingleObject(m_process, 10) == WAIT_TIMEOUT) {
        }
    }
    void Kill() { TerminateProcess(m_process, 1), Wait(); }
    // Returns the exit status.
    DWORD Wait() {
        DWORD status = 1;
        WaitForSingleObject(m_process, INFINITE);
        GetExitCodeProcess(m_process, &status);
        CloseHandle(m_process);
        return status;
    }

private:
    HANDLE m_process = nullptr;
};

HANDLE HoldAlone(const fs::path& path) {
    return CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING,
                       FILE_FLAG_BACKUP_SEMANTICS, nullptr);
}

template <class Work>
Duration Measure(const Work& work) {
    const auto begin = std::chrono::steady_clock::now();
    work();
    return std::chrono::steady_clock::now() - begin;
}

// The longest turn of the caller thread. Other programs of the machine delay turns too, and as much a metronome: its
// delay is no fault of the library. A case repeats turns that were too long nevertheless.
constexpr int ATTEMPTS = 3;
struct Turns {
    ~Turns() {
        isOver = true;
        metronome.join();
    }
    void Run(const std::function<void()>& turn) { longest = std::max(longest, Measure(turn)); }
    bool AreShort() const {
        constexpr Duration limit = milliseconds(50);
        return longest <= std::min<Duration>(limit + 2 * delay.load(), milliseconds(1000));
    }
    void Tick() {
        while (!isOver) {
            const Duration took = Measure([] { Sleep(4), GetFileAttributesA("C:\\windows"); });
            delay = std::max(delay.load(), took - milliseconds(4));
        }
    }
    Duration longest{};
    std::atomic<Duration> delay{};
    std::atomic<bool> isOver{false};
    std::thread metronome{&Turns::Tick, this};
};

// A fixed sequence of operations. From one of them on, another process holds files for two seconds.
struct HeldWorkload {
    using Operation = void (HeldWorkload::*)();
    static const std::vector<Operation> OPERATIONS;

    explicit HeldWorkload(const fs::path& dir) : cache(dir, false), info(Described(FINISHED)) {
        const FMFileInfo expired = Described(OPEN);
        WriteFile(cache.Path(expired.fileID, ".sdi"), InfoFile(expired, std::string(2, '\0'), 1));
        WriteFile(cache.Path(expired.fileID, ".sdd"), "data");
    }
    void Start() { cache.Start(); }
    void Stop() { cache.Stop(); }
    void Tick() { clock.Advance(60'000); }
    void Clean() { FMStartHousekeeping(); }
    void Create() {
        file = cache.Create(info);
        const uint32_t first = expected.empty() ? 1 : 3;
        expected = {{first, Pattern(first, 5000)}, {first + 1, Pattern(first + 1, 300)}};
        for (const auto& [id, bytes] : expected)
            Write(*Cache::Block(*file, id), bytes);
    }
    void Rewrite() {
        if (file)
            Write(*Cache::Block(*file, 1), expected[1] = Pattern(9, 5000));
    }
    void Open() { // while a file is held, it cannot be opened or read
        file = file ? file : cache.Open(info.fileID);
        for (auto it = expected.begin(); file && it != expected.end(); ++it) {
            const std::string read = Read(*Cache::Block(*file, it->first, 0));
            EXPECT_TRUE(read == it->second || read == "error 10001") << it->first << " " << read;
        }
    }
    void Close() {
        if (file)
            cache.Close(file);
    }
    void Remove() {
        Close();
        file = cache.Create(1, FM_FILE_TEMPORARY);
        Write(*Cache::Block(*file, 1), "temporary");
        Close();
    }
    // One tick after the last file was released.
    void Check() {
        Tick();
        FMWaitUntilIdle();
        Open();
        ASSERT_TRUE(file);
        Close();
        FMWaitUntilIdle();
        FMCachedFile found;
        EXPECT_EQ(FMDescribeCachedFile("", FINISHED, found), RT_OK);
        EXPECT_TRUE(found.isLoadable && found.storedBlocks == expected.size());
        Clean(); // of what was held during the first run
        FMWaitUntilIdle();
        EXPECT_EQ(CountFiles(cache.dir.path / "sdstore"), 2U);
    }

    TestClock clock;
    Cache cache;
    const FMFileInfo info;
    FileRef file;
    std::map<uint32_t, std::string> expected;
};
using Held = HeldWorkload;
const std::vector<Held::Operation> Held::OPERATIONS = {
    &Held::Start, &Held::Create, &Held::Close, &Held::Open,  &Held::Rewrite,
    &Held::Close, &Held::Create, &Held::Close, &Held::Open,  &Held::Remove,
    &Held::Tick,  &Held::Clean,  &Held::Stop,  &Held::Start, &Held::Open};

TEST(DISABLED_Other, RunsWhileFilesAreHeld) {
    LogCapture quiet(RT_LOG_SILENT);
    const fs::path dir = std::getenv(OTHERS_DIR);
    auto left = std::atoi(std::getenv(OPERATION));
    HeldWorkload workload(dir);
    Turns turns;
    for (const auto& operation : Held::OPERATIONS) {
        if (left-- == 0) {
            WriteFile(dir / "ready", "");
            WaitFor(dir / "held");
        }
        if (operation == &Held::Stop)
            workload.Stop(); // waits for the disk
        else
            turns.Run([&] { (workload.*operation)(); });
        for (int turn = 0; turn < 10; ++turn) {
            turns.Run([&] { workload.cache.thread.RunDue(); });
            Sleep(2);
        }
    }
    WaitFor(dir / "released");
    workload.Check();
    if (!turns.AreShort())
        WriteFile(dir / "slow", "");
}

// Holds everything of a kind in the store of another process for two seconds, from an operation on.
struct Holding {
    Holding(size_t operation, const std::string& kind) {
        SetVariable(OPERATION, std::to_string(operation));
        other.emplace(dir.path, "RunsWhileFilesAreHeld");
        const fs::path store = dir.path / "sdstore";
        std::vector<fs::path> paths;
        for (const fs::directory_entry& entry : fs::directory_iterator(store)) {
            if (entry.path().extension() == kind)
                paths.push_back(entry.path());
        }
        if (kind.empty())
            paths = {store};
        std::vector<HANDLE> handles;
        std::ranges::transform(paths, std::back_inserter(handles), HoldAlone);
        std::erase(handles, INVALID_HANDLE_VALUE);
        count = handles.size();
        WriteFile(dir.path / "held", "");
        release = std::thread([this, handles] {
            Sleep(2000);
            std::ranges::for_each(handles, CloseHandle);
            WriteFile(dir.path / "released", "");
        });
    }
    // False if a turn was too long.
    bool End() {
        release.join();
        EXPECT_EQ(other->Wait(), 0U);
        return !fs::exists(dir.path / "slow");
    }
    TempDir dir;
    std::optional<OtherProcess> other;
    size_t count = 0;
    std::thread release;
};

// Stores and closes one file, and keeps a second one open with a stored block, until it is killed.
TEST(DISABLED_Other, StoresAndStays) {
    Cache cache(fs::path(std::getenv(OTHERS_DIR)));
    for (const char* id : {FINISHED, OPEN}) {
        FileRef file = cache.Create(Described(id));
        Write(*Cache::Block(*file, 1), Pattern(1, 5000));
        if (id == FINISHED)
            cache.Close(file);
        FMWaitUntilIdle();
    }
    WriteFile(cache.dir.path / "ready", "");
    Sleep(INFINITE);
}

} // namespace

// A virus scanner, for example, opens files so that no other process can. Nothing is lost, and no turn is long.
TEST(Windows, FilesThatAreHeldForTwoSecondsCostNoDataAndNoLongTurn) {
    std::map<std::string, size_t> held{{"", 0}, {".sdd", 0}, {".sdi", 0}}; // "": the directory
    std::vector<std::pair<size_t, std::string>> left;
    for (size_t operation = 0; operation < Held::OPERATIONS.size(); ++operation) {
        for (const auto& [kind, count] : held)
            left.emplace_back(operation, kind);
    }
    for (int attempt = 0; attempt < ATTEMPTS && !left.empty(); ++attempt) {
        std::deque<Holding> holdings;
        for (const auto& [operation, kind] : left)
            held[kind] += holdings.emplace_back(operation, kind).count;
        std::erase_if(left, [&holdings](const auto& each) {
            const bool isShort = holdings.front().End();
            holdings.pop_front();
            EXPECT_FALSE(testing::Test::HasFailure()) << each.first << " " << each.second;
            return isShort;
        });
    }
    for (const auto& [operation, kind] : left)
        ADD_FAILURE() << "long turn: operation " << operation << ", " << kind;
    for (const auto& [kind, count] : held)
        EXPECT_GT(count, 0U) << kind;
}

// The read/write thread waits for a data file that is held. What the caller thread calls meanwhile does not.
class HeldStore : public testing::TestWithParam<std::string> {};
INSTANTIATE_TEST_SUITE_P(Of, HeldStore, testing::Values("open", "flushed", "closed"));

TEST_P(HeldStore, DelaysNoCallOfTheCallerThread) {
    const bool isClosed = GetParam() == "closed";
    const TempDir dir;
    const CRtString store((dir.path / "sdstore").string());
    const FMFileInfo info = Described(OPEN);
    bool isShort = false;
    for (int attempt = 0; attempt < ATTEMPTS && !isShort; ++attempt) {
        TestClock clock;
        LogCapture quiet(RT_LOG_SILENT);
        Cache cache(dir.path);
        const FileRef other = cache.Create();
        const BlockRef evicted = Cache::Block(*other, 1);
        Write(*evicted, "evicted");
        FMWaitUntilIdle();
        clock.Advance(300'000);
        ASSERT_FALSE(evicted->FreeMemory());
        WriteFile(cache.Path(info.fileID, ".sdd"), "a predecessor, which the store removes");
        const HANDLE held = HoldAlone(cache.Path(info.fileID, ".sdd"));
        Turns turns;
        bool isFlushed = false;
        FMFlushAsync([&](int, const auto&) { isFlushed = true; });
        FileRef file = cache.Create(info);
        Write(*Cache::Block(*file, 1), Pattern(1, 5000));
        if (isClosed)
            cache.Close(file);
        Sleep(5);
        FMCachedFile found;
        std::string read;
        if (GetParam() == "flushed")
            turns.Run([&] { cache.thread.RunDue(); });
        turns.Run([&] { read = Read(*evicted); });
        turns.Run([&] { EXPECT_EQ(!cache.Open(info.fileID), isClosed); });
        turns.Run([&] { FMDescribeCachedFile(store, OPEN, found); });
        turns.Run([&] { cache.thread.RunDue(); });
        EXPECT_EQ(isFlushed, !isClosed);
        EXPECT_EQ(read, isClosed ? "error 10001" : "evicted");
        CloseHandle(held);
        FMWaitUntilIdle();
        EXPECT_EQ(Read(*evicted), "evicted");
        clock.Advance(60'000); // the store of the open file is retried
        FMWaitUntilIdle();
        if (file)
            cache.Close(file);
        file = cache.Open(info.fileID);
        ASSERT_TRUE(file);
        EXPECT_TRUE(Read(*Cache::Block(*file, 1, 0)) == Pattern(1, 5000));
        isShort = turns.AreShort();
    }
    EXPECT_TRUE(isShort);
}

TEST(Windows, ServerLocksItsOpenFilesAndAKillLosesNoStoredFile) {
    TestClock clock;
    LogCapture log(RT_LOG_WARNING);
    const TempDir dir;
    OtherProcess other(dir.path, "StoresAndStays");
    Cache cache(dir.path);
    FMCachedFile found;
    for (const char* id : {FINISHED, OPEN}) {
        EXPECT_EQ(FMDescribeCachedFile("", id, found), RT_OK);
        EXPECT_EQ(found.isOpenElsewhere, id == OPEN);
    }
    FileRef mine = cache.Create(Described(OPEN));
    Write(*Cache::Block(*mine, 1), Pattern(4, 300));
    clock.Advance(int64_t{100} * 86400 * 1000);
    FMWaitUntilIdle(); // housekeeping finds the open file expired and keeps it
    EXPECT_TRUE(ReadFile(cache.Path(Described(OPEN).fileID, ".sdd")) == Pattern(1, 5000));
    EXPECT_EQ(Read(*Cache::Block(*mine, 1)), Pattern(4, 300));
    cache.Stop();
    cache.manager->Initialize({}, 0, 1); // would clear the store
    cache.Stop();
    EXPECT_EQ(log.Count("CFileManager::ClearDiskCache, another process uses the store"), 2U);
    other.Kill();
    cache.Start();
    EXPECT_FALSE(cache.Open(Described(OPEN).fileID)); // never closed: has no information file
    const FileRef file = cache.Open(Described(FINISHED).fileID);
    ASSERT_TRUE(file);
    EXPECT_TRUE(Read(*Cache::Block(*file, 1, 0)) == Pattern(1, 5000));
}

TEST(Windows, LaterClearingRemovesFilesThatWereOpenAndFollowsNoDirectoryLink) {
    LogCapture log(RT_LOG_WARNING);
    Cache cache(0, 0);
    const fs::path root = cache.dir.path / "confcache";
    EXPECT_TRUE(GetFileAttributesW(root.c_str()) & FILE_ATTRIBUTE_HIDDEN);
    cache.Stop();
    const TempDir outside;
    for (const fs::path& path : {outside.path, root / "0" / "free", root / "0" / "held"})
        WriteFile(path / "file", "x");
    const bool isJunction = MakeDirectoryLink(outside.path, root / "0" / "link");
    ASSERT_TRUE(fs::exists(root / "0" / "link" / "file"));
    const HANDLE held = HoldAlone(root / "0" / "held" / "file");
    cache.Start();
    EXPECT_TRUE(fs::exists(root / "0" / "held" / "file"));
    EXPECT_FALSE(fs::exists(root / "0" / "free"));
    EXPECT_EQ(log.Count("which stay until the next clearing: 1,"), 1U);
    CloseHandle(held);
    cache.Stop();
    EXPECT_TRUE(fs::exists(outside.path / "file"));
    EXPECT_FALSE(fs::exists(root / "0" / "held"));
    EXPECT_EQ(fs::exists(root), !isJunction); // the emulator does not remove its own links
}

TEST(Windows, StoreDoesNotHangIfTheDataFileIsADanglingLink) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    const FMFileInfo info = Description();
    fs::create_directory(cache.dir.path / "target");
    MakeDirectoryLink(cache.dir.path / "target", cache.Path(info.fileID, ".sdd"));
    fs::remove(cache.dir.path / "target");
    const FileRef file = cache.Create(info);
    Write(*Cache::Block(*file, 1), "bytes");
    FMWaitUntilIdle();
    EXPECT_EQ(Read(*Cache::Block(*file, 1)), "bytes");
}

TEST(Windows, DefaultRootIsAFixedDrive) {
    const CRtCallerThread callerThread;
    IFileManager::Instance()->Initialize("", 7, 1);
    IFileManager::Instance()->UnInitialize();
    const std::string dir = CFileManager::Instance()->GetDataDir().c_str();
    EXPECT_TRUE(fs::remove(dir.substr(0, 3) + "sdstore"));
    EXPECT_EQ(GetDriveTypeA(dir.substr(0, 3).c_str()), DRIVE_FIXED);
}

class Place : public testing::TestWithParam<std::wstring> {};
INSTANTIATE_TEST_SUITE_P(Path, Place,
                         testing::Values(L"C:", L"\\\\server\\share", L"\u540d\u524d \u00dcbung",
                                         L"made/by slash/", L"long", L"\\\\server\\share\\long"));

// A place without a drive or a share is below a temporary directory. A long one is longer than MAX_PATH.
TEST_P(Place, ACacheCanBeThere) {
    LogCapture log(RT_LOG_WARNING);
    const CRtCallerThread callerThread;
    RtSetUtf8Paths(true);
    const TempDir temp;
    const std::wstring& place = GetParam();
    const bool isLong = place.ends_with(L"long");
    const bool isShare = place.starts_with(L"\\\\");
    fs::path root = isShare || place == L"C:" ? fs::path(place) : temp.path / place;
    constexpr int levels = 5;
    for (int level = 0; isLong && level < levels; ++level)
        root /= std::wstring(60, L'd');
    const std::u8string text = root.u8string();
    const CRtString dir(std::string(text.begin(), text.end()));
    if (isLong) // the library adds the prefix itself
        root = isShare ? L"\\\\?\\UNC" + root.wstring().substr(1) : L"\\\\?\\" + root.wstring();
    const auto isStoreThere = [store = root / "sdstore"] {
        return GetFileAttributesW(store.c_str()) != INVALID_FILE_ATTRIBUTES;
    };
    IFileManager* const manager = IFileManager::Instance();
    const FMFileInfo info = Description();
    for (const bool isStoring : {true, false}) { // a later run finds the file
        manager->Initialize(dir, 7, 1);
        FileRef file;
        isStoring ? manager->CreateFile(file.Receive(), info)
                  : manager->OpenFile(file.Receive(), info.fileID, 1);
        ASSERT_TRUE(file);
        if (isStoring)
            Write(*Cache::Block(*file, 1), Pattern(1, 5000));
        EXPECT_TRUE(Read(*Cache::Block(*file, 1, 0)) == Pattern(1, 5000));
        file.Reset();
        manager->DetachFile(info.fileID);
        manager->UnInitialize();
    }
    std::vector<CRtString> stems;
    std::vector<CRtString> others;
    EXPECT_EQ(FMListCachedFiles(dir + "\\sdstore", stems, others), RT_OK);
    EXPECT_EQ(stems, std::vector{FMFileIDToString(info.fileID)});
    EXPECT_TRUE(isStoreThere());
    manager->Initialize({}, 0, 1); // clears the store, and creates it
    EXPECT_EQ(FMListCachedFiles("", stems, others), RT_OK);
    EXPECT_TRUE(isStoreThere() && stems.empty() && others.empty());
    manager->UnInitialize();
    EXPECT_FALSE(isStoreThere());
    EXPECT_EQ(log.Text(), "");
    if (isLong) // std::filesystem cannot
        CFileManager::RemoveDir(dir.Left(dir.size() - levels * 61));
}

TEST(Windows, HousekeepingIgnoresTheCaseOfExtensions) {
    TestClock clock;
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache(1, 7);
    for (const char* name : {"one.SDD", "two.Sdd", "three.sdd", "kept.sddx"})
        WriteFile(cache.dir.path / "sdstore" / name, "unreadable");
    clock.Advance(60'000);
    FMWaitUntilIdle();
    EXPECT_EQ(CountFiles(cache.dir.path / "sdstore"), 1U);
    EXPECT_TRUE(fs::exists(cache.dir.path / "sdstore" / "kept.sddx"));
}

constexpr uint32_t MIB = 1u << 20;

// Reserves all free ranges of the address space of this many bytes, or more.
class Reserved {
public:
    explicit Reserved(size_t least) {
        for (size_t size = 1024 * MIB; size >= least; size /= 2) {
            while (void* range = VirtualAlloc(nullptr, size, MEM_RESERVE, PAGE_NOACCESS)) {
                m_ranges.push_back(range);
                bytes += size;
            }
        }
    }
    ~Reserved() {
        for (void* range : m_ranges)
            VirtualFree(range, 0, MEM_RELEASE);
    }
    size_t bytes = 0;

private:
    std::vector<void*> m_ranges;
};

size_t CountCommittedBytes() {
    size_t bytes = 0;
    MEMORY_BASIC_INFORMATION range{};
    for (const char* at = nullptr; VirtualQuery(at, &range, sizeof(range)) != 0;
         at = static_cast<const char*>(range.BaseAddress) + range.RegionSize)
        bytes += range.State == MEM_COMMIT && range.Type == MEM_PRIVATE ? range.RegionSize : 0;
    return bytes;
}

// 256 bytes to 512 KiB, each power of two equally often; one block in 1,000 has the largest intended size.
uint32_t MixedSize(uint32_t block) {
    const uint32_t hash = block * 2654435761u;
    const uint32_t least = 256u << (hash >> 16) % 11;
    return block % 1000 == 999 ? 16 * MIB : least + (hash >> 5) % least;
}

// The blocks of a minute are evicted five minutes later, so the memory of the server stays at its limit. Some blocks
// are read every minute: they stay in memory among others that are evicted.
TEST(Windows, ServerAtItsMemoryLimitReturnsMemoryAndKeepsLargeRangesFree) {
    constexpr uint32_t perFile = 10'000;
    const char* const number = std::getenv("FILEMANAGER_BLOCKS"); // docs/windows.md
    const auto blocks = static_cast<uint32_t>(number ? std::atoi(number) : 15'000);
    TestClock clock;
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    const CFileManager& manager = *CFileManager::Instance();
    const std::string bytes = Pattern(1, 16 * MIB + 4096);
    std::deque<FileRef> files;
    std::deque<BlockRef> kept;
    size_t most = 0;
    size_t leastFree = SIZE_MAX;
    // Passes time, and returns the committed bytes after it.
    const auto pass = [&](const char* when, int64_t ms) {
        size_t committed = 0;
        for (const int64_t step : {int64_t{0}, ms}) {
            clock.Advance(step);
            for (const BlockRef& block : kept)
                Read(*block);
            FMWaitUntilIdle(); // the tick evicts no block whose store is pending
            committed = CountCommittedBytes();
            most = std::max(most, committed);
            leastFree = std::min(leastFree, Reserved(32 * MIB).bytes);
            std::cout << when << ", MiB: blocks " << manager.GetMemoryInUse() / MIB
                      << ", committed " << committed / MIB << ", free " << leastFree / MIB << "\n";
        }
        return committed;
    };
    pass("start", 0);
    uint32_t written = 0;
    for (uint32_t i = 0; i < blocks || manager.GetMemoryInUse() < manager.GetMemoryLimit(); ++i) {
        if (i % perFile == 0)
            files.push_back(cache.Create(1, FM_FILE_TEMPORARY));
        if (files.size() > 2) {
            cache.Close(files.front());
            files.pop_front();
        }
        const uint32_t size = MixedSize(i);
        const BlockRef block = Cache::Block(*files.back(), i % perFile + 1);
        const CRtMessageChain piece = CRtMessageBlock::Wrap(bytes.data() + i % 4096, size);
        ASSERT_EQ(block->WriteData(size, 0, piece.get()), RT_OK);
        if (i % 50 == 0)
            kept.push_back(block);
        if (kept.size() > 400)
            kept.pop_front();
        if ((written += size) < 96 * MIB)
            continue;
        written = 0;
        pass("minute", 60'000);
    }
    EXPECT_LT(pass("idle blocks evicted", 300'000),
              400 * MIB); // the heap alone keeps 526 under Wine
    EXPECT_LT(manager.GetMemoryInUse(), 64 * MIB);
    EXPECT_LT(most, 768 * MIB);
    EXPECT_GT(leastFree, 768 * MIB);
    kept.clear();
    for (FileRef& file : files)
        cache.Close(file);
    EXPECT_LT(pass("files closed", 0), 256 * MIB);
}

TEST(Windows, BlockForWhichThereIsNoAddressSpaceIsRefusedAndNothingIsLost) {
    TestClock clock;
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    const FMFileInfo info = Description();
    FileRef file = cache.Create(info);
    const std::string bytes[] = {Pattern(1, 16 * MIB), Pattern(2, 5000)};
    const BlockRef stored = Cache::Block(*file, 1);
    const BlockRef resident = Cache::Block(*file, 2);
    const BlockRef refused = Cache::Block(*file, 3);
    Write(*stored, bytes[0]);
    Write(*resident, bytes[1]);
    FMWaitUntilIdle();
    clock.Advance(300'000);
    ASSERT_FALSE(stored->FreeMemory());
    CountingSink sink;
    {
        const Reserved most(8 * MIB); // what is left is for the small objects of the library
        EXPECT_EQ(Write(*refused, bytes[0]), RT_ERROR_NULL_OBJECT);
        EXPECT_EQ(refused->GetTotalLen(), 0U);
        EXPECT_EQ(Read(*stored), "error " + std::to_string(RT_ERROR_NULL_OBJECT));
        EXPECT_EQ(stored->ReadData(&sink), RT_OK);
        FMWaitUntilIdle();
        EXPECT_EQ(sink.results, std::vector{RT_ERROR_NULL_OBJECT});
        EXPECT_TRUE(Read(*resident) == bytes[1]);
        EXPECT_EQ(Write(*Cache::Block(*file, 4), bytes[1]), RT_OK);
        FMWaitUntilIdle();
    }
    EXPECT_EQ(Write(*refused, bytes[0]), RT_OK);
    cache.Close(file);
    FMWaitUntilIdle();
    file = cache.Open(info.fileID);
    ASSERT_TRUE(file);
    for (const uint32_t id : {1, 2, 3, 4})
        EXPECT_TRUE(Read(*Cache::Block(*file, id, 0)) == bytes[1 - id % 2]) << id;
}
