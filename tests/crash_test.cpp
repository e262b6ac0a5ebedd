// A process is killed before, during and after every file operation of a fixed workload.
// Afterwards each block holds the bytes of one complete write or is absent, and data that an earlier run had
// stored is present.
#include <gtest/gtest.h>

#include "workload.h"

using namespace faults;

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
