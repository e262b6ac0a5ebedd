// The verbs of the command line, one source file each.
#pragma once

#include <functional>

namespace CLI {
class App;
}

using Action = std::function<void()>;

// Each adds its verb to the command line. The verb that the user has named puts its work into `chosen`,
// to be done when the whole line is understood.
void AddPut(CLI::App& app, Action& chosen);
void AddGet(CLI::App& app, Action& chosen);
