// Conversion of sizes to and from text.
#pragma once

#include <cstdint>
#include <string>

/// Parses a number of bytes, optionally with K (KiB) or M (MiB). `option`: its name, for the error. Throws
/// Failure for anything else and for sizes outside 1 to `most`.
uint64_t ParseSize(const std::string& option, const std::string& text, uint64_t most);

/// "17 bytes", "1.5 MiB".
std::string FormatSize(uint64_t bytes);
