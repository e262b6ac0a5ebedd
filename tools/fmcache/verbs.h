// The verbs of the command line, one source file each.
#pragma once

#include <functional>

namespace CLI {
class App;
}

/// The work of a verb; returns the exit status.
using Action = std::function<int()>;

// Each adds its verb to the parser. The selected verb stores its work in `chosen`, to run after the whole
// command line has been parsed.
void AddPut(CLI::App& app, Action& chosen);
void AddGet(CLI::App& app, Action& chosen);
// Maintenance. The first four are read-only.
void AddLs(CLI::App& app, Action& chosen);
void AddShow(CLI::App& app, Action& chosen);
void AddVerify(CLI::App& app, Action& chosen);
void AddReport(CLI::App& app, Action& chosen);
void AddRm(CLI::App& app, Action& chosen);
void AddHousekeep(CLI::App& app, Action& chosen);
void AddClear(CLI::App& app, Action& chosen);
