// JSON texts. A file has the same members in all verbs.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

using Json = nlohmann::ordered_json;

/// Adds a name of any bytes; replacement characters stand for invalid UTF-8. Then the member `key` + "Bytes" has its
/// bytes in hexadecimal digits as well.
void AddName(Json& json, const std::string& key, std::string_view name);

/// Prints the text to standard output, in ASCII: control characters and characters that change the writing direction
/// reach no terminal.
void PrintJson(const Json& json);
