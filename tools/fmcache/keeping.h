// Predicts what the library's housekeeping will do with a cached file, by the same rules.
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

/// Adds --days, 1 to 65535. With clearDays 0 a server would clear the cache.
CLI::Option* AddDaysOption(CLI::App& verb, uint16_t& days);

/// Seconds since 1970.
int64_t CurrentTime();
/// Full days since the file was created; 0 if the creation time is in the future.
int64_t AgeInDays(const InfoFile& file, int64_t now);

/// `file`: the parsed contents of `entry.info`.
Keeping JudgeKeeping(const StoreEntry& entry, const InfoFile& file, uint16_t days, int64_t now);
