// Runs one participant. Each participant is a separate process, so that its memory can be measured and no
// other peer's library is loaded. The process runs one round for each line of its standard input and answers
// with one line of JSON; compare.py uses this to alternate between the participants.
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>

#include "../common.h"
#include "../memory.h"
#include "workloads.h"

namespace bench {
namespace {

// The highest resident memory, in bytes, since this process had done nothing yet.
uint64_t g_memoryAtStart = 0;

void PrintLatencies(const Workload& workload) {
    const char* separator = "";
    for (const auto& [kind, latencies] : workload.GetLatencies()) {
        std::printf("%s\"%s\": [", separator, kind.c_str());
        separator = ", ";
        for (size_t i = 0; i < latencies.size(); ++i)
            std::printf("%s%.1f", i > 0 ? ", " : "", latencies[i]);
        std::printf("]");
    }
}

void RunRound(Workload& workload, Stage& stage, bool first) {
    Meter meter(first);
    RestartPeak();
    const bool can = workload.Round(stage, meter, first);
    const uint64_t peak = PeakResidentBytes();
    std::printf("{\"can\": %s, \"seconds\": %.9f, \"cpu\": %.9f, \"peak\": %llu, "
                "\"allocations\": %llu, \"operations\": %.0f, \"bytes\": %llu, "
                "\"growth\": %llu, \"latencies\": {",
                can ? "true" : "false", meter.Seconds(), meter.CpuSeconds(),
                static_cast<unsigned long long>(peak),
                static_cast<unsigned long long>(meter.Allocations()), workload.Operations(),
                static_cast<unsigned long long>(workload.Bytes()),
                static_cast<unsigned long long>(std::max(peak, g_memoryAtStart) - g_memoryAtStart));
    PrintLatencies(workload);
    std::printf("}}\n");
    std::fflush(stdout);
}

// A participant may keep a file descriptor open for every file.
void RaiseDescriptorLimit() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    Require(setrlimit(RLIMIT_NOFILE, &limit) == 0, "setrlimit failed");
}

int Main(int argc, char** argv) {
    Require(argc == 4, "usage: PARTICIPANT WORKLOAD DIRECTORY SHARE");
    if (keepsFreedPages)
        KeepFreedPages();
    RaiseDescriptorLimit();
    RestartPeak();
    g_memoryAtStart = PeakResidentBytes();
    const auto workload =
        MakeWorkload(argv[1], static_cast<uint32_t>(std::strtoul(argv[3], nullptr, 10)));
    Require(workload != nullptr, "there is no such workload");
    const std::filesystem::path root = argv[2];
    const auto store = MakeStore();
    Stage stage{*store, root / "store", root / "old"};
    std::filesystem::create_directories(stage.dir);
    workload->Prepare(stage);
    sync(); // otherwise the kernel writes the prepared files back during a measured round
    std::string line;
    for (bool first = true; std::getline(std::cin, line); first = false)
        RunRound(*workload, stage, first);
    return 0;
}

} // namespace
} // namespace bench

int main(int argc, char** argv) { return bench::Main(argc, argv); }
