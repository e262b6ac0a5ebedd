// Fixture of the benchmarks of single operations: a cache whose caller thread is the benchmark's thread.
//
// The benchmarks link the library's objects instead of the shared library. Waiting for the read/write thread
// needs an internal class; the exported ways to wait would add work to the measured time.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <string>

#include "IFileManager.h"
#include "RtRuntime.h"
#include "common.h"
#include "memory.h"
#include "util/filemanager/filemanager.h"
#include "util/filemanager/fmfunctor.h"

namespace bench {

// Created in TMPDIR. One per process, because the first Initialize fixes the manager's directory.
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
        Require(mkdtemp(name.data()), "mkdtemp failed");
        m_path = name;
    }
    ~TempDir() {
        std::error_code ignored; // the process ends
        std::filesystem::remove_all(m_path, ignored);
    }
    std::filesystem::path m_path;
};

using FileRef = CRtComAutoPtr<IFMFile>;
using BlockRef = CRtComAutoPtr<IFMBlock>;

// A server's manager from Initialize to UnInitialize. The benchmark's thread is the caller thread.
class Cache {
public:
    Cache() {
        Require(thread.IsValid(), "the process has a caller thread already");
        KeepFreedPages(); // before Initialize, which starts the read/write thread
        // Benchmarks rewrite blocks on purpose; do not log the warnings.
        RtSetLogSink(nullptr, nullptr, RT_LOG_ERROR);
        Require(manager->Initialize(CRtString(TempDir::Path().string()), 7, 1) == 0,
                "Initialize failed");
    }
    ~Cache() {
        manager->UnInitialize();
        while (thread.RunDue() > 0) {
        }
    }
    Cache(const Cache&) = delete;
    Cache& operator=(const Cache&) = delete;

    // Returns when every load and store posted to the read/write thread so far has run: each lane is first-in,
    // first-out. Polling the blocks instead would contend for the lock that each store takes.
    void Drain() {
        for (const int priority : {RT_PRIORITY_HIGH, RT_PRIORITY_NORMAL})
            Require(CFileManager::Instance()->PostToReadwrThread(new CFMFunctorBase, 1, priority) ==
                        0,
                    "the read/write thread does not run");
    }

    // The default flag makes a temporary file: closing it removes it from disk.
    FileRef Create(uint32_t blocks, uint32_t flag = FM_FILE_TEMPORARY) {
        FMFileInfo info;
        CoCreateFMFileID(info.fileID);
        info.blockBeg = 1;
        info.num = blocks;
        info.flag = flag;
        IFMFile* file = nullptr;
        Require(manager->CreateFile(file, info) == 0, "CreateFile failed");
        return FileRef::Adopt(file);
    }
    // Postcondition: both threads are idle.
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

inline BlockRef BlockAt(IFMFile& file, uint32_t index) {
    IFMBlock* block = nullptr;
    Require(file.GetBlock(block, index + 1, 1) == 0, "GetBlock failed");
    return BlockRef::Adopt(block);
}

inline void WriteInPieces(IFMBlock& block, const char* bytes) {
    for (uint32_t at = 0; at < BLOCK_LEN; at += PIECE_LEN) {
        const CRtMessageChain piece = CRtMessageBlock::Wrap(bytes + at, PIECE_LEN);
        Require(block.WriteData(BLOCK_LEN, at, piece.get()) == 0, "WriteData failed");
    }
}

} // namespace bench
