// rm: removes one cached file.
#include <CLI/CLI.hpp>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "failure.h"
#include "json.h"
#include "platform.h"
#include "scan.h"
#include "sizes.h"
#include "store.h"
#include "text.h"
#include "verbs.h"

namespace fs = std::filesystem;

namespace {

struct RmOptions : StoreOptions {
    std::string id;
    bool force = false;
};

void Remove(const fs::path& path) {
    std::error_code error;
    fs::remove(path, error);
    if (error)
        throw Failure("cannot remove " + Quoted(path.string()) + ": " + error.message());
}

// Empty if there is no such file and --force was given.
std::optional<FMCachedFile> Find(const RmOptions& options) {
    const FMFileID id = ParseID(options.id); // an invalid identifier is an error even with --force
    const fs::path store = LocateStore(options);
    const StorePaths paths(options.dir, id);
    std::error_code error;
    if (options.force && !fs::exists(paths.info, error) && !fs::exists(paths.data, error))
        return std::nullopt;
    return FindInStore(store, options.id);
}

int Rm(const RmOptions& options) {
    const std::optional<FMCachedFile> entry = Find(options);
    if (entry) {
        // The order of the library: after an interruption there may be a data file without a table, which
        // does not load, but never a table without its bytes.
        const StorePaths paths(options.dir, entry->fileID);
        if (entry->hasInfo)
            Remove(paths.info);
        if (entry->hasData)
            Remove(paths.data);
    }
    const uint64_t bytes = entry ? LengthOf(*entry) : 0;
    if (options.json) {
        Json json;
        json.BeginObject().Key("removed").BeginArray();
        if (entry)
            json.Value(entry->stem.view());
        Print(json.EndArray().Member("bytes", bytes).EndObject().Text());
    } else if (entry) {
        Print("removed " + ToString(entry->stem) + ", " + FormatSize(bytes) + "\n");
    }
    return 0;
}

} // namespace

void AddRm(CLI::App& app, Action& chosen) {
    const auto options = std::make_shared<RmOptions>();
    CLI::App* rm = app.add_subcommand(
        "rm", "Remove one file. If a server has the file open, it may write the file again.");
    AddCacheOptions(*rm, *options);
    rm->add_option("ID", options->id, "identifier of the file; the braces may be omitted")
        ->type_name("")
        ->required();
    rm->add_flag("--force", options->force, "succeed if there is no such file");
    rm->callback([options, &chosen] { chosen = [options] { return Rm(*options); }; });
}
