// An information file against its data file, by the rules that the library loads them with.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "infofile.h"
#include "scan.h"

enum class SlotState {
    Empty,      ///< no block
    Stored,     ///< a block with all of its bytes
    NoData,     ///< a block whose bytes are not stored
    Impossible, ///< a place that no data file has: loaded without data
    Beyond,     ///< ends behind the data file: loaded, and fails when it is read
    Outside,    ///< an identifier outside the table: not loaded
    Replaced,   ///< a later entry has the same identifier: not loaded
};
const char* StateText(SlotState state);

struct Finding {
    std::string what;   ///< "block 3 ends at byte 5000, the data file at 4000"
    std::string effect; ///< what the library does with it
    bool fault = true;  ///< false for what a sound cache may have as well
};

struct Check {
    std::vector<Finding> findings;
    std::vector<SlotState> states; ///< of the entries, one for one
    uint64_t present = 0;          ///< blocks that are Stored
    uint64_t bytes = 0;            ///< of all blocks that have a place, there or not
    uint64_t slots = 0;            ///< up to the last one that is taken
    bool loads = false;            ///< the library would open the file

    size_t Faults() const;
};

/// `file` is what `entry.info` holds.
Check CheckFile(const StoreEntry& entry, const InfoFile& file);
