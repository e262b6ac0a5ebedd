// What housekeeping removes: expired files, and the oldest files of a store that exceeds its disk budget. The same code
// decides for a dry run and for a run.
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "entry.h"

struct Budget {
    bool removeExpired = false;                              ///< judged in Entry::expiry
    uint64_t maxSize = std::numeric_limits<uint64_t>::max(); ///< bytes on disk of all cached files
    uint64_t minFree = 0;                                    ///< bytes available on the disk
    uint64_t available = std::numeric_limits<uint64_t>::max(); ///< bytes, before the run
};

struct Verdict {
    bool isRemoved = false;
    std::string reason; ///< why it was chosen
    std::string error;  ///< why it was chosen, but not removed
};

struct BudgetResult {
    std::vector<Verdict> verdicts; ///< for each entry
    uint64_t size = 0;             ///< bytes on disk of the remaining files
    uint64_t over = 0;             ///< bytes by which the budget is still exceeded
};

/// Removes an entry, or pretends to. Returns why it has failed; empty on success.
using Remover = std::function<std::string(const Entry&)>;

/// Chooses what to remove. If `remove` fails for a file, the next one is removed for it.
BudgetResult Reduce(const std::vector<Entry>& entries, const Budget& budget, const Remover& remove);
