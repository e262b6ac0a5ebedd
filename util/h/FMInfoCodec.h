/// @defgroup infofile Information file
/// The layout of an information file, and functions that encode and decode its two bodies. The library uses
/// these functions; they are exported for tools that inspect a cache. They open no file and work on any
/// thread.
///
/// The *file body* contains the description (FMFileInfo) and the creation time, the *block body* the block
/// table. L1 and L2 are the lengths of these bodies in bytes. docs/file-format.md describes the fields of the
/// bodies.
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
/// Offset of L1 in bytes.
constexpr uint32_t FM_INFO_LENGTH_OFFSET = 4;
/// Offset of the file body in bytes.
constexpr uint32_t FM_INFO_BODY_OFFSET = 8;
/// Size of L1, and of L2, in bytes.
constexpr uint32_t FM_INFO_LENGTH_SIZE = 4;
/// Sizes in the block body, in bytes: the slot count at its start, an empty slot, and a slot with a block.
///@{
constexpr uint32_t FM_INFO_COUNT_SIZE = 2;
constexpr uint32_t FM_INFO_EMPTY_SIZE = 4;
constexpr uint32_t FM_INFO_ENTRY_SIZE = 16;
///@}
/// Bytes of a file body besides its name.
constexpr uint32_t FM_INFO_FILE_BODY_FIXED = 38;
/// A load refuses a longer file body (bytes), and a description that would be longer when it is saved.
constexpr uint32_t FM_INFO_FILE_BODY_MAX = 2048;
/// Maximum length of the name of a cached file in bytes (FMFileInfo::name).
constexpr uint32_t FM_INFO_NAME_MAX = FM_INFO_FILE_BODY_MAX - FM_INFO_FILE_BODY_FIXED;
/// Maximum length of a block body in bytes: a load refuses a longer one, and a save omits the slots that
/// exceed it.
constexpr uint32_t FM_INFO_BLOCK_BODY_MAX = 819200;
/// Value of L2 while the block body is being written, and after it has been invalidated. A load refuses it.
constexpr uint32_t FM_INFO_LENGTH_INVALID = 0xFFFFFFFF;
/// Maximum number of slots of a block body, whose slot count has 16 bits.
constexpr uint32_t FM_INFO_SLOTS_MAX = 65535;
/// Maximum number of blocks of a block body without empty slots.
constexpr uint32_t FM_INFO_BLOCKS_MAX =
    (FM_INFO_BLOCK_BODY_MAX - FM_INFO_COUNT_SIZE) / FM_INFO_ENTRY_SIZE;
/// Largest end of a block's range in the data file, in bytes (1 TiB).
constexpr int64_t FM_INFO_OFFSET_MAX = int64_t{1} << 40;
/// Maximum number of slots of a block table in memory.
constexpr uint32_t FM_TABLE_SLOTS_MAX = 1'048'576;

/// One stored slot of the block table.
struct FMBlockEntry {
    uint32_t blockID = 0;  ///< 0: the slot is empty
    uint32_t totalLen = 0; ///< length in bytes; 0: the block has no bytes on disk
    int64_t posInFile = 0; ///< offset in the data file, in bytes
    /// Compares all members.
    bool operator==(const FMBlockEntry&) const = default;
};

/// Returns whether the range of the entry is possible: its offset is not negative, and its end is at most
/// #FM_INFO_OFFSET_MAX.
RT_EXPORT bool FMIsEntryPossible(const FMBlockEntry& entry);

/// Returns the size of the entry in the block body, in bytes.
inline uint32_t FMEntrySize(const FMBlockEntry& entry) {
    return entry.blockID == 0 ? FM_INFO_EMPTY_SIZE : FM_INFO_ENTRY_SIZE;
}

/// Convert L1 or L2 to little-endian bytes and back.
///@{
RT_EXPORT void FMPutLength(uint32_t length, uint8_t (&bytes)[FM_INFO_LENGTH_SIZE]);
RT_EXPORT uint32_t FMGetLength(const uint8_t (&bytes)[FM_INFO_LENGTH_SIZE]);
///@}

/// Returns how many slots a load allocates for a stored description. If `num` is at most 8192, it is `num`.
/// If `num` is larger, it is bounded by the larger of 8192 and `infoFileLength` / #FM_INFO_EMPTY_SIZE, so
/// that a damaged `num` causes no large allocation. IFMFile::GetBlock lets the table grow when needed.
/// @param num FMFileInfo::num as it was stored.
/// @param infoFileLength length of the information file in bytes.
RT_EXPORT uint32_t FMSlotsToLoad(uint32_t num, uint64_t infoFileLength);

/// Encodes the file body.
/// @param info the description.
/// @param createTime creation time in seconds since 1970-01-01 00:00:00 UTC.
/// @param[out] body the encoded bytes.
/// @retval RT_OK
/// @retval RT_ERROR_FAILURE out of memory, or the name has #STRING_LEN_MAX bytes or more; do not use
///     `body` then.
RT_EXPORT int FMEncodeFileBody(const FMFileInfo& info, uint32_t createTime, CRtMessageChain& body);

/// Decodes a file body.
/// @param body the encoded bytes; the read pointer moves.
/// @param[out] info the description; after a failure some fields may have changed.
/// @param[in,out] createTime the creation time; unchanged if the body ends before it, which is not a failure.
/// @retval RT_OK
/// @retval RT_ERROR_FAILURE the body ends before the end of the description, or the length of the name is
///     #STRING_LEN_MAX or more.
RT_EXPORT int FMDecodeFileBody(CRtMessageBlock& body, FMFileInfo& info, uint32_t& createTime);

/// Encodes the block body.
/// @param slots one entry for each slot, in the order of the table.
/// @param[out] body the encoded bytes.
/// @param[out] left the number of slots omitted at the end, because the table exceeds #FM_INFO_SLOTS_MAX
///     slots or its body #FM_INFO_BLOCK_BODY_MAX bytes.
/// @retval RT_OK
/// @retval RT_ERROR_FAILURE out of memory.
RT_EXPORT int FMEncodeBlockBody(const std::vector<FMBlockEntry>& slots, CRtMessageChain& body,
                                uint32_t& left);

/// Decodes a block body. If the body is truncated, the entries before that point are decoded. An entry that
/// is truncated after its identifier keeps the identifier, and gets length 0 and offset 0.
/// @param body the encoded bytes; the read pointer moves.
/// @param[out] slots one entry for each slot is appended.
/// @returns true if the body contains as many slots as its slot count says; false if it is truncated.
RT_EXPORT bool FMDecodeBlockBody(CRtMessageBlock& body, std::vector<FMBlockEntry>& slots);
/// @}
