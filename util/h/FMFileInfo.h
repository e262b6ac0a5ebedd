// FMFileInfo: the description of a cached file, as its creator gives it and as it is stored.
#pragma once

#include <cstdint>

#include "FMFileID.h"
#include "RtExport.h"
#include "RtString.h"

class CRtMessageBlock;

/// Values of FMFileInfo::flag. Other bits are carried without meaning.
enum FMFileFlag : uint32_t {
    /// The file's data and information files are removed when it is closed.
    FM_FILE_TEMPORARY = 1,
    /// Housekeeping never counts the file as expired.
    FM_FILE_KEPT = 4,
};

/// A value; copying copies all fields.
struct RT_EXPORT FMFileInfo {
    uint32_t userValue = 0;          ///< the creator's; stored and restored, never interpreted
    FMFileID fileID = FMFileID_None; ///< must name a file when one is created
    /// Never interpreted. Shorter than 32767 bytes, or the information cannot be saved; at most 2010
    /// bytes, or it can be saved but not loaded again (the reader's buffer).
    CRtString name;
    uint32_t flag = 0;     ///< FMFileFlag
    uint32_t blockBeg = 0; ///< identifier of the block in slot 0; 1 or more, see below
    /// Slots of the block table: 0 or more than 8192 stands for 64; it grows as blocks are asked for.
    uint32_t num = 0;
    // Block identifier 0 cannot be stored: its entry would read as an empty slot. A file whose blockBeg
    // is 0 works, but block 0 is gone when the file is opened again.

    /// Append the fields to, or read them from, a chain. 0, or 10001 when the chain has no room for
    /// them, ends early, or the name is too long; a failed decoding leaves the fields it reached changed.
    int EncodeFileInfo(CRtMessageBlock& chain) const;
    int DecodeFileInfo(CRtMessageBlock& chain);
};
