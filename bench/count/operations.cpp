// Runs one central operation TIMES times under callgrind, which counts instructions. Operations of the caller
// thread are counted inside Counted, those of the read/write thread inside a function of the library (count.py
// has the list). While one thread is counted, the other one is blocked, so that the count does not depend on
// their relative speed.
#include <vector>

#include "../support.h"
#include "util/filemanager/filemanager.h"
#include "util/filemanager/fmblock.h"
#include "util/filemanager/fmfunctor.h"

namespace {

using namespace bench;

constexpr uint32_t TIMES = 200;
constexpr uint32_t PIECE = 64; // small: the count is to exclude the copying of bytes

// callgrind counts while this function runs.
template <class Work>
[[gnu::noinline]] void Counted(Work work) {
    for (uint32_t i = 0; i < TIMES; ++i)
        work(i);
}

struct Blocks {
    Blocks() : file(cache.Create(TIMES)) {
        for (uint32_t i = 0; i < TIMES; ++i)
            blocks.push_back(BlockAt(*file, i));
    }
    ~Blocks() {
        blocks.clear();
        cache.Close(file);
    }
    Blocks(const Blocks&) = delete;
    Blocks& operator=(const Blocks&) = delete;
    void Write(uint32_t index, uint32_t length, uint32_t at) {
        const CRtMessageChain piece = CRtMessageBlock::Wrap(BytesOf(index), PIECE);
        Require(blocks[index]->WriteData(length, at, piece.get()) == 0, "WriteData failed");
    }
    void WriteAll() {
        for (uint32_t i = 0; i < TIMES; ++i)
            Write(i, PIECE, 0);
    }
    Fixture cache;
    FileRef file;
    std::vector<BlockRef> blocks;
};

void PieceWrite() {
    Blocks blocks;
    const uint32_t length = PIECE * (TIMES + 2);
    blocks.Write(0, length, 0);
    Counted([&](uint32_t i) { blocks.Write(0, length, PIECE * (i + 1)); });
}

void LastPieceWrite() {
    Blocks blocks;
    for (uint32_t i = 0; i < TIMES; ++i)
        blocks.Write(i, 2 * PIECE, 0);
    const Gate gate;
    Counted([&](uint32_t i) { blocks.Write(i, 2 * PIECE, PIECE); });
}

// Store and CoalescedStore are counted in CFMStoreEvent::OnEventFire.
void Store() {
    Blocks blocks;
    for (uint32_t i = 0; i < TIMES; ++i) {
        blocks.Write(i, PIECE, 0);
        blocks.cache.Drain();
    }
}

void CoalescedStore() {
    Blocks blocks;
    {
        const Gate gate;
        blocks.WriteAll();
    }
    blocks.cache.Drain();
}

void ResidentRead() {
    Blocks blocks;
    blocks.WriteAll();
    blocks.cache.Drain();
    Counted([&](uint32_t i) {
        CRtMessageBlock* view = nullptr;
        Require(blocks.blocks[i]->ReadData(0, PIECE, view) == 0, "ReadData failed");
        view->DestroyChained();
    });
}

// Counted in CFMBlock::ReadFromFile.
void Load() {
    TestClock clock;
    Blocks blocks;
    blocks.WriteAll();
    blocks.cache.Drain();
    constexpr int64_t longIdleMs = 240'001;
    clock.Advance(longIdleMs);
    CountingSink sink;
    for (const BlockRef& block : blocks.blocks) {
        Require(!block->FreeMemory(), "a block was not evicted");
        Require(block->ReadData(&sink) == 0, "ReadData failed");
    }
    blocks.cache.Drain();
    while (blocks.cache.thread.RunDue() > 0) {
    }
    Require(sink.results == std::vector<int>(TIMES, RT_OK), "a load failed or did not finish");
}

void PostEvent() {
    Blocks blocks;
    {
        const Gate gate;
        Counted(
            [](uint32_t) { CFileManager::Instance()->PostToReadwrThread(new CFMFunctorBase, 0); });
    }
    blocks.cache.Drain();
}

} // namespace

int main(int argc, char** argv) {
    struct Operation {
        const char* name;
        void (*run)();
    };
    constexpr Operation operations[] = {{"piece_write", PieceWrite},
                                        {"last_piece_write", LastPieceWrite},
                                        {"store", Store},
                                        {"coalesced_store", CoalescedStore},
                                        {"resident_read", ResidentRead},
                                        {"load", Load},
                                        {"post_event", PostEvent}};
    for (const Operation& operation : operations) {
        if (argc != 2 || std::string(argv[1]) != operation.name)
            continue;
        operation.run();
        std::printf("%u\n", TIMES);
        return 0;
    }
    Require(false, "usage: count_operations OPERATION");
    return 1;
}
