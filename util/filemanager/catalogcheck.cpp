#include "catalogcheck.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <unordered_map>

namespace {

std::string Text(const CRtString& text) { return std::string(text.view()); }
std::string Count(uint64_t number, const char* thing) { return Text(FMCount(number, thing)); }
std::string Name(const FMBlockEntry& block) { return "block " + std::to_string(block.blockID); }
uint64_t Begin(const FMBlockEntry& block) { return static_cast<uint64_t>(block.posInFile); }
uint64_t End(const FMBlockEntry& block) { return Begin(block) + block.totalLen; }

// Sizes above the limits of a file and a block, so at least 16 MiB.
std::string FormatSize(uint64_t bytes) {
    constexpr double mebibyte = 1 << 20;
    constexpr double gibibyte = 1 << 30;
    const bool isGibi = static_cast<double>(bytes) >= gibibyte;
    char text[64];
    std::snprintf(text, sizeof(text), "%.1f %s",
                  static_cast<double>(bytes) / (isGibi ? gibibyte : mebibyte),
                  isGibi ? "GiB" : "MiB");
    return text;
}

class Checker {
public:
    Checker(FMCachedFile& file, const FMTableFacts& facts) : m_file(file), m_facts(facts) {}

    void Run(int64_t now) {
        CheckFiles();
        if (!m_file.isDescribed || !m_file.infoFault.empty())
            return;
        CheckDescription(now);
        CheckTable();
        FindStates();
        FindOverlaps();
        FindUnowned();
    }

private:
    void Add(const std::string& what, const std::string& effect, bool isFault = true) {
        m_file.findings.push_back({CRtString(what), CRtString(effect), isFault});
    }
    void Note(const std::string& what, const std::string& effect) { Add(what, effect, false); }
    // While a file is open, its information file is older than its data file.
    void AddUnlessOpen(const std::string& what, const std::string& effect) {
        if (m_file.isOpenHere || m_file.isOpenElsewhere)
            Note(what, "written when the file is closed");
        else
            Add(what, effect);
    }

    void CheckFiles();
    void CheckDescription(int64_t now);
    void CheckTable();
    void FindStates();
    void AddState(const FMBlockEntry& block, FMSlotState state);
    void PlaceBlock(size_t index);
    void FindOverlaps();
    void FindUnowned();

    FMCachedFile& m_file;
    const FMTableFacts& m_facts;
    std::vector<FMOverlap> m_overlaps;
    std::unordered_map<uint32_t, size_t> m_taken; // by block: its last entry so far
};

void Checker::CheckFiles() {
    const bool isExamined = m_file.hasData || m_file.isDataSpecial;
    const std::string gone = isExamined ? "; housekeeping removes it" : "";
    if (m_file.fileID == FMFileID_None)
        Add("the name is not an identifier",
            isExamined ? "not loaded; housekeeping examines it" : "not loaded");
    if (m_file.isDataSpecial)
        Add("the data file is a link, a pipe or a device", "its blocks cannot be read");
    if (m_file.isUnreadable)
        Add("the information file " + Text(m_file.infoFault), "");
    else if (!m_file.hasInfo && !m_file.isDescribed)
        AddUnlessOpen("there is no information file", "not loaded" + gone);
    else if (!m_file.infoFault.empty())
        AddUnlessOpen("the information file " + Text(m_file.infoFault),
                      "not loaded" + (m_file.isDescribed ? "" : gone));
}

void Checker::CheckDescription(int64_t now) {
    const FMFileInfo& info = m_file.info;
    if (!(info.fileID == m_file.fileID) && m_file.isLoadable)
        Add("the description is that of " + Text(FMFileIDToString(info.fileID)),
            "a load by this name opens the other identifier");
    if (m_file.createTime == 0)
        Add("there is no creation time", "housekeeping removes the file as too old");
    else if (m_file.createTime > now)
        Note("the creation time is in the future", "housekeeping counts the file as new");
    if (info.flag & FM_FILE_TEMPORARY)
        Note("the file is temporary", "closing the file removes it, and so does housekeeping");
    if (m_file.dataLength > FM_FILE_BYTES_MAX)
        Note("the data file has " + FormatSize(m_file.dataLength),
             "can be used, but exceeds the limit of 1 GiB for a cached file");
}

void Checker::CheckTable() {
    if (!m_file.isTableComplete)
        Add("the block table ends early, after " + Count(m_file.entries.size(), "slot"),
            "later slots are loaded empty; a truncated entry is loaded without data");
    if (m_facts.bytesBehind > 0)
        Add("the block table has " + Count(m_facts.bytesBehind, "byte") + " after its last entry",
            "ignored");
    if (m_facts.slots < m_file.info.num)
        Note("the description has " + Count(m_file.info.num, "slot") +
                 ", more than an information file of this length can contain",
             "loaded with " + Count(m_facts.slots, "slot") + "; the table grows when needed");
}

void Checker::FindStates() {
    m_overlaps = FMFindOverlaps(m_file.entries);
    m_file.states = FMJudgeEntries(
        m_file.entries, {m_file.info.blockBeg, m_facts.slots, m_file.dataLength}, m_overlaps);
    for (size_t i = 0; i < m_file.entries.size(); ++i) {
        const FMBlockEntry& block = m_file.entries[i];
        const FMSlotState state = m_file.states[i];
        if (state == FMSlotState::NoBlock)
            continue;
        AddState(block, state);
        if (state != FMSlotState::Outside)
            PlaceBlock(i);
    }
    for (size_t i = 0; i < m_file.entries.size(); ++i) {
        const FMSlotState state = m_file.states[i];
        if (state == FMSlotState::Stored)
            ++m_file.storedBlocks;
        if (state == FMSlotState::Stored || state == FMSlotState::Beyond ||
            state == FMSlotState::Overlaps)
            m_file.blockBytes += m_file.entries[i].totalLen;
    }
}

void Checker::AddState(const FMBlockEntry& block, FMSlotState state) {
    if (state == FMSlotState::Outside)
        return Add(Name(block) + " is outside the table, which has " +
                       Count(m_facts.slots, "slot") + " from " +
                       std::to_string(m_file.info.blockBeg),
                   "not loaded");
    if (state == FMSlotState::Impossible) // a revoked entry, too: its block is being rewritten
        return AddUnlessOpen(Name(block) + " has an impossible range, offset " +
                                 std::to_string(block.posInFile) + ", length " +
                                 std::to_string(block.totalLen),
                             "loaded without data");
    if (block.totalLen > FM_BLOCK_BYTES_MAX)
        Note(Name(block) + " has " + FormatSize(block.totalLen),
             "can be used, but exceeds the limit of 16 MiB for a block");
    if (block.totalLen > 0 && End(block) > m_file.dataLength)
        Add(Name(block) + " ends at byte " + std::to_string(End(block)) +
                (m_file.hasData ? ", the data file at " + std::to_string(m_file.dataLength)
                                : ", and there is no data file"),
            state == FMSlotState::Beyond ? "loaded, but cannot be read" : "loaded without data");
}

void Checker::PlaceBlock(size_t index) {
    const FMBlockEntry& block = m_file.entries[index];
    const uint32_t slot = block.blockID - m_file.info.blockBeg;
    m_file.slots = std::max(m_file.slots, uint64_t{slot} + 1);
    m_file.highestBlock = std::max(m_file.highestBlock, block.blockID);
    const auto [known, isNew] = m_taken.emplace(block.blockID, index);
    if (!isNew) {
        Add(Name(block) + " has two entries", "the later entry is loaded");
        m_file.states[known->second] = FMSlotState::Replaced;
        known->second = index;
    } else if (slot != index) {
        Add(Name(block) + " is in the slot of block " +
                std::to_string(uint64_t{m_file.info.blockBeg} + index),
            "loaded into its own slot");
    }
}

void Checker::FindOverlaps() {
    for (const FMOverlap& overlap : m_overlaps) {
        const FMBlockEntry& block = m_file.entries[overlap.entry];
        const FMBlockEntry& earlier = m_file.entries[overlap.earlier];
        const auto isOutside = [this](size_t index) {
            return m_file.states[index] == FMSlotState::Outside;
        };
        const bool areBothLoaded = !isOutside(overlap.entry) && !isOutside(overlap.earlier);
        Add(Name(block) + " overlaps " + Name(earlier) + " by " +
                Count(std::min(End(earlier), End(block)) - Begin(block), "byte"),
            areBothLoaded ? "both are loaded without data" : "loaded without data");
    }
}

// A rewrite with another length leaves its old range unreferenced, so this is not damage.
void Checker::FindUnowned() {
    std::vector<std::pair<uint64_t, uint64_t>> ranges;
    for (size_t i = 0; i < m_file.entries.size(); ++i) {
        const FMSlotState state = m_file.states[i];
        if (state == FMSlotState::Stored || state == FMSlotState::Beyond ||
            state == FMSlotState::Overlaps)
            ranges.emplace_back(Begin(m_file.entries[i]), End(m_file.entries[i]));
    }
    std::ranges::sort(ranges);
    uint64_t end = 0;
    uint64_t owned = 0;
    for (const auto& [from, to] : ranges) {
        const uint64_t newFrom = std::max(end, from);
        const uint64_t newTo = std::min(to, m_file.dataLength);
        owned += newTo > newFrom ? newTo - newFrom : 0;
        end = std::max(end, to);
    }
    if (m_file.dataLength > owned && !m_file.isOpenHere && !m_file.isOpenElsewhere)
        Note(Count(m_file.dataLength - owned, "unreferenced byte") + " in the data file",
             "ignored");
}

} // namespace

CRtString FMCount(uint64_t number, const char* thing) {
    return CRtString(std::to_string(number) + " " + thing + (number == 1 ? "" : "s"));
}

void FMCheckCachedFile(FMCachedFile& file, const FMTableFacts& facts, int64_t now) {
    Checker(file, facts).Run(now);
}
