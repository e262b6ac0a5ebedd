// What log lines cost that nobody listens to: finding, attaching and detaching an open file writes two
// lines of the trace level, once with a listener for errors only and once with one that takes the lines
// and does nothing.
#include <benchmark/benchmark.h>

#include "support.h"

namespace {

using namespace bench;

void CountLine(void* lines, int, const char*) { ++*static_cast<uint64_t*>(lines); }

void OpenAttachDetach(benchmark::State& state) {
    Cache cache;
    FileRef file = cache.Create(1);
    const FMFileID id = file->GetFileInfo().fileID;
    Require(cache.manager->AttachFile(id) == 0,
            "the file is not open"); // or the first detach closes it
    uint64_t lines = 0;
    RtSetLogSink(CountLine, &lines, static_cast<int>(state.range(0)));
    for (auto _ : state) {
        IFMFile* found = nullptr;
        int result = cache.manager->OpenFile(found, id, 0);
        const FileRef held = FileRef::Adopt(found);
        result |= cache.manager->AttachFile(id);
        result |= cache.manager->DetachFile(id);
        Require(result == 0, "the file is not open");
    }
    RtSetLogSink(nullptr, nullptr, RT_LOG_ERROR);
    state.counters["lines"] =
        benchmark::Counter(static_cast<double>(lines), benchmark::Counter::kAvgIterations);
    cache.Close(file);
}
BENCHMARK(OpenAttachDetach)->ArgName("level")->Arg(RT_LOG_ERROR)->Arg(RT_LOG_TRACE);

} // namespace
