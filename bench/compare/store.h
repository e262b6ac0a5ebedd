// The interface that each participant of the comparison implements: store blocks of files, which arrive
// piece by piece, and read them back.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <unordered_map>
#include <vector>

namespace bench {

/// Sizes of a workload. Each participant gets them beforehand and can be configured for them.
struct Layout {
    uint32_t files = 1;
    uint32_t blocks = 0; ///< in each file
    uint32_t blockLen = 0;
    uint32_t pieceLen = 0;
    uint32_t batch = 1;          ///< number of complete blocks per store or transaction
    uint64_t memory = 512 << 20; ///< upper bound of the resident bytes

    uint32_t AllBlocks() const { return files * blocks; }
    uint64_t Bytes() const { return uint64_t{AllBlocks()} * blockLen; }
};

struct Place {
    uint32_t file;
    uint32_t block; ///< in the file
};

/// The workloads write one block at a time, its pieces in ascending order, and read complete blocks only.
class Store {
public:
    using Clock = std::chrono::steady_clock;
    using Visit = std::function<void(Place, const char*)>;
    using Done = std::function<void(const char*)>;

    virtual ~Store() = default;

    /// `dir` is empty, or the same participant has closed its store there.
    virtual void Open(const std::filesystem::path& dir, const Layout& layout) = 0;
    virtual void Close() = 0;

    virtual void Write(Place place, uint32_t at, const char* bytes, uint32_t length) = 0;
    /// Returns when all complete blocks have been passed to the operating system; nothing is synchronised to
    /// the disk.
    virtual void Flush() = 0;

    /// The returned bytes are valid until the next call.
    virtual const char* Read(Place place, uint32_t at, uint32_t length) = 0;
    /// Reads whole blocks with `window` of them in flight. Returns false if the participant has no
    /// asynchronous read.
    virtual bool ReadMany(const std::vector<Place>& places, size_t window, const Visit& visit);
    /// Requests a whole block of that length. `done` gets the bytes during this call or during WaitUntil. The
    /// default implementation reads synchronously.
    virtual void BeginRead(Place place, uint32_t length, const Done& done);
    /// The event loop of the application: runs completions until that time, and at least those that are due.
    virtual void WaitUntil(Clock::time_point time);
    /// Postcondition: no block is resident. The next read of each block reads the file (the page cache).
    virtual void Release() = 0;
    /// The workload has finished with the file for now.
    virtual void CloseFile(uint32_t) {}

    /// Records that a node has or has lost a copy of the block. Only the library has a concept of nodes; the
    /// default implementation, a table in memory, serves all other participants.
    virtual void SetOwner(Place place, uint32_t node, bool owns);
    virtual bool HasOwner(Place place);
    /// One minute of simulated time has passed.
    virtual void Tick() {}

private:
    std::unordered_map<uint64_t, std::vector<uint32_t>> m_owners;
};

/// Defined by the participant that is linked into the program.
std::unique_ptr<Store> MakeStore();
/// Whether main calls KeepFreedPages. False only for the stdio participant, which stands for untuned code.
extern const bool keepsFreedPages;

// Key for participants that store all files in one table.
inline uint64_t KeyOf(Place place) { return uint64_t{place.file} << 32 | place.block; }

} // namespace bench
