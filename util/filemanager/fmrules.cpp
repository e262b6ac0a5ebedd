#include "fmrules.h"

#include <algorithm>

#include "RtResult.h"

namespace {

constexpr int64_t SECONDS_PER_DAY = 86400;

// Most files are written sequentially: each entry begins where an earlier one ends, or behind it.
bool IsInOrder(const std::vector<FMBlockEntry>& slots) {
    int64_t end = 0;
    for (const FMBlockEntry& entry : slots) {
        if (!FMNamesBytes(entry))
            continue;
        if (entry.posInFile < end)
            return false;
        end = FMEndOf(entry);
    }
    return true;
}

FMSlotState JudgeEntry(const FMBlockEntry& entry, const FMTableLimits& limits) {
    if (entry.blockID == 0)
        return FMSlotState::NoBlock;
    if (entry.blockID < limits.firstBlock || entry.blockID - limits.firstBlock >= limits.slots)
        return FMSlotState::Outside;
    if (!FMIsEntryPossible(entry))
        return FMSlotState::Impossible;
    if (entry.totalLen == 0)
        return FMSlotState::Empty;
    return static_cast<uint64_t>(FMEndOf(entry)) > limits.dataLength ? FMSlotState::Beyond
                                                                     : FMSlotState::Stored;
}

} // namespace

bool FMTakeStem(const CRtString& name, const char* extension, CRtString& stem) {
    const CRtString suffix = extension;
    if (name.size() <= suffix.size() || !RtOs::HasExtension(name, suffix) ||
        RtOs::FindLastSeparator(name) != std::string_view::npos)
        return false;
    stem = name.Left(name.size() - suffix.size());
    return true;
}

bool FMIsDirectory(const CRtString& path, const RtOs::FileStamp& stamp) {
    return !stamp.exists && !stamp.isSpecial &&
           RtOs::GetEntryKind(path) == RtOs::EntryKind::Directory;
}

FMDescription FMReadDescription(CRtMessageBlock& body, FMFileInfo& info, uint32_t& createTime) {
    if (RT_FAILED(FMDecodeFileBody(body, info, createTime)))
        return FMDescription::Damaged;
    if (info.fileID == FMFileID_None)
        return FMDescription::WithoutID;
    if (info.num > FM_TABLE_SLOTS_MAX)
        return FMDescription::TooManySlots;
    if (info.name.size() > FM_INFO_NAME_MAX)
        return FMDescription::NameTooLong;
    return FMDescription::Sound;
}

// Sorted by offset, an entry overlaps an earlier one exactly if it overlaps the one with the furthest end so far.
std::vector<FMOverlap> FMFindOverlaps(const std::vector<FMBlockEntry>& slots) {
    if (IsInOrder(slots))
        return {};
    std::vector<size_t> order;
    order.reserve(slots.size());
    for (size_t i = 0; i < slots.size(); ++i) {
        if (FMNamesBytes(slots[i]))
            order.push_back(i);
    }
    std::ranges::sort(
        order, {}, [&slots](size_t i) { return std::pair(slots[i].posInFile, slots[i].blockID); });
    std::vector<FMOverlap> overlaps;
    int64_t furthestEnd = 0;
    size_t furthest = 0;
    for (const size_t i : order) {
        if (slots[i].posInFile < furthestEnd)
            overlaps.push_back({i, furthest});
        const int64_t end = FMEndOf(slots[i]);
        if (end > furthestEnd) {
            furthestEnd = end;
            furthest = i;
        }
    }
    return overlaps;
}

std::vector<FMSlotState> FMJudgeEntries(const std::vector<FMBlockEntry>& slots,
                                        const FMTableLimits& limits,
                                        const std::vector<FMOverlap>& overlaps) {
    std::vector<FMSlotState> states(slots.size());
    std::ranges::transform(slots, states.begin(), [&limits](const FMBlockEntry& entry) {
        return JudgeEntry(entry, limits);
    });
    const auto mark = [&states](size_t index) {
        if (states[index] != FMSlotState::Outside)
            states[index] = FMSlotState::Overlaps;
    };
    for (const FMOverlap& overlap : overlaps) {
        mark(overlap.entry);
        mark(overlap.earlier);
    }
    return states;
}

// A creation time in the future, from a clock that was set back, counts as new.
int64_t FMAgeInDays(uint32_t createTime, int64_t now) {
    return now > createTime ? (now - createTime) / SECONDS_PER_DAY : 0;
}

FMLifetime FMJudgeLifetime(uint32_t flag, uint32_t createTime, int64_t lastDay, int64_t now) {
    if (flag & FM_FILE_TEMPORARY)
        return FMLifetime::Temporary;
    if (flag & FM_FILE_KEPT)
        return FMLifetime::Kept;
    return FMAgeInDays(createTime, now) > lastDay ? FMLifetime::Expired : FMLifetime::Current;
}
