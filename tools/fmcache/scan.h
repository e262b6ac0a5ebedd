// The files of a store as a directory listing shows them. Nothing is opened, made or changed here.
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

/// What every verb on a store takes.
struct StoreOptions {
    std::filesystem::path dir;
    std::filesystem::path store;
    bool json = false;
};

/// Adds an option or argument that is a path, in UTF-8 on every system.
CLI::Option* AddPath(CLI::App& verb, const std::string& name, std::filesystem::path& path,
                     const std::string& help);
/// Adds --dir and --json.
void AddCacheOptions(CLI::App& verb, StoreOptions& options);
/// Adds those and --store, for verbs that only look.
void AddLookOptions(CLI::App& verb, StoreOptions& options);

/// The directory with the files. Throws Failure when there is none.
std::filesystem::path LocateStore(const StoreOptions& options);

/// What goes by one name: an information file, a data file, or both.
struct StoreEntry {
    std::string stem;            ///< of the names, the identifier's text
    FMFileID id = FMFileID_None; ///< none when no file that the library knows is called so
    std::filesystem::path info;  ///< empty when there is none
    std::filesystem::path data;
    uint64_t infoLength = 0;
    uint64_t dataLength = 0;

    bool HasInfo() const { return !info.empty(); }
    bool HasData() const { return !data.empty(); }
    uint64_t Length() const { return infoLength + dataLength; }
};

struct StoreListing {
    std::vector<StoreEntry> entries;  ///< in the order of their stems
    std::vector<std::string> foreign; ///< names that no cached file has, sorted
};

/// Throws Failure.
StoreListing ListStore(const std::filesystem::path& store);

/// The entry of one identifier as the user wrote it. Throws Failure when there is neither file.
StoreEntry FindInStore(const std::filesystem::path& store, const std::string& id);
