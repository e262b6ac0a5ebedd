#include "check.h"

#include <algorithm>
#include <unordered_map>

#include "failure.h"
#include "keeping.h"
#include "session.h"
#include "sizes.h"
#include "store.h"
#include "text.h"

namespace {

class Checker {
public:
    Checker(const StoreEntry& entry, const InfoFile& file) : m_entry(entry), m_file(file) {}

    Check Run() {
        if (!CheckFiles())
            return m_check;
        m_check.loads = !(m_entry.id == FMFileID_None);
        CheckDescription();
        CheckTable();
        FindStates();
        CheckRanges();
        return m_check;
    }

private:
    void Add(const std::string& what, const std::string& effect, bool fault = true) {
        m_check.findings.push_back({what, effect, fault});
    }
    void Note(const std::string& what, const std::string& effect) { Add(what, effect, false); }
    static std::string Name(const FMBlockEntry& block) {
        return "block " + std::to_string(block.blockID);
    }
    static uint64_t Begin(const FMBlockEntry& block) {
        return static_cast<uint64_t>(block.posInFile);
    }
    static uint64_t End(const FMBlockEntry& block) { return Begin(block) + block.totalLen; }

    // False if there is no table to check.
    bool CheckFiles();
    void CheckDescription();
    void CheckTable();
    void FindStates();
    SlotState StateOf(const FMBlockEntry& block, uint64_t slots);
    uint64_t TableSize() const { return FMSlotsToLoad(m_file.info.num, m_entry.infoLength); }
    void CheckRanges();
    void CheckUnowned(uint64_t owned);

    const StoreEntry& m_entry;
    const InfoFile& m_file;
    Check m_check;
};

bool Checker::CheckFiles() {
    if (m_entry.id == FMFileID_None)
        Add("the name is not an identifier",
            m_entry.HasData() ? "not loaded; housekeeping examines it" : "not loaded");
    const std::string gone = m_entry.HasData() ? "; housekeeping removes it" : "";
    if (!m_entry.HasInfo())
        Add("there is no information file", "not loaded" + gone);
    else if (!m_file.fault.empty())
        Add("the information file " + m_file.fault, m_file.readable ? "not loaded" + gone : "");
    else if (!m_file.tableFault.empty())
        Add("the information file " + m_file.tableFault, "not loaded");
    return m_entry.HasInfo() && m_file.fault.empty() && m_file.tableFault.empty();
}

void Checker::CheckDescription() {
    const FMFileInfo& info = m_file.info;
    if (!(info.fileID == m_entry.id) && m_check.loads)
        Add("the description is that of " + ToString(FMFileIDToString(info.fileID)),
            "a load by this name opens the other identifier");
    if (m_file.createTime == 0)
        Add("there is no creation time", "housekeeping removes the file as too old");
    else if (m_file.createTime > CurrentTime())
        Note("the creation time is in the future", "housekeeping counts the file as new");
    if (info.flag & FM_FILE_TEMPORARY)
        Note("the file is temporary", "closing the file removes it, and so does housekeeping");
    if (m_entry.dataLength > CACHED_FILE_MAX)
        Note("the data file has " + FormatSize(m_entry.dataLength),
             "can be used, but exceeds the limit of 1 GiB for a cached file");
}

void Checker::CheckTable() {
    if (!m_file.whole)
        Add("the block table ends early, after " + Count(m_file.slots.size(), "slot"),
            "later slots are loaded empty; a truncated entry is loaded without data");
    if (m_file.behindTable > 0)
        Add("the block table has " + Count(m_file.behindTable, "byte") + " after its last entry",
            "ignored");
    if (TableSize() < m_file.info.num)
        Note("the description has " + Count(m_file.info.num, "slot") +
                 ", more than an information file of this length can contain",
             "loaded with " + Count(TableSize(), "slot") + "; the table grows when needed");
}

void Checker::FindStates() {
    const uint64_t slots = TableSize();
    std::unordered_map<uint32_t, size_t> taken;
    m_check.states.assign(m_file.slots.size(), SlotState::Empty);
    for (size_t i = 0; i < m_file.slots.size(); ++i) {
        const FMBlockEntry& block = m_file.slots[i];
        if (block.blockID == 0)
            continue;
        m_check.states[i] = StateOf(block, slots);
        if (m_check.states[i] == SlotState::Outside)
            continue;
        const uint32_t slot = block.blockID - m_file.info.blockBeg;
        m_check.slots = std::max(m_check.slots, uint64_t{slot} + 1);
        const auto [known, isNew] = taken.emplace(block.blockID, i);
        if (!isNew) {
            Add(Name(block) + " has two entries", "the later entry is loaded");
            m_check.states[known->second] = SlotState::Replaced;
            known->second = i;
        } else if (slot != i) {
            Add(Name(block) + " is in the slot of block " +
                    std::to_string(uint64_t{m_file.info.blockBeg} + i),
                "loaded into its own slot");
        }
    }
}

SlotState Checker::StateOf(const FMBlockEntry& block, uint64_t slots) {
    const uint32_t first = m_file.info.blockBeg;
    if (block.blockID < first || block.blockID - first >= slots) {
        Add(Name(block) + " is outside the table, which has " + Count(slots, "slot") + " from " +
                std::to_string(first),
            "not loaded");
        return SlotState::Outside;
    }
    if (!FMIsEntryPossible(block)) {
        Add(Name(block) + " has an impossible range, offset " + std::to_string(block.posInFile) +
                ", length " + std::to_string(block.totalLen),
            "loaded without data");
        return SlotState::Impossible;
    }
    if (block.totalLen == 0)
        return SlotState::NoData;
    if (block.totalLen > CACHED_BLOCK_MAX)
        Note(Name(block) + " has " + FormatSize(block.totalLen),
             "can be used, but exceeds the limit of 16 MiB for a block");
    if (End(block) > m_entry.dataLength) {
        Add(Name(block) + " ends at byte " + std::to_string(End(block)) +
                (m_entry.HasData() ? ", the data file at " + std::to_string(m_entry.dataLength)
                                   : ", and there is no data file"),
            "loaded, but cannot be read");
        return SlotState::Beyond;
    }
    return SlotState::Stored;
}

// Sorted by offset, a block overlaps an earlier one exactly if it overlaps the one with the furthest end so
// far.
void Checker::CheckRanges() {
    std::vector<size_t> placed;
    for (size_t i = 0; i < m_check.states.size(); ++i) {
        const SlotState state = m_check.states[i];
        if (state != SlotState::Stored && state != SlotState::Beyond)
            continue;
        m_check.bytes += m_file.slots[i].totalLen;
        placed.push_back(i);
    }
    std::sort(placed.begin(), placed.end(), [this](size_t a, size_t b) {
        const FMBlockEntry& first = m_file.slots[a];
        const FMBlockEntry& second = m_file.slots[b];
        return first.posInFile != second.posInFile ? first.posInFile < second.posInFile
                                                   : first.blockID < second.blockID;
    });
    size_t furthest = 0;
    uint64_t end = 0;
    uint64_t owned = 0; // bytes of the data file
    for (const size_t i : placed) {
        const FMBlockEntry& block = m_file.slots[i];
        if (Begin(block) < end) {
            Add(Name(block) + " overlaps " + Name(m_file.slots[furthest]) + " by " +
                    Count(std::min(end, End(block)) - Begin(block), "byte"),
                "both are loaded without data");
            m_check.states[i] = m_check.states[furthest] = SlotState::Overlaps;
        }
        const uint64_t from = std::max(end, Begin(block));
        const uint64_t to = std::min(End(block), m_entry.dataLength);
        owned += to > from ? to - from : 0;
        if (End(block) > end) {
            furthest = i;
            end = End(block);
        }
    }
    m_check.present = static_cast<uint64_t>(
        std::count(m_check.states.begin(), m_check.states.end(), SlotState::Stored));
    CheckUnowned(owned);
}

// A rewrite with another length leaves its old range unreferenced, so this is not damage.
void Checker::CheckUnowned(uint64_t owned) {
    if (const uint64_t unowned = m_entry.dataLength - owned; unowned > 0)
        Note(Count(unowned, "byte") + " of the data file are unreferenced", "ignored");
}

} // namespace

const char* StateText(SlotState state) {
    switch (state) {
    case SlotState::Empty:
        return "missing";
    case SlotState::Stored:
        return "stored";
    case SlotState::NoData:
        return "no data";
    case SlotState::Impossible:
        return "impossible range";
    case SlotState::Beyond:
        return "beyond the data file";
    case SlotState::Overlaps:
        return "overlaps another block";
    case SlotState::Outside:
        return "outside the table";
    case SlotState::Replaced:
        break;
    }
    return "replaced by a later entry";
}

size_t Check::Faults() const {
    return static_cast<size_t>(std::count_if(findings.begin(), findings.end(),
                                             [](const Finding& finding) { return finding.fault; }));
}

Check CheckFile(const StoreEntry& entry, const InfoFile& file) {
    return Checker(entry, file).Run();
}
