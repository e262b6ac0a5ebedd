// clear: removes the whole store with the library's own clearing (clearDays 0).
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <string_view>
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
    uint64_t bytes = 0;  // on disk
    uint64_t others = 0; // entries that are no cached files
};

// An entry that clear has not removed, and why.
struct Left {
    std::string name;
    std::string reason;
};

constexpr char FOREIGN[] = "not a cached file; --force removes it, too";
constexpr char HELD_BACK[] = "clear removes all entries or none";

struct Store {
    StoreListing listing;
    std::vector<Entry> entries;

    bool Has(std::string_view name) const {
        return std::ranges::binary_search(listing.foreign, name) ||
               std::ranges::binary_search(listing.stems, name, {}, &CRtString::view);
    }
};

Store ReadStore(const fs::path& path) {
    StoreListing listing = ListStore(path);
    std::vector<Entry> entries = ReadEntries(path, listing, KEEP_DAYS_DEFAULT, CurrentTime());
    return {std::move(listing), std::move(entries)};
}

Contents SumUp(const Store& store) {
    Contents contents{.others = store.listing.foreign.size()};
    for (const Entry& entry : store.entries) {
        contents.entries += 1;
        contents.files += (entry.file.hasInfo ? 1U : 0U) + (entry.file.hasData ? 1U : 0U);
        contents.bytes += entry.onDisk;
    }
    return contents;
}

std::string SummaryText(const Contents& contents) {
    return Count(contents.entries, "cached file") + ", " + Count(contents.files, "file") + " and " +
           FormatSize(contents.bytes) + " on disk" +
           (contents.others > 0 ? ", " + Count(contents.others, "other entry") : "");
}

// The library removes the directory with all its contents, so nothing is removed while an entry must stay. Then all
// entries are left.
std::vector<Left> FindObstacles(const Store& store, bool force) {
    std::vector<Left> left;
    bool areAny = false;
    const auto add = [&](const std::string& name, const char* obstacle) {
        left.push_back({name, obstacle ? obstacle : HELD_BACK});
        areAny = areAny || obstacle;
    };
    for (const Entry& entry : store.entries) {
        const bool isForeign = !force && entry.file.fileID == FMFileID_None;
        add(ToString(entry.file.stem), entry.IsOpen() ? IN_USE : isForeign ? FOREIGN : nullptr);
    }
    for (const std::string& name : store.listing.foreign)
        add(name, force ? nullptr : FOREIGN);
    return areAny ? left : std::vector<Left>();
}

// What is still there after the library's clearing, which removes nothing if another process has a lock on the
// directory.
std::vector<Left> FindLeft(const fs::path& path, const Store& before, const Store& now) {
    const bool isUntouched = std::ranges::all_of(
        before.entries, [&now](const Entry& entry) { return now.Has(entry.file.stem.view()); });
    std::vector<Left> left;
    const auto add = [&](const std::string& name, bool isOpen) {
        left.push_back({name, isOpen              ? IN_USE
                              : !before.Has(name) ? "was created in the meantime"
                              : isUntouched       ? "another process uses the cache"
                                                  : "cannot be removed"});
    };
    for (const Entry& entry : now.entries)
        add(ToString(entry.file.stem), entry.IsOpen());
    for (const std::string& name : now.listing.foreign)
        add(name, false);
    if (left.empty())
        left.push_back({path.string(), "the directory is in use by another process"});
    return left;
}

void Confirm(const fs::path& store, const Contents& contents) {
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

// "13 entries left: 1 in use by another process, 12 ..."
std::string LeftText(const std::vector<Left>& left) {
    std::map<std::string, uint64_t> numbers; // by reason
    for (const Left& each : left)
        ++numbers[each.reason];
    std::string text = Count(left.size(), "entry") + " left";
    const char* separator = ": ";
    for (const auto& [reason, number] : numbers) {
        text += separator + std::to_string(number) + " (" + reason + ")";
        separator = ", ";
    }
    return text;
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
                   {"others", removed.others},
                   {"left", kept}});
    } else {
        std::string text;
        for (const Left& each : left)
            text += "left " + Printable(each.name) + ": " + each.reason + "\n";
        Print(text + "removed " + SummaryText(removed) + "\n");
    }
    if (left.empty())
        return STATUS_DONE;
    throw Failure(Quoted(store.string()) + ": " + LeftText(left));
}

int Clear(ClearOptions& options) {
    const fs::path path = LocateStore(options);
    const Store before = ReadStore(path);
    if (const std::vector<Left> left = FindObstacles(before, options.force); !left.empty())
        return ReportClear(options, path, {}, left);
    if (!options.yes) {
        Confirm(path, SumUp(before));
        options.yes = true;
        return Clear(options); // the store may have changed before the answer
    }
    if (!CanWriteInto(path))
        throw Failure("no write access to " + Quoted(path.string()) + ": " + ErrorText(errno));
    CheckStop();
    { const Session session(options.dir, CLEAR_NOW); }
    // The library reports no result, so the directory is read again.
    std::error_code error;
    if (!fs::exists(path, error))
        return ReportClear(options, path, SumUp(before), {});
    const Store now = ReadStore(path);
    Store removed = before;
    std::erase_if(removed.entries,
                  [&now](const Entry& entry) { return now.Has(entry.file.stem.view()); });
    std::erase_if(removed.listing.foreign,
                  [&now](const std::string& name) { return now.Has(name); });
    return ReportClear(options, path, SumUp(removed), FindLeft(path, before, now));
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
