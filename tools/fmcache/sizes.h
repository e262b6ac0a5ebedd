// Sizes as the user writes and reads them.
#pragma once

#include <cstdint>
#include <string>

/// Reads a number of bytes, which K or M may follow. `option` names the place in the error. Throws
/// Failure for anything else and for sizes outside 1 to `most`.
uint64_t ParseSize(const std::string& option, const std::string& text, uint64_t most);

/// "17 bytes", "1.5 MiB".
std::string FormatSize(uint64_t bytes);
