#include "json.h"

#include <cstdint>
#include <cstdio>

#include "text.h"

void AddName(Json& json, const std::string& key, std::string_view name) {
    json[key] = name;
    if (IsUtf8(name))
        return;
    std::string digits;
    for (const char byte : name) {
        char text[4];
        std::snprintf(text, sizeof(text), "%02x", unsigned{static_cast<uint8_t>(byte)});
        digits += text;
    }
    json[key + "Bytes"] = digits;
}

void PrintJson(const Json& json) {
    constexpr int inOneLine = -1;
    Print(json.dump(inOneLine, ' ', true, Json::error_handler_t::replace) + "\n");
}
