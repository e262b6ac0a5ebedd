// The checked arguments of put, before it changes anything.
#pragma once

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <string>

#include "FMFileInfo.h"
#include "scan.h"

constexpr uint32_t FIRST_BLOCK = 1;

/// The command line.
struct PutOptions : StoreOptions {
    std::filesystem::path file;
    std::string name;
    uint64_t block = uint64_t{256} << 10;
    uint64_t piece = uint64_t{16} << 10;
};

struct PutPlan {
    std::string file; // empty: standard input
    uint64_t length = 0;
    uint32_t block = 0;
    uint32_t piece = 0;
    FMFileInfo info;

    std::string Title() const { return file.empty() ? "standard input" : "'" + file + "'"; }
    uint32_t Count() const { return static_cast<uint32_t>((length + block - 1) / block); }
    uint32_t LengthOfBlock(uint32_t index) const {
        return static_cast<uint32_t>(std::min<uint64_t>(block, length - uint64_t{index} * block));
    }
};

/// Length of a file that put can store. Throws Failure.
uint64_t CheckedLength(const std::filesystem::path& file);
/// Throws Failure if the length exceeds that of a cached file. `name`: of the file, for the message.
void CheckLength(const std::string& name, uint64_t length);

/// Checks the arguments and creates an identifier. `length`: of the file in bytes. Throws Failure.
PutPlan MakePlan(const PutOptions& options, uint64_t length);
