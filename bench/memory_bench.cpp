// Time and allocations of reading a resident block. Also checks that a block's bytes exist only once in
// memory, even while its store waits for the read/write thread.
#include <benchmark/benchmark.h>

#include <cstring>
#include <fstream>
#include <optional>

#include "memory.h"
#include "support.h"
#include "util/filemanager/fmblock.h"
#include "util/filemanager/fmfile.h"

namespace {

using namespace bench;

constexpr uint32_t READ_LEN = 4096;

void ReadAt(IFMBlock& block, uint32_t pos) {
    CRtMessageBlock* view = nullptr;
    Require(block.ReadData(pos, READ_LEN, view) == 0, "ReadData failed");
    benchmark::DoNotOptimize(view);
    view->DestroyChained();
}

void RequireView(IFMBlock& block, uint32_t pos) {
    CRtMessageBlock* view = nullptr;
    Require(block.ReadData(pos, READ_LEN, view) == 0, "ReadData failed");
    const CRtMessageChain owned(view);
    const char* stored = block.GetData()->GetTopLevelReadPtr();
    Require(view->GetTopLevelReadPtr() == stored + pos, "the view points to a copy");
    Require(std::memcmp(stored, BytesOf(0), BLOCK_LEN) == 0,
            "the block has other bytes than were written");
}

void ReadResident(benchmark::State& state) {
    Fixture cache;
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

constexpr uint32_t HELD_BLOCKS = 256;
constexpr double HELD_BYTES = double{HELD_BLOCKS} * BLOCK_LEN;

void WriteAll(IFMFile& file, uint32_t shift) {
    for (uint32_t i = 0; i < HELD_BLOCKS; ++i)
        WriteInPieces(*BlockAt(file, i), BytesOf(i + shift));
    for (uint32_t i = 0; i < HELD_BLOCKS; ++i)
        Require(!file.GetBlocks()[i]->IsStored(), "the store is not queued");
}

void RequireStored(const Cache& cache, IFMFile& file, uint32_t shift) {
    const uint32_t epoch = static_cast<CFMFile&>(file).GetEntry().GetEpoch();
    std::ifstream in(cache.Path(file.GetFileInfo().fileID, ".sdd"), std::ios::binary);
    std::vector<char> bytes(BLOCK_LEN);
    for (uint32_t i = 0; i < HELD_BLOCKS; ++i) {
        in.seekg(file.GetBlocks()[i]->GetStoredEnd(epoch) -
                 file.GetBlocks()[i]->GetTotalLen()); // a rewrite may change the offset
        in.read(bytes.data(), BLOCK_LEN);
        Require(in && std::memcmp(bytes.data(), BytesOf(i + shift), BLOCK_LEN) == 0,
                "the data file has other bytes than were written last");
    }
}

// Live heap bytes divided by the blocks' bytes: 1.0 plus the objects that describe the blocks. The reported
// time covers writing all blocks twice while the read/write thread is blocked.
void BytesInMemory(benchmark::State& state) {
    Fixture cache;
    for (auto _ : state) {
        auto gate = std::make_optional<Gate>();
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
        gate.reset();
        cache.Drain();
        RequireStored(cache, *file, 512);
        cache.Close(file);
    }
}
BENCHMARK(BytesInMemory)->Unit(benchmark::kMillisecond)->Iterations(1);

} // namespace
