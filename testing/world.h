// The world of the simulator: the library on a cache directory, and the model of what it must do.
#pragma once

#include <functional>
#include <string>

#include "testing/simulator.h"

namespace sim {

constexpr size_t CALLS = 29; // the sum of the weights in the table of calls
constexpr size_t STEPS_MAX = 60;

/// Returns the first violated expectation. `isThreaded`: both threads run freely, without faults.
std::string RunInWorld(const Program& program, bool isThreaded, std::string* trace, bool withLog);

/// Runs `work` in a child process. Returns its result, or how the child ended if it crashed or did not end in time.
std::string InChild(const std::function<std::string()>& work);

} // namespace sim
