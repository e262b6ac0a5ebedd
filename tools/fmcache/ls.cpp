// ls: one line for each cached file.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "check.h"
#include "failure.h"
#include "json.h"
#include "keeping.h"
#include "platform.h"
#include "progress.h"
#include "scan.h"
#include "sizes.h"
#include "table.h"
#include "text.h"
#include "verbs.h"

namespace {

struct LsOptions : StoreOptions {
    uint16_t days = KEEP_DAYS_DEFAULT;
    std::string sort = "id";
};

// The values of one line. Block tables are not kept: a store can have many.
struct Line {
    StoreEntry entry;
    bool described = false; // the description is readable
    std::string trouble;    // why the library does not load the file; or empty
    std::string name;
    uint32_t flag = 0;
    uint32_t createTime = 0;
    int64_t age = 0;
    uint64_t bytes = 0;
    uint64_t present = 0;
    uint64_t slots = 0; // up to the last one with a block
    size_t faults = 0;
    Keeping keeping;
};

Line MakeLine(const StoreEntry& entry, uint16_t days, int64_t now) {
    const InfoFile file = entry.HasInfo() ? InfoFile::Look(entry.info) : InfoFile();
    const Check check = CheckFile(entry, file);
    Line line;
    line.entry = entry;
    line.described = entry.HasInfo() && file.fault.empty();
    if (!check.loads)
        line.trouble = check.findings.front().what;
    line.name = ToString(file.info.name);
    line.flag = file.info.flag;
    line.createTime = file.createTime;
    line.age = AgeInDays(file, now);
    line.bytes = check.bytes;
    line.present = check.present;
    line.slots = check.slots;
    line.faults = check.Faults();
    line.keeping = JudgeKeeping(entry, file, days, now);
    return line;
}

std::string FlagsText(const Line& line) {
    std::string text;
    const auto add = [&text](bool set, const char* word) {
        if (set)
            text += (text.empty() ? "" : ",") + std::string(word);
    };
    add(line.flag & FM_FILE_TEMPORARY, "temporary");
    add(line.flag & FM_FILE_KEPT, "kept");
    add(line.faults > 0, "damaged");
    return text.empty() ? "-" : text;
}

void Sort(std::vector<Line>& lines, const std::string& by) {
    std::stable_sort(lines.begin(), lines.end(), [&by](const Line& a, const Line& b) {
        if (by == "name")
            return a.name < b.name;
        if (by == "size")
            return a.bytes > b.bytes;
        return by == "age" && a.createTime < b.createTime;
    });
}

std::string TableText(const std::vector<Line>& lines) {
    using Align = Table::Align;
    Table table({{"IDENTIFIER"},
                 {"SIZE", Align::Right},
                 {"BLOCKS", Align::Right},
                 {"AGE", Align::Right},
                 {"FLAGS"},
                 {"HOUSEKEEPING"},
                 {"NAME"}});
    for (const Line& line : lines) {
        const bool loads = line.trouble.empty();
        table.Add({Printable(line.entry.stem), loads ? FormatSize(line.bytes) : "-",
                   loads ? std::to_string(line.present) + "/" + std::to_string(line.slots) : "-",
                   line.described && line.createTime > 0 ? std::to_string(line.age) + "d" : "-",
                   FlagsText(line), line.keeping.Text(),
                   loads ? Printable(line.name) : "(" + Printable(line.trouble) + ")"});
    }
    return table.Text();
}

std::string TotalsText(const std::vector<Line>& lines, const StoreListing& listing) {
    uint64_t bytes = 0;
    uint64_t onDisk = 0;
    uint64_t damaged = 0;
    for (const Line& line : lines) {
        bytes += line.bytes;
        onDisk += line.entry.Length();
        damaged += line.faults > 0 ? 1 : 0;
    }
    std::string text = Count(lines.size(), "file") + ", " + FormatSize(bytes) + " in blocks, " +
                       FormatSize(onDisk) + " on disk";
    if (damaged > 0)
        text += ", " + std::to_string(damaged) + " damaged";
    if (!listing.foreign.empty())
        text += ", " + std::to_string(listing.foreign.size()) + " other entries";
    return text + "\n";
}

void WriteLine(Json& json, const Line& line) {
    json.BeginObject().Name("id", line.entry.stem);
    json.Member("size", line.bytes).Member("onDisk", line.entry.Length());
    json.Member("present", line.present).Member("slots", line.slots);
    if (line.described) {
        json.Name("name", line.name).Member("created", line.createTime);
        json.Member("ageDays", line.age);
        json.Member("temporary", (line.flag & FM_FILE_TEMPORARY) != 0);
        json.Member("kept", (line.flag & FM_FILE_KEPT) != 0);
    }
    json.Member("faults", uint64_t{line.faults});
    if (!line.trouble.empty())
        json.Member("unreadable", line.trouble);
    json.Key("housekeeping").BeginObject().Member("when", line.keeping.Word());
    if (line.keeping.when == Keeping::When::InDays)
        json.Member("days", line.keeping.days);
    json.Member("reason", line.keeping.reason).EndObject().EndObject();
}

std::string JsonText(const std::vector<Line>& lines, const StoreListing& listing) {
    Json json;
    json.BeginObject().Key("files").BeginArray();
    for (const Line& line : lines)
        WriteLine(json, line);
    json.EndArray().Key("others").BeginArray();
    for (const std::string& name : listing.foreign)
        json.BeginObject().Name("name", name).EndObject();
    return json.EndArray().EndObject().Text();
}

int Ls(const LsOptions& options) {
    const StoreListing listing = ListStore(LocateStore(options));
    const int64_t now = CurrentTime();
    std::vector<Line> lines;
    {
        Progress progress("reading", listing.entries.size(), Progress::Unit::Files);
        for (const StoreEntry& entry : listing.entries) {
            CheckStop();
            lines.push_back(MakeLine(entry, options.days, now));
            progress.Add(1);
        }
    }
    Sort(lines, options.sort);
    Print(options.json ? JsonText(lines, listing) : TableText(lines) + TotalsText(lines, listing));
    return 0;
}

} // namespace

void AddLs(CLI::App& app, Action& chosen) {
    const auto options = std::make_shared<LsOptions>();
    CLI::App* ls = app.add_subcommand("ls", "List the cached files.");
    AddLookOptions(*ls, *options);
    AddDaysOption(*ls, options->days)->capture_default_str();
    ls->add_option("--sort", options->sort,
                   "sort by id, name, size (largest first) or age (oldest first)")
        ->type_name("KEY")
        ->check(CLI::IsMember({"id", "name", "size", "age"}))
        ->capture_default_str();
    ls->callback([options, &chosen] { chosen = [options] { return Ls(*options); }; });
}
