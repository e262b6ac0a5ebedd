// The library's log lines: shown when the user wants them, otherwise kept as the cause of an error.
#pragma once

#include <string>

/// Takes the lines from now on to the end of the process; `show` writes them to standard error.
void KeepLog(bool show);
bool IsLogShown();

/// The last line that reported an error, in parentheses and after a blank; empty when there is none.
std::string LogCause();
