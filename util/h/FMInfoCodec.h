/// @defgroup infofile Information file
/// Conversion between the two bodies of an information file and memory, and the numbers of the layout. The
/// library itself uses these functions; they are exported for tools that inspect a cache. None of them
/// opens a file; all are thread-safe.
///
/// ```
/// 0        4        8               8+L1     12+L1            12+L1+L2
/// +--------+--------+---------------+--------+----------------+
/// | "IFSD" |   L1   | file body, L1 |   L2   | block body, L2 |   (all integers little-endian)
/// +--------+--------+---------------+--------+----------------+
/// ```
/// @{
#pragma once

#include <cstdint>
#include <vector>

#include "FMFileInfo.h"
#include "RtExport.h"
#include "RtMessageBlock.h"

/// The magic bytes at offset 0, and their number.
///@{
constexpr char FM_INFO_MAGIC[] = "IFSD";
constexpr uint32_t FM_INFO_MAGIC_SIZE = 4;
///@}
/// Offset of L1.
constexpr uint32_t FM_INFO_LENGTH_OFFSET = 4;
/// Offset of the file body.
constexpr uint32_t FM_INFO_BODY_OFFSET = 8;
/// Bytes of L1, and of L2.
constexpr uint32_t FM_INFO_LENGTH_SIZE = 4;
/// Bytes in the block body: of its slot count, of an empty slot, of a slot with a block.
///@{
constexpr uint32_t FM_INFO_COUNT_SIZE = 2;
constexpr uint32_t FM_INFO_EMPTY_SIZE = 4;
constexpr uint32_t FM_INFO_ENTRY_SIZE = 16;
///@}
/// A load refuses a longer file body (bytes).
constexpr uint32_t FM_INFO_FILE_BODY_MAX = 2048;
/// A load refuses a longer block body (bytes); a save omits the slots beyond it.
constexpr uint32_t FM_INFO_BLOCK_BODY_MAX = 819200;
/// In place of L2: the block body is being written or has been invalidated; it does not load.
constexpr uint32_t FM_INFO_LENGTH_INVALID = 0xFFFFFFFF;
/// Most slots that a block body can hold: its count has 16 bits.
constexpr uint32_t FM_INFO_SLOTS_MAX = 65535;
/// Largest possible end of a block in the data file (bytes, 1 TiB).
constexpr int64_t FM_INFO_OFFSET_MAX = int64_t{1} << 40;
/// Most slots of a block table in memory.
constexpr uint32_t FM_TABLE_SLOTS_MAX = 1'048'576;

/// One stored slot of the block table.
struct FMBlockEntry {
    uint32_t blockID = 0;  ///< 0: the slot is empty
    uint32_t totalLen = 0; ///< length in bytes; 0: a block without bytes on disk
    int64_t posInFile = 0; ///< offset of the bytes in the data file
    /// Compares all members.
    bool operator==(const FMBlockEntry&) const = default;
};

/// Returns whether a data file could hold the range of the entry: the offset is not negative, and the end
/// is not beyond #FM_INFO_OFFSET_MAX.
RT_EXPORT bool FMIsEntryPossible(const FMBlockEntry& entry);

/// Returns the bytes that the entry takes in the block body.
inline uint32_t FMEntrySize(const FMBlockEntry& entry) {
    return entry.blockID == 0 ? FM_INFO_EMPTY_SIZE : FM_INFO_ENTRY_SIZE;
}

/// Convert L1 or L2 to its bytes and back.
///@{
RT_EXPORT void FMPutLength(uint32_t length, uint8_t (&bytes)[FM_INFO_LENGTH_SIZE]);
RT_EXPORT uint32_t FMGetLength(const uint8_t (&bytes)[FM_INFO_LENGTH_SIZE]);
///@}

/// Returns how many of the `num` slots of a stored description a load allocates. Up to 8192 are taken as
/// they are. More are limited to the number of slots that an information file of this length could list, so
/// that a damaged number allocates nothing. The table grows again when it needs the other slots.
/// @param num FMFileInfo::num as it was stored.
/// @param infoFileLength length of the information file in bytes.
RT_EXPORT uint32_t FMSlotsToLoad(uint32_t num, uint64_t infoFileLength);

/// Encodes the file body.
/// @param info the description.
/// @param createTime creation time in seconds since 1970-01-01 00:00:00 UTC.
/// @param[out] body the encoded bytes.
/// @retval RT_OK
/// @retval RT_ERROR_FAILURE out of memory, or the name has #STRING_LEN_MAX bytes or more.
RT_EXPORT int FMEncodeFileBody(const FMFileInfo& info, uint32_t createTime, CRtMessageChain& body);

/// Decodes a file body.
/// @param body the encoded bytes; its read pointer moves.
/// @param[out] info the description; partly changed after a failure.
/// @param[in,out] createTime the creation time; unchanged if the body ends before it, which is not a failure.
/// @retval RT_OK
/// @retval RT_ERROR_FAILURE the description is truncated or its name too long.
RT_EXPORT int FMDecodeFileBody(CRtMessageBlock& body, FMFileInfo& info, uint32_t& createTime);

/// Encodes the block body.
/// @param slots one entry for each slot, in the order of the table.
/// @param[out] body the encoded bytes.
/// @param[out] left how many slots at the end were omitted because they exceed #FM_INFO_SLOTS_MAX or
///     #FM_INFO_BLOCK_BODY_MAX.
/// @retval RT_OK
/// @retval RT_ERROR_FAILURE out of memory.
RT_EXPORT int FMEncodeBlockBody(const std::vector<FMBlockEntry>& slots, CRtMessageChain& body,
                                uint32_t& left);

/// Decodes a block body. Of a truncated body, the complete entries are returned; the entry at the cut keeps
/// its identifier, with length 0 and offset 0.
/// @param body the encoded bytes; its read pointer moves.
/// @param[out] slots the entries are appended, one for each slot.
/// @returns whether the body was whole.
RT_EXPORT bool FMDecodeBlockBody(CRtMessageBlock& body, std::vector<FMBlockEntry>& slots);
/// @}
