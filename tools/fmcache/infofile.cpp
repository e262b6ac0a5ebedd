#include "infofile.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <string>
#include <string_view>

#include "failure.h"

namespace {

constexpr uint32_t PREFIX_SIZE = 4;
// A valid file is never longer; of another no more is read.
constexpr uint32_t INFO_FILE_MAX =
    FM_INFO_BODY_OFFSET + FM_INFO_FILE_BODY_MAX + PREFIX_SIZE + FM_INFO_BLOCK_BODY_MAX;

std::string ReadBytes(const std::filesystem::path& path) {
    errno = 0;
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw Failure("cannot read " + Quoted(path.string()) + ": " + ErrorText(errno));
    std::string bytes(INFO_FILE_MAX, '\0');
    in.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (in.bad())
        throw Failure("cannot read " + Quoted(path.string()) + ": " + ErrorText(errno));
    bytes.resize(static_cast<size_t>(in.gcount()));
    return bytes;
}

// Takes a length and the body that it announces off the front. False when they are not all there.
bool TakeBody(std::string_view& rest, uint32_t most, std::string_view& body) {
    if (rest.size() < PREFIX_SIZE)
        return false;
    uint32_t length = 0;
    for (size_t i = 0; i < PREFIX_SIZE; ++i)
        length |= uint32_t{static_cast<uint8_t>(rest[i])} << (8 * i);
    rest.remove_prefix(PREFIX_SIZE);
    if (length > most || length > rest.size())
        return false;
    body = rest.substr(0, length);
    rest.remove_prefix(length);
    return true;
}

CRtMessageChain Wrap(std::string_view body) {
    return CRtMessageBlock::Wrap(body.data(), static_cast<uint32_t>(body.size()));
}

std::string BlockName(uint32_t id) { return "block " + std::to_string(id); }

} // namespace

InfoFile InfoFile::Read(const std::filesystem::path& path) {
    const std::string bytes = ReadBytes(path);
    std::string_view rest = bytes;
    std::string_view fileBody;
    std::string_view blockBody;
    const bool known = rest.starts_with(std::string_view(FM_INFO_MAGIC, FM_INFO_MAGIC_SIZE));
    if (known)
        rest.remove_prefix(FM_INFO_LENGTH_OFFSET);
    if (!known || !TakeBody(rest, FM_INFO_FILE_BODY_MAX, fileBody))
        throw Failure(Quoted(path.string()) + " is not an information file, or is damaged");

    InfoFile file;
    if (FMDecodeFileBody(*Wrap(fileBody), file.info, file.createTime) != 0)
        throw Failure("the description in " + Quoted(path.string()) + " is damaged");
    if (!TakeBody(rest, FM_INFO_BLOCK_BODY_MAX, blockBody))
        throw Failure("the block table in " + Quoted(path.string()) + " is damaged or missing");
    file.whole = FMDecodeBlockBody(*Wrap(blockBody), file.slots);
    return file;
}

std::vector<FMBlockEntry> InfoFile::CompleteBlocks(uint64_t dataLength) const {
    if (!whole)
        throw Failure("the block table ends early");
    const auto last = std::find_if(slots.rbegin(), slots.rend(),
                                   [](const FMBlockEntry& entry) { return entry.blockID != 0; });
    std::vector<FMBlockEntry> blocks(slots.begin(), last.base());
    for (uint32_t i = 0; i < blocks.size(); ++i) {
        const FMBlockEntry& block = blocks[i];
        const uint32_t id = info.blockBeg + i;
        if (block.blockID == 0)
            throw Failure(BlockName(id) + " is missing");
        if (block.blockID != id)
            throw Failure("the block table is damaged: it has " + BlockName(block.blockID) +
                          " in the place of " + BlockName(id));
        if (block.totalLen == 0)
            throw Failure(BlockName(id) + " has no bytes");
        if (!FMIsEntryPossible(block) ||
            static_cast<uint64_t>(block.posInFile) + block.totalLen > dataLength)
            throw Failure("the data file ends before the end of " + BlockName(id));
    }
    return blocks;
}
