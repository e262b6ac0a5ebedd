#include "text.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>

#include "failure.h"
#include "platform.h"

namespace {

bool IsShown(uint32_t character) {
    const auto within = [character](uint32_t first, uint32_t last) {
        return character >= first && character <= last;
    };
    return !within(0x00, 0x1F) && !within(0x7F, 0x9F) && // controls
           character != 0x061C && !within(0x200E, 0x200F) && !within(0x2028, 0x202E) &&
           !within(0x2066, 0x2069); // line separators and writing directions
}

} // namespace

size_t TakeCharacter(std::string_view text, uint32_t& character) {
    struct Form {
        uint32_t mask, lead, least;
    };
    constexpr std::array<Form, 4> forms{
        {{0x80, 0x00, 0}, {0xE0, 0xC0, 0x80}, {0xF0, 0xE0, 0x800}, {0xF8, 0xF0, 0x10000}}};
    const auto first = uint32_t{static_cast<uint8_t>(text[0])};
    for (size_t length = 1; length <= forms.size(); ++length) {
        const Form& form = forms[length - 1];
        if ((first & form.mask) != form.lead)
            continue;
        if (text.size() < length)
            return 0;
        character = first & ~form.mask;
        for (size_t i = 1; i < length; ++i) {
            const auto next = uint32_t{static_cast<uint8_t>(text[i])};
            if ((next & 0xC0U) != 0x80U)
                return 0;
            character = character << 6 | (next & 0x3FU);
        }
        const bool surrogate = character >= 0xD800 && character <= 0xDFFF;
        return character < form.least || character > 0x10FFFF || surrogate ? 0 : length;
    }
    return 0;
}

bool IsUtf8(std::string_view text) {
    uint32_t character = 0;
    while (!text.empty()) {
        const size_t length = TakeCharacter(text, character);
        if (length == 0)
            return false;
        text.remove_prefix(length);
    }
    return true;
}

std::string Printable(std::string_view text) {
    std::string shown;
    while (!text.empty()) {
        uint32_t character = 0;
        const size_t length = TakeCharacter(text, character);
        const std::string_view bytes = text.substr(0, length > 0 ? length : 1);
        text.remove_prefix(bytes.size());
        if (length > 0 && IsShown(character)) {
            shown += bytes;
            continue;
        }
        for (const char byte : bytes) {
            char escape[8];
            std::snprintf(escape, sizeof(escape), "\\x%02X", unsigned{static_cast<uint8_t>(byte)});
            shown += escape;
        }
    }
    return shown;
}

std::string TimeText(int64_t seconds) {
    if (seconds == 0)
        return "unknown";
    const std::chrono::sys_seconds time{std::chrono::seconds(seconds)};
    const auto day = std::chrono::floor<std::chrono::days>(time);
    const std::chrono::year_month_day date(day);
    const std::chrono::hh_mm_ss clock(time - day);
    char text[64];
    std::snprintf(text, sizeof(text), "%d-%02u-%02u %02d:%02d:%02d UTC",
                  static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
                  static_cast<unsigned>(date.day()), static_cast<int>(clock.hours().count()),
                  static_cast<int>(clock.minutes().count()),
                  static_cast<int>(clock.seconds().count()));
    return text;
}

std::string Count(uint64_t number, const std::string& thing) {
    std::string text = std::to_string(number) + " " + thing;
    if (number == 1)
        return text;
    if (!text.ends_with('y') || text.ends_with("ay")) // entry, but day
        return text + "s";
    text.pop_back();
    return text + "ies";
}

void Print(std::string_view text) {
    errno = 0;
    const bool written = text.empty() || std::fwrite(text.data(), text.size(), 1, stdout) == 1;
    if (written && std::fflush(stdout) == 0)
        return;
    const int error = errno;
    CheckStop();
    throw Failure("cannot write to standard output: " + ErrorText(error));
}
