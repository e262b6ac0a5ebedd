// The findings of the catalog about one cached file.
#pragma once

#include "FMCatalog.h"
#include "fmrules.h"

/// What the catalog knows of a block table besides its entries.
struct FMTableFacts {
    uint64_t slots = 0;       ///< of the table in memory
    uint64_t bytesBehind = 0; ///< in the block body after the last entry
};

/// Fills the states, the sums over the table and the findings of a file whose other members are complete.
void FMCheckCachedFile(FMCachedFile& file, const FMTableFacts& facts, int64_t now);
/// "1 block", "2 blocks".
CRtString FMCount(uint64_t number, const char* thing);
