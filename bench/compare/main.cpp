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

void RunRound(Workload& workload, Stage& stage, bool first) {
    Meter meter(first);
    RestartPeak();
    const bool can = workload.Round(stage, meter, first);
    std::printf("{\"can\": %s, \"seconds\": %.9f, \"cpu\": %.9f, \"peak\": %llu, "
                "\"allocations\": %llu, \"operations\": %.0f, \"bytes\": %llu}\n",
                can ? "true" : "false", meter.Seconds(), meter.CpuSeconds(),
                static_cast<unsigned long long>(PeakResidentBytes()),
                static_cast<unsigned long long>(meter.Allocations()), workload.Operations(),
                static_cast<unsigned long long>(workload.GetLayout().Bytes()));
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
