// What every participant of the comparison does in its own way: keep blocks of files, written piece by
// piece, and give them back.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <unordered_map>
#include <vector>

namespace bench {

/// What a workload is going to do, so that each participant can be set up for it.
struct Layout {
    uint32_t files = 1;
    uint32_t blocks = 0; ///< in each file
    uint32_t blockLen = 0;
    uint32_t pieceLen = 0;
    uint32_t batch = 1;          ///< complete blocks that are handed over together
    uint64_t memory = 512 << 20; ///< what may be kept of them

    uint32_t AllBlocks() const { return files * blocks; }
    uint64_t Bytes() const { return uint64_t{AllBlocks()} * blockLen; }
};

struct Place {
    uint32_t file;
    uint32_t block; ///< in the file
};

/// Blocks are written one at a time, each in order, and read once they are complete.
class Store {
public:
    using Visit = std::function<void(Place, const char*)>;

    virtual ~Store() = default;

    /// Over an empty directory, or one that the same participant has left with Close.
    virtual void Open(const std::filesystem::path& dir, const Layout& layout) = 0;
    virtual void Close() = 0;

    virtual void Write(Place place, uint32_t at, const char* bytes, uint32_t length) = 0;
    /// Returns when every complete block is the operating system's.
    virtual void Flush() = 0;

    /// The bytes stay good until the next call.
    virtual const char* Read(Place place, uint32_t at, uint32_t length) = 0;
    /// Reads whole blocks with `window` of them in flight. False where that cannot be had.
    virtual bool ReadMany(const std::vector<Place>& places, size_t window, const Visit& visit);
    /// Afterwards all blocks have to be read from the system's files again.
    virtual void Release() = 0;
    /// A file that is not going to be read for now.
    virtual void CloseFile(uint32_t) {}

    /// A node has a copy of the block, or has it no more. None of the others knows nodes: what they need
    /// beside them is a table in memory, the same for all.
    virtual void SetOwner(Place place, uint32_t node, bool owns);
    virtual bool HasOwner(Place place);
    /// A minute has passed.
    virtual void Tick() {}

private:
    std::unordered_map<uint64_t, std::vector<uint32_t>> m_owners;
};

/// The one participant that is linked into the program.
std::unique_ptr<Store> MakeStore();
/// False for the one that stands for what is written without a thought, malloc included.
extern const bool keepsFreedPages;

// For stores with one table of keys.
inline uint64_t KeyOf(Place place) { return uint64_t{place.file} << 32 | place.block; }

} // namespace bench
