// Paths of cached files. Nothing here creates or changes files.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "FMCatalog.h"

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

/// Describes a file that can be loaded. Throws Failure if its information file is missing, unreadable or damaged.
FMCachedFile DescribeLoadable(const std::filesystem::path& dir, const FMFileID& id);

/// Returns the blocks of a complete file in order; none for an empty file. Throws Failure with the first block
/// whose bytes are missing. `file`: by DescribeLoadable.
std::vector<FMBlockEntry> CompleteBlocks(const FMCachedFile& file);
