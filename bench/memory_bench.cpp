// What a read of a resident block costs and allocates, and that a block's bytes exist once in memory
// however much waits for the read/write thread.
#include <benchmark/benchmark.h>

#include <cstring>
#include <fstream>
#include <latch>

#include "memory.h"
#include "support.h"
#include "util/filemanager/fmblock.h"

namespace {

using namespace bench;

constexpr uint32_t READ_LEN = 4096;

void ReadAt(IFMBlock& block, uint32_t pos) {
    CRtMessageBlock* view = nullptr;
    Require(block.ReadData(pos, READ_LEN, view) == 0, "a read failed");
    benchmark::DoNotOptimize(view);
    view->DestroyChained();
}

void RequireView(IFMBlock& block, uint32_t pos) {
    CRtMessageBlock* view = nullptr;
    Require(block.ReadData(pos, READ_LEN, view) == 0, "a read failed");
    const CRtMessageChain owned(view);
    const char* stored = block.GetData()->GetTopLevelReadPtr();
    Require(view->GetTopLevelReadPtr() == stored + pos, "the bytes were copied");
    Require(std::memcmp(stored, BytesOf(0), BLOCK_LEN) == 0, "not what was written");
}

void ReadResident(benchmark::State& state) {
    Cache cache;
    FileRef file = cache.Create(1);
    BlockRef block = BlockAt(*file, 0);
    WriteInPieces(*block, BytesOf(0));
    cache.Drain();
    RequireView(*block, READ_LEN);
    uint32_t pos = 0;
    for (auto _ : state) {
        ReadAt(*block, pos);
        pos = (pos + READ_LEN) % BLOCK_LEN;
    }
    constexpr uint32_t reads = 1000;
    {
        const AllocationCount counted;
        for (uint32_t i = 0; i < reads; ++i)
            ReadAt(*block, i % (BLOCK_LEN / READ_LEN) * READ_LEN);
        state.counters["allocations"] = static_cast<double>(counted.Get()) / reads;
    }
    block.Reset();
    cache.Close(file);
}
BENCHMARK(ReadResident);

// Keeps the read/write thread busy until told otherwise.
class Hold final : public IRtEvent {
public:
    Hold(std::latch& begun, std::latch& end) : m_begun(begun), m_end(end) {}
    int OnEventFire() override {
        m_begun.count_down();
        m_end.wait();
        return 0;
    }

private:
    std::latch& m_begun;
    std::latch& m_end;
};

constexpr uint32_t HELD_BLOCKS = 256;
constexpr double HELD_BYTES = double{HELD_BLOCKS} * BLOCK_LEN;

void WriteAll(IFMFile& file, uint32_t shift) {
    for (uint32_t i = 0; i < HELD_BLOCKS; ++i)
        WriteInPieces(*BlockAt(file, i), BytesOf(i + shift));
    for (uint32_t i = 0; i < HELD_BLOCKS; ++i)
        Require(file.GetBlocks()[i]->IsStorePending(), "a store is not queued");
}

void RequireStored(IFMFile& file, uint32_t shift) {
    std::ifstream in(Cache::DataPath(file), std::ios::binary);
    std::vector<char> bytes(BLOCK_LEN);
    for (uint32_t i = 0; i < HELD_BLOCKS; ++i) {
        in.seekg(file.GetBlocks()[i]->Describe().posInFile); // a rewrite may have moved it
        in.read(bytes.data(), BLOCK_LEN);
        Require(in && std::memcmp(bytes.data(), BytesOf(i + shift), BLOCK_LEN) == 0,
                "not what was written last");
    }
}

// Live bytes in relation to the blocks' bytes: 1 and a little for what describes them. The time is that
// of writing all blocks twice with nobody storing them.
void BytesInMemory(benchmark::State& state) {
    Cache cache;
    for (auto _ : state) {
        std::latch begun(1), end(1);
        Require(CFileManager::Instance()->PostToReadwrThread(new Hold(begun, end), 0) == 0,
                "there is no read/write thread");
        begun.wait();
        FileRef file;
        const uint64_t before = LiveBytes();
        const auto blocks = [before] {
            return static_cast<double>(LiveBytes() - before) / HELD_BYTES;
        };
        file = cache.Create(HELD_BLOCKS);
        WriteAll(*file, 0);
        state.counters["written"] = blocks();
        RestartPeak();
        const uint64_t resident = PeakResidentBytes();
        WriteAll(*file, 512);
        state.counters["rewritten"] = blocks();
        state.counters["peak_grew_by"] =
            static_cast<double>(PeakResidentBytes() - resident) / HELD_BYTES;
        end.count_down();
        cache.Drain();
        RequireStored(*file, 512);
        cache.Close(file);
    }
}
BENCHMARK(BytesInMemory)->Unit(benchmark::kMillisecond)->Iterations(1);

} // namespace
