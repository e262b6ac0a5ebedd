// A cached file as all verbs show it: its state, and what housekeeping will do with it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "FMCatalog.h"
#include "failure.h"
#include "json.h"
#include "scan.h"

/// One state for each file. A file that another process has open and that has no fault is Open: its information file
/// may be missing or older than its data file.
enum class FileState : uint8_t { Sound, Open, Damaged, Unreadable };
FileState StateOf(const FMCachedFile& file);
/// "open (by another process)", and one word for JSON.
std::string StateText(FileState state);
const char* StateWord(FileState state);

constexpr uint16_t KEEP_DAYS_DEFAULT = 7;
constexpr int64_t SECONDS_PER_DAY = 86400;

/// The values of one file without its table and findings: a store can have many files with large tables.
struct Entry {
    FMCachedFile file;
    FileState state = FileState::Sound;
    std::string trouble; ///< why the library does not load the file; or empty
    size_t faults = 0;
    uint64_t onDisk = 0; ///< bytes that the file system has allocated, and that a removal frees
    FMExpiry expiry;

    std::string Name() const { return ToString(file.info.name); }
    bool IsTemporary() const { return (file.info.flag & FM_FILE_TEMPORARY) != 0; }
    bool IsKept() const { return (file.info.flag & FM_FILE_KEPT) != 0; }
    bool IsOpen() const { return file.isOpenHere || file.isOpenElsewhere; }
};
/// `days` 0: the age of the file is no reason to remove it.
Entry MakeEntry(const std::filesystem::path& store, FMCachedFile file, uint16_t days, int64_t now);

/// Describes all files of a listing, with a progress line that starts with `work`. Throws Interrupted after a stop
/// signal.
void ForEachFile(const std::filesystem::path& store, const StoreListing& listing, const char* work,
                 const std::function<void(FMCachedFile&&)>& take);

std::vector<Entry> ReadEntries(const std::filesystem::path& store, const StoreListing& listing,
                               uint16_t days, int64_t now);

/// The members that a file has in all verbs.
Json ToJson(const Entry& entry, int64_t now);
/// Adds the member "others": the names of entries of the store that are no cached files.
void AddOthers(Json& json, const StoreListing& listing);

/// "next run: temporary", "in 3 days", "never: kept".
std::string ExpiryText(const FMExpiry& expiry, int64_t now);

/// "older than 7 days: removed from day 9 on".
std::string RuleText(uint16_t days);

/// Adds --days, 1 to 65535. With clearDays 0 a server would clear the cache.
CLI::Option* AddDaysOption(CLI::App& verb, uint16_t& days);

/// Seconds since 1970.
int64_t CurrentTime();
