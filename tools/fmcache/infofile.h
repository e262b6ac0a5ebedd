// The information file of a cached file, opened for reading only: looking at a cache through the file
// manager would open everything for writing, and make what is missing.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "FMInfoCodec.h"

struct InfoFile {
    FMFileInfo info;
    uint32_t createTime = 0; ///< seconds since 1970; 0 when it was not stored
    std::vector<FMBlockEntry> slots;
    bool whole = false; ///< false when the block table ends early

    uint64_t length = 0;      ///< of the whole file
    uint32_t behindTable = 0; ///< bytes of the block body behind its last entry
    bool readable = false;    ///< false when the system did not let it be read
    std::string fault;      ///< why the description is of no use, as "has no description"; or empty
    std::string tableFault; ///< why the block table is of no use; or empty

    /// Reads as far as the file is sound, and tells in `fault` and `tableFault` what is not. The library
    /// loads no file with either.
    static InfoFile Look(const std::filesystem::path& path);

    /// Throws Failure when it cannot be read or is no information file.
    static InfoFile Read(const std::filesystem::path& path);

    /// The blocks of a complete file in order. Throws Failure that names the first block whose bytes
    /// are not all in a data file of `dataLength` bytes. A file of no bytes has no blocks.
    std::vector<FMBlockEntry> CompleteBlocks(uint64_t dataLength) const;

private:
    void Parse(const std::string& bytes);
};
