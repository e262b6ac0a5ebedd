// Opens, reads, changes, closes and reopens a cached file of arbitrary bytes. The input is the information
// file, the data file and a tail of 32 bytes, which selects the boundary between the two, the length of a hole
// at the end of the data file, and the changes of blocks.
#include <algorithm>
#include <atomic>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "FMCatalog.h"
#include "testing/kit.h"

// Part of every sanitizer that replaces the allocator. GCC has the functions but does not install their header.
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*taken)(const volatile void*,
                                                                       size_t),
                                                         void (*given)(const volatile void*));
extern "C" size_t __sanitizer_get_allocated_size(const volatile void* memory);

namespace {

// The numbers that follow from the input, read from the front. Past its end they are zero.
class Input {
public:
    explicit Input(std::string_view bytes) : m_rest(bytes) {}
    uint32_t Byte() {
        if (m_rest.empty())
            return 0;
        const auto byte = static_cast<uint8_t>(m_rest.front());
        m_rest.remove_prefix(1);
        return byte;
    }
    uint32_t Word() {
        const uint32_t low = Byte();
        return low | Byte() << 8;
    }

private:
    std::string_view m_rest;
};

// Measures the allocations of all threads during its lifetime. Only one meter may exist at a time.
class MemoryMeter {
public:
    MemoryMeter() {
        static const int installed =
            __sanitizer_install_malloc_and_free_hooks(&MemoryMeter::Taken, &MemoryMeter::Given);
        Require(installed > 0);
        s_live = s_peak = 0;
    }
    int64_t Peak() const { return s_peak.load(); }

private:
    static void Taken(const volatile void*, size_t size) {
        const int64_t live = s_live += static_cast<int64_t>(size);
        int64_t peak = s_peak.load();
        while (live > peak && !s_peak.compare_exchange_weak(peak, live)) {
        }
    }
    static void Given(const volatile void* memory) {
        s_live -= static_cast<int64_t>(__sanitizer_get_allocated_size(memory));
    }
    inline static std::atomic<int64_t> s_live{0};
    inline static std::atomic<int64_t> s_peak{0};
};

constexpr size_t TAIL = 32;
constexpr FMFileID PATH_ID{0x10203040, 0x5060, 0x7080, {1, 2, 3, 4, 5, 6, 7, 8}};
// Larger tables are opened, but most of them are not used: each block takes as long as dozens of inputs.
constexpr size_t LARGEST_TABLE = 256;
// Larger blocks, which lie in a hole, are not read: their buffers would be as large as their entries claim.
constexpr uint32_t LARGEST_READ = 1 << 16;

struct Model {
    std::optional<std::string> bytes; // null: the block cannot be read
    bool isHuge = false;              // larger than LARGEST_READ
};

class OpenFile {
public:
    OpenFile(const std::string& information, const std::string& data, Input tail)
        : m_information(information), m_data(data), m_tail(tail) {}

    void Run() {
        const uint32_t hole = m_tail.Byte();
        WriteFile(m_info, m_information);
        WriteFile(m_path, m_data);
        if (hole % 4 == 3)
            m_dataLength += uint64_t{1} << (hole / 4 % 35);
        fs::resize_file(m_path, m_dataLength);
        // The catalog parses the file on its own, from a single read.
        FMCachedFile described;
        Require(FMDescribeCachedFile("", FMFileIDToString(PATH_ID), described) == 0);
        Require(Open() == described.isLoadable);
        if (m_file && (m_file->GetBlocks().size() <= LARGEST_TABLE || hole % 32 == 31))
            Use(described);
        if (m_file)
            Close();
        fs::remove(m_info);
        fs::remove(m_path);
    }

private:
    // The memory for opening is bounded by the length of the information file.
    bool Open() {
        const MemoryMeter meter;
        const int result = m_cache.manager->OpenFile(m_file.Receive(), PATH_ID, 1);
        std::error_code none;
        const uintmax_t length = fs::file_size(m_info, none);
        Require(meter.Peak() < 128 * 1024 + 48 * static_cast<int64_t>(none ? 0 : length));
        Require(result == (m_file ? 0 : RT_ERROR_NOT_FOUND));
        return result == 0;
    }

    void Close() {
        Require(m_cache.manager->DetachFile(m_file->GetFileInfo().fileID) == 0);
        m_file.Reset();
        FMWaitUntilIdle();
        m_models.erase(0); // a table cannot distinguish block 0 from an empty slot
    }

    void Use(const FMCachedFile& described) {
        const FMFileInfo& info = m_file->GetFileInfo();
        Require(info.name == described.info.name && info.flag == described.info.flag);
        Require(info.num == FMSlotsToLoad(described.info.num, m_information.size()));
        for (size_t i = 0; i < described.entries.size(); ++i) {
            const FMBlockEntry& entry = described.entries[i];
            CheckEntry(entry, described.states[i], StateOf(entry, described.entries));
        }
        CheckAll();
        for (int change = 0; change < 8; ++change)
            Change();
        const bool isTemporary = info.flag & FM_FILE_TEMPORARY;
        Close();
        Require(Open() == !isTemporary);
        if (m_file)
            CheckAll();
    }

    void CheckEntry(const FMBlockEntry& entry, FMSlotState state, FMSlotState expected) {
        const bool isReplaced = state == FMSlotState::Replaced;
        Require(state == expected || isReplaced);
        if (expected == FMSlotState::NoBlock || expected == FMSlotState::Outside)
            return;
        const bool isStored = expected == FMSlotState::Stored;
        Model& model = m_models[entry.blockID]; // of the last entry of the block
        model = {std::nullopt, entry.totalLen > LARGEST_READ};
        if (isStored && !model.isHuge) {
            const auto begin = std::min(static_cast<size_t>(entry.posInFile), m_data.size());
            model.bytes = m_data.substr(begin, entry.totalLen);
            model.bytes->resize(entry.totalLen); // zeros in the hole
        }
        const bool isComplete = isStored || expected == FMSlotState::Beyond;
        Require(isReplaced || Block(entry.blockID, 0)->IsComplete() == isComplete);
    }

    // By the rules of the file format; compares each pair of entries.
    FMSlotState StateOf(const FMBlockEntry& entry, const std::vector<FMBlockEntry>& entries) const {
        const FMFileInfo& info = m_file->GetFileInfo();
        if (entry.blockID == 0)
            return FMSlotState::NoBlock;
        if (entry.blockID < info.blockBeg || entry.blockID - info.blockBeg >= info.num)
            return FMSlotState::Outside;
        if (!FMIsEntryPossible(entry))
            return FMSlotState::Impossible;
        if (entry.totalLen == 0)
            return FMSlotState::Empty;
        const auto end = [](const FMBlockEntry& each) { return each.posInFile + each.totalLen; };
        for (const FMBlockEntry& other : entries) {
            if (&other != &entry && other.totalLen > 0 && FMIsEntryPossible(other) &&
                other.posInFile < end(entry) && entry.posInFile < end(other))
                return FMSlotState::Overlaps;
        }
        return static_cast<uint64_t>(end(entry)) > m_dataLength ? FMSlotState::Beyond
                                                                : FMSlotState::Stored;
    }

    void CheckAll() {
        const auto isBlock = [](const auto& slot) { return static_cast<bool>(slot); };
        Require(std::ranges::count_if(m_file->GetBlocks(), isBlock) == std::ssize(m_models));
        for (const auto& [id, model] : m_models) {
            const BlockRef block = Block(id, 0);
            Require(block && block->GetBlockID() == id);
            if (model.isHuge)
                continue;
            const MemoryMeter meter;
            const std::string bytes = Read(*block);
            Require(model.bytes ? bytes == *model.bytes : bytes.starts_with("error "));
            Require(meter.Peak() < 32 * 1024 + 5 * static_cast<int64_t>(bytes.size()));
        }
    }

    void Change() {
        const uint32_t kind = m_tail.Byte() % 8;
        const uint32_t value = m_tail.Byte();
        if (kind == 1) { // releases blocks that are stored and idle
            m_clock.Advance(300'000);
            FMWaitUntilIdle();
            return;
        }
        if (kind == 2) // a new or an existing block
            return Write(m_file->GetFileInfo().blockBeg + value, 1 + value * 9);
        if (kind == 0 || m_models.empty())
            return;
        const uint32_t id = std::next(m_models.begin(), value % m_models.size())->first;
        const uint32_t length = Block(id, 0)->GetTotalLen();
        const bool isInPlace = kind < 7 && length > 0 && length <= LARGEST_READ;
        Write(id, isInPlace ? length : 1 + value * 5);
    }

    // Sometimes omits the second half.
    void Write(uint32_t id, uint32_t length) {
        const BlockRef block = Block(id, 1);
        Require(block || id < m_file->GetFileInfo().blockBeg);
        if (!block)
            return;
        const bool isWhole = length == 1 || m_tail.Byte() % 8 != 7;
        const std::string bytes = Pattern(++m_writes, length);
        const auto piece = CRtMessageBlock::Wrap(bytes.data(), isWhole ? length : length / 2);
        Require(block->WriteData(length, 0, piece.get()) == 0);
        m_models[id] = {isWhole ? std::optional(bytes) : std::nullopt};
    }

    BlockRef Block(uint32_t id, int create) { return Cache::Block(*m_file, id, create); }

    // The manager keeps its directory until the process ends.
    inline static TestClock m_clock;
    inline static Cache m_cache{0};
    const fs::path m_info = m_cache.Path(PATH_ID, ".sdi");
    const fs::path m_path = m_cache.Path(PATH_ID, ".sdd");
    const std::string m_information;
    const std::string m_data;
    uint64_t m_dataLength = m_data.size();
    Input m_tail;
    FileRef m_file;
    std::map<uint32_t, Model> m_models;
    uint32_t m_writes = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < TAIL)
        return 0;
    size -= TAIL;
    const char* bytes = reinterpret_cast<const char*>(data);
    Input tail({bytes + size, TAIL});
    const size_t split = size - std::min<size_t>(size, tail.Word());
    OpenFile({bytes, split}, {bytes + split, size - split}, tail).Run();
    return 0;
}
