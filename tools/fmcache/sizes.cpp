#include "sizes.h"

#include <array>
#include <charconv>
#include <cstdio>
#include <optional>
#include <string_view>

#include "failure.h"

namespace {

std::optional<uint64_t> Parse(const std::string& text) {
    uint64_t value = 0;
    const char* end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc())
        return std::nullopt;
    const std::string_view unit(rest, static_cast<size_t>(end - rest));
    unsigned shift = 0;
    if (unit == "K" || unit == "k")
        shift = 10;
    else if (unit == "M" || unit == "m")
        shift = 20;
    else if (!unit.empty())
        return std::nullopt;
    if (value > (UINT64_MAX >> shift))
        return std::nullopt;
    return value << shift;
}

} // namespace

uint64_t ParseSize(const std::string& option, const std::string& text, uint64_t most) {
    const std::optional<uint64_t> size = Parse(text);
    if (!size)
        throw Failure(option + ": " + Quoted(text) +
                      " is not a size; expected bytes, or a number with K or M, for example 256K");
    if (*size == 0)
        throw Failure(option + ": must be at least 1 byte");
    if (*size > most)
        throw Failure(option + ": " + Quoted(text) + " is too large; the limit is " +
                      FormatSize(most));
    return *size;
}

std::string FormatSize(uint64_t bytes) {
    if (bytes < 1024)
        return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
    constexpr std::array<const char*, 3> units{"KiB", "MiB", "GiB"};
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
