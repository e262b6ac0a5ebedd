// show: the description, the block table and a map of one cached file.
#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "check.h"
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

struct Shown {
    StoreEntry entry;
    InfoFile file;
    Check check;
    Keeping keeping;
};

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

void AppendDescription(std::string& text, const Shown& shown, int64_t now) {
    const FMFileInfo& info = shown.file.info;
    const auto add = [&text](const char* what, const std::string& value) {
        text += what + value + "\n";
    };
    add("name          ", Printable(info.name.view()));
    add("identifier    ", ToString(FMFileIDToString(info.fileID)));
    add("created       ", TimeText(shown.file.createTime) + ", " +
                              Count(static_cast<uint64_t>(AgeInDays(shown.file, now)), "day") +
                              " ago");
    add("flags         ", FlagsText(info.flag));
    add("user value    ", std::to_string(info.userValue));
    add("table         ", Count(info.num, "slot") + " from block " + std::to_string(info.blockBeg));
    add("blocks        ", std::to_string(shown.check.present) + " of " +
                              std::to_string(shown.check.slots) + " stored, " +
                              SizeText(true, shown.check.bytes) + " in total");
}

// Slots without a block are summed up: there can be very many.
std::string BlocksText(const Shown& shown) {
    using Align = Table::Align;
    Table table(
        {{"BLOCK", Align::Right}, {"OFFSET", Align::Right}, {"LENGTH", Align::Right}, {"STATE"}});
    const uint64_t first = shown.file.info.blockBeg;
    size_t missing = 0;
    for (size_t i = 0; i < shown.file.slots.size(); ++i) {
        const FMBlockEntry& block = shown.file.slots[i];
        if (block.blockID == 0) {
            ++missing;
            continue;
        }
        if (missing > 0)
            table.Add({std::to_string(first + i - missing), "-", "-",
                       missing == 1 ? "missing" : "missing, to " + std::to_string(first + i - 1)});
        missing = 0;
        table.Add({std::to_string(block.blockID), std::to_string(block.posInFile),
                   std::to_string(block.totalLen), StateText(shown.check.states[i])});
    }
    return table.Text();
}

std::string Text(const Shown& shown, int64_t now) {
    std::string text;
    const bool described = shown.entry.HasInfo() && shown.file.fault.empty();
    if (described)
        AppendDescription(text, shown, now);
    else
        text += "identifier    " + shown.entry.stem + "\n";
    text += "data file     " + SizeText(shown.entry.HasData(), shown.entry.dataLength) + "\n";
    text += "information   " + SizeText(shown.entry.HasInfo(), shown.entry.infoLength) + "\n";
    text += "housekeeping  " + shown.keeping.Text() + "\n";
    if (!shown.check.loads)
        text += "not loaded    " + shown.check.findings.front().what + "\n";
    if (shown.check.slots > 0)
        text += "\n" + BlocksText(shown) + "\n" +
                DrawMap(shown.file, shown.check, {OutputWidth(), WantsColour()});
    if (const size_t faults = shown.check.Faults(); faults > 0)
        text += "\n" + Count(faults, "fault") + "; verify lists them\n";
    return text;
}

std::string JsonText(const Shown& shown) {
    Json json;
    const FMFileInfo& info = shown.file.info;
    json.BeginObject().Member("id", shown.entry.stem);
    if (shown.entry.HasInfo() && shown.file.fault.empty()) {
        json.Name("name", info.name.view());
        json.Member("describedID", FMFileIDToString(info.fileID).view());
        json.Member("created", shown.file.createTime).Member("flag", info.flag);
        json.Member("userValue", info.userValue).Member("firstBlock", info.blockBeg);
        json.Member("table", info.num);
    }
    json.Member("size", shown.check.bytes).Member("present", shown.check.present);
    json.Member("slots", shown.check.slots).Member("loads", shown.check.loads);
    json.Member("dataFile", shown.entry.dataLength).Member("infoFile", shown.entry.infoLength);
    json.Member("housekeeping", shown.keeping.Text());
    json.Member("faults", uint64_t{shown.check.Faults()}).Key("blocks").BeginArray();
    for (size_t i = 0; i < shown.check.states.size(); ++i) {
        const FMBlockEntry& block = shown.file.slots[i];
        if (block.blockID == 0)
            continue;
        json.BeginObject().Member("block", block.blockID).Member("offset", block.posInFile);
        json.Member("length", block.totalLen).Member("state", StateText(shown.check.states[i]));
        json.EndObject();
    }
    return json.EndArray().EndObject().Text();
}

int Show(const ShowOptions& options) {
    Shown shown;
    shown.entry = FindInStore(LocateStore(options), options.id);
    if (shown.entry.HasInfo())
        shown.file = InfoFile::Look(shown.entry.info);
    shown.check = CheckFile(shown.entry, shown.file);
    const int64_t now = CurrentTime();
    shown.keeping = JudgeKeeping(shown.entry, shown.file, options.days, now);
    Print(options.json ? JsonText(shown) : Text(shown, now));
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
