// What the library's housekeeping will do with a cached file, by its own rules.
#pragma once

#include <cstdint>
#include <string>

#include "infofile.h"
#include "scan.h"

namespace CLI {
class Option;
}

constexpr uint16_t KEEP_DAYS_DEFAULT = 7;

struct Keeping {
    enum class When { NextRun, InDays, Never, Unknown };
    When when = When::Never;
    int64_t days = 0;   ///< for InDays
    std::string reason; ///< "temporary", "no information file", "12 days old"

    /// "next run: temporary", "in 3 days", "never: kept".
    std::string Text() const;
    /// One word for JSON.
    const char* Word() const;
};

/// Adds --days, 1 to 65535: with 0 a server keeps nothing at all.
CLI::Option* AddDaysOption(CLI::App& verb, uint16_t& days);

/// Seconds since 1970.
int64_t CurrentTime();
/// Whole days since the file was created; 0 for one from the future.
int64_t AgeInDays(const InfoFile& file, int64_t now);

/// `file` is what `entry.info` holds.
Keeping JudgeKeeping(const StoreEntry& entry, const InfoFile& file, uint16_t days, int64_t now);
