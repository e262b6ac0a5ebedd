// Parses an information file, opened for reading only. The file manager itself would open it for writing
// and create missing files.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "FMInfoCodec.h"

struct InfoFile {
    FMFileInfo info;
    uint32_t createTime = 0; ///< seconds since 1970; 0 if it was not stored
    std::vector<FMBlockEntry> slots;
    bool whole = false; ///< false if the block table is truncated

    uint64_t length = 0;      ///< of the file in bytes
    uint32_t behindTable = 0; ///< bytes in the block body after the last entry
    bool readable = false;    ///< false if the file could not be opened or read
    std::string fault;        ///< why the description is unusable; or empty
    std::string tableFault;   ///< why the block table is unusable; or empty

    /// Parses as much as possible. The library does not load a file with a `fault` or `tableFault`.
    static InfoFile Look(const std::filesystem::path& path);

    /// As Look, but throws Failure if there is a `fault` or `tableFault`.
    static InfoFile Read(const std::filesystem::path& path);

    /// Returns the blocks of a complete file in order; none for an empty file. Throws Failure with the first
    /// block whose range is not inside a data file of `dataLength` bytes.
    std::vector<FMBlockEntry> CompleteBlocks(uint64_t dataLength) const;

private:
    void Parse(const std::string& bytes);
};
