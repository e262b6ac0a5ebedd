// Programs of calls, with faults at system calls and both threads stepped, against a model (testing/simulator.h).
#include "testing/simulator.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>

namespace {

#ifdef FILEMANAGER_SANITIZED
constexpr uint64_t SEEDS = 2'000;
constexpr uint64_t THREADED_SEEDS = 300;
#else
constexpr uint64_t SEEDS = 50'000;
constexpr uint64_t THREADED_SEEDS = 2'000;
#endif
constexpr uint64_t SLICES = 4;
constexpr uint64_t SEEDS_IN_CHILD = 500;

// Runs the programs of seeds in a child process. Returns the first seed whose program fails, or `end`.
uint64_t RunSeeds(uint64_t begin, uint64_t end) {
    static auto* const current = static_cast<std::atomic<uint64_t>*>(
        ::mmap(nullptr, sizeof(std::atomic<uint64_t>), PROT_READ | PROT_WRITE,
               MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    const pid_t child = ::fork();
    if (child == 0) {
        for (*current = begin; *current < end; ++*current) {
            ::alarm(60);
            if (!sim::Run(sim::Generate(*current)).empty())
                ::_exit(1);
        }
        ::_exit(0);
    }
    int status = 0;
    if (child < 0 || ::waitpid(child, &status, 0) != child)
        return begin;
    return status == 0 ? end : current->load();
}

// FILEMANAGER_SEED: the first seed. FILEMANAGER_SEEDS: their number, for a longer run.
uint64_t EnvironmentOr(const char* variable, uint64_t otherwise) {
    const char* text = std::getenv(variable);
    return text ? std::strtoull(text, nullptr, 10) : otherwise;
}

class Seeds : public testing::TestWithParam<uint64_t> {};

} // namespace

TEST(Simulator, TheSameSeedGivesTheSameTrace) {
    for (uint64_t seed = 0; seed < 50; ++seed) {
        std::string first;
        std::string second;
        EXPECT_EQ(sim::Run(sim::Generate(seed), &first), "") << seed;
        EXPECT_EQ(sim::Run(sim::Generate(seed), &second), "") << seed;
        ASSERT_EQ(first, second);
    }
}

TEST_P(Seeds, EveryProgramBehavesAsTheModel) {
    const uint64_t count = EnvironmentOr("FILEMANAGER_SEEDS", SEEDS) / SLICES;
    const uint64_t begin = EnvironmentOr("FILEMANAGER_SEED", 0) + GetParam() * count;
    for (uint64_t seed = begin; seed < begin + count; seed += SEEDS_IN_CHILD) {
        const uint64_t end = std::min(seed + SEEDS_IN_CHILD, begin + count);
        const uint64_t failed = RunSeeds(seed, end);
        if (failed == end)
            continue;
        if (std::getenv("FILEMANAGER_MUTANT")) // a failure is enough: scripts/mutate
            FAIL() << "seed " << failed;
        const sim::Program program = sim::Shrink(sim::Generate(failed));
        FAIL() << "seed " << failed << ": " << sim::RunInChild(program, true) << "\n"
               << sim::Print(program);
    }
}

INSTANTIATE_TEST_SUITE_P(Simulator, Seeds, testing::Range(uint64_t{0}, SLICES),
                         testing::PrintToStringParamName());

TEST(Simulator, EveryProgramBehavesAsTheModelWithBothThreadsRunning) {
    for (uint64_t seed = 0; seed < THREADED_SEEDS; ++seed)
        ASSERT_EQ(sim::RunThreaded(sim::Generate(seed)), "") << seed;
}
