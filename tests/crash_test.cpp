// A process is killed before, during and after every file operation of a fixed workload, and at random moments.
// Afterwards each block holds the bytes of one complete write or is absent, and data that an earlier run had
// stored is present.
#include <gtest/gtest.h>

#include <chrono>
#include <random>

#include "workload.h"

using namespace faults;
using namespace std::chrono_literals;

class Kill : public testing::TestWithParam<Action> {};

TEST_P(Kill, AtEveryOperation) {
    Plan plan{.action = GetParam()};
    if (GetParam() == KILL_HALFWAY)
        plan.kinds = WRITE;
    for (;; plan.nth += STRIDE) {
        Trial trial;
        const std::string end = trial.Run(plan);
        ASSERT_EQ(end, Hits() > 0 ? "killed" : "done") << "at operation " << plan.nth;
        if (Hits() == 0)
            break;
        ASSERT_EQ(trial.Verify(), "done")
            << "killed at operation " << plan.nth << ": " << FirstHit();
    }
    EXPECT_GT(plan.nth, 50U);
    std::cout << plan.nth / STRIDE << " kills\n";
}

INSTANTIATE_TEST_SUITE_P(Crash, Kill, testing::Values(KILL_BEFORE, KILL_HALFWAY, KILL_AFTER),
                         [](const auto& kill) {
                             return kill.param == KILL_BEFORE    ? "Before"
                                    : kill.param == KILL_HALFWAY ? "Halfway"
                                                                 : "After";
                         });

TEST(Crash, AtRandomMoments) {
    std::mt19937 random(20261123);
    uint32_t fullRunUs = 1'000'000; // an estimate; then the last run that finished before the kill
    for (uint32_t killed = 0; killed < 200 / STRIDE;) {
        Trial trial;
        const uint32_t moment = std::uniform_int_distribution<uint32_t>(1, fullRunUs)(random);
        const auto begin = std::chrono::steady_clock::now();
        const std::string end = trial.Run({}, &Workload::Run, true, moment);
        ASSERT_TRUE(end == "killed" || end == "done") << end;
        if (end == "done")
            fullRunUs = static_cast<uint32_t>((std::chrono::steady_clock::now() - begin) / 1us);
        killed += end == "killed" ? 1 : 0;
        ASSERT_EQ(trial.Verify(), "done") << "killed after us " << moment;
    }
}
