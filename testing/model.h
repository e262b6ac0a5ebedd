// The model of a cached file: what a program has written, and what the files on disk must therefore hold.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "testing/kit.h"

namespace sim {

struct Block {
    uint32_t length = 0;
    std::string bytes;      // the pieces that were accepted
    uint32_t version = 0;   // not 0: complete
    bool isLost = false;    // another program has changed the data file: a read may fail
    bool isUnsaved = false; // since the last flush
};

/// The versions of complete blocks.
using Saved = std::map<uint32_t, uint32_t>;

/// The bytes of one version of a block. The blocks of one load have one generation.
struct Version {
    uint32_t generation;
    std::string bytes;
};

/// A file identifier, the object that is open, and what is on disk.
struct File {
    FMFileID id;
    int lock = -1; // another server has the file open: a descriptor that holds its lock

    // --- The object. After the close: what the last one was.
    FileRef ref; // while it is open
    int attached = 0;
    uint32_t flag = 0;
    int64_t created = 0;     // seconds since 1970
    uint32_t generation = 0; // changes with each creation
    bool isChanged = false;  // since it was created, loaded or saved
    bool isDisplaced =
        false; // an earlier object without its path may live: housekeeping skips the path
    std::map<uint32_t, Block> table;

    // --- Changes by another program
    bool isHarmed = false;    // since the file was opened
    bool isRewritten = false; // harmed: the library may take it for the file of another server
    bool isForeign = false;   // the data file was replaced by one of the same length
    // A truncation may go unnoticed: the streams were closed, or a complete block was rewritten or removed.
    bool hidesTruncation = false;

    // --- On disk
    bool isKnown = true;       // a load finds exactly `disk`
    std::optional<Saved> disk; // null: it does not load
    Saved promised;            // what a load finds in any case
    uint32_t diskGeneration = 0;

    // --- Closed, and not all events have run since
    bool isSettled = true;
    std::optional<std::optional<Saved>> saving; // becomes `disk` if no fault happens
    Saved kept; // becomes `promised` at the next load: the library retries the stores and the table

    Saved Versions() const {
        Saved versions;
        for (const auto& [block, model] : table) {
            if (model.version != 0)
                versions[block] = model.version;
        }
        return versions;
    }
    bool IsTemporary() const { return (flag & FM_FILE_TEMPORARY) != 0; }
    bool IsOverPredecessor() const { return generation != diskGeneration; }

    void SetDisk(std::optional<Saved> saved) {
        isKnown = true;
        saving.reset();
        kept.clear();
        isForeign = isForeign && saved && !IsOverPredecessor();
        promised = saved.value_or(Saved());
        disk = std::move(saved);
        diskGeneration = generation;
    }
    void ForgetDisk() {
        isKnown = false;
        promised.clear();
        saving.reset();
        kept.clear();
    }
    /// The table of this object is on disk: it has overwritten that of a predecessor.
    void NoteTable() {
        isForeign = isForeign && (isHarmed || !IsOverPredecessor());
        diskGeneration = generation;
    }
    void BeginWrite(uint32_t blockID) {
        Block& block = table[blockID];
        isChanged = true;
        block.isUnsaved = true;
        hidesTruncation = hidesTruncation || block.version != 0;
        isRewritten = isRewritten || (isHarmed && block.version != 0);
        promised.erase(blockID);
        if (IsOverPredecessor()) // the older file is removed before the first store
            ForgetDisk();
    }
    void Harm(bool mayBeForeign) {
        ForgetDisk();
        isHarmed = true;
        isRewritten = isRewritten || mayBeForeign;
        for (auto& [block, model] : table)
            model.isLost = true;
    }
    /// The object is closed, displaced or gone.
    void Leave() {
        table.clear();
        ref.Reset();
        attached = 0;
        isChanged = isHarmed = isRewritten = hidesTruncation = false;
    }
};

} // namespace sim
