#include "entry.h"

#include <CLI/CLI.hpp>
#include <ctime>
#include <utility>

#include "platform.h"
#include "progress.h"
#include "text.h"

using When = FMExpiry::When;

namespace {

const char* WhenWord(When when) {
    switch (when) {
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

// Rounded up. For When::Later.
int64_t DaysLeft(const FMExpiry& expiry, int64_t now) {
    return (expiry.dueTime - now + SECONDS_PER_DAY - 1) / SECONDS_PER_DAY;
}

Json ToJson(const FMExpiry& expiry, int64_t now) {
    Json json{{"when", WhenWord(expiry.when)}, {"reason", expiry.reason.view()}};
    if (expiry.when == When::Later)
        json["days"] = DaysLeft(expiry, now);
    return json;
}

} // namespace

FileState StateOf(const FMCachedFile& file) {
    if (file.isUnreadable)
        return FileState::Unreadable;
    if (CountFaults(file) > 0)
        return FileState::Damaged;
    return file.isOpenElsewhere ? FileState::Open : FileState::Sound;
}

std::string StateText(FileState state) {
    return state == FileState::Open ? "open (by another process)" : StateWord(state);
}

const char* StateWord(FileState state) {
    switch (state) {
    case FileState::Sound:
        return "sound";
    case FileState::Open:
        return "open";
    case FileState::Damaged:
        return "damaged";
    case FileState::Unreadable:
        break;
    }
    return "unreadable";
}

Entry MakeEntry(const std::filesystem::path& store, FMCachedFile file, uint16_t days, int64_t now) {
    constexpr uint16_t daysNever = 65535;
    Entry entry;
    entry.state = StateOf(file);
    if (!file.isLoadable)
        entry.trouble = entry.state == FileState::Open ? StateText(entry.state)
                                                       : ToString(file.findings.front().what);
    entry.faults = CountFaults(file);
    entry.onDisk = OnDisk(store, file.stem);
    entry.expiry = FMJudgeExpiry(file, days > 0 ? days : daysNever, now);
    if (days == 0 && entry.expiry.when == When::Later)
        entry.expiry.when = When::Unknown;
    file.entries = {};
    file.states = {};
    file.findings = {};
    entry.file = std::move(file);
    return entry;
}

void ForEachFile(const std::filesystem::path& store, const StoreListing& listing, const char* work,
                 const std::function<void(FMCachedFile&&)>& take) {
    Progress progress(work, listing.stems.size(), Progress::Unit::Files);
    for (const CRtString& stem : listing.stems) {
        CheckStop();
        if (std::optional<FMCachedFile> file = Describe(store, stem))
            take(std::move(*file));
        progress.Add(1);
    }
}

std::vector<Entry> ReadEntries(const std::filesystem::path& store, const StoreListing& listing,
                               uint16_t days, int64_t now) {
    std::vector<Entry> entries;
    ForEachFile(store, listing, "reading", [&](FMCachedFile&& file) {
        entries.push_back(MakeEntry(store, std::move(file), days, now));
    });
    return entries;
}

Json ToJson(const Entry& entry, int64_t now) {
    const FMCachedFile& file = entry.file;
    Json json;
    AddName(json, "id", file.stem.view());
    if (file.isDescribed) {
        AddName(json, "name", file.info.name.view());
        json["created"] = file.createTime;
        json["ageDays"] = FMAgeInDays(file.createTime, now);
        json["temporary"] = entry.IsTemporary();
        json["kept"] = entry.IsKept();
    }
    json["state"] = StateWord(entry.state);
    json["loads"] = file.isLoadable;
    if (!entry.trouble.empty())
        json["trouble"] = entry.trouble;
    json["faults"] = entry.faults;
    json["size"] = file.blockBytes;
    json["onDisk"] = entry.onDisk;
    json["present"] = file.storedBlocks;
    json["slots"] = file.slots;
    json["housekeeping"] = ToJson(entry.expiry, now);
    return json;
}

void AddOthers(Json& json, const StoreListing& listing) {
    Json others = Json::array();
    for (const std::string& name : listing.foreign)
        AddName(others.emplace_back(), "name", name);
    json["others"] = std::move(others);
}

std::string ExpiryText(const FMExpiry& expiry, int64_t now) {
    if (expiry.when == When::Later)
        return "in " + Count(static_cast<uint64_t>(DaysLeft(expiry, now)), "day");
    return WhenWord(expiry.when) + (": " + ToString(expiry.reason));
}

// The library knows the rule: it judges a file that is created at the time 0.
std::string RuleText(uint16_t days) {
    FMCachedFile created;
    created.hasData = created.isDescribed = true;
    const int64_t removalDay = DaysLeft(FMJudgeExpiry(created, days, 0), 0);
    return "older than " + Count(days, "day") + ": removed from day " + std::to_string(removalDay) +
           " on";
}

CLI::Option* AddDaysOption(CLI::App& verb, uint16_t& days) {
    const auto check = [](const std::string& text) {
        // CLI11 takes "010" as 8.
        const bool isValid = !text.starts_with('0') && CLI::Range(1, 65535)(text).empty();
        return isValid ? "" : Quoted(text) + " is not a number of days from 1 to 65535";
    };
    return verb
        .add_option("--days", days,
                    "clearDays of the server, 1 to 65535. A file is removed N + 2 days after its "
                    "creation: with 7, from day 9 on")
        ->type_name("N")
        ->check(check);
}

int64_t CurrentTime() { return int64_t{std::time(nullptr)}; }
