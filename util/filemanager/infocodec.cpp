#include "FMInfoCodec.h"

#include <algorithm>

#include "RtByteStream.h"
#include "RtResult.h"
#include "fmtable.h"

namespace {

// Tables of up to this many slots are allocated even if the information file is shorter.
constexpr uint32_t SLOTS_WITHOUT_PROOF = 8192;

CRtByteStreamT& operator<<(CRtByteStreamT& stream, const FMFileID& id) {
    return (stream << uint32_t{id.Data1} << id.Data2 << id.Data3).Write(id.Data4, sizeof(id.Data4));
}

CRtByteStreamT& operator>>(CRtByteStreamT& stream, FMFileID& id) {
    uint32_t first = 0; // on Windows, Data1 is unsigned long, not uint32_t
    stream >> first >> id.Data2 >> id.Data3;
    id.Data1 = first;
    return stream.Read(id.Data4, sizeof(id.Data4));
}

} // namespace

int FMFileInfo::EncodeFileInfo(CRtMessageBlock& chain) const {
    CRtByteStreamT stream(chain);
    stream << userValue << fileID << name << flag << blockBeg << num;
    return stream.IsGood() ? RT_OK : RT_ERROR_FAILURE;
}

int FMFileInfo::DecodeFileInfo(CRtMessageBlock& chain) {
    CRtByteStreamT stream(chain);
    stream >> userValue >> fileID >> name >> flag >> blockBeg >> num;
    return stream.IsGood() ? RT_OK : RT_ERROR_FAILURE;
}

bool FMIsEntryPossible(const FMBlockEntry& entry) {
    return entry.posInFile >= 0 && entry.posInFile <= FM_INFO_OFFSET_MAX - int64_t{entry.totalLen};
}

void FMPutLength(uint32_t length, uint8_t (&bytes)[FM_INFO_LENGTH_SIZE]) {
    RtPutLittleEndian(length, bytes);
}

uint32_t FMGetLength(const uint8_t (&bytes)[FM_INFO_LENGTH_SIZE]) {
    return RtGetLittleEndian<uint32_t>(bytes);
}

uint32_t FMSlotsToLoad(uint32_t num, uint64_t infoFileLength) {
    const uint64_t proven =
        std::max<uint64_t>(SLOTS_WITHOUT_PROOF, infoFileLength / FM_INFO_EMPTY_SIZE);
    return static_cast<uint32_t>(std::min<uint64_t>(num, proven));
}

int FMEncodeFileBody(const FMFileInfo& info, uint32_t createTime, CRtMessageChain& body) {
    body =
        CRtMessageBlock::Create(FM_INFO_FILE_BODY_FIXED + static_cast<uint32_t>(info.name.size()));
    if (!body)
        return RT_ERROR_FAILURE;
    const int result = info.EncodeFileInfo(*body);
    if (RT_SUCCEEDED(result))
        CRtByteStreamT(*body) << createTime;
    return result;
}

int FMDecodeFileBody(CRtMessageBlock& body, FMFileInfo& info, uint32_t& createTime) {
    const int result = info.DecodeFileInfo(body);
    if (RT_SUCCEEDED(result))
        CRtByteStreamT(body) >> createTime;
    return result;
}

size_t FMCountSavedSlots(const std::vector<FMBlockEntry>& slots, uint32_t& size) {
    size = FM_INFO_COUNT_SIZE;
    size_t count = 0;
    while (count < slots.size() && count < FM_INFO_SLOTS_MAX &&
           size + FMEntrySize(slots[count]) <= FM_INFO_BLOCK_BODY_MAX)
        size += FMEntrySize(slots[count++]);
    return count;
}

int FMEncodeBlockBody(const std::vector<FMBlockEntry>& slots, CRtMessageChain& body,
                      uint32_t& left) {
    uint32_t size = 0;
    const size_t count = FMCountSavedSlots(slots, size);
    left = static_cast<uint32_t>(slots.size() - count);
    body = CRtMessageBlock::Create(size);
    if (!body)
        return RT_ERROR_FAILURE;
    CRtByteStreamT stream(*body);
    stream << static_cast<uint16_t>(count);
    for (size_t i = 0; i < count; ++i) {
        stream << slots[i].blockID;
        if (slots[i].blockID != 0)
            stream << slots[i].totalLen << slots[i].posInFile;
    }
    return RT_OK;
}

bool FMDecodeBlockBody(CRtMessageBlock& body, std::vector<FMBlockEntry>& slots) {
    CRtByteStreamT stream(body);
    uint16_t count = 0;
    stream >> count;
    slots.reserve(static_cast<size_t>(
        std::min<uint64_t>(count, body.GetChainedLength() / FM_INFO_EMPTY_SIZE)));
    for (uint32_t i = 0; i < count && stream.IsGood(); ++i) {
        FMBlockEntry entry;
        stream >> entry.blockID;
        if (entry.blockID != 0)
            stream >> entry.totalLen >> entry.posInFile;
        if (stream.IsGood())
            slots.push_back(entry);
        else if (entry.blockID != 0)
            // A length with the default offset 0 would name the bytes of another block.
            slots.push_back({entry.blockID, 0, 0});
    }
    return stream.IsGood();
}
