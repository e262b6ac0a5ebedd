// What it costs to write accepted blocks to the system (FMFlush), and to the device (FMSync).
#include <benchmark/benchmark.h>

#include <chrono>
#include <vector>

#include "FMDurability.h"
#include "support.h"

namespace {

using namespace bench;

constexpr uint32_t LENGTH = 16 * 1024;

// Each iteration stores the blocks into a new file and measures the call that follows.
template <int (*Call)(std::vector<FMUnsavedBlock>&)>
void WriteOut(benchmark::State& state) {
    Fixture cache;
    std::vector<FMUnsavedBlock> unsaved;
    const CRtMessageChain bytes = CRtMessageBlock::Wrap(BytesOf(0), LENGTH);
    Require(FMSync(unsaved) == 0, "FMSync failed"); // the files of the measurements before
    for (auto _ : state) {
        FileRef file = cache.Create(100, 0);
        for (uint32_t i = 0; i < state.range(0); ++i)
            Require(BlockAt(*file, i)->WriteData(LENGTH, 0, bytes.get()) == 0, "WriteData failed");
        cache.Drain();
        const auto begin = std::chrono::steady_clock::now();
        Require(Call(unsaved) == 0, "the call failed");
        state.SetIterationTime(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count());
        cache.Close(file);
    }
}
BENCHMARK(WriteOut<FMFlush>)->Arg(1)->Arg(100)->Unit(benchmark::kMicrosecond)->UseManualTime();
BENCHMARK(WriteOut<FMSync>)->Arg(1)->Arg(100)->Unit(benchmark::kMicrosecond)->UseManualTime();

} // namespace
