// Windows only: files that another process holds, places of the data directory, directory links, the address space,
// and processes that share a cache, which are started here instead of forked.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <deque>
#include <future>
#include <iostream>
#include <map>

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

// The linker replaces these imports of the library by functions of this file.
#define IMPORT(NAME, SYMBOL)                                                                       \
    extern "C" const decltype(&NAME) real##NAME __asm__("___real__imp__" SYMBOL);                  \
    extern "C" const decltype(&NAME) wrapped##NAME __asm__("___wrap__imp__" SYMBOL)
IMPORT(Sleep, "Sleep@4");
IMPORT(CreateFileW, "CreateFileW@28");
IMPORT(DeleteFileW, "DeleteFileW@4");
IMPORT(GetFileAttributesW, "GetFileAttributesW@4");

namespace {

std::atomic<DWORD> g_delays; // sum of the library's delays in milliseconds
std::function<void(DWORD)> g_onDelay;

void WINAPI Delay(DWORD ms) {
    realSleep(ms);
    g_delays += ms;
    if (g_onDelay)
        g_onDelay(ms);
}

// Windows denies access to a file whose removal is pending, and to its attributes. Wine does not.
std::wstring g_pending;
std::atomic<bool> g_isPending;
bool IsPending(LPCWSTR path) {
    if (!g_isPending || !std::wstring_view(path).ends_with(g_pending))
        return false;
    SetLastError(ERROR_ACCESS_DENIED);
    return true;
}
HANDLE WINAPI Open(LPCWSTR path, DWORD access, DWORD sharing, LPSECURITY_ATTRIBUTES security,
                   DWORD disposition, DWORD flags, HANDLE like) {
    return IsPending(path)
               ? INVALID_HANDLE_VALUE
               : realCreateFileW(path, access, sharing, security, disposition, flags, like);
}
BOOL WINAPI Remove(LPCWSTR path) { return !IsPending(path) && realDeleteFileW(path); }
DWORD WINAPI GetAttributes(LPCWSTR path) {
    return IsPending(path) ? INVALID_FILE_ATTRIBUTES : realGetFileAttributesW(path);
}

} // namespace

extern "C" const decltype(&Sleep) wrappedSleep = Delay;
extern "C" const decltype(&CreateFileW) wrappedCreateFileW = Open;
extern "C" const decltype(&DeleteFileW) wrappedDeleteFileW = Remove;
extern "C" const decltype(&GetFileAttributesW) wrappedGetFileAttributesW = GetAttributes;

namespace {

constexpr char OTHERS_DIR[] = "FILEMANAGER_OTHERS_DIR";
constexpr char OPERATION[] = "FILEMANAGER_OPERATION";
constexpr char FINISHED[] = "{00000000-0000-4000-8000-000000000001}";
constexpr char OPEN[] = "{00000000-0000-4000-8000-000000000002}";

FMFileInfo Described(const char* id) {
    FMFileInfo info = Description();
    FMFileIDFromString(id, info.fileID);
    return info;
}

// Starts a disabled case of this program in another process, and waits until it writes "ready".
HANDLE StartOther(const fs::path& dir, const std::string& testCase) {
    SetVariable(OTHERS_DIR, dir.string());
    const std::string options = "other --gtest_brief=1 --gtest_also_run_disabled_tests ";
    const std::string filter = "--gtest_filter=DISABLED_Other." + testCase;
    const HANDLE process = StartProcess(OwnProgram(), options + filter, 0).hProcess;
    while (!fs::exists(dir / "ready") && WaitForSingleObject(process, 10) == WAIT_TIMEOUT) {
    }
    return process;
}

// Returns the exit status.
DWORD WaitFor(HANDLE process) {
    DWORD status = 1;
    WaitForSingleObject(process, INFINITE);
    GetExitCodeProcess(process, &status);
    CloseHandle(process);
    return status;
}

void WaitFor(const fs::path& marker) {
    while (!fs::exists(marker))
        realSleep(20);
}

HANDLE Hold(const fs::path& path) {
    return realCreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING,
                           FILE_FLAG_BACKUP_SEMANTICS, nullptr);
}

// A turn of the caller thread waits for 50 ms of delays at most, of whichever thread. Its duration would depend on the
// other programs of the machine.
void Turn(const std::function<void()>& work) {
    const DWORD before = g_delays;
    work();
    EXPECT_LE(g_delays - before, 50U);
}

constexpr int OPERATIONS = 15;

// A fixed sequence of operations. From one of them on, another process holds files for two seconds.
TEST(DISABLED_Other, RunsWhileFilesAreHeld) {
    LogCapture quiet(RT_LOG_SILENT);
    TestClock clock;
    Cache cache(fs::path(std::getenv(OTHERS_DIR)), false);
    const FMFileInfo info = Described(FINISHED);
    const FMFileInfo expired = Described(OPEN);
    WriteFile(cache.Path(expired.fileID, ".sdi"), InfoFile(expired, std::string(2, '\0'), 1));
    WriteFile(cache.Path(expired.fileID, ".sdd"), "data");
    FileRef file;
    std::map<uint32_t, std::string> expected;
    const auto start = [&] { cache.Start(); };
    const auto stop = [&] { cache.Stop(); };
    const auto tick = [&] { clock.Advance(60'000); };
    const auto clean = [] { FMStartHousekeeping(); };
    const auto create = [&] {
        file = cache.Create(info);
        const uint32_t first = expected.empty() ? 1 : 3;
        expected = {{first, Pattern(first, 5000)}, {first + 1, Pattern(first + 1, 300)}};
        for (const auto& [id, bytes] : expected)
            Write(*Cache::Block(*file, id), bytes);
    };
    const auto rewrite = [&] {
        if (file)
            Write(*Cache::Block(*file, 1), expected[1] = Pattern(9, 5000));
    };
    const auto open = [&] { // while a file is held, it cannot be opened or read
        file = file ? file : cache.Open(info.fileID);
        for (auto it = expected.begin(); file && it != expected.end(); ++it) {
            const std::string read = Read(*Cache::Block(*file, it->first, 0));
            EXPECT_TRUE(read == it->second || read == "error 10001") << it->first << " " << read;
        }
    };
    const auto close = [&] {
        if (file)
            cache.Close(file);
    };
    const auto remove = [&] {
        close();
        file = cache.Create(1, FM_FILE_TEMPORARY);
        Write(*Cache::Block(*file, 1), "temporary");
        close();
    };
    const std::function<void()> operations[OPERATIONS] = {start, create, close, open,  rewrite,
                                                          close, create, close, open,  remove,
                                                          tick,  clean,  stop,  start, open};
    const auto from = std::atoi(std::getenv(OPERATION));
    for (int i = 0; i < OPERATIONS; ++i) {
        if (i == from) {
            WriteFile(cache.dir.path / "ready", "");
            WaitFor(cache.dir.path / "held");
        }
        if (i == 12)
            stop(); // waits for the disk
        else
            Turn(operations[i]);
        if (i < from)
            FMWaitUntilIdle();
        for (int turn = 0; i >= from && turn < 10; ++turn) {
            Turn([&] { cache.thread.RunDue(); });
            realSleep(2);
        }
    }
    WaitFor(cache.dir.path / "released");
    tick();
    FMWaitUntilIdle();
    open();
    ASSERT_TRUE(file);
    close();
    FMWaitUntilIdle();
    FMCachedFile found;
    EXPECT_EQ(FMDescribeCachedFile("", FINISHED, found), RT_OK);
    EXPECT_TRUE(found.isLoadable && found.storedBlocks == expected.size());
    clean(); // of what was held during the first run
    FMWaitUntilIdle();
    EXPECT_EQ(CountFiles(cache.dir.path / "sdstore"), 2U);
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
    realSleep(INFINITE);
}

} // namespace

// A virus scanner, for example, opens files so that no other process can. Nothing is lost, and no turn is long.
TEST(Windows, FilesThatAreHeldForTwoSecondsCostNoDataAndNoLongTurn) {
    std::deque<TempDir> dirs;
    std::vector<std::future<DWORD>> others;
    for (const char* kind : {"", ".sdd", ".sdi"}) { // "": the directory
        size_t held = 0;
        for (int operation = 0; operation < OPERATIONS; ++operation) {
            const fs::path& dir = dirs.emplace_back().path;
            SetVariable(OPERATION, std::to_string(operation));
            const HANDLE other = StartOther(dir, "RunsWhileFilesAreHeld");
            std::vector<fs::path> paths{dir / "sdstore"};
            for (const auto& entry : fs::directory_iterator(paths[0]))
                paths.push_back(entry.path());
            std::erase_if(paths, [kind](const fs::path& path) { return path.extension() != kind; });
            std::vector<HANDLE> handles;
            for (const fs::path& path : paths)
                handles.push_back(Hold(path));
            held += handles.size() - std::erase(handles, INVALID_HANDLE_VALUE);
            WriteFile(dir / "held", "");
            others.push_back(std::async(std::launch::async, [dir, other, handles] {
                realSleep(2000);
                std::ranges::for_each(handles, CloseHandle);
                WriteFile(dir / "released", "");
                return WaitFor(other);
            }));
        }
        EXPECT_GT(held, 0U) << kind;
    }
    for (size_t i = 0; i < others.size(); ++i)
        EXPECT_EQ(others[i].get(), 0U) << i; // the cases of the directory first
}

// The read/write thread waits for data files that are held. What the caller thread calls meanwhile does not.
struct Waiting {
    uint32_t files; // several: each is held for 15 ms, one after the other
    bool isClosed = false;
    bool isFlushed = false;
    bool isRemoved = false; // the removal of the held file is pending
};
class HeldStore : public testing::TestWithParam<Waiting> {};
INSTANTIATE_TEST_SUITE_P(Of, HeldStore,
                         testing::Values(Waiting{1}, Waiting{1, false, true}, Waiting{1, true},
                                         Waiting{1, true, false, true}, Waiting{20, true}));

TEST_P(HeldStore, DelaysNoCallOfTheCallerThread) {
    const auto [count, isClosed, isFlushed, isRemoved] = GetParam();
    TestClock clock;
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    const FileRef other = cache.Create();
    const BlockRef evicted = Cache::Block(*other, 1);
    Write(*evicted, "evicted");
    FMWaitUntilIdle();
    clock.Advance(300'000);
    ASSERT_FALSE(evicted->FreeMemory());
    std::vector<FMFileInfo> infos;
    std::deque<HANDLE> held;
    for (uint32_t i = 0; i < count; ++i) {
        const fs::path path = cache.Path(infos.emplace_back(Description()).fileID, ".sdd");
        WriteFile(path, "a predecessor, which the store removes");
        g_pending = path.filename();
        g_isPending = isRemoved;
        held.push_back(isRemoved ? INVALID_HANDLE_VALUE : Hold(path));
    }
    g_onDelay = [&, delays = DWORD{0}](DWORD ms) mutable {
        if (count == 1 || held.empty() || (delays += ms) < 15)
            return;
        CloseHandle(held.front());
        held.pop_front();
        delays = 0;
    };
    const DWORD before = g_delays;
    bool isDone = false;
    FMFlushAsync([&](int, const auto&) { isDone = true; });
    std::vector<FileRef> files;
    for (const FMFileInfo& info : infos) {
        Write(*Cache::Block(*files.emplace_back(cache.Create(info)), 1), Pattern(1, 5000));
        if (isClosed)
            cache.Close(files.back());
    }
    while (g_delays == before)
        realSleep(1);
    const CRtString store((cache.dir.path / "sdstore").string());
    const FMFileID& last = infos.back().fileID;
    FMCachedFile found;
    std::string read;
    const auto runDue = [&] { cache.thread.RunDue(); };
    if (isFlushed)
        Turn(runDue);
    Turn([&] { read = Read(*evicted); });
    Turn([&] { EXPECT_EQ(!cache.Open(last), isClosed); });
    Turn([&] { FMDescribeCachedFile(store, FMFileIDToString(last), found); });
    Turn(runDue);
    EXPECT_TRUE(isDone); // files that are created after the call are not included
    if (count == 1) {
        EXPECT_EQ(read, isClosed ? "error 10001" : "evicted");
        CloseHandle(held.front());
        g_isPending = false;
    }
    FMWaitUntilIdle();
    EXPECT_EQ(Read(*evicted), "evicted");
    clock.Advance(60'000); // the store of the open file is retried
    FMWaitUntilIdle();
    for (size_t i = 0; i < count; ++i) {
        if (!isClosed)
            cache.Close(files[i]);
        files[i] = cache.Open(infos[i].fileID);
        ASSERT_TRUE(files[i]);
        EXPECT_TRUE(Read(*Cache::Block(*files[i], 1, 0)) == Pattern(1, 5000));
    }
    g_onDelay = {};
}

TEST(Windows, ServerLocksItsOpenFilesAndAKillLosesNoStoredFile) {
    TestClock clock;
    LogCapture log(RT_LOG_WARNING);
    const TempDir dir;
    const HANDLE other = StartOther(dir.path, "StoresAndStays");
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
    TerminateProcess(other, 1);
    WaitFor(other);
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
    const HANDLE held = Hold(root / "0" / "held" / "file");
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

TEST(Windows, StoreThatCanNeverSucceedDoesNotWait) {
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    const FMFileInfo infos[] = {Description(), Description()};
    fs::create_directory(cache.dir.path / "target");
    MakeDirectoryLink(cache.dir.path / "target", cache.Path(infos[0].fileID, ".sdd"));
    fs::remove(cache.dir.path / "target");
    fs::create_directory(cache.Path(infos[1].fileID, ".sdd")); // ERROR_ACCESS_DENIED
    const DWORD before = g_delays;
    for (const FMFileInfo& info : infos) {
        const FileRef file = cache.Create(info);
        Write(*Cache::Block(*file, 1), "bytes");
        FMWaitUntilIdle();
        EXPECT_EQ(Read(*Cache::Block(*file, 1)), "bytes");
    }
    EXPECT_EQ(g_delays, before);
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
                         testing::Values(L"C:", L"\\\\server\\share", L"\u540d\u524d \ufffd",
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
    if (isLong)
        root /= std::wstring(250, L'd');
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
    std::string noUtf8(dir.view());
    if (const size_t at = noUtf8.find("\xEF\xBF\xBD"); at != std::string::npos) {
        noUtf8.replace(at, 3, "\xFF"); // a replacement character would take its place
        EXPECT_NE(FMListCachedFiles(CRtString(noUtf8 + "\\sdstore"), stems, others), RT_OK);
    }
    manager->Initialize({}, 0, 1); // clears the store, and creates it
    EXPECT_EQ(FMListCachedFiles("", stems, others), RT_OK);
    EXPECT_TRUE(isStoreThere() && stems.empty() && others.empty());
    manager->UnInitialize();
    EXPECT_FALSE(isStoreThere());
    EXPECT_EQ(log.Text(), "");
    if (isLong) // std::filesystem cannot
        CFileManager::RemoveDir(dir.Left(dir.size() - 251));
}

TEST(Windows, HousekeepingLeavesWhatIsHeldAndIgnoresTheCaseOfExtensions) {
    LogCapture log(RT_LOG_WARNING);
    Cache cache(1, 7);
    cache.Stop();
    const fs::path store = cache.dir.path / "sdstore";
    for (const char* name : {"one.SDD", "two.Sdd", "held.sdd", "kept.sddx"})
        WriteFile(store / name, "unreadable");
    const auto run = [] {
        const DWORD before = g_delays;
        FMStartHousekeeping();
        FMWaitUntilIdle();
        return g_delays - before;
    };
    const HANDLE directory = Hold(store);
    cache.Start();
    FMWaitUntilIdle();
    EXPECT_LE(run(), 50U);
    EXPECT_EQ(log.Count("CFileManager::HouseKeeping_m, another process holds the directory"), 1U);
    CloseHandle(directory);
    const HANDLE file = Hold(store / "held.sdd");
    EXPECT_LE(run(), 50U);
    EXPECT_EQ(log.Count("held.sdd"), 2U); // the failure, and the system error
    EXPECT_EQ(CountFiles(store), 2U);
    CloseHandle(file);
    run();
    EXPECT_EQ(CountFiles(store), 1U);
    EXPECT_TRUE(fs::exists(store / "kept.sddx"));
}

constexpr uint32_t MIB = 1u << 20;

// Reserves all free ranges of the address space of this many bytes, or more.
struct Reserved {
    explicit Reserved(size_t least) {
        for (size_t size = 1024 * MIB; size >= least; size /= 2) {
            while (void* range = VirtualAlloc(nullptr, size, MEM_RESERVE, PAGE_NOACCESS)) {
                ranges.push_back(range);
                bytes += size;
            }
        }
    }
    ~Reserved() {
        for (void* range : ranges)
            VirtualFree(range, 0, MEM_RELEASE);
    }
    size_t bytes = 0;
    std::vector<void*> ranges;
};

// The blocks of a minute are evicted five minutes later, so the memory of the server stays at its limit. Some blocks
// are read every minute: they stay in memory among others that are evicted.
TEST(Windows, ServerAtItsMemoryLimitReturnsMemoryAndKeepsLargeRangesFree) {
    constexpr uint32_t perFile = 10'000;
    const char* const number = std::getenv("FILEMANAGER_BLOCKS"); // docs/windows.md
    const auto blocks = static_cast<uint32_t>(number ? std::atoi(number) : 9'000);
    TestClock clock;
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    const CFileManager& manager = *CFileManager::Instance();
    const std::string bytes = Pattern(1, 16 * MIB + 4096);
    std::deque<FileRef> files;
    std::deque<BlockRef> kept;
    // Passes time, and returns the committed bytes after it.
    const auto pass = [&](const char* when, int64_t ms) {
        size_t committed = 0;
        for (const int64_t step : {int64_t{0}, ms}) {
            clock.Advance(step);
            for (const BlockRef& block : kept)
                Read(*block);
            FMWaitUntilIdle(); // the tick evicts no block whose store is pending
            committed = 0;
            MEMORY_BASIC_INFORMATION range{};
            for (const char* at = nullptr; VirtualQuery(at, &range, sizeof(range)) != 0;
                 at = static_cast<const char*>(range.BaseAddress) + range.RegionSize) {
                if (range.State == MEM_COMMIT && range.Type == MEM_PRIVATE)
                    committed += range.RegionSize;
            }
            const size_t free = Reserved(32 * MIB).bytes;
            EXPECT_LT(committed, 768 * MIB);
            EXPECT_GT(free, 768 * MIB);
            std::cout << when << ", MiB: blocks " << manager.GetMemoryInUse() / MIB
                      << ", committed " << committed / MIB << ", free " << free / MIB << "\n";
        }
        return committed;
    };
    pass("start", 0);
    uint32_t written = 0;
    for (uint32_t i = 0; i < blocks || manager.GetMemoryInUse() < manager.GetMemoryLimit(); ++i) {
        if (i % perFile == 0)
            files.push_back(cache.Create(1, FM_FILE_TEMPORARY));
        // 256 bytes to 512 KiB, each power of two equally often; few blocks of the largest intended size.
        const uint32_t hash = i * 2654435761u;
        const uint32_t least = 256u << (hash >> 16) % 11;
        const uint32_t size = i % 1000 == 999 ? 16 * MIB : least + (hash >> 5) % least;
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
    EXPECT_LT(pass("evicted", 300'000), 400 * MIB); // the heap alone keeps 526 under Wine
    EXPECT_LT(manager.GetMemoryInUse(), 64 * MIB);
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
    const std::string bytes[] = {Pattern(2, 5000), Pattern(1, 16 * MIB)}; // of even and odd blocks
    std::deque<BlockRef> blocks;
    for (const uint32_t id : {1, 2, 3, 4})
        blocks.push_back(Cache::Block(*file, id));
    const auto write = [&](uint32_t id) { return Write(*blocks[id - 1], bytes[id % 2]); };
    write(1);
    write(2);
    FMWaitUntilIdle();
    clock.Advance(300'000);
    ASSERT_FALSE(blocks[0]->FreeMemory());
    CountingSink sink;
    {
        const Reserved most(8 * MIB); // what is left is for the small objects of the library
        EXPECT_EQ(write(3), RT_ERROR_NULL_OBJECT);
        EXPECT_EQ(blocks[2]->GetTotalLen(), 0U);
        EXPECT_EQ(Read(*blocks[0]), "error " + std::to_string(RT_ERROR_NULL_OBJECT));
        EXPECT_EQ(blocks[0]->ReadData(&sink), RT_OK);
        FMWaitUntilIdle();
        EXPECT_EQ(sink.results, std::vector{RT_ERROR_NULL_OBJECT});
        EXPECT_TRUE(Read(*blocks[1]) == bytes[0]);
        EXPECT_EQ(write(4), RT_OK);
        FMWaitUntilIdle();
    }
    EXPECT_EQ(write(3), RT_OK);
    blocks.clear();
    cache.Close(file);
    FMWaitUntilIdle();
    file = cache.Open(info.fileID);
    ASSERT_TRUE(file);
    for (const uint32_t id : {1, 2, 3, 4})
        EXPECT_TRUE(Read(*Cache::Block(*file, id, 0)) == bytes[id % 2]) << id;
}
