#include "sizes.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <cstdlib>

namespace {

// CLI11's own message lists more than thirty spellings of the units.
std::string ToBytes(std::string& text) {
    constexpr bool kIsThousand = false;
    const std::string given = text;
    try {
        // CLI11 takes "-1" as the largest number, "K" as 1K, "010" as 8 and "0x10" as 16.
        const bool isNumber = std::isdigit(static_cast<unsigned char>(text[0])) != 0;
        text.erase(0, std::min(text.find_first_not_of('0'), text.size() - 1));
        if (isNumber && text[0] != 'x' && CLI::AsSizeValue(kIsThousand)(text).empty())
            return "";
    } catch (const CLI::ValidationError&) {
    }
    return "'" + given +
           "' is not a size; expected bytes, or a number with K, M, G or T, for example 256K";
}

} // namespace

uint64_t ParseSize(const std::string& text) {
    std::string bytes = text;
    if (const std::string error = ToBytes(bytes); !error.empty())
        throw CLI::ValidationError(error);
    return std::strtoull(bytes.c_str(), nullptr, 0); // as CLI11 converts it; saturates
}

CLI::Option* TakeSize(CLI::Option* option, uint64_t most) {
    const auto check = [most](const std::string& text) -> std::string {
        const uint64_t size = ParseSize(text);
        if (size == 0)
            return "must be at least 1 byte";
        return size > most ? FormatSize(size) + " is too large; the limit is " + FormatSize(most)
                           : "";
    };
    return option->type_name("SIZE")->check(check)->transform(CLI::Validator(ToBytes, ""));
}

std::string FormatSize(uint64_t bytes) {
    if (bytes < 1024)
        return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
    constexpr std::array<const char*, 4> units{"KiB", "MiB", "GiB", "TiB"};
    size_t unit = 0;
    double value = static_cast<double>(bytes) / 1024;
    // Values that would round to 1024.0 are shown as 1.0 of the next unit.
    while (value >= 1023.95 && unit + 1 < units.size()) {
        value /= 1024;
        ++unit;
    }
    char text[64];
    std::snprintf(text, sizeof(text), "%.1f %s", value, units[unit]);
    return text;
}
