// Runs the library's housekeeping once, immediately.
#pragma once

#include <cstdint>
#include <filesystem>

/// Examines all `dataFiles` data files of the cache in `dir`, as a server with clearDays `days`. Throws
/// Failure; on a stop signal Interrupted, and the remaining files are not examined.
void RunHousekeeping(const std::filesystem::path& dir, uint16_t days, uint64_t dataFiles);
