// Sums of the contents of stored blocks (XXH3, 64 bits), in a file outside the store: the format of the store has no
// checksums.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "FMCatalog.h"

struct BlockSum {
    uint32_t block = 0;
    uint32_t length = 0; ///< bytes
    uint64_t sum = 0;
};

/// The sums of a store, by the stem of the cached file.
using Sums = std::map<std::string, std::vector<BlockSum>>;

/// Reads the stored blocks of a file. Throws Failure if the data file cannot be read.
std::vector<BlockSum> SumBlocks(const std::filesystem::path& store, const FMCachedFile& file);

/// Adds a fault for each block that differs from its sum or is no longer stored. Returns the number of blocks that
/// were compared.
size_t CompareSums(const std::vector<BlockSum>& earlier, const std::vector<BlockSum>& now,
                   FMCachedFile& file);

/// Text files with a line for each block. Throw Failure.
Sums ReadSumsFile(const std::filesystem::path& path);
std::string SumsText(const Sums& sums);
