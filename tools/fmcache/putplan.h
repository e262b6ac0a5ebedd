// The checked arguments of put, before it changes anything.
#pragma once

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <string>

#include "FMFileInfo.h"

constexpr uint32_t FIRST_BLOCK = 1;

/// The command line.
struct PutOptions {
    std::filesystem::path dir;
    std::filesystem::path file;
    std::string name;
    std::string block = "256K";
    std::string piece = "16K";
};

struct PutPlan {
    std::string file;
    uint64_t length = 0;
    uint32_t block = 0;
    uint32_t piece = 0;
    FMFileInfo info;

    uint32_t Count() const { return static_cast<uint32_t>((length + block - 1) / block); }
    uint32_t LengthOfBlock(uint32_t index) const {
        return static_cast<uint32_t>(std::min<uint64_t>(block, length - uint64_t{index} * block));
    }
};

/// Checks the arguments and the file, and creates an identifier. Throws Failure.
PutPlan MakePlan(const PutOptions& options);
