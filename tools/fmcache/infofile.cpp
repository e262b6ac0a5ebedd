#include "infofile.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <string>
#include <string_view>

#include "failure.h"

namespace {

// Size of the longest valid file; no more is read.
constexpr uint32_t INFO_FILE_MAX =
    FM_INFO_BODY_OFFSET + FM_INFO_FILE_BODY_MAX + FM_INFO_LENGTH_SIZE + FM_INFO_BLOCK_BODY_MAX;

// Returns 0 or an errno value. `length` is the length of the file, even if `bytes` is truncated.
int ReadBytes(const std::filesystem::path& path, std::string& bytes, uint64_t& length) {
    errno = 0;
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    const std::streamoff end = in ? std::streamoff{in.tellg()} : -1;
    if (end < 0)
        return errno != 0 ? errno : EIO;
    length = static_cast<uint64_t>(end);
    bytes.resize(static_cast<size_t>(std::min<uint64_t>(length, INFO_FILE_MAX)));
    in.seekg(0);
    in.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (in.bad())
        return errno != 0 ? errno : EIO;
    bytes.resize(static_cast<size_t>(in.gcount())); // the file may have been truncated since
    return 0;
}

// Removes a length and a body of that length from the front. False if `rest` is too short.
bool TakeBody(std::string_view& rest, uint32_t most, std::string_view& body) {
    uint8_t prefix[FM_INFO_LENGTH_SIZE] = {};
    if (rest.copy(reinterpret_cast<char*>(prefix), sizeof(prefix)) < sizeof(prefix))
        return false;
    const uint32_t length = FMGetLength(prefix);
    rest.remove_prefix(sizeof(prefix));
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

InfoFile InfoFile::Look(const std::filesystem::path& path) {
    InfoFile file;
    std::string bytes;
    if (const int error = ReadBytes(path, bytes, file.length); error != 0) {
        file.fault = "cannot be read: " + ErrorText(error);
        return file;
    }
    file.readable = true;
    file.Parse(bytes);
    return file;
}

void InfoFile::Parse(const std::string& bytes) {
    std::string_view rest = bytes;
    std::string_view body;
    const bool known = rest.starts_with(std::string_view(FM_INFO_MAGIC, FM_INFO_MAGIC_SIZE));
    if (known)
        rest.remove_prefix(FM_INFO_LENGTH_OFFSET);
    if (!known || !TakeBody(rest, FM_INFO_FILE_BODY_MAX, body)) {
        fault = "is not an information file, or is damaged";
        return;
    }
    if (FMDecodeFileBody(*Wrap(body), info, createTime) != 0)
        fault = "has a damaged description";
    else if (info.fileID == FMFileID_None)
        fault = "has a description without an identifier";
    else if (info.num > FM_TABLE_SLOTS_MAX)
        fault = "has a description with an impossible number of slots";
    else if (!TakeBody(rest, FM_INFO_BLOCK_BODY_MAX, body))
        tableFault = "has a damaged or missing block table";
    if (!fault.empty() || !tableFault.empty())
        return;
    whole = FMDecodeBlockBody(*Wrap(body), slots);
    size_t used = FM_INFO_COUNT_SIZE;
    for (const FMBlockEntry& entry : slots)
        used += FMEntrySize(entry);
    if (whole)
        behindTable = static_cast<uint32_t>(body.size() - used);
}

InfoFile InfoFile::Read(const std::filesystem::path& path) {
    InfoFile file = Look(path);
    for (const std::string& fault : {file.fault, file.tableFault}) {
        if (!fault.empty())
            throw Failure(Quoted(path.string()) + " " + fault);
    }
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
                          " in the slot of " + BlockName(id));
        if (block.totalLen == 0)
            throw Failure(BlockName(id) + " has no bytes");
        if (!FMIsEntryPossible(block) ||
            static_cast<uint64_t>(block.posInFile) + block.totalLen > dataLength)
            throw Failure("the data file ends before the end of " + BlockName(id));
    }
    return blocks;
}
