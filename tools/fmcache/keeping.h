// The texts for what housekeeping will do with a cached file.
#pragma once

#include <cstdint>
#include <string>

#include "FMCatalog.h"

namespace CLI {
class App;
class Option;
} // namespace CLI

constexpr uint16_t KEEP_DAYS_DEFAULT = 7;

/// "next run: temporary", "in 3 days", "never: kept".
std::string KeepingText(const FMExpiry& expiry, int64_t now);
/// One word for JSON.
const char* KeepingWord(const FMExpiry& expiry);
/// Days until the file is due, rounded up. For FMExpiry::When::Later.
int64_t DaysLeft(const FMExpiry& expiry, int64_t now);

/// Adds --days, 1 to 65535. With clearDays 0 a server would clear the cache.
CLI::Option* AddDaysOption(CLI::App& verb, uint16_t& days);

/// Seconds since 1970.
int64_t CurrentTime();
