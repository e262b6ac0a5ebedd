// Windows only: files that another process holds, places of the data directory, directory links, drives, the address
// space, and processes that share a cache, which are started here instead of forked.
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

// After the library's headers; support_windows.cpp includes it before them.
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
        std::this_thread::sleep_for(milliseconds(5));
}

// Runs a disabled test case of this program in another process.
class OtherProcess {
public:
    OtherProcess(const fs::path& dir, const std::string& testCase) {
        SetVariable(OTHERS_DIR, dir.string());
        m_process = StartProcess(OwnProgram(),
                                 "other --gtest_brief=1 --gtest_also_run_disabled_tests "
                                 "--gtest_filter=DISABLED_Other." +
                                     testCase,
                                 0)
                        .hProcess;
        while (!fs::exists(dir / "ready") && WaitForSingleObject(m_process, 10) == WAIT_TIMEOUT) {
        }
    }
    void Kill() {
        TerminateProcess(m_process, 1);
        Wait();
    }
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

// The longest turn of the caller thread. Other programs of the machine delay turns too, and as much a metronome: its
// delay is no fault of the library. A case repeats turns that were too long nevertheless.
constexpr int ATTEMPTS = 3;
class Turns {
public:
    ~Turns() {
        m_isOver = true;
        m_metronome.join();
    }
    template <class Turn>
    void Run(const Turn& turn) {
        longest = std::max(longest, Measure(turn));
    }
    bool AreShort() const {
        return longest <=
               std::min(milliseconds(50) + 2 * m_delay.load(), Duration(milliseconds(1000)));
    }
    Duration longest{};

private:
    template <class Work>
    static Duration Measure(const Work& work) {
        const auto begin = std::chrono::steady_clock::now();
        work();
        return std::chrono::steady_clock::now() - begin;
    }
    void Tick() {
        while (!m_isOver) {
            const Duration took = Measure([] { Sleep(4), GetFileAttributesA("C:\\windows"); });
            m_delay = std::max(m_delay.load(), took - milliseconds(4));
        }
    }
    std::atomic<Duration> m_delay{};
    std::atomic<bool> m_isOver{false};
    std::thread m_metronome{&Turns::Tick, this};
};

// A fixed sequence of operations. From one of them on, another process holds files for two seconds.
class HeldWorkload {
public:
    explicit HeldWorkload(const fs::path& dir) : m_cache(dir, false), m_info(Described(FINISHED)) {
        const FMFileInfo expired = Described(OPEN);
        WriteFile(m_cache.Path(expired.fileID, ".sdi"), InfoFile(expired, std::string(2, '\0'), 1));
        WriteFile(m_cache.Path(expired.fileID, ".sdd"), "data");
    }
    static constexpr size_t OPERATIONS = 15;
    static constexpr size_t STOP = 12;
    void Run(size_t operation) {
        using Operation = void (HeldWorkload::*)();
        static constexpr Operation all[OPERATIONS] = {
            &HeldWorkload::Start,       &HeldWorkload::Create,  &HeldWorkload::Close,
            &HeldWorkload::OpenAndRead, &HeldWorkload::Rewrite, &HeldWorkload::Close,
            &HeldWorkload::Create,      &HeldWorkload::Close,   &HeldWorkload::OpenAndRead,
            &HeldWorkload::Remove,      &HeldWorkload::Tick,    &HeldWorkload::Clean,
            &HeldWorkload::Stop,        &HeldWorkload::Start,   &HeldWorkload::OpenAndRead};
        (this->*all[operation])();
    }
    // The work of the loop of an application.
    void RunDue() { m_cache.thread.RunDue(); }
    // One tick after the last file was released.
    void Check() {
        Tick();
        FMWaitUntilIdle();
        OpenAndRead();
        ASSERT_TRUE(m_file);
        Close();
        FMWaitUntilIdle();
        FMCachedFile file;
        EXPECT_EQ(FMDescribeCachedFile("", FINISHED, file), RT_OK);
        EXPECT_TRUE(file.isLoadable && file.storedBlocks == m_expected.size());
        Clean(); // of what was held during the first run
        FMWaitUntilIdle();
        EXPECT_EQ(CountFiles(m_cache.dir.path / "sdstore"), 2U);
    }

private:
    void Start() { m_cache.Start(); }
    void Stop() { m_cache.Stop(); }
    void Tick() { m_clock.Advance(60'000); }
    void Clean() { FMStartHousekeeping(); }
    void Create() {
        m_file = m_cache.Create(m_info);
        const uint32_t block = m_expected.empty() ? 1 : 3;
        m_expected = {{block, Pattern(block, 5000)}, {block + 1, Pattern(block + 1, 300)}};
        for (const auto& [id, bytes] : m_expected)
            Write(*Cache::Block(*m_file, id), bytes);
    }
    void Rewrite() {
        if (m_file)
            Write(*Cache::Block(*m_file, 1), m_expected[1] = Pattern(9, 5000));
    }
    // While a file is held, it cannot be opened or read.
    void OpenAndRead() {
        if (!m_file)
            m_file = m_cache.Open(m_info.fileID);
        for (const auto& [id, bytes] : m_expected) {
            const BlockRef block = m_file ? Cache::Block(*m_file, id, 0) : BlockRef();
            const std::string read = block ? Read(*block) : bytes;
            EXPECT_TRUE(read == bytes || read == "error 10006") << id << " " << read.size();
            EXPECT_EQ(!block, !m_file);
        }
    }
    void Close() {
        if (m_file)
            m_cache.Close(m_file);
    }
    void Remove() {
        Close();
        m_file = m_cache.Create(1, FM_FILE_TEMPORARY);
        Write(*Cache::Block(*m_file, 1), "temporary");
        Close();
    }

    TestClock m_clock;
    Cache m_cache;
    const FMFileInfo m_info;
    FileRef m_file;
    std::map<uint32_t, std::string> m_expected;
};

TEST(DISABLED_Other, RunsWhileFilesAreHeld) {
    LogCapture quiet(RT_LOG_SILENT);
    const fs::path dir = std::getenv(OTHERS_DIR);
    const auto first = static_cast<size_t>(std::atoi(std::getenv(OPERATION)));
    HeldWorkload workload(dir);
    Turns turns;
    for (size_t i = 0; i < HeldWorkload::OPERATIONS; ++i) {
        if (i == first) {
            WriteFile(dir / "ready", "");
            WaitFor(dir / "held");
        }
        if (i == HeldWorkload::STOP)
            workload.Run(i); // waits for the disk
        else
            turns.Run([&] { workload.Run(i); });
        for (int turn = 0; turn < 10; ++turn) {
            turns.Run([&] { workload.RunDue(); });
            std::this_thread::sleep_for(milliseconds(2));
        }
    }
    WaitFor(dir / "released");
    workload.Check();
    if (!turns.AreShort())
        WriteFile(dir / "slow", "");
}

// Holds everything of a kind in the store of another process for two seconds, from an operation on.
class Holding {
public:
    Holding(size_t operation, const std::string& kind) : name(std::to_string(operation) + kind) {
        SetVariable(OPERATION, std::to_string(operation));
        m_other.emplace(m_dir.path, "RunsWhileFilesAreHeld");
        const fs::path store = m_dir.path / "sdstore";
        std::vector<fs::path> paths(kind == "directory" ? 1 : 0, store);
        for (const fs::directory_entry& entry : fs::directory_iterator(store)) {
            if (entry.path().extension() == kind)
                paths.push_back(entry.path());
        }
        for (const fs::path& path : paths)
            m_held.push_back(HoldAlone(path));
        count =
            m_held.size() - static_cast<size_t>(std::ranges::count(m_held, INVALID_HANDLE_VALUE));
        WriteFile(m_dir.path / "held", "");
        m_release = std::thread([this] {
            std::this_thread::sleep_for(std::chrono::seconds(2));
            std::ranges::for_each(m_held, CloseHandle);
            WriteFile(m_dir.path / "released", "");
        });
    }
    // False if a turn was too long.
    bool End() {
        m_release.join();
        EXPECT_EQ(m_other->Wait(), 0U) << name;
        return !fs::exists(m_dir.path / "slow");
    }
    const std::string name;
    size_t count = 0;

private:
    TempDir m_dir;
    std::optional<OtherProcess> m_other;
    std::vector<HANDLE> m_held;
    std::thread m_release;
};

} // namespace

// A virus scanner, for example, opens files so that no other process can. Nothing is lost, and no turn is long.
TEST(Windows, FilesThatAreHeldForTwoSecondsCostNoDataAndNoLongTurn) {
    std::map<std::string, size_t> held;
    std::vector<std::pair<size_t, std::string>> left;
    for (size_t operation = 0; operation < HeldWorkload::OPERATIONS; ++operation) {
        for (const char* kind : {".sdd", ".sdi", "directory"})
            left.emplace_back(operation, kind);
    }
    for (int attempt = 0; attempt < ATTEMPTS && !left.empty(); ++attempt) {
        std::deque<Holding> holdings;
        for (const auto& [operation, kind] : left)
            held[kind] += holdings.emplace_back(operation, kind).count;
        auto next = left.begin();
        for (Holding& holding : holdings)
            next = holding.End() ? left.erase(next) : next + 1;
    }
    for (const auto& [operation, kind] : left)
        ADD_FAILURE() << "long turn: operation " << operation << ", " << kind;
    EXPECT_TRUE(held[".sdd"] > 0 && held[".sdi"] > 0 && held["directory"] > 0);
}

// The read/write thread waits for a data file that is held. What the caller thread calls meanwhile does not.
class HeldStore : public testing::TestWithParam<bool> {};
INSTANTIATE_TEST_SUITE_P(IsClosed, HeldStore, testing::Bool());

TEST_P(HeldStore, DelaysNoCallOfTheCallerThread) {
    const bool isClosed = GetParam();
    const TempDir dir;
    bool isShort = false;
    for (int attempt = 0; attempt < ATTEMPTS && !isShort; ++attempt) {
        TestClock clock;
        LogCapture quiet(RT_LOG_SILENT);
        Cache cache(dir.path);
        const FMFileInfo info = Described(OPEN);
        const FileRef other = cache.Create();
        const BlockRef evicted = Cache::Block(*other, 1);
        Write(*evicted, "evicted");
        FMWaitUntilIdle();
        clock.Advance(300'000);
        ASSERT_FALSE(evicted->FreeMemory());
        WriteFile(cache.Path(info.fileID, ".sdd"), "a predecessor, which the store removes");
        const HANDLE held = HoldAlone(cache.Path(info.fileID, ".sdd"));
        ASSERT_NE(held, INVALID_HANDLE_VALUE);
        Turns turns;
        bool isFlushed = false;
        FMFlushAsync([&](int, const auto&) { isFlushed = true; });
        FileRef file = cache.Create(info);
        Write(*Cache::Block(*file, 1), Pattern(1, 5000));
        if (isClosed)
            cache.Close(file);
        std::this_thread::sleep_for(milliseconds(5));
        FMCachedFile found;
        std::string read;
        const CRtString store(cache.dir.path.string() + "\\sdstore");
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
    std::this_thread::sleep_for(std::chrono::hours(1));
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
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache(0, 0);
    const fs::path root = cache.dir.path / "confcache";
    EXPECT_TRUE(GetFileAttributesW(root.c_str()) & FILE_ATTRIBUTE_HIDDEN);
    cache.Stop();
    const TempDir outside;
    WriteFile(outside.path / "kept", "x");
    WriteFile(root / "0" / "free" / "file", "x");
    WriteFile(root / "0" / "held" / "file", "x");
    const bool isJunction = MakeDirectoryLink(outside.path, root / "0" / "link");
    ASSERT_TRUE(fs::exists(root / "0" / "link" / "kept"));
    const HANDLE held = HoldAlone(root / "0" / "held" / "file");
    cache.Start();
    EXPECT_TRUE(fs::exists(root / "0" / "held" / "file"));
    EXPECT_FALSE(fs::exists(root / "0" / "free"));
    CloseHandle(held);
    cache.Stop();
    EXPECT_TRUE(fs::exists(outside.path / "kept"));
    EXPECT_FALSE(fs::exists(root / "0" / "held"));
    EXPECT_EQ(fs::exists(root), !isJunction); // the emulator does not remove its own links
}

TEST(Windows, StoreDoesNotHangIfTheDataFileIsADanglingLink) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    const FMFileInfo info = Description();
    const fs::path target = cache.dir.path / "target";
    fs::create_directory(target);
    MakeDirectoryLink(target, cache.Path(info.fileID, ".sdd"));
    fs::remove(target);
    const FileRef file = cache.Create(info);
    Write(*Cache::Block(*file, 1), "bytes");
    FMWaitUntilIdle();
    EXPECT_EQ(Read(*Cache::Block(*file, 1)), "bytes");
}

TEST(Windows, DefaultRootIsAFixedDrive) {
    LogCapture log;
    const CRtCallerThread callerThread;
    IFileManager::Instance()->Initialize("", 7, 1);
    IFileManager::Instance()->UnInitialize();
    const std::string line = "CFileManager::SetDataDir, data dir=";
    const size_t at = log.Text().find(line);
    ASSERT_NE(at, std::string::npos);
    const std::string chosen = log.Text().substr(at + line.size(), 3);
    EXPECT_TRUE(fs::remove(chosen + "sdstore"));
    EXPECT_EQ(GetDriveTypeA(chosen.c_str()), DRIVE_FIXED);
    uint64_t available = 0;
    EXPECT_TRUE(RtOs::GetDriveFreeBytes(chosen.c_str(), available) && available > 0);
}

// std::filesystem cannot iterate over a directory with a long path.
size_t CountEntries(const fs::path& directory) {
    WIN32_FIND_DATAW entry{};
    size_t count = 0;
    const HANDLE search = FindFirstFileW((directory / "*").c_str(), &entry);
    for (BOOL any = search != INVALID_HANDLE_VALUE; any; any = FindNextFileW(search, &entry))
        count += entry.cFileName[0] != L'.' ? 1 : 0;
    FindClose(search);
    return count;
}

class Place : public testing::TestWithParam<std::wstring> {};
INSTANTIATE_TEST_SUITE_P(Path, Place,
                         testing::Values(L"C:", L"\\\\server\\share", L"//server/share/by slash/",
                                         L"\u540d\u524d \u00dcbung", L"made/by slash/", L"long",
                                         L"\\\\server\\share\\long"));

// A place without a drive or a share is below a temporary directory. A long one is longer than MAX_PATH.
TEST_P(Place, ACacheCanBeThere) {
    LogCapture log(RT_LOG_WARNING);
    const CRtCallerThread callerThread;
    RtSetUtf8Paths(true);
    const TempDir temp;
    constexpr int levels = 5;
    const std::wstring& place = GetParam();
    const bool isLong = place.ends_with(L"long");
    const bool isShare = place.find(L"server") != std::wstring::npos;
    fs::path root = isShare || place.ends_with(L":") ? fs::path(place) : temp.path / place;
    for (int level = 0; isLong && level < levels; ++level)
        root /= std::wstring(60, L'd');
    const std::u8string text = root.u8string();
    const CRtString dir(std::string(text.begin(), text.end()));
    if (isLong) // the library adds the prefix itself
        root = isShare ? L"\\\\?\\UNC" + root.wstring().substr(1) : L"\\\\?\\" + root.wstring();
    const size_t before = CountEntries(root);
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
    EXPECT_EQ(CountEntries(root / L"sdstore"), 2U);
    manager->Initialize({}, 0, 1); // clears the store, and creates it
    EXPECT_EQ(CountEntries(root / L"sdstore"), 0U);
    manager->UnInitialize();
    EXPECT_EQ(CountEntries(root), before);
    EXPECT_EQ(log.Text(), "");
    if (isLong) // std::filesystem cannot
        CFileManager::RemoveDir(dir.Left(dir.size() - levels * 61));
}

TEST(Windows, HousekeepingIgnoresTheCaseOfExtensions) {
    TestClock clock;
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache(1, 7);
    const fs::path store = cache.dir.path / "sdstore";
    for (const char* name : {"one.SDD", "two.Sdd", "three.sdd", "kept.sddx"})
        WriteFile(store / name, "unreadable");
    clock.Advance(60'000);
    FMWaitUntilIdle();
    EXPECT_EQ(CountFiles(store), 1U);
    EXPECT_TRUE(fs::exists(store / "kept.sddx"));
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
        for (uint32_t old = i % perFile / 2; old > 100; old -= 100) { // many have been evicted
            const uint32_t at = i - i % perFile + old;
            EXPECT_TRUE(Read(*Cache::Block(*files.back(), old + 1, 0)) ==
                        bytes.substr(at % 4096, MixedSize(at)));
        }
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
