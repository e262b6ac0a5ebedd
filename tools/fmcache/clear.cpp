// clear: removes the whole store with the library's own clearing (clearDays 0).
#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "failure.h"
#include "json.h"
#include "platform.h"
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
};

struct Contents {
    uint64_t entries = 0; // cached files
    uint64_t files = 0;
    uint64_t bytes = 0;
};

Contents SumUp(const std::vector<FMCachedFile>& files) {
    Contents contents;
    for (const FMCachedFile& file : files) {
        contents.entries += 1;
        contents.files += (file.hasInfo ? 1U : 0U) + (file.hasData ? 1U : 0U);
        contents.bytes += LengthOf(file);
    }
    return contents;
}

std::vector<FMCachedFile> DescribeAll(const StoreListing& listing, const fs::path& store) {
    std::vector<FMCachedFile> files;
    for (const CRtString& stem : listing.stems) {
        CheckStop();
        if (std::optional<FMCachedFile> file = Describe(store, stem)) {
            file->entries = {}; // a store can have many large tables
            file->states = {};
            files.push_back(std::move(*file));
        }
    }
    return files;
}

// The library removes the directory with all its contents, so entries that are not cached files are an error.
void RequireOwn(const StoreListing& listing, const std::vector<FMCachedFile>& files,
                const fs::path& store) {
    std::string name = listing.foreign.empty() ? "" : listing.foreign.front();
    for (const FMCachedFile& file : files) {
        if (name.empty() && file.fileID == FMFileID_None)
            name = ToString(file.stem) + (file.hasData ? ".sdd" : ".sdi");
    }
    if (!name.empty())
        throw Failure(Quoted(name) + " in " + Quoted(store.string()) +
                      " is not a cached file; --force removes it, too");
}

int Clear(const ClearOptions& options) {
    const fs::path store = LocateStore(options);
    const StoreListing before = ListStore(store);
    const std::vector<FMCachedFile> files = DescribeAll(before, store);
    if (!options.force)
        RequireOwn(before, files, store);
    if (!CanWriteInto(store))
        throw Failure("no write access to " + Quoted(store.string()) + ": " + ErrorText(errno));
    CheckStop();
    { const Session session(options.dir, CLEAR_NOW); }

    // The library reports no result, so the directory is read again.
    std::error_code error;
    const StoreListing after = fs::exists(store, error) ? ListStore(store) : StoreListing();
    const Contents had = SumUp(files);
    const Contents left = SumUp(DescribeAll(after, store));
    if (left.files > 0 || !after.foreign.empty())
        throw Failure(std::to_string(left.files + after.foreign.size()) + " entries of " +
                      Quoted(store.string()) +
                      " were not removed, or were created in the meantime");
    if (options.json) {
        Json json;
        json.BeginObject().Member("removed", had.entries).Member("files", had.files);
        Print(json.Member("bytes", had.bytes).EndObject().Text());
    } else {
        Print("removed " + Count(had.entries, "cached file") + ", " + Count(had.files, "file") +
              " on disk, " + FormatSize(had.bytes) + "\n");
    }
    return 0;
}

} // namespace

void AddClear(CLI::App& app, Action& chosen) {
    const auto options = std::make_shared<ClearOptions>();
    CLI::App* clear =
        app.add_subcommand("clear", "Remove all cached files and their directory, DIR/sdstore.");
    AddCacheOptions(*clear, *options);
    clear->add_flag("--force", options->force, "also remove other files in DIR/sdstore");
    clear->callback([options, &chosen] { chosen = [options] { return Clear(*options); }; });
}
