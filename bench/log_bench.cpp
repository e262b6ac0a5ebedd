// Cost of trace lines. Finding, attaching and detaching an open file logs two lines of the trace level. The
// benchmark runs once with a sink for errors only, so that both lines are suppressed, and once with a sink
// that receives and counts them.
#include <benchmark/benchmark.h>

#include "support.h"

namespace {

using namespace bench;

void CountLine(void* lines, int, const char*) { ++*static_cast<uint64_t*>(lines); }

void OpenAttachDetach(benchmark::State& state) {
    Fixture cache;
    FileRef file = cache.Create(1);
    const FMFileID id = file->GetFileInfo().fileID;
    Require(cache.manager->AttachFile(id) == 0,
            "the file is not open"); // without it the first DetachFile would close the file
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
