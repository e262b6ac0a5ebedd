// A simulator: runs a program of calls against the library and a model of it, on one thread. The program chooses
// when the events of both threads run, and at which system calls a fault happens: the call fails or transfers half of its bytes,
// the clock advances, the process is killed, or another program changes the files. A run is a function of its
// program: the same program gives the same trace.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace sim {

/// One call, and what happens around it. Any values are valid: each is taken modulo its range.
struct Step {
    uint8_t call = 0;
    uint8_t file = 0;
    uint8_t block = 0;
    uint8_t how = 0;
    uint16_t size = 0;
    uint8_t down = 0; ///< events of the read/write thread that run after the call
    uint8_t up = 0;   ///< then: events of the caller thread; 255: all events of both threads
    uint8_t fault = 0;
    uint8_t at = 0; ///< the fault happens at this system call of the step
};
using Program = std::vector<Step>;

/// The program of a seed.
Program Generate(uint64_t seed);
/// The program that a fuzzer has chosen.
Program FromBytes(const uint8_t* data, size_t size);

/// Runs a program in a new cache. Returns the first violated expectation, or an empty string.
/// @param[out] trace what happened, one line for each step, if not null.
/// @param withLog add the lines of the library's log to the trace.
std::string Run(const Program& program, std::string* trace = nullptr, bool withLog = false);

/// Runs the calls of a program with both threads running freely and without faults. Result as for Run.
std::string RunThreaded(const Program& program);

/// As Run, in a child process: also returns how the child ended if it crashed or did not end in time.
std::string RunInChild(const Program& program, bool withTrace);

/// Removes steps and simplifies the others as long as RunInChild finds a violation.
Program Shrink(Program program);

/// The program as source text: `sim::Run({…})`.
std::string Print(const Program& program);

} // namespace sim
