// What the benchmarks share: a cache driven by hand, and blocks with bytes of their own.
//
// The benchmarks link the library's objects, so that they can wait for the read/write thread without
// doing anything that an application's stores and loads would not meet.
#pragma once

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#if __has_include(<malloc.h>)
#include <malloc.h>
#endif

#include "IFileManager.h"
#include "RtRuntime.h"
#include "util/filemanager/filemanager.h"
#include "util/filemanager/fmfunctor.h"

namespace bench {

constexpr uint32_t BLOCK_LEN = 256 * 1024;
constexpr uint32_t PIECE_LEN = 16 * 1024;

// A figure of work that was not done is worse than none.
inline void Require(bool condition, const char* what) {
    if (condition)
        return;
    std::fprintf(stderr, "benchmark: %s\n", what);
    std::exit(1);
}

// On the file system that TMPDIR names. One per process, because the first Initialize fixes the
// manager's directory.
class TempDir {
public:
    static const std::filesystem::path& Path() {
        static const TempDir dir;
        return dir.m_path;
    }

private:
    TempDir() {
        std::string name =
            (std::filesystem::temp_directory_path() / "filemanager-bench-XXXXXX").string();
        Require(mkdtemp(name.data()), "no temporary directory");
        m_path = name;
    }
    ~TempDir() {
        std::error_code ignored; // nobody is left to be told
        std::filesystem::remove_all(m_path, ignored);
    }
    std::filesystem::path m_path;
};

// Lets malloc keep all memory there ever was, in one arena for all threads, as in a process that has run
// for a while. Left alone, it keeps the pages of a freed buffer or gives them back, depending on the
// thread that got the buffer and on what lies above it; and where the first touch of a page is dear, the
// side of a comparison that has to touch new ones loses, be it ours or the other.
inline void KeepFreedPages() {
#ifdef M_ARENA_MAX
    constexpr int neverTrim = 1 << 30, neverMapABlock = 32 << 20;
    Require(mallopt(M_ARENA_MAX, 1) != 0 && mallopt(M_TRIM_THRESHOLD, neverTrim) != 0 &&
                mallopt(M_MMAP_THRESHOLD, neverMapABlock) != 0,
            "malloc takes no advice");
#endif
}

using FileRef = CRtComAutoPtr<IFMFile>;
using BlockRef = CRtComAutoPtr<IFMBlock>;

// A server's manager from Initialize to UnInitialize; the benchmark's thread is number 3.
class Cache {
public:
    Cache() {
        Require(thread.IsValid(), "the process has a caller thread already");
        KeepFreedPages(); // before the read/write thread starts, which would get an arena of its own
        // Rewrites are meant here and not worth a warning.
        RtSetLogSink(nullptr, nullptr, RT_LOG_ERROR);
        Require(manager->Initialize(CRtString(TempDir::Path().string()), 7, 1) == 0,
                "the manager does not start");
    }
    ~Cache() {
        manager->UnInitialize();
        while (thread.RunDue() > 0) {
        }
    }
    Cache(const Cache&) = delete;
    Cache& operator=(const Cache&) = delete;

    // Returns when everything posted to the read/write thread before has run: its queue keeps the
    // order, so one empty event that is waited for is enough. The caller sleeps meanwhile, where
    // asking each block would contend for the lock that its store takes.
    void Drain() {
        Require(CFileManager::Instance()->PostToReadwrThread(new CFMFunctorBase, 1) == 0,
                "there is no read/write thread");
    }

    // Temporary: closing the file removes it from disk.
    FileRef Create(uint32_t blocks) {
        FMFileInfo info;
        CoCreateFMFileID(info.fileID);
        info.blockBeg = 1;
        info.num = blocks;
        info.flag = FM_FILE_TEMPORARY;
        IFMFile* file = nullptr;
        Require(manager->CreateFile(file, info) == 0, "no file");
        return FileRef::Adopt(file);
    }
    // Both threads are idle afterwards.
    void Close(FileRef& file) {
        Require(manager->DetachFile(file->GetFileInfo().fileID) == 0, "the file was not open");
        file.Reset();
        Drain();
        while (thread.RunDue() > 0) {
        }
    }
    static std::filesystem::path DataPath(IFMFile& file) {
        const CRtString stem = FMFileIDToString(file.GetFileInfo().fileID);
        return TempDir::Path() / "sdstore" / (std::string(stem.c_str()) + ".sdd");
    }

    CRtCallerThread thread;
    IFileManager* const manager = IFileManager::Instance();
};

// Each block is another stretch of the same noise, which stays in the processor's cache.
inline const char* BytesOf(uint32_t index) {
    constexpr uint32_t step = 64, stretches = 1024;
    static const std::vector<char> noise = [] {
        std::vector<char> bytes(BLOCK_LEN + step * stretches);
        std::minstd_rand random(1);
        std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random() >> 8); });
        return bytes;
    }();
    return noise.data() + step * (index % stretches);
}

inline BlockRef BlockAt(IFMFile& file, uint32_t index) {
    IFMBlock* block = nullptr;
    Require(file.GetBlock(block, index + 1, 1) == 0, "no block");
    return BlockRef::Adopt(block);
}

inline void WriteInPieces(IFMBlock& block, const char* bytes) {
    for (uint32_t at = 0; at < BLOCK_LEN; at += PIECE_LEN) {
        const CRtMessageChain piece = CRtMessageBlock::Wrap(bytes + at, PIECE_LEN);
        Require(block.WriteData(BLOCK_LEN, at, piece.get()) == 0, "a piece was refused");
    }
}

} // namespace bench
