// Checks an information file against its data file, by the rules of the library's loader.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "infofile.h"
#include "scan.h"

enum class SlotState {
    Empty,      ///< no block
    Stored,     ///< the data file contains all bytes of the block
    NoData,     ///< a block without bytes on disk
    Impossible, ///< an impossible range: loaded without data
    Beyond,     ///< ends past the data file: loaded, but reading fails
    Overlaps,   ///< shares bytes with another entry: loaded without data
    Outside,    ///< an identifier outside the table: not loaded
    Replaced,   ///< a later entry has the same identifier: not loaded
};
const char* StateText(SlotState state);

struct Finding {
    std::string what;   ///< "block 3 ends at byte 5000, the data file at 4000"
    std::string effect; ///< what the library does with it
    bool fault = true;  ///< false: a note; a sound cache can have it, too
};

struct Check {
    std::vector<Finding> findings;
    std::vector<SlotState> states; ///< one for each entry
    uint64_t present = 0;          ///< blocks that are Stored
    uint64_t bytes = 0;            ///< of all blocks with a possible range
    uint64_t slots = 0;            ///< up to the last one with a block
    bool loads = false;            ///< the library would open the file

    size_t Faults() const;
};

/// `file`: the parsed contents of `entry.info`.
Check CheckFile(const StoreEntry& entry, const InfoFile& file);
