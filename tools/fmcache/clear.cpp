// clear: removes the whole store with the library's own clearing (clearDays 0).
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "entry.h"
#include "failure.h"
#include "json.h"
#include "platform.h"
#include "remove.h"
#include "scan.h"
#include "session.h"
#include "sizes.h"
#include "text.h"
#include "verbs.h"

namespace fs = std::filesystem;

namespace {

constexpr uint16_t CLEAR_NOW = 0;

struct ClearOptions : StoreOptions {
    bool force = false;
    bool yes = false;
};

struct Contents {
    uint64_t entries = 0; // cached files
    uint64_t files = 0;
    uint64_t bytes = 0;
};

// An entry that clear has not removed, and why.
struct Left {
    std::string name;
    std::string reason;
};

Contents SumUp(const std::vector<Entry>& entries) {
    Contents contents;
    for (const Entry& entry : entries) {
        contents.entries += 1;
        contents.files += (entry.file.hasInfo ? 1U : 0U) + (entry.file.hasData ? 1U : 0U);
        contents.bytes += LengthOf(entry.file);
    }
    return contents;
}

// Another process may have created files in the meantime.
Contents Difference(const Contents& had, const Contents& has) {
    return {had.entries - std::min(had.entries, has.entries),
            had.files - std::min(had.files, has.files), had.bytes - std::min(had.bytes, has.bytes)};
}

std::string SummaryText(const Contents& contents) {
    return Count(contents.entries, "cached file") + ", " + Count(contents.files, "file") +
           " on disk, " + FormatSize(contents.bytes);
}

// The library removes the directory with all its contents, so nothing is removed while an entry must stay.
std::vector<Left> FindObstacles(const StoreListing& listing, const std::vector<Entry>& entries,
                                bool force) {
    std::vector<Left> left;
    for (const Entry& entry : entries) {
        const std::string name = ToString(entry.file.stem);
        if (entry.IsOpen())
            left.push_back({name, IN_USE});
        else if (!force && entry.file.fileID == FMFileID_None)
            left.push_back({name, "not a cached file; --force removes it, too"});
    }
    for (const std::string& name : listing.foreign) {
        if (!force)
            left.push_back({name, "not a cached file; --force removes it, too"});
    }
    return left;
}

// Sets `has` to what is still there.
std::vector<Left> FindLeft(const fs::path& store, const Contents& had, Contents& has) {
    std::error_code error;
    if (!fs::exists(store, error))
        return {};
    const StoreListing listing = ListStore(store);
    const std::vector<Entry> entries =
        ReadEntries(store, listing, KEEP_DAYS_DEFAULT, CurrentTime());
    // A process that uses the directory holds a lock on it. The library then removes nothing.
    has = SumUp(entries);
    const bool isUntouched = has.files >= had.files;
    const std::string reason = isUntouched ? "another process uses the cache"
                                           : "cannot be removed, or was created in the meantime";
    std::vector<Left> left;
    left.reserve(entries.size() + listing.foreign.size());
    for (const Entry& entry : entries)
        left.push_back({ToString(entry.file.stem), entry.IsOpen() ? IN_USE : reason});
    for (const std::string& name : listing.foreign)
        left.push_back({name, reason});
    if (left.empty())
        left.push_back({store.string(), "the directory is in use by another process"});
    return left;
}

void Confirm(const ClearOptions& options, const fs::path& store, const Contents& contents) {
    if (options.yes)
        return;
    if (!IsInputTerminal() || !IsErrorTerminal())
        throw Failure("clear removes " + SummaryText(contents) + " from " + Quoted(store.string()) +
                          "; --yes confirms this",
                      STATUS_USAGE);
    std::fprintf(stderr, "Remove %s from %s? [y/N] ", SummaryText(contents).c_str(),
                 Printable(store.string()).c_str());
    std::fflush(stderr);
    const int answer = std::getchar();
    CheckStop();
    if (answer != 'y' && answer != 'Y')
        throw Failure("not confirmed; nothing was removed");
}

int ReportClear(const ClearOptions& options, const fs::path& store, const Contents& removed,
                const std::vector<Left>& left) {
    if (options.json) {
        Json kept = Json::array();
        for (const Left& each : left) {
            AddName(kept.emplace_back(), "id", each.name);
            kept.back()["reason"] = each.reason;
        }
        PrintJson({{"removed", removed.entries},
                   {"files", removed.files},
                   {"bytes", removed.bytes},
                   {"left", kept}});
    } else {
        std::string text;
        for (const Left& each : left)
            text += "left " + Printable(each.name) + ": " + each.reason + "\n";
        Print(text + "removed " + SummaryText(removed) + "\n");
    }
    if (left.empty())
        return STATUS_DONE;
    throw Failure(std::to_string(left.size()) + (left.size() == 1 ? " entry" : " entries") +
                  " of " + Quoted(store.string()) +
                  " left; the first: " + Quoted(left.front().name) + ": " + left.front().reason);
}

int Clear(ClearOptions& options) {
    const fs::path store = LocateStore(options);
    const StoreListing listing = ListStore(store);
    const std::vector<Entry> entries =
        ReadEntries(store, listing, KEEP_DAYS_DEFAULT, CurrentTime());
    const Contents had = SumUp(entries);
    std::vector<Left> left = FindObstacles(listing, entries, options.force);
    if (!left.empty())
        return ReportClear(options, store, {}, left);
    Confirm(options, store, had);
    if (!CanWriteInto(store))
        throw Failure("no write access to " + Quoted(store.string()) + ": " + ErrorText(errno));
    CheckStop();
    { const Session session(options.dir, CLEAR_NOW); }
    // The library reports no result, so the directory is read again.
    Contents has;
    left = FindLeft(store, had, has);
    return ReportClear(options, store, Difference(had, has), left);
}

} // namespace

void AddClear(CLI::App& app, Action& chosen) {
    const auto options = std::make_shared<ClearOptions>();
    CLI::App* clear =
        app.add_subcommand("clear", "Remove all cached files and their directory, DIR/sdstore.");
    clear->footer("If another process has a file open or uses the cache, nothing is removed.");
    AddCacheOptions(*clear, *options);
    clear->add_flag("--yes", options->yes, "do not ask for confirmation");
    clear->add_flag("--force", options->force, "also remove other files in DIR/sdstore");
    clear->callback([options, &chosen] { chosen = [options] { return Clear(*options); }; });
}
