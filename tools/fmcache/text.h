// Names and paths as they can be shown: what a file is called is anybody's choice, and must neither
// command a terminal nor break a JSON text.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

/// The length in bytes of the character that `text` begins with, and the character; 0 when it is not
/// valid UTF-8. `text` is not empty.
size_t TakeCharacter(std::string_view text, uint32_t& character);

bool IsUtf8(std::string_view text);

/// For a terminal: bytes that are no UTF-8, control characters, and those that change the direction of
/// writing stand as \xNN.
std::string Printable(std::string_view text);

/// "1 block", "2 blocks".
std::string Count(uint64_t number, const std::string& thing);

/// Writes to standard output, all of it or Failure.
void Print(std::string_view text);
