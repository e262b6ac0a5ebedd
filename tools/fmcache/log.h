// The library's log: shown with --verbose; the last cause of an error is kept for messages.
#pragma once

#include <string>

/// Receives the lines until process end. `show`: also write them to standard error.
void KeepLog(bool show);
bool IsLogShown();

/// The system's text for the last error that the library has logged, after a colon: ": No space left on device".
/// Empty if there is none.
std::string LogCause();
