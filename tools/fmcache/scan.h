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
/// Adds --dir and --json.
void AddCacheOptions(CLI::App& verb, StoreOptions& options);
/// Adds --dir, --store and --json, for read-only verbs.
void AddLookOptions(CLI::App& verb, StoreOptions& options);

/// Returns the directory with the files. Throws Failure if it does not exist.
std::filesystem::path LocateStore(const StoreOptions& options);

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

/// Describes the file with an identifier, given as text. Throws Failure if it does not exist.
FMCachedFile FindInStore(const std::filesystem::path& store, const std::string& id);

/// The number of findings that are damage.
size_t CountFaults(const FMCachedFile& file);
/// Bytes on disk.
inline uint64_t LengthOf(const FMCachedFile& file) { return file.infoLength + file.dataLength; }
/// Why the library does not load the file; empty if it does.
std::string Trouble(const FMCachedFile& file);
/// An undamaged file that Trouble or verify reports because another process has it open.
bool IsOpenElsewhere(const FMCachedFile& file);
constexpr char OPEN_ELSEWHERE[] = "open (by another process)";
