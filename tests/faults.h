// Faults, and children to have them in. The system calls that the library's POSIX source makes on
// paths below one directory are counted, and one of them, or all from one on, can fail, move half of
// its bytes, take long, or be the last thing that the process does. Allocations can fail in the same
// way. What is counted and planned lies in memory shared with forked children.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

namespace faults {

enum Kind : uint32_t {
    NONE = 0,
    OPEN = 1,
    READ = 2,
    WRITE = 4,
    FLUSH = 8,
    CLOSE = 16,
    REMOVE = 32,
    MAKE_DIR = 64,
    REMOVE_DIR = 128,
    LOOK = 256, // at an entry's kind and length, at what a directory holds, at who else is there
    ALLOCATE = 512,
    ANY_OPERATION = 511,
};

enum Action : int { NOTHING, FAIL, HALF, STALL, KILL_BEFORE, KILL_HALFWAY, KILL_AFTER };

struct Plan {
    Action action = NOTHING;
    uint32_t kinds = ANY_OPERATION;
    uint32_t nth = 1; // counted from 1 among those of `kinds`
    bool forever = false;
    int error = 0;        // of FAIL, and of what follows HALF
    uint32_t stallMs = 0; // of STALL
};

// Counts from 0 and carries out the plan from now on.
void Begin(const std::filesystem::path& root, const Plan& plan);
// The fault has passed; counting goes on.
void Lift();
uint32_t Hits();
// Operations do what they should: no fault has come yet, it has passed, or it only takes its time.
bool Calm();
// The call of the first hit, for messages.
const char* FirstHit();

// Runs in a process of its own, killed after a time unless that is 0, and answers how it ended: "done",
// "killed", "terminated" (by std::terminate), "exit 1" after a failed expectation, or what else happened.
// To be called before anything has failed or started a thread: a sanitizer could not follow.
std::string InChild(const std::function<void()>& body, uint32_t killAfterUs = 0);

} // namespace faults
