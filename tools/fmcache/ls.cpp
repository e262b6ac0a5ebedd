// ls: one line for each cached file.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "entry.h"
#include "failure.h"
#include "json.h"
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

std::string FlagsText(const Entry& entry) {
    const std::string text = entry.IsTemporary() ? "temporary" : "";
    return entry.IsKept() ? text + (text.empty() ? "kept" : ",kept") : text.empty() ? "-" : text;
}

void Sort(std::vector<Entry>& entries, const std::string& by) {
    std::stable_sort(entries.begin(), entries.end(), [&by](const Entry& a, const Entry& b) {
        if (by == "name")
            return a.file.info.name.view() < b.file.info.name.view();
        if (by == "size")
            return a.file.blockBytes > b.file.blockBytes;
        return by == "age" && a.file.createTime < b.file.createTime;
    });
}

std::string TableText(const std::vector<Entry>& entries, int64_t now) {
    using Align = Table::Align;
    Table table({{"IDENTIFIER"},
                 {"SIZE", Align::Right},
                 {"BLOCKS", Align::Right},
                 {"AGE", Align::Right},
                 {"STATE"},
                 {"FLAGS"},
                 {"HOUSEKEEPING"},
                 {"NAME"}});
    for (const Entry& entry : entries) {
        const FMCachedFile& file = entry.file;
        const bool loads = file.isLoadable;
        table.Add(
            {Printable(file.stem.view()), loads ? FormatSize(file.blockBytes) : "-",
             loads ? std::to_string(file.storedBlocks) + "/" + std::to_string(file.slots) : "-",
             file.isDescribed && file.createTime > 0
                 ? std::to_string(FMAgeInDays(file.createTime, now)) + "d"
                 : "-",
             StateWord(entry.state), FlagsText(entry), ExpiryText(entry.expiry, now),
             loads ? Printable(entry.Name()) : "(" + Printable(entry.trouble) + ")"});
    }
    return table.Text();
}

std::string TotalsText(const std::vector<Entry>& entries, const StoreListing& listing,
                       uint16_t days) {
    uint64_t bytes = 0;
    uint64_t onDisk = 0;
    std::array<uint64_t, 4> states{}; // by FileState
    for (const Entry& entry : entries) {
        bytes += entry.file.blockBytes;
        onDisk += entry.onDisk;
        ++states[static_cast<size_t>(entry.state)];
    }
    std::string text = Count(entries.size(), "file") + ", " + FormatSize(bytes) + " in blocks, " +
                       FormatSize(onDisk) + " on disk";
    for (const FileState state : {FileState::Open, FileState::Damaged, FileState::Unreadable}) {
        const uint64_t number = states[static_cast<size_t>(state)];
        text += number > 0 ? ", " + std::to_string(number) + " " + StateWord(state) : "";
    }
    if (!listing.foreign.empty())
        text += ", " + Count(listing.foreign.size(), "other entry");
    return text + "\n" + RuleText(days) + "\n";
}

int Ls(LsOptions& options) {
    const std::filesystem::path store = LocateStore(options);
    const StoreListing listing = ListStore(store);
    const int64_t now = CurrentTime();
    std::vector<Entry> entries = ReadEntries(store, listing, options.days, now);
    Sort(entries, options.sort);
    if (!options.json) {
        Print(TableText(entries, now) + TotalsText(entries, listing, options.days));
        return STATUS_DONE;
    }
    Json json{{"files", Json::array()}};
    for (const Entry& entry : entries)
        json["files"].push_back(ToJson(entry, now));
    AddOthers(json, listing);
    PrintJson(json);
    return STATUS_DONE;
}

} // namespace

void AddLs(CLI::App& app, Action& chosen) {
    const auto options = std::make_shared<LsOptions>();
    CLI::App* ls = app.add_subcommand("ls", "List the cached files.");
    AddLookOptions(*ls, *options);
    AddDaysOption(*ls, options->days)->capture_default_str();
    ls->add_option("--sort", options->sort,
                   "sort by id, name, size (largest first) or age (oldest first)")
        ->type_name("KEY:{id,name,size,age}")
        ->check([](const std::string& text) {
            const bool isKey = CLI::IsMember({"id", "name", "size", "age"})(text).empty();
            return isKey ? "" : Quoted(text) + " is not one of id, name, size and age";
        })
        ->capture_default_str();
    ls->callback([options, &chosen] { chosen = [options] { return Ls(*options); }; });
}
