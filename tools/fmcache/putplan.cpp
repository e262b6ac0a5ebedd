#include "putplan.h"

#include <filesystem>

#include "FMInfoCodec.h"
#include "failure.h"

namespace fs = std::filesystem;

namespace {

// Truncates a long name at the boundary of a UTF-8 character.
std::string CutName(std::string name) {
    if (name.size() <= FM_INFO_NAME_MAX)
        return name;
    size_t length = FM_INFO_NAME_MAX;
    while (length > 0 && (static_cast<uint8_t>(name[length]) & 0xC0U) == 0x80U)
        --length;
    name.resize(length > 0 ? length : FM_INFO_NAME_MAX);
    return name;
}

} // namespace

uint64_t CheckedLength(const fs::path& file) {
    const std::string name = Quoted(file.string());
    std::error_code error;
    const fs::file_status status = fs::status(file, error);
    if (status.type() == fs::file_type::not_found)
        throw Failure("no such file: " + name);
    if (fs::is_directory(status))
        throw Failure(name + " is a directory; put stores one file");
    if (fs::status_known(status) && !fs::is_regular_file(status))
        throw Failure(name + " is not a regular file");
    const uint64_t length = fs::file_size(file, error);
    if (error)
        throw Failure("cannot read " + name + ": " + error.message());
    CheckLength(name, length);
    return length;
}

void CheckLength(const std::string& name, uint64_t length) {
    if (length > FM_FILE_BYTES_MAX)
        throw Failure(name + " has " + std::to_string(length) +
                      " bytes; the limit for a cached file is 1 GiB (" +
                      std::to_string(FM_FILE_BYTES_MAX) + " bytes)");
}

PutPlan MakePlan(const PutOptions& options, uint64_t length) {
    PutPlan plan;
    const bool isInput = options.file == "-";
    plan.file = isInput ? "" : options.file.string();
    plan.block = static_cast<uint32_t>(options.block);
    plan.piece = static_cast<uint32_t>(std::min(options.piece, options.block));
    plan.length = length;
    if ((plan.length + plan.block - 1) / plan.block > FM_INFO_BLOCKS_MAX)
        throw Failure(
            "--block: too small for " + plan.Title() + ": a cached file has at most " +
                std::to_string(FM_INFO_BLOCKS_MAX) + " blocks; the smallest block size is " +
                std::to_string((plan.length + FM_INFO_BLOCKS_MAX - 1) / FM_INFO_BLOCKS_MAX),
            STATUS_USAGE);
    CoCreateFMFileID(plan.info.fileID);
    const std::string fileName = isInput ? "stdin" : options.file.filename().string();
    plan.info.name = CRtString(CutName(options.name.empty() ? fileName : options.name));
    plan.info.blockBeg = FIRST_BLOCK;
    plan.info.num = std::max(plan.Count(), 1U); // CreateFile replaces 0 by a larger number
    return plan;
}
