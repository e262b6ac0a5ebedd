// The cached files of a store, from its directory listing alone. Opens, creates and changes nothing.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "FMFileID.h"

namespace CLI {
class App;
class Option;
} // namespace CLI

/// Options of all verbs on a store.
struct StoreOptions {
    std::filesystem::path dir;
    std::filesystem::path store;
    bool json = false;
};

/// Adds an option or argument that is a path, in UTF-8 on all systems.
CLI::Option* AddPath(CLI::App& verb, const std::string& name, std::filesystem::path& path,
                     const std::string& help);
/// Adds --dir and --json.
void AddCacheOptions(CLI::App& verb, StoreOptions& options);
/// Adds --dir, --store and --json, for read-only verbs.
void AddLookOptions(CLI::App& verb, StoreOptions& options);

/// Returns the directory with the files. Throws Failure if it does not exist.
std::filesystem::path LocateStore(const StoreOptions& options);

/// Files with the same stem: an information file, a data file, or both.
struct StoreEntry {
    std::string stem;            ///< of the file names: the identifier's text
    FMFileID id = FMFileID_None; ///< FMFileID_None if the stem is not an identifier
    std::filesystem::path info;  ///< empty if there is none
    std::filesystem::path data;
    uint64_t infoLength = 0;
    uint64_t dataLength = 0;

    bool HasInfo() const { return !info.empty(); }
    bool HasData() const { return !data.empty(); }
    uint64_t Length() const { return infoLength + dataLength; }
};

struct StoreListing {
    std::vector<StoreEntry> entries;  ///< sorted by stem
    std::vector<std::string> foreign; ///< other names in the directory, sorted
};

/// Throws Failure.
StoreListing ListStore(const std::filesystem::path& store);

/// Returns the entry of one identifier, given as text. Throws Failure if it has no file.
StoreEntry FindInStore(const std::filesystem::path& store, const std::string& id);
