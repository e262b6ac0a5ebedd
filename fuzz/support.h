// Support for the fuzz targets: the check that ends a run, the input as numbers and bytes, a cache on a memory
// file system if there is one, and a meter of allocated memory.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "IFileManager.h"
#include "RtRuntime.h"
#include "pattern.h"

namespace fs = std::filesystem;

using FileRef = CRtComAutoPtr<IFMFile>;
using BlockRef = CRtComAutoPtr<IFMBlock>;

// Part of every sanitizer that replaces the allocator. GCC has the functions but does not install their header.
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*taken)(const volatile void*,
                                                                       size_t),
                                                         void (*given)(const volatile void*));
extern "C" size_t __sanitizer_get_allocated_size(const volatile void* memory);

namespace fuzz {

inline fs::path g_dirToRemove;

/// Ends the process if the condition is false, with the caller's file and line.
inline void Require(bool kept, const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
    if (kept)
        return;
    std::fprintf(stderr, "%s:%d: requirement violated\n", file, line);
    std::error_code ignored;
    fs::remove_all(g_dirToRemove, ignored);
    std::abort();
}

/// The input, read from the front. Past its end it yields zeros.
class Input {
public:
    Input(const uint8_t* data, size_t size) : m_rest(reinterpret_cast<const char*>(data), size) {}

    /// Starts at `begin`. Precondition: `bytes` outlives this object.
    Input(const std::string& bytes, size_t begin)
        : m_rest(std::string_view(bytes).substr(std::min(begin, bytes.size()))) {}

    bool IsOver() const { return m_rest.empty(); }
    uint32_t Byte() { return static_cast<uint8_t>(Take(1)[0]); }
    uint32_t Word() {
        const uint32_t low = Byte();
        return low | Byte() << 8;
    }
    uint32_t Below(uint32_t limit) { return (limit > 256 ? Word() : Byte()) % limit; }
    std::string Take(size_t length) {
        std::string bytes(m_rest.substr(0, length));
        m_rest.remove_prefix(bytes.size());
        bytes.resize(length);
        return bytes;
    }

private:
    std::string_view m_rest;
};

/// Reads all bytes of a block. False if it cannot be read.
inline bool ReadWhole(IFMBlock& block, std::string& bytes) {
    CRtMessageChain view;
    if (block.ReadData(0, block.GetTotalLen(), RtReceive(view)) != 0)
        return false;
    bytes = view->FlattenChained().view();
    return true;
}

/// Measures the allocations of all threads during its lifetime. Only one meter may exist at a time.
class MemoryMeter {
public:
    MemoryMeter() {
        static const int installed =
            __sanitizer_install_malloc_and_free_hooks(&MemoryMeter::Taken, &MemoryMeter::Given);
        Require(installed > 0);
        s_live = s_peak = 0;
    }
    int64_t Peak() const { return s_peak.load(); }

private:
    static void Taken(const volatile void*, size_t size) {
        const int64_t live = s_live += static_cast<int64_t>(size);
        int64_t peak = s_peak.load();
        while (live > peak && !s_peak.compare_exchange_weak(peak, live)) {
        }
    }
    static void Given(const volatile void* memory) {
        s_live -= static_cast<int64_t>(__sanitizer_get_allocated_size(memory));
    }
    inline static std::atomic<int64_t> s_live{0};
    inline static std::atomic<int64_t> s_peak{0};
};

class Clock final : public IRtClock {
public:
    Clock() { RtSetClock(this); }
    ~Clock() override { RtSetClock(nullptr); }
    uint64_t TickCountMs() override { return ms; }
    CRtTimeValue TimeOfDay() override {
        return CRtTimeValue(1'700'000'000 + static_cast<int64_t>(ms / 1000), 0);
    }
    std::atomic<uint64_t> ms{1'000'000};
};

/// The cache of the process. The fuzzing thread is the caller thread. The clock advances only if a target sets
/// it.
class Cache {
public:
    static Cache& Instance() {
        static Cache cache;
        return cache;
    }

    Cache() {
        RtSetLogSink(nullptr, nullptr, RT_LOG_SILENT);
        Start(0);
        m_store = *fs::directory_iterator(dir / "confcache");
    }
    ~Cache() {
        manager->UnInitialize();
        WaitUntilIdle();
        std::error_code ignored;
        fs::remove_all(dir, ignored);
    }
    Cache(const Cache&) = delete;
    Cache& operator=(const Cache&) = delete;

    void Start(int isServer) { manager->Initialize(CRtString(dir.string()), 7, isServer); }
    static void WaitUntilIdle() { Require(FMWaitUntilIdle() == 0); }
    /// The path of the two files of an identifier, without extension.
    fs::path Stem(const FMFileID& id) const { return m_store / FMFileIDToString(id).c_str(); }
    static void RemoveFiles(const fs::path& stem) {
        fs::remove(stem.string() + ".sdi");
        fs::remove(stem.string() + ".sdd");
    }

    const fs::path dir = MakeDir();
    Clock clock;
    CRtCallerThread thread;
    IFileManager* const manager = IFileManager::Instance();

private:
    // Uses /dev/shm unless TMPDIR is set: the targets do not test the disk.
    static fs::path MakeDir() {
        const fs::path memory = "/dev/shm";
        std::error_code none;
        const bool inMemory = !std::getenv("TMPDIR") && fs::is_directory(memory, none);
        g_dirToRemove = (inMemory ? memory : fs::temp_directory_path()) /
                        ("filemanager-fuzz-" + std::to_string(std::random_device{}()));
        fs::create_directory(g_dirToRemove);
        return g_dirToRemove;
    }

    fs::path m_store;
};

} // namespace fuzz
