// Opens, reads, changes, closes and reopens a cached file of arbitrary bytes. The input is the information
// file, the data file and a tail of 32 bytes, which selects the boundary between the two, the length of a hole
// at the end of the data file, and the changes of blocks.
#include <map>

#include "FMCatalog.h"
#include "support.h"
#include "testing/kit.h"

namespace {

using fuzz::Input;

constexpr size_t TAIL = 32;
constexpr FMFileID PATH_ID{0x10203040, 0x5060, 0x7080, {1, 2, 3, 4, 5, 6, 7, 8}};
// Larger blocks, which lie in a hole, are not read: their buffers would be as large as their entries claim.
constexpr uint32_t LARGEST_READ = 1 << 16;
// A description with a longer name can be saved but not loaded.
constexpr size_t LONGEST_NAME = 2010;

// The expected content of a block.
struct Model {
    bool complete = false;
    std::string bytes;
    bool mayFail = false; // its entry overlaps another or ends beyond the data file
    bool isHuge = false;  // larger than LARGEST_READ: not read
};

class OpenFile {
public:
    OpenFile(std::string information, std::string data, Input tail)
        : m_information(std::move(information)), m_data(std::move(data)), m_tail(tail) {}

    void Run() {
        WriteFiles();
        // The catalog parses the file on its own, from a single read.
        FMCachedFile described;
        Require(FMDescribeCachedFile(CRtString(m_stem.parent_path().string()),
                                     FMFileIDToString(PATH_ID), described) == 0);
        Require(Open() == described.isLoadable);
        if (described.isLoadable) {
            Expect(described);
            CheckAll();
            for (int change = 0; change < 8; ++change)
                Change();
            Close();
            const bool temporary = described.info.flag & FM_FILE_TEMPORARY;
            const bool again = Open();
            Require(again == !temporary || described.info.name.size() > LONGEST_NAME);
            if (again) {
                CheckAll();
                Close();
            }
        }
        fs::remove(m_stem.string() + ".sdi");
        fs::remove(m_stem.string() + ".sdd");
    }

private:
    // Thousands of slots or of missing entries take as long as dozens of inputs and find no more faults than
    // hundreds.
    void MakeTableSmall() {
        const auto clear = [this](size_t at, size_t count) {
            if (m_information.size() >= at + count)
                m_information.replace(at, count, count, '\0');
        };
        constexpr size_t nameAt = FM_INFO_BODY_OFFSET + 4 + sizeof(FMFileID);
        if (m_information.size() < nameAt + 2)
            return;
        const auto word = [this](size_t at) { return Input(m_information, at).Word(); };
        const size_t numAt = nameAt + 2 + word(nameAt) + 8;
        clear(numAt + 1, 3);
        const size_t countAt =
            FM_INFO_BODY_OFFSET + word(FM_INFO_LENGTH_OFFSET) + FM_INFO_LENGTH_SIZE;
        clear(countAt + 1, 1);
    }

    void WriteFiles() {
        const uint32_t hole = m_tail.Byte();
        if (hole % 32 != 31)
            MakeTableSmall();
        for (const auto& [extension, bytes] :
             {std::pair(".sdi", &m_information), {".sdd", &m_data}}) {
            std::FILE* file = std::fopen((m_stem.string() + extension).c_str(), "wb");
            Require(file && std::fwrite(bytes->data(), 1, bytes->size(), file) == bytes->size());
            std::fclose(file);
        }
        if (hole % 4 != 3)
            return;
        m_dataLength += uint64_t{1} << (hole / 4 % 35);
        fs::resize_file(m_stem.string() + ".sdd", m_dataLength);
    }

    // The memory for opening is bounded by the length of the information file.
    bool Open() {
        const fuzz::MemoryMeter meter;
        const int result = m_cache.manager->OpenFile(m_file.Receive(), PATH_ID, 1);
        std::error_code none;
        const uintmax_t length = fs::file_size(m_stem.string() + ".sdi", none);
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

    void Expect(const FMCachedFile& described) {
        const FMFileInfo& info = m_file->GetFileInfo();
        Require(info.name == described.info.name);
        Require(info.num == FMSlotsToLoad(described.info.num, m_information.size()));
        Require(info.blockBeg == described.info.blockBeg && info.flag == described.info.flag);
        Require(m_file->GetBlocks().size() == info.num);
        for (size_t i = 0; i < described.entries.size(); ++i) {
            const FMBlockEntry& entry = described.entries[i];
            const FMSlotState state = described.states[i];
            if (entry.blockID == 0 || entry.blockID < info.blockBeg ||
                entry.blockID - info.blockBeg >= info.num) {
                Require(state ==
                        (entry.blockID == 0 ? FMSlotState::NoBlock : FMSlotState::Outside));
                continue;
            }
            const Model& model = m_models[entry.blockID] = Expected(entry, described.entries);
            if (state == FMSlotState::Replaced)
                continue;
            const BlockRef block = Block(entry.blockID, 0);
            Require((state == FMSlotState::Stored) == (model.complete && !model.mayFail));
            Require(block->IsComplete() ==
                    (state == FMSlotState::Stored || state == FMSlotState::Beyond));
        }
    }

    Model Expected(const FMBlockEntry& entry, const std::vector<FMBlockEntry>& entries) const {
        Model model;
        model.complete = entry.totalLen != 0 && FMIsEntryPossible(entry);
        if (!model.complete)
            return model;
        const auto end = [](const FMBlockEntry& each) { return each.posInFile + each.totalLen; };
        for (const FMBlockEntry& other : entries)
            model.mayFail |= &other != &entry && other.totalLen > 0 && FMIsEntryPossible(other) &&
                             other.posInFile < end(entry) && entry.posInFile < end(other);
        if (static_cast<uint64_t>(end(entry)) > m_dataLength) {
            model.mayFail = true; // restored without data, or its read fails
            return model;
        }
        model.isHuge = entry.totalLen > LARGEST_READ;
        if (model.isHuge)
            return model;
        const auto begin = static_cast<uint64_t>(entry.posInFile);
        model.bytes = begin < m_data.size() ? m_data.substr(begin, entry.totalLen) : "";
        model.bytes.resize(entry.totalLen);
        return model;
    }

    void CheckAll() {
        const FMBlockTable& table = m_file->GetBlocks();
        const auto there = [](const auto& slot) { return static_cast<bool>(slot); };
        Require(std::count_if(table.begin(), table.end(), there) ==
                static_cast<ptrdiff_t>(m_models.size()));
        bool later = m_tail.Byte() & 1;
        for (const auto& [id, model] : m_models) {
            if (!model.isHuge)
                Check(id, model, later);
            later = !later;
        }
    }

    void Check(uint32_t id, const Model& model, bool later) {
        BlockRef block = Block(id, 0);
        Require(block && block->GetBlockID() == id);
        Require(block->IsComplete() == model.complete || model.mayFail);
        const fuzz::MemoryMeter meter;
        if (later) {
            CountingSink sink;
            Require(block->ReadData(&sink) == 0);
            FMWaitUntilIdle();
            Require(sink.results.size() == 1);
            Require(sink.results[0] != 0 || block->IsInMemory());
        }
        const std::string bytes = Read(*block);
        const bool good = !bytes.starts_with("error ");
        Require(meter.Peak() < 32 * 1024 + 5 * static_cast<int64_t>(model.bytes.size()));
        Require(good ? model.complete && bytes == model.bytes : !model.complete || model.mayFail);
    }

    void Change() {
        const uint32_t kind = m_tail.Byte();
        const uint32_t value = m_tail.Byte();
        if (kind % 8 == 0)
            return;
        if (kind % 8 == 1) { // releases blocks that are stored and idle
            m_clock.Advance(300'000);
            FMWaitUntilIdle();
            return;
        }
        if (kind % 8 == 2) // a new or an existing block
            return Write(m_file->GetFileInfo().blockBeg + value, 1 + value * 9);
        if (m_models.empty())
            return;
        const auto it = std::next(m_models.begin(), value % m_models.size());
        if (kind % 8 == 3)
            return CheckAll();
        if (kind % 8 == 4)
            return Remove(it->first);
        const uint32_t length = Block(it->first, 0)->GetTotalLen();
        const bool inPlace = kind % 8 < 7 && length > 0 && length <= LARGEST_READ;
        Write(it->first, inPlace ? length : 1 + kind * 5);
    }

    void Remove(uint32_t id) {
        BlockRef removed;
        Require(m_file->RemoveBlock(id, removed.Receive()) == 0 && removed->GetBlockID() == id);
        m_models.erase(id);
    }

    // Writes two pieces; sometimes omits the second one.
    void Write(uint32_t id, uint32_t length) {
        BlockRef block = Block(id, 1);
        Require(block || id < m_file->GetFileInfo().blockBeg);
        if (!block)
            return;
        const std::string bytes = Pattern(++m_writes, length);
        const uint32_t first = length / 2;
        Require(WritePiece(*block, bytes, 0, std::max(first, 1u)) == 0);
        const bool complete = length == 1 || m_tail.Byte() % 8 != 7;
        if (complete && length > 1)
            Require(WritePiece(*block, bytes, first, length - first) == 0);
        m_models[id] = {complete, bytes, false, false};
    }

    static int WritePiece(IFMBlock& block, const std::string& bytes, uint32_t from,
                          uint32_t length) {
        const CRtMessageChain piece = CRtMessageBlock::Wrap(bytes.data() + from, length);
        return block.WriteData(static_cast<uint32_t>(bytes.size()), from, piece.get());
    }

    BlockRef Block(uint32_t id, int create) {
        BlockRef block;
        m_file->GetBlock(block.Receive(), id, create);
        return block;
    }

    // The manager keeps its directory until the process ends.
    inline static TestClock m_clock;
    inline static Cache m_cache{0};
    const fs::path m_stem = m_cache.Path(PATH_ID, "");
    std::string m_information;
    std::string m_data;
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
    Input tail(data + size, TAIL);
    const size_t split = size - std::min<size_t>(size, tail.Word());
    const char* bytes = reinterpret_cast<const char*>(data);
    OpenFile({bytes, split}, {bytes + split, size - split}, tail).Run();
    return 0;
}
