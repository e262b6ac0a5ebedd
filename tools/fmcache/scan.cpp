#include "scan.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <map>

#include "failure.h"
#include "platform.h"
#include "store.h"

namespace fs = std::filesystem;

namespace {

constexpr size_t EXTENSION_LENGTH = 4;

// A client's store has its process id as name, so it cannot be derived from --dir.
std::string HintAtClients(const fs::path& dir) {
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(dir / "confcache", error)) {
        if (entry.is_directory(error))
            return "; --store " + Quoted(entry.path().string()) + " opens the store of a client";
    }
    return "; --dir takes the directory that was passed to put or to a server";
}

// Adds a directory entry to its cached file. False if the name is not that of a cached file.
bool TakeName(std::map<std::string, StoreEntry>& entries, const fs::directory_entry& found) {
    const std::string name = found.path().filename().string();
    const bool isInfo = name.ends_with(".sdi");
    std::error_code error;
    if (name.size() <= EXTENSION_LENGTH || (!isInfo && !name.ends_with(".sdd")) ||
        !found.is_regular_file(error))
        return false;
    const std::string stem = name.substr(0, name.size() - EXTENSION_LENGTH);
    StoreEntry& entry = entries[stem];
    if (entry.stem.empty()) {
        entry.stem = stem;
        FMFileIDFromString(CRtString(stem), entry.id);
        if (ToString(FMFileIDToString(entry.id)) != stem)
            entry.id = FMFileID_None; // the library opens the canonical spelling only
    }
    (isInfo ? entry.info : entry.data) = found.path();
    (isInfo ? entry.infoLength : entry.dataLength) = LengthOf(found.path());
    return true;
}

} // namespace

CLI::Option* AddPath(CLI::App& verb, const std::string& name, fs::path& path,
                     const std::string& help) {
    // As UTF-8, explicitly: on Windows a std::string would be converted with the code page.
    const auto take = [&path](const std::string& text) {
        path = std::u8string(text.begin(), text.end());
    };
    return verb.add_option_function<std::string>(name, take, help);
}

void AddCacheOptions(CLI::App& verb, StoreOptions& options) {
    AddPath(verb, "--dir", options.dir, "data directory of a server")->type_name("DIR")->required();
    verb.add_flag("--json", options.json, "write JSON");
}

void AddLookOptions(CLI::App& verb, StoreOptions& options) {
    CLI::Option_group* where = verb.add_option_group("cache", "the cache to read");
    AddPath(*where, "--dir", options.dir, "data directory of a server")->type_name("DIR");
    AddPath(*where, "--store", options.store,
            "directory with the .sdd and .sdi files, for example confcache/PID of a client")
        ->type_name("DIR");
    where->require_option(1);
    verb.add_flag("--json", options.json, "write JSON");
}

fs::path LocateStore(const StoreOptions& options) {
    const bool direct = !options.store.empty();
    fs::path store = direct ? options.store : StoreDir(options.dir);
    std::error_code error;
    const fs::file_status status = fs::status(store, error);
    if (fs::is_directory(status))
        return store;
    if (status.type() == fs::file_type::none) // no access to a parent: the store may exist
        throw Failure("cannot read " + Quoted(store.string()) + ": " + error.message());
    if (direct)
        throw Failure("no such directory: " + Quoted(options.store.string()));
    throw Failure("no cache in " + Quoted(options.dir.string()) + HintAtClients(options.dir));
}

StoreListing ListStore(const fs::path& store) {
    std::map<std::string, StoreEntry> entries;
    StoreListing listing;
    std::error_code error;
    fs::directory_iterator it(store, error);
    for (; !error && it != fs::directory_iterator(); it.increment(error)) {
        CheckStop();
        if (!TakeName(entries, *it))
            listing.foreign.push_back(it->path().filename().string());
    }
    if (error)
        throw Failure("cannot read " + Quoted(store.string()) + ": " + error.message());
    for (auto& [stem, entry] : entries)
        listing.entries.push_back(std::move(entry));
    std::sort(listing.foreign.begin(), listing.foreign.end());
    return listing;
}

StoreEntry FindInStore(const fs::path& store, const std::string& id) {
    const FMFileID wanted = ParseID(id);
    const std::string stem = ToString(FMFileIDToString(wanted));
    std::map<std::string, StoreEntry> entries;
    for (const char* extension : {".sdi", ".sdd"}) {
        std::error_code error;
        const fs::directory_entry found(store / (stem + extension), error);
        if (!error)
            TakeName(entries, found);
    }
    if (entries.empty())
        throw Failure("no file " + stem + " in " + Quoted(store.string()));
    return entries.begin()->second;
}
