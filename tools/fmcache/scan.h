// The cached files of a store. Creates and changes nothing.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "FMCatalog.h"

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
/// Adds --dir and --json. Without --dir, the environment variable FMCACHE_DIR names the directory.
void AddCacheOptions(CLI::App& verb, StoreOptions& options);
/// Adds --dir and --store.
void AddPlaceOptions(CLI::App& verb, StoreOptions& options);
/// Adds --dir, --store and --json, for read-only verbs.
void AddLookOptions(CLI::App& verb, StoreOptions& options);
/// Adds the argument ID for FindInStore.
CLI::Option* AddIDArgument(CLI::App& verb, std::string& id, const std::string& help);

/// Sets `dir` from FMCACHE_DIR if neither --dir nor --store was given. Throws Failure if that is not set either.
void FillDir(StoreOptions& options);
/// Returns the directory with the files, after FillDir. Throws Failure if it does not exist.
std::filesystem::path LocateStore(StoreOptions& options);

/// The path as the library takes it. Throws Failure for a path that the library would understand differently.
CRtString LibraryPath(const std::filesystem::path& path);

struct StoreListing {
    std::vector<CRtString> stems;     ///< of the cached files, sorted
    std::vector<std::string> foreign; ///< other names in the directory, sorted
};

/// Throws Failure.
StoreListing ListStore(const std::filesystem::path& store);

/// Empty if the file does not exist, or no longer.
std::optional<FMCachedFile> Describe(const std::filesystem::path& store, const CRtString& stem);

/// Describes the file that `text` names: an identifier or its first characters, in either case and with or without
/// braces; the name under which the file was stored; or the name of its files without extension. Throws Failure if no
/// file or several ones match.
FMCachedFile FindInStore(const std::filesystem::path& store, const std::string& text);
/// The same; empty if no file matches.
std::optional<FMCachedFile> TryFindInStore(const std::filesystem::path& store,
                                           const std::string& text);

/// The number of findings that are damage.
size_t CountFaults(const FMCachedFile& file);
/// Bytes that the file system has allocated for the two files of a cached file.
uint64_t OnDisk(const std::filesystem::path& store, const CRtString& stem);
