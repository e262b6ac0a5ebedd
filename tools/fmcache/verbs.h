// The verbs of the command line, one source file each.
#pragma once

#include <functional>

namespace CLI {
class App;
}

/// The work of a verb; answers the status of the process.
using Action = std::function<int()>;

// Each adds its verb to the command line. The verb that the user has named puts its work into `chosen`,
// to be done when the whole line is understood.
void AddPut(CLI::App& app, Action& chosen);
void AddGet(CLI::App& app, Action& chosen);
// For those who look after a cache. The first three look only.
void AddLs(CLI::App& app, Action& chosen);
void AddShow(CLI::App& app, Action& chosen);
void AddVerify(CLI::App& app, Action& chosen);
void AddRm(CLI::App& app, Action& chosen);
void AddHousekeep(CLI::App& app, Action& chosen);
void AddClear(CLI::App& app, Action& chosen);
