// The library's log: shown with --verbose; the last error line is kept for messages.
#pragma once

#include <string>

/// Receives the lines until process end. `show`: also write them to standard error.
void KeepLog(bool show);
bool IsLogShown();

/// The last error line in parentheses, after a space; empty if there is none.
std::string LogCause();
