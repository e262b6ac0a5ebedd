#include "keeping.h"

#include <CLI/CLI.hpp>
#include <ctime>

#include "text.h"

namespace {
constexpr int64_t SECONDS_PER_DAY = 86400;
}

std::string Keeping::Text() const {
    switch (when) {
    case When::NextRun:
        return "next run: " + reason;
    case When::InDays:
        return "in " + Count(static_cast<uint64_t>(days), "day");
    case When::Never:
        return "never: " + reason;
    case When::Unknown:
        break;
    }
    return "unknown: " + reason;
}

const char* Keeping::Word() const {
    switch (when) {
    case When::NextRun:
        return "next run";
    case When::InDays:
        return "later";
    case When::Never:
        return "never";
    case When::Unknown:
        break;
    }
    return "unknown";
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

int64_t AgeInDays(const InfoFile& file, int64_t now) {
    return now > file.createTime ? (now - file.createTime) / SECONDS_PER_DAY : 0;
}

Keeping JudgeKeeping(const StoreEntry& entry, const InfoFile& file, uint16_t days, int64_t now) {
    using When = Keeping::When;
    if (!entry.HasData()) // housekeeping examines data files only
        return {When::Never, 0, "no data file"};
    if (!entry.HasInfo())
        return {When::NextRun, 0, "no information file"};
    if (!file.readable) // for this user; the server may run as another one
        return {When::Unknown, 0, file.fault};
    if (!file.fault.empty())
        return {When::NextRun, 0, "unreadable"};
    if (file.info.flag & FM_FILE_TEMPORARY)
        return {When::NextRun, 0, "temporary"};
    if (file.info.flag & FM_FILE_KEPT)
        return {When::Never, 0, "kept"};
    // The library compares the age in full days with clearDays + 1.
    const int64_t lastDay = int64_t{days} + 1;
    const int64_t age = AgeInDays(file, now);
    if (age > lastDay)
        return {When::NextRun, 0,
                file.createTime == 0 ? "no creation time" : std::to_string(age) + " days old"};
    const int64_t left = file.createTime + (lastDay + 1) * SECONDS_PER_DAY - now;
    return {When::InDays, (left + SECONDS_PER_DAY - 1) / SECONDS_PER_DAY,
            Count(static_cast<uint64_t>(age), "day") + " old"};
}
