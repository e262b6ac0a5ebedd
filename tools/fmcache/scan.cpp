#include "scan.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "RtResult.h"
#include "failure.h"
#include "platform.h"
#include "store.h"

namespace fs = std::filesystem;

namespace {

// A client's store has its process id as name, so it cannot be derived from --dir.
std::string HintAtClients(const fs::path& dir) {
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(dir / FM_CLIENT_STORES, error)) {
        if (entry.is_directory(error))
            return "; --store " + Quoted(entry.path().string()) + " opens the store of a client";
    }
    return "; --dir takes the directory that was passed to put or to a server";
}

} // namespace

CLI::Option* AddPath(CLI::App& verb, const std::string& name, fs::path& path,
                     const std::string& help) {
    // As UTF-8, explicitly: on Windows a std::string would be converted with the code page.
    const auto take = [&path, name](const std::string& text) {
        if (text.empty()) // an unset variable of a script must not mean the default
            throw CLI::ValidationError(name, "the path is missing or empty");
        path = std::u8string(text.begin(), text.end());
    };
    return verb.add_option_function<std::string>(name, take, help);
}

namespace {

CLI::Option* AddDirOption(CLI::App& verb, StoreOptions& options) {
    return AddPath(verb, "--dir", options.dir, "data directory of a server (default: FMCACHE_DIR)")
        ->type_name("DIR");
}

void AddJsonOption(CLI::App& verb, StoreOptions& options) {
    verb.add_flag("--json", options.json, "write JSON");
}

} // namespace

void AddCacheOptions(CLI::App& verb, StoreOptions& options) {
    AddDirOption(verb, options);
    AddJsonOption(verb, options);
}

void AddPlaceOptions(CLI::App& verb, StoreOptions& options) {
    AddDirOption(verb, options);
    AddPath(verb, "--store", options.store,
            "directory with the .sdd and .sdi files, for example confcache/PID of a client")
        ->type_name("DIR");
}

void AddLookOptions(CLI::App& verb, StoreOptions& options) {
    AddPlaceOptions(verb, options);
    AddJsonOption(verb, options);
}

CLI::Option* AddIDArgument(CLI::App& verb, std::string& id, const std::string& help) {
    const auto check = [](const std::string& text) {
        return std::string(text.empty() ? "the identifier is empty" : "");
    };
    return verb.add_option("ID", id, help)->type_name("")->check(check);
}

void FillDir(StoreOptions& options) {
    if (!options.dir.empty() && !options.store.empty())
        throw Failure("--dir and --store exclude each other", STATUS_USAGE);
    if (!options.dir.empty() || !options.store.empty())
        return;
    const char* dir = std::getenv("FMCACHE_DIR");
    if (!dir || !*dir)
        throw Failure("--dir is missing or empty, and FMCACHE_DIR is not set", STATUS_USAGE);
    const std::string_view text(dir);
    options.dir = std::u8string(text.begin(), text.end());
}

fs::path LocateStore(StoreOptions& options) {
    FillDir(options);
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

namespace {

std::string UpperCase(std::string text) {
    for (char& each : text)
        each = each >= 'a' && each <= 'z' ? static_cast<char>(each - 'a' + 'A') : each;
    return text;
}

// Whether `text` is an identifier or its first characters.
bool IsPrefix(const std::string& text, const CRtString& stem) {
    const std::string wanted = UpperCase(text.front() == '{' ? text : "{" + text);
    return UpperCase(ToString(stem)).starts_with(wanted);
}

// Names are in the information files, so that all of them are read.
std::vector<FMCachedFile> FindAll(const fs::path& store, const std::string& text) {
    std::vector<FMCachedFile> found;
    for (const CRtString& stem : ListStore(store).stems) {
        CheckStop();
        std::optional<FMCachedFile> file = Describe(store, stem);
        if (file && (IsPrefix(text, stem) || stem.view() == text || file->info.name.view() == text))
            found.push_back(std::move(*file));
    }
    return found;
}

} // namespace

std::optional<FMCachedFile> TryFindInStore(const fs::path& store, const std::string& text) {
    if (std::optional<FMFileID> id = ParseID(text))
        return Describe(store, FMFileIDToString(*id));
    std::vector<FMCachedFile> found = FindAll(store, text);
    if (found.size() > 1)
        throw Failure(Quoted(text) + " matches " + std::to_string(found.size()) +
                      " files: " + ToString(found[0].stem) + ", " + ToString(found[1].stem) +
                      (found.size() > 2 ? ", ..." : ""));
    if (found.empty())
        return std::nullopt;
    return std::move(found.front());
}

FMCachedFile FindInStore(const fs::path& store, const std::string& text) {
    std::optional<FMCachedFile> file = TryFindInStore(store, text);
    if (!file)
        throw Failure("no file " + Quoted(text) + " in " + Quoted(store.string()) +
                      "; ls lists identifiers and names");
    return std::move(*file);
}

size_t CountFaults(const FMCachedFile& file) {
    return static_cast<size_t>(
        std::count_if(file.findings.begin(), file.findings.end(),
                      [](const FMFinding& finding) { return finding.isFault; }));
}

uint64_t OnDisk(const fs::path& store, const CRtString& stem) {
    const fs::path path = store / ToString(stem);
    return AllocatedBytes(fs::path(path) += FM_INFO_EXTENSION) +
           AllocatedBytes(fs::path(path) += FM_DATA_EXTENSION);
}
