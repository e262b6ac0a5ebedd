// rm: removes one cached file that no process has open.
#include <CLI/CLI.hpp>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "entry.h"
#include "failure.h"
#include "json.h"
#include "remove.h"
#include "scan.h"
#include "sizes.h"
#include "text.h"
#include "verbs.h"

namespace fs = std::filesystem;

namespace {

struct RmOptions : StoreOptions {
    std::string id;
    bool force = false;
};

int Rm(RmOptions& options) {
    const fs::path store = LocateStore(options);
    std::optional<FMCachedFile> file = TryFindInStore(store, options.id);
    if (!file && !options.force)
        file = FindInStore(store, options.id); // throws
    const uint64_t bytes = file ? OnDisk(store, file->stem) : 0;
    if (file) {
        const std::string reason = RemoveFromStore(store, file->stem, options.force);
        if (!reason.empty())
            throw Failure(Quoted(ToString(file->stem)) + " is not removed: " + reason +
                          (reason == IN_USE ? "; --force removes it" : ""));
    }
    if (options.json) {
        Json removed = Json::array();
        if (file)
            AddName(removed.emplace_back(), "id", file->stem.view());
        PrintJson({{"removed", removed}, {"bytes", bytes}});
    } else if (file) {
        Print("removed " + Printable(file->stem.view()) + ", " + FormatSize(bytes) + " on disk\n");
    }
    return STATUS_DONE;
}

} // namespace

void AddRm(CLI::App& app, Action& chosen) {
    const auto options = std::make_shared<RmOptions>();
    CLI::App* rm = app.add_subcommand("rm", "Remove one file that no process has open.");
    AddCacheOptions(*rm, *options);
    AddIDArgument(*rm, options->id, "identifier, its first characters, or the name of the file")
        ->required();
    rm->add_flag("--force", options->force,
                 "also remove a file that a process has open; succeed if there is no such file");
    rm->callback([options, &chosen] { chosen = [options] { return Rm(*options); }; });
}
