// Paths of cached files. Nothing here creates or changes files.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "FMCatalog.h"

/// Parses an identifier with or without braces, which need quoting in shells. Empty if the text is none.
std::optional<FMFileID> ParseID(const std::string& text);

/// The directory of the cached files below a server's data directory.
std::filesystem::path StoreDir(const std::filesystem::path& dir);

/// The two files of one cached file.
struct StorePaths {
    StorePaths(const std::filesystem::path& dir, const FMFileID& id);

    std::filesystem::path info;
    std::filesystem::path data;
};

/// Length in bytes; 0 if there is no such file.
uint64_t LengthOf(const std::filesystem::path& path);

/// Throws Failure if the information file of a file that Describe has returned is missing, unreadable or damaged.
void RequireDescribed(const std::filesystem::path& dir, const std::optional<FMCachedFile>& file);

/// Returns the blocks of a complete file in order; none for an empty file. Throws Failure with the first block
/// whose bytes are missing.
std::vector<FMBlockEntry> CompleteBlocks(const FMCachedFile& file);
