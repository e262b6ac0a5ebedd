#include "map.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

#include "text.h"

namespace {

constexpr size_t ROWS_MAX = 12;
constexpr size_t CELLS_MIN = 8; // also on a narrow terminal

enum Kind : uint8_t { MISSING, SOME, THERE, FAULTY };

struct Look {
    char cell;
    const char* colour;
};
constexpr std::array<Look, 4> LOOKS{
    {{'.', "\033[2m"}, {'+', "\033[33m"}, {'#', "\033[32m"}, {'!', "\033[31m"}}};
constexpr char PLAIN[] = "\033[0m";

Kind KindOf(FMSlotState state) {
    if (state == FMSlotState::Stored)
        return THERE;
    const bool isFaulty = state == FMSlotState::Impossible || state == FMSlotState::Beyond ||
                          state == FMSlotState::Overlaps;
    return isFaulty ? FAULTY : MISSING;
}

// By slot of the loaded table, not by position in the information file.
std::vector<Kind> KindsBySlot(const FMCachedFile& file) {
    std::vector<Kind> kinds(static_cast<size_t>(file.slots), MISSING); // see FM_TABLE_SLOTS_MAX
    for (size_t i = 0; i < file.states.size(); ++i) {
        const FMSlotState state = file.states[i];
        if (state != FMSlotState::NoBlock && state != FMSlotState::Outside &&
            state != FMSlotState::Replaced)
            kinds[file.entries[i].blockID - file.info.blockBeg] = KindOf(state);
    }
    return kinds;
}

// A cell with one damaged block is damaged.
Kind Sum(const Kind* first, const Kind* last) {
    if (std::find(first, last, FAULTY) != last)
        return FAULTY;
    const auto there = std::count(first, last, THERE);
    if (there == 0)
        return MISSING;
    return there == last - first ? THERE : SOME;
}

void AppendCells(std::string& text, const std::vector<Kind>& cells, bool colour) {
    for (size_t i = 0; i < cells.size(); ++i) {
        if (colour && (i == 0 || cells[i] != cells[i - 1]))
            text += std::string(i == 0 ? "" : PLAIN) + LOOKS[cells[i]].colour;
        text += LOOKS[cells[i]].cell;
    }
    if (colour && !cells.empty())
        text += PLAIN;
}

std::string Legend(uint64_t blocksPerCell, bool colour) {
    std::string text;
    const auto add = [&](Kind kind, const char* meaning) {
        text += text.empty() ? "" : "   ";
        AppendCells(text, {kind}, colour);
        text += meaning;
    };
    add(THERE, " stored");
    if (blocksPerCell > 1)
        add(SOME, " partly stored");
    add(MISSING, " missing");
    add(FAULTY, " damaged");
    return text + "   1 cell: " + Count(blocksPerCell, "block") + "\n";
}

} // namespace

std::string MapCells(const FMCachedFile& file, size_t most) {
    const std::vector<Kind> kinds = KindsBySlot(file);
    const size_t perCell = (kinds.size() + most - 1) / most;
    std::string cells;
    for (size_t at = 0; at < kinds.size(); at += perCell)
        cells +=
            LOOKS[Sum(kinds.data() + at, kinds.data() + std::min(at + perCell, kinds.size()))].cell;
    return cells;
}

std::string DrawMap(const FMCachedFile& file, const MapStyle& style) {
    const std::vector<Kind> kinds = KindsBySlot(file);
    if (kinds.empty())
        return "";
    const size_t label = std::to_string(uint64_t{file.info.blockBeg} + kinds.size()).size();
    const size_t width =
        std::max<size_t>(CELLS_MIN, style.width > label + 2 ? style.width - label - 2 : 0);
    const size_t perCell = (kinds.size() + width * ROWS_MAX - 1) / (width * ROWS_MAX);
    std::string text;
    for (size_t first = 0; first < kinds.size(); first += width * perCell) {
        std::vector<Kind> cells;
        for (size_t at = first; at < kinds.size() && cells.size() < width; at += perCell)
            cells.push_back(
                Sum(kinds.data() + at, kinds.data() + std::min(at + perCell, kinds.size())));
        const std::string number = std::to_string(uint64_t{file.info.blockBeg} + first);
        text += std::string(label - number.size(), ' ') + number + "  ";
        AppendCells(text, cells, style.colour);
        text += "\n";
    }
    return text + Legend(perCell, style.colour);
}
