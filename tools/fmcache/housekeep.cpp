// housekeep: runs the library's housekeeping now, or shows what it would remove.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "failure.h"
#include "houserun.h"
#include "json.h"
#include "keeping.h"
#include "platform.h"
#include "progress.h"
#include "scan.h"
#include "sizes.h"
#include "store.h"
#include "table.h"
#include "text.h"
#include "verbs.h"

namespace fs = std::filesystem;

namespace {

struct HousekeepOptions : StoreOptions {
    uint16_t days = 0;
    bool dryRun = false;
};

struct Judged {
    FMCachedFile file; // without its table: a store can have many
    FMExpiry expiry;
    bool gone = false;

    bool IsDue() const { return expiry.when == FMExpiry::When::NextRun; }
    std::string Name() const { return ToString(file.info.name); }
    fs::path Info(const fs::path& store) const { return store / (ToString(file.stem) + ".sdi"); }
    fs::path Data(const fs::path& store) const { return store / (ToString(file.stem) + ".sdd"); }
};

std::vector<Judged> JudgeAll(const fs::path& store, uint16_t days, int64_t now) {
    const StoreListing listing = ListStore(store);
    Progress progress("reading", listing.stems.size(), Progress::Unit::Files);
    std::vector<Judged> files;
    for (const CRtString& stem : listing.stems) {
        CheckStop();
        if (std::optional<FMCachedFile> file = Describe(store, stem)) {
            file->entries = {};
            file->states = {};
            const FMExpiry expiry = FMJudgeExpiry(*file, days, now);
            files.push_back({std::move(*file), expiry});
        }
        progress.Add(1);
    }
    return files;
}

// The library opens information files for reading and writing, and keeps a file whose information it cannot
// open. A run that would skip files for this reason is refused.
void RequireAccess(const std::vector<Judged>& files, const fs::path& store) {
    if (!CanWriteInto(store))
        throw Failure("no write access to " + Quoted(store.string()) + ": " + ErrorText(errno));
    for (const Judged& file : files) {
        if (file.file.hasInfo && file.file.hasData && !CanWrite(file.Info(store)))
            throw Failure("cannot open " + Quoted(file.Info(store).string()) +
                          " for reading and writing: " + ErrorText(errno) +
                          "; housekeeping would skip the file");
    }
}

void Run(const HousekeepOptions& options, std::vector<Judged>& files, const fs::path& store) {
    RequireAccess(files, store);
    const auto dataFiles = std::count_if(files.begin(), files.end(),
                                         [](const Judged& file) { return file.file.hasData; });
    RunHousekeeping(options.dir, options.days, static_cast<uint64_t>(dataFiles));
    for (Judged& file : files) {
        std::error_code error;
        file.gone = !fs::exists(file.Info(store), error) && !fs::exists(file.Data(store), error);
    }
}

// The ACTION column.
const char* ActionText(const Judged& file, bool dryRun) {
    if (dryRun)
        return file.IsDue() ? "remove" : "keep";
    if (file.gone)
        return "removed";
    return file.IsDue() ? "NOT REMOVED" : "kept";
}

std::string ReasonText(const FMExpiry& expiry, int64_t now) {
    const std::string reason = ToString(expiry.reason);
    return expiry.when == FMExpiry::When::Later ? reason + ", due " + KeepingText(expiry, now)
                                                : reason;
}

struct Totals {
    uint64_t files = 0;
    uint64_t bytes = 0;
    uint64_t left = 0; // due, but not removed
};

Totals SumUp(const std::vector<Judged>& files, bool dryRun) {
    Totals totals;
    for (const Judged& file : files) {
        if (dryRun ? file.IsDue() : file.gone) {
            ++totals.files;
            totals.bytes += LengthOf(file.file);
        }
        totals.left += !dryRun && file.IsDue() && !file.gone ? 1 : 0;
    }
    return totals;
}

std::string TextOf(const std::vector<Judged>& files, const Totals& totals, bool dryRun,
                   int64_t now) {
    Table table({{"IDENTIFIER"}, {"SIZE", Table::Align::Right}, {"ACTION"}, {"REASON"}, {"NAME"}});
    for (const Judged& file : files)
        table.Add({Printable(file.file.stem.view()), FormatSize(LengthOf(file.file)),
                   ActionText(file, dryRun), ReasonText(file.expiry, now), Printable(file.Name())});
    return table.Text() + std::to_string(totals.files) + " of " + Count(files.size(), "file") +
           (dryRun ? " would be removed, " : " removed, ") + FormatSize(totals.bytes) + "\n";
}

std::string JsonOf(const std::vector<Judged>& files, const Totals& totals, bool dryRun) {
    Json json;
    json.BeginObject().Member("dryRun", dryRun).Key("files").BeginArray();
    for (const Judged& file : files)
        json.BeginObject()
            .Name("id", file.file.stem.view())
            .Name("name", file.Name())
            .Member("size", LengthOf(file.file))
            .Member("due", file.IsDue())
            .Member("gone", file.gone)
            .Member("reason", file.expiry.reason.view())
            .EndObject();
    json.EndArray().Member("removed", totals.files).Member("bytes", totals.bytes);
    return json.Member("left", totals.left).EndObject().Text();
}

int Housekeep(const HousekeepOptions& options) {
    const fs::path store = LocateStore(options);
    const int64_t now = CurrentTime();
    std::vector<Judged> files = JudgeAll(store, options.days, now);
    if (!options.dryRun)
        Run(options, files, store);
    const Totals totals = SumUp(files, options.dryRun);
    Print(options.json ? JsonOf(files, totals, options.dryRun)
                       : TextOf(files, totals, options.dryRun, now));
    if (totals.left > 0)
        throw Failure(Count(totals.left, "file") + " could not be removed");
    return 0;
}

} // namespace

void AddHousekeep(CLI::App& app, Action& chosen) {
    const auto options = std::make_shared<HousekeepOptions>();
    CLI::App* housekeep = app.add_subcommand(
        "housekeep", "Remove expired files, as each server of this cache does every 24 hours.");
    AddCacheOptions(*housekeep, *options);
    AddDaysOption(*housekeep, options->days)->required();
    housekeep->add_flag("--dry-run", options->dryRun,
                        "remove nothing; show what would be removed, and why");
    housekeep->callback([options, &chosen] { chosen = [options] { return Housekeep(*options); }; });
}
