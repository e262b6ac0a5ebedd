// The information file of a cached file, opened for reading only: looking at a cache through the file
// manager would open everything for writing, and make what is missing.
#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

#include "FMInfoCodec.h"

struct InfoFile {
    FMFileInfo info;
    uint32_t createTime = 0; ///< seconds since 1970; 0 when it was not stored
    std::vector<FMBlockEntry> slots;
    bool whole = false; ///< false when the block table ends early

    /// Throws Failure when it cannot be read or is no information file.
    static InfoFile Read(const std::filesystem::path& path);

    /// The blocks of a complete file in order. Throws Failure that names the first block whose bytes
    /// are not all in a data file of `dataLength` bytes. A file of no bytes has no blocks.
    std::vector<FMBlockEntry> CompleteBlocks(uint64_t dataLength) const;
};
