// The two bodies of an information file, to bytes and back, and the numbers of its layout: what the
// library itself uses, open to tools that look at a cache. Nothing here touches a file.
//
//   0        4        8               8+L1     12+L1            12+L1+L2
//   +--------+--------+---------------+--------+----------------+
//   | "IFSD" |   L1   | file body, L1 |   L2   | block body, L2 |   (all integers little-endian)
//   +--------+--------+---------------+--------+----------------+
#pragma once

#include <cstdint>
#include <vector>

#include "FMFileInfo.h"
#include "RtExport.h"
#include "RtMessageBlock.h"

/// The magic bytes at offset 0.
constexpr char FM_INFO_MAGIC[] = "IFSD";
constexpr uint32_t FM_INFO_MAGIC_SIZE = 4;
/// Offset of L1; the file body follows it.
constexpr uint32_t FM_INFO_LENGTH_OFFSET = 4;
constexpr uint32_t FM_INFO_BODY_OFFSET = 8;
/// L1 and L2 each.
constexpr uint32_t FM_INFO_LENGTH_SIZE = 4;
/// The block body: its count, an empty slot, a slot with a block.
constexpr uint32_t FM_INFO_COUNT_SIZE = 2;
constexpr uint32_t FM_INFO_EMPTY_SIZE = 4;
constexpr uint32_t FM_INFO_ENTRY_SIZE = 16;
/// A file body longer than this is refused when it is loaded.
constexpr uint32_t FM_INFO_FILE_BODY_MAX = 2048;
/// A block body longer than this is refused when it is loaded.
constexpr uint32_t FM_INFO_BLOCK_BODY_MAX = 819200;
/// In the place of L2: the block body is being written, or is not true any more.
constexpr uint32_t FM_INFO_LENGTH_INVALID = 0xFFFFFFFF;
/// The count of slots has 16 bits.
constexpr uint32_t FM_INFO_SLOTS_MAX = 65535;
/// No offset or end of a block lies beyond this (1 TiB).
constexpr int64_t FM_INFO_OFFSET_MAX = int64_t{1} << 40;
/// No block table has more slots than this.
constexpr uint32_t FM_TABLE_SLOTS_MAX = 1'048'576;

/// One slot of the block table as it is stored.
struct FMBlockEntry {
    uint32_t blockID = 0;  ///< 0 is an empty slot
    uint32_t totalLen = 0; ///< bytes; 0 for a block without data
    int64_t posInFile = 0; ///< offset of the bytes in the data file
    bool operator==(const FMBlockEntry&) const = default;
};

/// Whether some data file could hold the entry's bytes: no negative offset, no end beyond
/// FM_INFO_OFFSET_MAX.
RT_EXPORT bool FMIsEntryPossible(const FMBlockEntry& entry);

/// Bytes of the entry in the block body.
inline uint32_t FMEntrySize(const FMBlockEntry& entry) {
    return entry.blockID == 0 ? FM_INFO_EMPTY_SIZE : FM_INFO_ENTRY_SIZE;
}

/// L1 or L2 to its bytes and back.
RT_EXPORT void FMPutLength(uint32_t length, uint8_t (&bytes)[FM_INFO_LENGTH_SIZE]);
RT_EXPORT uint32_t FMGetLength(const uint8_t (&bytes)[FM_INFO_LENGTH_SIZE]);

/// How many of the `num` slots of a stored description a load makes: a table of more than 8192 has to
/// have an information file, of that length in bytes, that could speak of its slots. Those left out
/// are empty, and the table grows again when it needs them.
RT_EXPORT uint32_t FMSlotsToLoad(uint32_t num, uint64_t infoFileLength);

/// Makes the file body. 0, or 10001 when the description cannot be encoded.
RT_EXPORT int FMEncodeFileBody(const FMFileInfo& info, uint32_t createTime, CRtMessageChain& body);
/// Reads a file body. 0, or 10001 when the description cannot be read. A creation time that is missing
/// leaves `createTime` as it was.
RT_EXPORT int FMDecodeFileBody(CRtMessageBlock& body, FMFileInfo& info, uint32_t& createTime);

/// Makes the block body of the given slots. What the format cannot hold (slots from 65,535 on, bytes
/// from 819,200 on) is left out from the end; `left` tells how many slots were.
/// 0, or 10001 when the body could not be made.
RT_EXPORT int FMEncodeBlockBody(const std::vector<FMBlockEntry>& slots, CRtMessageChain& body,
                                uint32_t& left);
/// Reads a block body into one entry per slot. A body that ends early is no failure: an entry that is
/// cut short has no data, and the slots that are missing are left out. Answers whether the body was whole.
RT_EXPORT bool FMDecodeBlockBody(CRtMessageBlock& body, std::vector<FMBlockEntry>& slots);
