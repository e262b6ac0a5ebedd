// FMTable: the description and the block table of a file, until they are on disk.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "FMInfoCodec.h"
#include "RtString.h"

/// The epoch of a disk entry until bytes are found missing from its data file.
constexpr uint32_t FM_FIRST_EPOCH = 1;

/// The number of slots that FMEncodeBlockBody encodes, because the format cannot hold the others. `size`: the bytes of
/// the body.
size_t FMCountSavedSlots(const std::vector<FMBlockEntry>& slots, uint32_t& size);

/// Entries name only bytes that are in the data file: a store that was pending at the close adds its entry
/// when it has succeeded.
struct FMTable {
    struct Awaited {
        uint32_t serial; ///< of the store
        uint32_t slot;
    };
    CRtString fileBody;
    std::vector<FMBlockEntry> slots;
    std::vector<Awaited> awaited;
    uint32_t epoch = 0; ///< of the disk entry, to which all of `slots` belong

    /// The bytes of `entry` are on disk: adds the entry.
    void Settle(uint32_t serial, const FMBlockEntry& entry, uint32_t current) {
        BeginEpoch(current);
        const auto it = std::ranges::find(awaited, serial, &Awaited::serial);
        if (it == awaited.end())
            return; // the block is not in the table
        slots[it->slot] = entry;
        awaited.erase(it);
    }
    /// Clears all ranges if `current` is a new epoch: the bytes of earlier epochs are lost.
    void BeginEpoch(uint32_t current) {
        if (epoch == current)
            return;
        epoch = current;
        for (FMBlockEntry& entry : slots)
            entry = {entry.blockID, 0, 0};
    }
};
