// Conversion of sizes to and from text.
#pragma once

#include <cstdint>
#include <string>

namespace CLI {
class Option;
} // namespace CLI

/// A number of bytes, optionally with K, M, G or T (powers of 1024). Throws CLI::ValidationError.
uint64_t ParseSize(const std::string& text);
/// Makes the option take a number of bytes, optionally with K, M, G or T (powers of 1024), from 1 to `most`.
CLI::Option* TakeSize(CLI::Option* option, uint64_t most = uint64_t{1} << 62);

/// "17 bytes", "1.5 MiB".
std::string FormatSize(uint64_t bytes);
