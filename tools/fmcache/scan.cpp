#include "scan.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <utility>

#include "RtResult.h"
#include "failure.h"
#include "store.h"

namespace fs = std::filesystem;

namespace {

// A client's store has its process id as name, so it cannot be derived from --dir.
std::string HintAtClients(const fs::path& dir) {
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(dir / "confcache", error)) {
        if (entry.is_directory(error))
            return "; --store " + Quoted(entry.path().string()) + " opens the store of a client";
    }
    return "; --dir takes the directory that was passed to put or to a server";
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

CRtString LibraryPath(const fs::path& path) {
    const std::string text = path.string();
    if (fs::path::preferred_separator != '\\' && text.find('\\') != std::string::npos)
        throw Failure("--dir: a path with a backslash is not supported: " + Quoted(text));
    return CRtString(text);
}

StoreListing ListStore(const fs::path& store) {
    std::vector<CRtString> others;
    StoreListing listing;
    if (RT_FAILED(FMListCachedFiles(LibraryPath(store), listing.stems, others))) {
        std::error_code error;
        const fs::directory_iterator unused(store, error);
        throw Failure("cannot read " + Quoted(store.string()) + ": " + error.message());
    }
    for (const CRtString& name : others)
        listing.foreign.push_back(ToString(name));
    return listing;
}

std::optional<FMCachedFile> Describe(const fs::path& store, const CRtString& stem) {
    FMCachedFile file;
    if (RT_FAILED(FMDescribeCachedFile(LibraryPath(store), stem, file)))
        return std::nullopt;
    return file;
}

FMCachedFile FindInStore(const fs::path& store, const std::string& id) {
    const CRtString stem = FMFileIDToString(ParseID(id));
    std::optional<FMCachedFile> file = Describe(store, stem);
    if (!file)
        throw Failure("no file " + ToString(stem) + " in " + Quoted(store.string()));
    return std::move(*file);
}

size_t CountFaults(const FMCachedFile& file) {
    return static_cast<size_t>(
        std::count_if(file.findings.begin(), file.findings.end(),
                      [](const FMFinding& finding) { return finding.isFault; }));
}

bool IsOpenElsewhere(const FMCachedFile& file) {
    return file.isOpenElsewhere && CountFaults(file) == 0;
}

std::string Trouble(const FMCachedFile& file) {
    if (file.isLoadable)
        return "";
    return IsOpenElsewhere(file) ? OPEN_ELSEWHERE : ToString(file.findings.front().what);
}
