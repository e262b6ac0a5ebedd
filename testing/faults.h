// Fault injection. Counts the system calls that the library's POSIX source makes on paths below one directory. The
// n-th call, or all calls from it on, can fail, transfer half of the bytes, stall, or be the last one before a
// simulated kill. Allocations can fail in the same way.
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
    SYNC = 8,
    CLOSE = 16,
    REMOVE = 32,
    MAKE_DIR = 64,
    REMOVE_DIR = 128,
    LOOK = 256, // calls that change nothing on disk: openat, readdir, flock, lseek, stat
    ALLOCATE = 512,
    ANY_OPERATION = 511,
};

enum Action : int {
    NOTHING,
    FAIL,
    HALF,
    STALL,
    // The state of the disk is that after a kill: from here on, calls that would change it do nothing and
    // succeed, until Thaw. The process can then start over, as if it were a new one.
    FREEZE_BEFORE,
    FREEZE_HALFWAY,
    FREEZE_AFTER,
    CALL, // calls the function of SetCallback
};

struct Plan {
    Action action = NOTHING;
    uint32_t kinds = ANY_OPERATION;
    uint32_t nth = 1; // counted from 1, calls of `kinds` only
    bool forever = false;
    int error = 0;        // errno of FAIL, and of the calls after HALF
    uint32_t stallMs = 0; // duration of STALL
};

// Resets the counters and starts the plan.
void Begin(const std::filesystem::path& root, const Plan& plan);
// Ends the fault; counting continues.
void Lift();
uint32_t Hits();
bool IsFrozen();
void Thaw();
void SetCallback(std::function<void()> callback);

struct Change {
    Kind kind; // OPEN: the file was created
    std::string path;
    uint64_t offset = 0;
    std::string bytes;
};
// Calls the function after each WRITE, SYNC, REMOVE, MAKE_DIR, REMOVE_DIR and creation below the root, in order.
void Observe(std::function<void(Change)> observer);
// The name of the first call with a fault, for messages.
const char* FirstHit();

} // namespace faults
