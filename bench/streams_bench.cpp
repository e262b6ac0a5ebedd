// Stores into 100 files, which fit into the limit of open file descriptors, and into 5,000, which do not.
#include <benchmark/benchmark.h>

#include <sys/resource.h>

#include <vector>

#include "support.h"
#include "util/filemanager/fmblock.h"

namespace {

using namespace bench;

constexpr uint32_t SMALL_BLOCK = 4096;

// Each iteration stores one block into each file.
void StoreIntoManyFiles(benchmark::State& state) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = 256;
    Require(setrlimit(RLIMIT_NOFILE, &limit) == 0, "setrlimit failed");
    Fixture cache;
    std::vector<FileRef> files;
    for (int64_t i = 0; i < state.range(0); ++i)
        files.push_back(cache.Create(2));
    const CRtMessageChain bytes = CRtMessageBlock::Wrap(BytesOf(0), SMALL_BLOCK);
    const auto storeAll = [&] {
        for (const FileRef& file : files)
            Require(BlockAt(*file, 0)->WriteData(SMALL_BLOCK, 0, bytes.get()) == 0,
                    "WriteData failed");
        cache.Drain();
    };
    storeAll();
    for (auto _ : state)
        storeAll();
    for (const FileRef& file : files)
        Require(static_cast<CFMBlock*>(BlockAt(*file, 0).Get())->IsStored(), "a store failed");
    state.SetItemsProcessed(state.iterations() * state.range(0));
    for (FileRef& file : files)
        cache.manager->DetachFile(file->GetFileInfo().fileID);
}
BENCHMARK(StoreIntoManyFiles)->Arg(100)->Arg(5000)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
