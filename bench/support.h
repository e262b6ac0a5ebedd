// What the benchmarks of single operations share: a cache driven by hand.
//
// The benchmarks link the library's objects, so that they can wait for the read/write thread without
// doing anything that an application's stores and loads would not meet.
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

    // Temporary by default: closing the file removes it from disk.
    FileRef Create(uint32_t blocks, uint32_t flag = FM_FILE_TEMPORARY) {
        FMFileInfo info;
        CoCreateFMFileID(info.fileID);
        info.blockBeg = 1;
        info.num = blocks;
        info.flag = flag;
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
