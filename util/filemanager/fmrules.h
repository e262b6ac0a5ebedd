// Rules about cached files on disk that the loader, housekeeping and the catalog share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "FMCatalog.h"
#include "os/RtOs.h"

/// Whether `name` is a file name with that extension and a stem before it. A name with a separator is none: POSIX
/// allows a backslash in a name, and the path would lead elsewhere.
bool FMTakeStem(const CRtString& name, const char* extension, CRtString& stem);

/// Whether the path names a directory and not a link to one. `stamp`: that of the path.
bool FMIsDirectory(const CRtString& path, const RtOs::FileStamp& stamp);

// --- The description ----------------------------------------------------------------------------

enum class FMDescription : uint8_t { Sound, Damaged, WithoutID, TooManySlots, NameTooLong };
/// Decodes a file body. Anything but Sound: the library could not save this description and load it again.
FMDescription FMReadDescription(CRtMessageBlock& body, FMFileInfo& info, uint32_t& createTime);

// --- The block table ----------------------------------------------------------------------------

inline int64_t FMEndOf(const FMBlockEntry& entry) { return entry.posInFile + entry.totalLen; }
inline bool FMNamesBytes(const FMBlockEntry& entry) {
    return entry.totalLen > 0 && FMIsEntryPossible(entry);
}

/// Two entries, by their index, whose ranges overlap: at most one of them is valid.
struct FMOverlap {
    size_t entry;
    size_t earlier; ///< begins before `entry` or at the same offset
};
/// Every entry that overlaps another one is in a pair; sorted by the offset of `entry`.
std::vector<FMOverlap> FMFindOverlaps(const std::vector<FMBlockEntry>& slots);

/// What the entries of a table are checked against.
struct FMTableLimits {
    uint32_t firstBlock; ///< FMFileInfo::blockBeg
    uint64_t slots;      ///< of the table in memory
    uint64_t dataLength; ///< of the data file in bytes
};
/// The state of each entry; never FMSlotState::Replaced.
std::vector<FMSlotState> FMJudgeEntries(const std::vector<FMBlockEntry>& slots,
                                        const FMTableLimits& limits,
                                        const std::vector<FMOverlap>& overlaps);

// --- Housekeeping -------------------------------------------------------------------------------

enum class FMLifetime : uint8_t { Temporary, Kept, Current, Expired };
/// `lastDay`: the last full day of its age on which a file is not removed.
FMLifetime FMJudgeLifetime(uint32_t flag, uint32_t createTime, int64_t lastDay, int64_t now);
