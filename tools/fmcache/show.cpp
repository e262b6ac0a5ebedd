// show: the description, the block table and a map of one cached file.
#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "failure.h"
#include "json.h"
#include "keeping.h"
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
    case FMSlotState::Empty:
        return "missing";
    case FMSlotState::Stored:
        return "stored";
    case FMSlotState::NoData:
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

std::string TimeText(uint32_t seconds) {
    if (seconds == 0)
        return "unknown";
    const std::chrono::sys_seconds time{std::chrono::seconds(seconds)};
    const auto day = std::chrono::floor<std::chrono::days>(time);
    const std::chrono::year_month_day date(day);
    const std::chrono::hh_mm_ss clock(time - day);
    char text[64];
    std::snprintf(text, sizeof(text), "%d-%02u-%02u %02d:%02d:%02d UTC",
                  static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
                  static_cast<unsigned>(date.day()), static_cast<int>(clock.hours().count()),
                  static_cast<int>(clock.minutes().count()),
                  static_cast<int>(clock.seconds().count()));
    return text;
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

std::string Text(const FMCachedFile& file, const FMExpiry& expiry, int64_t now) {
    std::string text;
    if (file.isDescribed)
        AppendDescription(text, file, now);
    else
        text += "identifier    " + ToString(file.stem) + "\n";
    text += "data file     " + SizeText(file.hasData, file.dataLength) + "\n";
    text += "information   " + SizeText(file.hasInfo, file.infoLength) + "\n";
    text += "housekeeping  " + KeepingText(expiry, now) + "\n";
    if (!file.isLoadable)
        text += "not loaded    " + Trouble(file) + "\n";
    if (file.slots > 0)
        text += "\n" + BlocksText(file) + "\n" + DrawMap(file, {OutputWidth(), WantsColour()});
    if (const size_t faults = CountFaults(file); faults > 0)
        text += "\n" + Count(faults, "fault") + "; verify lists them\n";
    return text;
}

std::string JsonText(const FMCachedFile& file, const FMExpiry& expiry, int64_t now) {
    Json json;
    const FMFileInfo& info = file.info;
    json.BeginObject().Member("id", file.stem.view());
    if (file.isDescribed) {
        json.Name("name", info.name.view());
        json.Member("describedID", FMFileIDToString(info.fileID).view());
        json.Member("created", file.createTime).Member("flag", info.flag);
        json.Member("userValue", info.userValue).Member("firstBlock", info.blockBeg);
        json.Member("table", info.num);
    }
    json.Member("size", file.blockBytes).Member("present", file.storedBlocks);
    json.Member("slots", file.slots).Member("loads", file.isLoadable);
    json.Member("dataFile", file.dataLength).Member("infoFile", file.infoLength);
    json.Member("housekeeping", KeepingText(expiry, now));
    json.Member("faults", uint64_t{CountFaults(file)}).Key("blocks").BeginArray();
    for (size_t i = 0; i < file.states.size(); ++i) {
        const FMBlockEntry& block = file.entries[i];
        if (block.blockID == 0)
            continue;
        json.BeginObject().Member("block", block.blockID).Member("offset", block.posInFile);
        json.Member("length", block.totalLen).Member("state", StateText(file.states[i]));
        json.EndObject();
    }
    return json.EndArray().EndObject().Text();
}

int Show(const ShowOptions& options) {
    const FMCachedFile file = FindInStore(LocateStore(options), options.id);
    const int64_t now = CurrentTime();
    const FMExpiry expiry = FMJudgeExpiry(file, options.days, now);
    Print(options.json ? JsonText(file, expiry, now) : Text(file, expiry, now));
    return 0;
}

} // namespace

void AddShow(CLI::App& app, Action& chosen) {
    const auto options = std::make_shared<ShowOptions>();
    CLI::App* show = app.add_subcommand(
        "show", "Show the description, the block table and a map of the blocks of one file.");
    AddLookOptions(*show, *options);
    AddDaysOption(*show, options->days)->capture_default_str();
    show->add_option("ID", options->id, "identifier of the file; the braces may be omitted")
        ->type_name("")
        ->required();
    show->callback([options, &chosen] { chosen = [options] { return Show(*options); }; });
}
