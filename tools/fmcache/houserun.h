// One run of the library's own housekeeping, now instead of a minute after the start of a server.
#pragma once

#include <cstdint>
#include <filesystem>

/// Runs it over the cache in `dir`, as a server that keeps files for `days` days, from the first to the
/// last of `dataFiles` data files. Throws Failure, and Interrupted when the user asks to stop: the
/// library then leaves the rest for another time.
void RunHousekeeping(const std::filesystem::path& dir, uint16_t days, uint64_t dataFiles);
