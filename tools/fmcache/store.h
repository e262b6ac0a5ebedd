// Paths of cached files. Nothing here creates or changes files.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "FMFileID.h"

/// Parses an identifier with or without braces. Throws Failure.
FMFileID ParseID(const std::string& text);

/// The directory of the cached files below a server's data directory.
std::filesystem::path StoreDir(const std::filesystem::path& dir);

/// The two files of one cached file.
struct StorePaths {
    StorePaths(const std::filesystem::path& dir, const FMFileID& id);

    std::filesystem::path info;
    std::filesystem::path data;
};

/// Returns the paths of a file. Throws Failure if it has no information file or `dir` contains no cache.
StorePaths FindEntry(const std::filesystem::path& dir, const FMFileID& id);

/// Length in bytes; 0 if there is no such file.
uint64_t LengthOf(const std::filesystem::path& path);
