#include "keeping.h"

#include <CLI/CLI.hpp>
#include <ctime>

#include "failure.h"
#include "text.h"

using When = FMExpiry::When;

std::string KeepingText(const FMExpiry& expiry, int64_t now) {
    if (expiry.when == When::Later)
        return "in " + Count(static_cast<uint64_t>(DaysLeft(expiry, now)), "day");
    return KeepingWord(expiry) + (": " + ToString(expiry.reason));
}

const char* KeepingWord(const FMExpiry& expiry) {
    switch (expiry.when) {
    case When::NextRun:
        return "next run";
    case When::Later:
        return "later";
    case When::Never:
        return "never";
    case When::Unknown:
        break;
    }
    return "unknown";
}

int64_t DaysLeft(const FMExpiry& expiry, int64_t now) {
    constexpr int64_t secondsPerDay = 86400;
    return (expiry.dueTime - now + secondsPerDay - 1) / secondsPerDay;
}

CLI::Option* AddDaysOption(CLI::App& verb, uint16_t& days) {
    return verb
        .add_option(
            "--days", days,
            "clearDays of the server (1 to 65535): files expire N + 2 days after their creation")
        ->type_name("N")
        ->check(CLI::Range(1, 65535).description(""));
}

int64_t CurrentTime() { return int64_t{std::time(nullptr)}; }
