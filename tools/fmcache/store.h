// Where a cached file lies on disk. Everything here looks only; nothing is made.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "FMFileID.h"

/// Reads an identifier as the user writes it, with or without braces. Throws Failure.
FMFileID ParseID(const std::string& text);

/// The directory below `dir` that a server keeps its files in.
std::filesystem::path StoreDir(const std::filesystem::path& dir);

/// The two files of one cached file.
struct StorePaths {
    StorePaths(const std::filesystem::path& dir, const FMFileID& id);

    std::filesystem::path info;
    std::filesystem::path data;
};

/// The paths of a file that is in the cache. Throws Failure when it is not, or when `dir` holds no
/// cache.
StorePaths FindEntry(const std::filesystem::path& dir, const FMFileID& id);

/// 0 when there is no such file.
uint64_t LengthOf(const std::filesystem::path& path);
