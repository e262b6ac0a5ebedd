#include "budget.h"

#include <algorithm>
#include <tuple>

namespace {

// Files that the library does not keep or cannot load go first.
bool IsWorthless(const Entry& entry) { return entry.IsTemporary() || !entry.file.isDescribed; }

// An information file that this user cannot read may have the flag "kept".
bool MayRemove(const Entry& entry) {
    return !entry.IsOpen() && !entry.IsKept() && !entry.file.isUnreadable;
}

std::string BudgetReason(const Entry& entry) {
    if (entry.IsTemporary())
        return "budget: temporary";
    return entry.file.isDescribed ? "budget: oldest" : "budget: " + entry.trouble;
}

class Reduction {
public:
    Reduction(const std::vector<Entry>& entries, const Budget& budget, const Remover& remove)
        : m_entries(entries), m_budget(budget), m_remove(remove), m_available(budget.available) {
        m_result.verdicts.resize(entries.size());
        for (const Entry& entry : entries)
            m_result.size += entry.onDisk;
    }

    BudgetResult Run() {
        for (size_t i = 0; m_budget.removeExpired && i < m_entries.size(); ++i) {
            if (m_entries[i].expiry.when == FMExpiry::When::NextRun)
                Remove(i, ToString(m_entries[i].expiry.reason));
        }
        for (const size_t i : Candidates()) {
            if (Over() == 0)
                break;
            Remove(i, BudgetReason(m_entries[i]));
        }
        m_result.over = Over();
        return std::move(m_result);
    }

private:
    uint64_t Over() const {
        const auto excess = [](uint64_t value, uint64_t limit) {
            return value > limit ? value - limit : 0;
        };
        return std::max(excess(m_result.size, m_budget.maxSize),
                        excess(m_budget.minFree, m_available));
    }

    std::vector<size_t> Candidates() const {
        std::vector<size_t> indices;
        for (size_t i = 0; i < m_entries.size(); ++i) {
            const Verdict& verdict = m_result.verdicts[i];
            if (!verdict.isRemoved && verdict.error.empty() && MayRemove(m_entries[i]))
                indices.push_back(i);
        }
        const auto key = [this](size_t i) {
            const Entry& entry = m_entries[i];
            return std::tuple(!IsWorthless(entry), entry.file.createTime, i);
        };
        std::sort(indices.begin(), indices.end(),
                  [&key](size_t a, size_t b) { return key(a) < key(b); });
        return indices;
    }

    void Remove(size_t index, const std::string& reason) {
        Verdict& verdict = m_result.verdicts[index];
        verdict.reason = reason;
        verdict.error = m_remove(m_entries[index]);
        verdict.isRemoved = verdict.error.empty();
        if (!verdict.isRemoved)
            return;
        const uint64_t freed = m_entries[index].onDisk;
        m_result.size -= freed;
        m_available += std::min(freed, std::numeric_limits<uint64_t>::max() - m_available);
    }

    const std::vector<Entry>& m_entries;
    const Budget& m_budget;
    const Remover& m_remove;
    uint64_t m_available;
    BudgetResult m_result;
};

} // namespace

BudgetResult Reduce(const std::vector<Entry>& entries, const Budget& budget,
                    const Remover& remove) {
    return Reduction(entries, budget, remove).Run();
}
