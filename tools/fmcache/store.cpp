#include "store.h"

#include <algorithm>
#include <cerrno>

#include "failure.h"

namespace fs = std::filesystem;

namespace {
std::string BlockName(uint32_t id) { return "block " + std::to_string(id); }
} // namespace

std::optional<FMFileID> ParseID(const std::string& text) {
    const bool isBare = text.size() + 2 == FMFILEID_TEXT_LENGTH;
    FMFileID id;
    FMFileIDFromString(CRtString(isBare ? "{" + text + "}" : text), id);
    return id == FMFileID_None ? std::nullopt : std::optional(id);
}

fs::path StoreDir(const fs::path& dir) { return dir / FM_SERVER_STORE; }

StorePaths::StorePaths(const fs::path& dir, const FMFileID& id) {
    const fs::path stem = StoreDir(dir) / ToString(FMFileIDToString(id));
    info = stem;
    info += FM_INFO_EXTENSION;
    data = stem;
    data += FM_DATA_EXTENSION;
}

uint64_t LengthOf(const fs::path& path) {
    std::error_code error;
    const uint64_t length = fs::file_size(path, error);
    return error ? 0 : length;
}

void RequireDescribed(const fs::path& dir, const std::optional<FMCachedFile>& file) {
    const bool isKnown = file && (file->hasInfo || file->isUnreadable);
    const std::string fault =
        isKnown ? ToString(file->infoFault) : "cannot be read: " + ErrorText(ENOENT);
    if (!fault.empty())
        throw Failure("the information file of " + (file ? ToString(file->stem) : "the file") +
                      " in " + Quoted(StoreDir(dir).string()) + " " + fault);
}

std::vector<FMBlockEntry> CompleteBlocks(const FMCachedFile& file) {
    if (!file.isTableComplete)
        throw Failure("the block table ends early");
    const auto last = std::find_if(file.entries.rbegin(), file.entries.rend(),
                                   [](const FMBlockEntry& entry) { return entry.blockID != 0; });
    std::vector<FMBlockEntry> blocks(file.entries.begin(), last.base());
    for (uint32_t i = 0; i < blocks.size(); ++i) {
        const FMSlotState state = file.states[i];
        const uint32_t id = file.info.blockBeg + i;
        if (state == FMSlotState::NoBlock)
            throw Failure(BlockName(id) + " is missing");
        if (blocks[i].blockID != id)
            throw Failure("the block table is damaged: it has " + BlockName(blocks[i].blockID) +
                          " in the slot of " + BlockName(id));
        if (blocks[i].totalLen == 0)
            throw Failure(BlockName(id) + " has no bytes");
        if (state == FMSlotState::Impossible || state == FMSlotState::Beyond)
            throw Failure("the data file ends before the end of " + BlockName(id));
        if (state == FMSlotState::Overlaps)
            throw Failure(BlockName(id) + " overlaps another block");
    }
    return blocks;
}
