// ls: one line for each cached file.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

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

// The values of one line. A store can have many.
struct Line {
    FMCachedFile file;   // without its table and findings
    std::string trouble; // why the library does not load the file; or empty
    std::string name;
    int64_t age = 0;
    size_t faults = 0;
    FMExpiry expiry;
};

Line MakeLine(FMCachedFile file, uint16_t days, int64_t now) {
    Line line;
    line.trouble = Trouble(file);
    line.name = ToString(file.info.name);
    line.age = FMAgeInDays(file.createTime, now);
    line.faults = CountFaults(file);
    line.expiry = FMJudgeExpiry(file, days, now);
    file.entries = {};
    file.states = {};
    file.findings = {};
    line.file = std::move(file);
    return line;
}

std::string FlagsText(const Line& line) {
    std::string text;
    const auto add = [&text](bool set, const char* word) {
        if (set)
            text += (text.empty() ? "" : ",") + std::string(word);
    };
    add(line.file.info.flag & FM_FILE_TEMPORARY, "temporary");
    add(line.file.info.flag & FM_FILE_KEPT, "kept");
    add(line.faults > 0, "damaged");
    return text.empty() ? "-" : text;
}

void Sort(std::vector<Line>& lines, const std::string& by) {
    std::stable_sort(lines.begin(), lines.end(), [&by](const Line& a, const Line& b) {
        if (by == "name")
            return a.name < b.name;
        if (by == "size")
            return a.file.blockBytes > b.file.blockBytes;
        return by == "age" && a.file.createTime < b.file.createTime;
    });
}

std::string TroubleText(const Line& line) {
    return line.trouble == OPEN_ELSEWHERE ? line.trouble : "(" + Printable(line.trouble) + ")";
}

std::string TableText(const std::vector<Line>& lines, int64_t now) {
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
        table.Add(
            {Printable(line.file.stem.view()), loads ? FormatSize(line.file.blockBytes) : "-",
             loads ? std::to_string(line.file.storedBlocks) + "/" + std::to_string(line.file.slots)
                   : "-",
             line.file.isDescribed && line.file.createTime > 0 ? std::to_string(line.age) + "d"
                                                               : "-",
             FlagsText(line), KeepingText(line.expiry, now),
             loads ? Printable(line.name) : TroubleText(line)});
    }
    return table.Text();
}

std::string TotalsText(const std::vector<Line>& lines, const StoreListing& listing) {
    uint64_t bytes = 0;
    uint64_t onDisk = 0;
    uint64_t damaged = 0;
    for (const Line& line : lines) {
        bytes += line.file.blockBytes;
        onDisk += LengthOf(line.file);
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

void WriteLine(Json& json, const Line& line, int64_t now) {
    json.BeginObject().Name("id", line.file.stem.view());
    json.Member("size", line.file.blockBytes).Member("onDisk", LengthOf(line.file));
    json.Member("present", line.file.storedBlocks).Member("slots", line.file.slots);
    if (line.file.isDescribed) {
        json.Name("name", line.name).Member("created", line.file.createTime);
        json.Member("ageDays", line.age);
        json.Member("temporary", (line.file.info.flag & FM_FILE_TEMPORARY) != 0);
        json.Member("kept", (line.file.info.flag & FM_FILE_KEPT) != 0);
    }
    json.Member("faults", uint64_t{line.faults});
    if (!line.trouble.empty())
        json.Member("unreadable", line.trouble);
    json.Key("housekeeping").BeginObject().Member("when", KeepingWord(line.expiry));
    if (line.expiry.when == FMExpiry::When::Later)
        json.Member("days", DaysLeft(line.expiry, now));
    json.Member("reason", line.expiry.reason.view()).EndObject().EndObject();
}

std::string JsonText(const std::vector<Line>& lines, const StoreListing& listing, int64_t now) {
    Json json;
    json.BeginObject().Key("files").BeginArray();
    for (const Line& line : lines)
        WriteLine(json, line, now);
    json.EndArray().Key("others").BeginArray();
    for (const std::string& name : listing.foreign)
        json.BeginObject().Name("name", name).EndObject();
    return json.EndArray().EndObject().Text();
}

int Ls(const LsOptions& options) {
    const std::filesystem::path store = LocateStore(options);
    const StoreListing listing = ListStore(store);
    const int64_t now = CurrentTime();
    std::vector<Line> lines;
    {
        Progress progress("reading", listing.stems.size(), Progress::Unit::Files);
        for (const CRtString& stem : listing.stems) {
            CheckStop();
            if (std::optional<FMCachedFile> file = Describe(store, stem))
                lines.push_back(MakeLine(std::move(*file), options.days, now));
            progress.Add(1);
        }
    }
    Sort(lines, options.sort);
    Print(options.json ? JsonText(lines, listing, now)
                       : TableText(lines, now) + TotalsText(lines, listing));
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
