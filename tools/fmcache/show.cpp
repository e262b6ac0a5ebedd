// show: the description, the block table and a map of one cached file.
#include <CLI/CLI.hpp>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "entry.h"
#include "failure.h"
#include "json.h"
#include "map.h"
#include "platform.h"
#include "scan.h"
#include "sizes.h"
#include "table.h"
#include "text.h"
#include "verbs.h"

namespace {

struct ShowOptions : StoreOptions {
    uint16_t days = KEEP_DAYS_DEFAULT;
    std::string id;
};

const char* StateText(FMSlotState state) {
    switch (state) {
    case FMSlotState::NoBlock:
        return "missing";
    case FMSlotState::Stored:
        return "stored";
    case FMSlotState::Empty:
        return "no data";
    case FMSlotState::Impossible:
        return "impossible range";
    case FMSlotState::Beyond:
        return "beyond the data file";
    case FMSlotState::Overlaps:
        return "overlaps another block";
    case FMSlotState::Outside:
        return "outside the table";
    case FMSlotState::Replaced:
        break;
    }
    return "replaced by a later entry";
}

bool WantsColour() {
    const char* refused = std::getenv("NO_COLOR");
    return IsOutputTerminal() && (!refused || !*refused);
}

std::string SizeText(bool there, uint64_t length) {
    return there ? FormatSize(length) + " (" + std::to_string(length) + ")" : "missing";
}

std::string FlagsText(uint32_t flag) {
    std::string text = std::to_string(flag);
    if (flag & FM_FILE_TEMPORARY)
        text += ", temporary";
    if (flag & FM_FILE_KEPT)
        text += ", kept";
    return text;
}

void AppendDescription(std::string& text, const FMCachedFile& file, int64_t now) {
    const FMFileInfo& info = file.info;
    const auto add = [&text](const char* what, const std::string& value) {
        text += what + value + "\n";
    };
    add("name          ", Printable(info.name.view()));
    add("identifier    ", ToString(FMFileIDToString(info.fileID)));
    add("created       ",
        TimeText(file.createTime) + ", " +
            Count(static_cast<uint64_t>(FMAgeInDays(file.createTime, now)), "day") + " ago");
    add("flags         ", FlagsText(info.flag));
    add("user value    ", std::to_string(info.userValue));
    add("table         ", Count(info.num, "slot") + " from block " + std::to_string(info.blockBeg));
    add("blocks        ", std::to_string(file.storedBlocks) + " of " + std::to_string(file.slots) +
                              " stored, " + SizeText(true, file.blockBytes) + " in total");
}

// Slots without a block are summed up: there can be very many.
std::string BlocksText(const FMCachedFile& file) {
    using Align = Table::Align;
    Table table(
        {{"BLOCK", Align::Right}, {"OFFSET", Align::Right}, {"LENGTH", Align::Right}, {"STATE"}});
    const uint64_t first = file.info.blockBeg;
    size_t missing = 0;
    for (size_t i = 0; i < file.entries.size(); ++i) {
        const FMBlockEntry& block = file.entries[i];
        if (block.blockID == 0) {
            ++missing;
            continue;
        }
        if (missing > 0)
            table.Add({std::to_string(first + i - missing), "-", "-",
                       missing == 1 ? "missing" : "missing, to " + std::to_string(first + i - 1)});
        missing = 0;
        table.Add({std::to_string(block.blockID), std::to_string(block.posInFile),
                   std::to_string(block.totalLen), StateText(file.states[i])});
    }
    return table.Text();
}

std::string Text(const FMCachedFile& file, const Entry& entry, int64_t now) {
    std::string text;
    if (file.isDescribed)
        AppendDescription(text, file, now);
    else
        text += "identifier    " + Printable(file.stem.view()) + "\n";
    text += "data file     " + SizeText(file.hasData, file.dataLength) + "\n";
    text += "information   " + SizeText(file.hasInfo, file.infoLength) + "\n";
    text += "on disk       " + SizeText(true, entry.onDisk) + " allocated\n";
    text += "state         " + StateText(entry.state) + "\n";
    text += "housekeeping  " + ExpiryText(entry.expiry, now) + "\n";
    if (!file.isLoadable)
        text += "not loaded    " + Printable(file.findings.front().what.view()) + "\n";
    if (file.slots > 0)
        text += "\n" + BlocksText(file) + "\n" + DrawMap(file, {OutputWidth(), WantsColour()});
    if (entry.faults > 0)
        text += "\n" + Count(entry.faults, "fault") + "; verify lists them\n";
    return text;
}

Json ToJson(const FMCachedFile& file, const Entry& entry, int64_t now) {
    Json json = ToJson(entry, now);
    const FMFileInfo& info = file.info;
    if (file.isDescribed) {
        json["describedID"] = FMFileIDToString(info.fileID).view();
        json["flag"] = info.flag;
        json["userValue"] = info.userValue;
        json["firstBlock"] = info.blockBeg;
        json["table"] = info.num;
    }
    json["dataFile"] = file.dataLength;
    json["infoFile"] = file.infoLength;
    json["blocks"] = Json::array();
    for (size_t i = 0; i < file.states.size(); ++i) {
        const FMBlockEntry& block = file.entries[i];
        if (block.blockID != 0)
            json["blocks"].push_back({{"block", block.blockID},
                                      {"offset", block.posInFile},
                                      {"length", block.totalLen},
                                      {"state", StateText(file.states[i])}});
    }
    return json;
}

int Show(ShowOptions& options) {
    const std::filesystem::path store = LocateStore(options);
    const FMCachedFile file = FindInStore(store, options.id);
    const int64_t now = CurrentTime();
    const Entry entry = MakeEntry(store, file, options.days, now);
    if (options.json)
        PrintJson(ToJson(file, entry, now));
    else
        Print(Text(file, entry, now));
    return STATUS_DONE;
}

} // namespace

void AddShow(CLI::App& app, Action& chosen) {
    const auto options = std::make_shared<ShowOptions>();
    CLI::App* show = app.add_subcommand(
        "show", "Show the description, the block table and a map of the blocks of one file.");
    AddLookOptions(*show, *options);
    AddDaysOption(*show, options->days)->capture_default_str();
    AddIDArgument(*show, options->id, "identifier, its first characters, or the name of the file")
        ->required();
    show->callback([options, &chosen] { chosen = [options] { return Show(*options); }; });
}
