// What the fuzz targets share: the end of a run that found a fault, the input as numbers and bytes, a
// cache of the process in memory where there is such a place, and a meter of live memory.
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

// Of every sanitizer that watches the allocator, GCC's too, which does not install the header.
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*taken)(const volatile void*,
                                                                       size_t),
                                                         void (*given)(const volatile void*));
extern "C" size_t __sanitizer_get_allocated_size(const volatile void* memory);

namespace fuzz {

inline fs::path g_dirToRemove;

/// Ends the process when the library broke a promise. The line is the caller's.
inline void Require(bool kept, const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
    if (kept)
        return;
    std::fprintf(stderr, "%s:%d: what must hold does not\n", file, line);
    std::error_code ignored;
    fs::remove_all(g_dirToRemove, ignored);
    std::abort();
}

/// The input, read from the front. What is missing at its end reads as zeros.
class Input {
public:
    Input(const uint8_t* data, size_t size) : m_rest(reinterpret_cast<const char*>(data), size) {}

    /// The bytes from `begin` on, which outlive the input.
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

/// The bytes of a whole block. False when it cannot be read.
inline bool ReadWhole(IFMBlock& block, std::string& bytes) {
    CRtMessageChain view;
    if (block.ReadData(0, block.GetTotalLen(), RtReceive(view)) != 0)
        return false;
    bytes = view->FlattenChained().view();
    return true;
}

/// What all threads allocate while it lives. One at a time.
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

/// The one cache of the process; the fuzzing thread is number 3. Time stands still unless it is moved.
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
    /// The path of an identifier's files without their extensions.
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
    // In memory where the system has a place for that and the caller names no other: the disk is not
    // what is looked at.
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
