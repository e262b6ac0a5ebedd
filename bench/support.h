// Fixture of the benchmarks of single operations: a cache whose caller thread is the benchmark's thread.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "common.h"
#include "memory.h"
#include "testing/kit.h"

namespace bench {

// A server's manager from Initialize to UnInitialize. The benchmark's thread is the caller thread.
class Fixture : public Cache {
public:
    Fixture() : Cache(Directory(), false) {
        KeepFreedPages(); // before Start, which starts the read/write thread
        // Benchmarks rewrite blocks on purpose; do not log the warnings.
        RtSetLogSink(nullptr, nullptr, RT_LOG_ERROR);
        Start();
    }
    Fixture(const Fixture&) = delete;
    Fixture& operator=(const Fixture&) = delete;

    // Returns when every load and store posted to the read/write thread so far has run. Polling the blocks instead
    // would contend for the lock that each store takes.
    static void Drain() { RunReadwrQueue(); }

    // The default flag makes a temporary file: closing it removes it from disk.
    FileRef Create(uint32_t blocks, uint32_t flag = FM_FILE_TEMPORARY) {
        FMFileInfo info = Description(1, flag);
        info.num = blocks;
        return Cache::Create(info);
    }
    // Postcondition: both threads are idle.
    void Close(FileRef& file) {
        Cache::Close(file);
        Drain();
        while (thread.RunDue() > 0) {
        }
    }

private:
    // One for the process, because the first Initialize fixes the manager's directory.
    static const std::filesystem::path& Directory() {
        static const TempDir dir;
        return dir.path;
    }
};

inline BlockRef BlockAt(IFMFile& file, uint32_t index) {
    BlockRef block = Cache::Block(file, index + 1);
    Require(static_cast<bool>(block), "GetBlock failed");
    return block;
}

inline void WriteInPieces(IFMBlock& block, const char* bytes) {
    for (uint32_t at = 0; at < BLOCK_LEN; at += PIECE_LEN) {
        const CRtMessageChain piece = CRtMessageBlock::Wrap(bytes + at, PIECE_LEN);
        Require(block.WriteData(BLOCK_LEN, at, piece.get()) == 0, "WriteData failed");
    }
}

} // namespace bench
