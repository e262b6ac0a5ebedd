#include "store.h"

#include "failure.h"

namespace fs = std::filesystem;

FMFileID ParseID(const std::string& text) {
    // Braces need quoting in shells, so they may be omitted.
    const bool bare = text.size() + 2 == FMFILEID_TEXT_LENGTH;
    FMFileID id;
    FMFileIDFromString(CRtString(bare ? "{" + text + "}" : text), id);
    if (id == FMFileID_None)
        throw Failure(Quoted(text) + " is not an identifier; expected for example "
                                     "{01234567-89AB-CDEF-0123-456789ABCDEF}");
    return id;
}

fs::path StoreDir(const fs::path& dir) { return dir / "sdstore"; }

StorePaths::StorePaths(const fs::path& dir, const FMFileID& id) {
    const fs::path stem = StoreDir(dir) / ToString(FMFileIDToString(id));
    info = stem;
    info += ".sdi";
    data = stem;
    data += ".sdd";
}

StorePaths FindEntry(const fs::path& dir, const FMFileID& id) {
    std::error_code error;
    if (!fs::is_directory(StoreDir(dir), error))
        throw Failure("no cache in " + Quoted(dir.string()) +
                      "; --dir takes the directory that was passed to put or to a server");
    StorePaths paths(dir, id);
    if (!fs::exists(paths.info, error))
        throw Failure("no file " + ToString(FMFileIDToString(id)) + " in the cache " +
                      Quoted(dir.string()));
    return paths;
}

uint64_t LengthOf(const fs::path& path) {
    std::error_code error;
    const uint64_t length = fs::file_size(path, error);
    return error ? 0 : length;
}
