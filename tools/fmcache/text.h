// Safe output of names and paths: they can contain any bytes, which must not control a terminal or break
// JSON.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

/// Decodes the first character of `text`, which must not be empty. Returns its length in bytes; 0 if it is
/// not valid UTF-8.
size_t TakeCharacter(std::string_view text, uint32_t& character);

bool IsUtf8(std::string_view text);

/// For a terminal: replaces invalid UTF-8, control characters, and characters that change the writing
/// direction by \xNN.
std::string Printable(std::string_view text);

/// Seconds since 1970 as "2026-11-24 20:01:22 UTC"; "unknown" for 0.
std::string TimeText(int64_t seconds);

/// "1 block", "2 blocks", "3 entries".
std::string Count(uint64_t number, const std::string& thing);

/// Writes all of `text` to standard output. Throws Failure.
void Print(std::string_view text);
