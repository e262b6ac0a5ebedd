// Test support: a temporary cache directory, a caller thread and a clock that the test controls, log capture,
// and block contents that identify their block.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "FMStatistics.h"
#include "IFileManager.h"
#include "RtEventQueue.h"
#include "RtRuntime.h"
#include "testing/pattern.h"
#include "testing/require.h"

namespace fs = std::filesystem;

class TempDir {
public:
    TempDir();
    explicit TempDir(const fs::path& existing) : path(existing), m_mine(false) {}
    ~TempDir();
    const fs::path path;

private:
    const bool m_mine = true;
};

class TestClock final : public IRtClock {
public:
    TestClock() { RtSetClock(this); }
    ~TestClock() override { RtSetClock(nullptr); }
    uint64_t TickCountMs() override { return tick; }
    CRtTimeValue TimeOfDay() override { return CRtTimeValue(seconds, 0); }
    void Advance(int64_t ms) {
        tick += static_cast<uint64_t>(ms);
        seconds += ms / 1000;
    }
    std::atomic<uint64_t> tick{1'000'000};
    std::atomic<int64_t> seconds{1'700'000'000};
};

// Captures all log lines during its lifetime. Lines of disabled levels are not composed.
class LogCapture {
public:
    explicit LogCapture(int level = RT_LOG_TRACE);
    ~LogCapture();
    size_t Count(const std::string& part) const;
    std::string Text() const;

private:
    static void Take(void* self, int level, const char* text);
    mutable std::mutex m_mutex;
    std::vector<std::string> m_lines;
};

class CountingSink final : public IFMBlockSink {
public:
    void OnBlockDataReady(IFMBlock* block, int result) override {
        results.push_back(result);
        if (then)
            then(block, result);
    }
    std::vector<int> results;
    std::function<void(IFMBlock*, int)> then;
};

// An event that calls a function. Counts the instances that exist.
class TestEvent final : public IRtEvent {
public:
    explicit TestEvent(std::function<void()> work = [] {}) : m_work(std::move(work)) { ++alive; }
    ~TestEvent() override { --alive; }
    int OnEventFire() override {
        m_work();
        return 0;
    }
    inline static std::atomic<int> alive{0};

private:
    std::function<void()> m_work;
};

using FileRef = CRtComAutoPtr<IFMFile>;
using BlockRef = CRtComAutoPtr<IFMBlock>;

// A cache whose caller thread is the thread of the test, which runs the queue explicitly.
class Cache {
public:
    explicit Cache(int isServer = 1, uint16_t clearDays = 7);
    explicit Cache(const fs::path& existing, bool isToStart = true); // a server
    ~Cache();
    void Start();
    void Stop() { manager->UnInitialize(); }
    // Runs the events queued for the read/write thread, but not the results that they post back.
    static void RunReadwrQueue();
    fs::path Path(const FMFileID& id, const char* extension) const;

    FileRef Create(const FMFileInfo& info);
    FileRef Create(uint32_t blockBeg = 1, uint32_t flag = 0);
    FileRef Open(const FMFileID& id, int load = 1);
    void Close(FileRef& file);
    static BlockRef Block(IFMFile& file, uint32_t id, int create = 1);

    TempDir dir;
    CRtCallerThread thread;
    IFileManager* manager = IFileManager::Instance();
    const int isServer;
    const uint16_t clearDays;
};

// Occupies the read/write thread until the end of its scope, so that everything that a test posts meanwhile is queued.
class Gate {
public:
    Gate();
    // Opens by itself when that many events are queued behind it.
    explicit Gate(size_t count);
    ~Gate() { m_open.set_value(); }
    Gate(const Gate&) = delete;
    Gate& operator=(const Gate&) = delete;

private:
    std::promise<void> m_open;
};

int Write(IFMBlock& block, const std::string& bytes, uint32_t piece = 1u << 20);
// The bytes of the whole block, or "error <code>".
std::string Read(IFMBlock& block);
std::string ReadFile(const fs::path& path);
void WriteFile(const fs::path& path, const std::string& bytes);
// The number of regular files in a tree.
size_t CountFiles(const fs::path& path);
FMFileInfo Description(uint32_t blockBeg = 1, uint32_t flag = 0);
std::string Bytes(const CRtMessageChain& chain);
FMStatistics ReadStatistics();
// The bytes of an information file.
std::string InfoFile(const FMFileInfo& info, const std::string& blockBody,
                     int64_t createTime = 1'700'000'000);

// --- What differs between systems: kit_posix.cpp, kit_windows.cpp --------------------------------

// A process that is idle until the end of the scope.
class IdleProcess {
public:
    IdleProcess();
    ~IdleProcess() { End(); }
    IdleProcess(const IdleProcess&) = delete;
    IdleProcess& operator=(const IdleProcess&) = delete;
    void End();
    uint32_t Id() const { return m_id; }

private:
    uint32_t m_id = 0;                         // 0 after End
    [[maybe_unused]] void* m_handle = nullptr; // on Windows
};

// The factor by which system calls are slower than on the fastest system. Tests divide repeat counts by it.
extern const uint32_t SLOWNESS;
extern const char NULL_DEVICE[];
void SetVariable(const char* name, const std::string& value);
size_t CountHandles();
// Sets the limit of open streams of this process.
bool LimitStreams(uint32_t count);
// True for a junction, false for a link of the host system under an emulator. Windows only.
bool MakeDirectoryLink(const fs::path& target, const fs::path& link);
