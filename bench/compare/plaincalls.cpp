// The baseline: the same work with plain system calls. Pieces are copied into preallocated, already touched
// memory; a second thread writes each block, or each batch of blocks, with one pwrite; reads of files are one
// pread; reads of resident blocks are one memcpy. The number and the length of all blocks are known beforehand.
//
// The program is built twice. With KEEP_READ_BLOCKS false, all blocks are read into the same buffer, which
// therefore stays in the CPU cache. With KEEP_READ_BLOCKS true, each block is read into its own memory, as in a
// cache that keeps the blocks it has read; that memory is not in the CPU cache.
#include <fcntl.h>
#include <sys/mman.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "secondthread.h"
#include "store.h"

namespace bench {

const bool keepsFreedPages = true;

namespace {

class PlainCalls final : public Store {
public:
    void Open(const std::filesystem::path& dir, const Layout& layout) override {
        m_dir = dir;
        m_layout = layout;
        m_files.assign(layout.files, {});
        m_slots = static_cast<uint32_t>(std::min(layout.Bytes(), layout.memory) / layout.blockLen);
        m_written = m_handedOver = 0;
        m_slotOf.assign(layout.AllBlocks(), NONE);
        m_buffer.reset(
            static_cast<char*>(std::aligned_alloc(PAGE, std::max(layout.blockLen, PAGE))));
    }
    void Close() override {
        Flush();
        for (uint32_t file = 0; file < m_files.size(); ++file)
            CloseFile(file);
    }

    void Write(Place place, uint32_t at, const char* bytes, uint32_t length) override {
        if (at == 0)
            TakeSlot(place);
        std::memcpy(SlotAt(m_written % m_slots) + at, bytes, length);
        if (at + length < m_layout.blockLen)
            return;
        ++m_written;
        if (m_written - m_handedOver >= m_layout.batch)
            HandOver(place);
    }
    void Flush() override {
        if (m_written > m_handedOver) // an incomplete batch; batched workloads have one file
            HandOver({m_layout.files - 1, m_layout.blocks - 1});
        m_thread.WaitFor(0);
    }

    const char* Read(Place place, uint32_t at, uint32_t length) override {
        const uint32_t slot = m_slotOf[IndexOf(place)];
        if (slot != NONE) {
            std::memcpy(m_buffer.get(), SlotAt(slot) + at, length);
            return m_buffer.get();
        }
        const File& file = OpenFile(place.file);
        const off_t from = off_t{place.block} * m_layout.blockLen + at;
        char* const to = KEEP_READ_BLOCKS ? SlotAt(IndexOf(place) % m_slots) + at : m_buffer.get();
        Require(pread(file.data, to, length, from) == static_cast<ssize_t>(length), "pread failed");
        return to;
    }
    bool ReadMany(const std::vector<Place>& places, size_t, const Visit& visit) override {
        // One at a time: all bytes are in the page cache, so there is no disk latency to overlap.
        for (const Place place : places)
            visit(place, Read(place, 0, m_layout.blockLen));
        return true;
    }
    void Release() override { std::fill(m_slotOf.begin(), m_slotOf.end(), NONE); }

    void CloseFile(uint32_t index) override {
        File& file = m_files[index];
        if (file.data < 0)
            return;
        if (file.isNew) {
            const std::string path = PathOf(index) + ".table";
            const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
            const std::vector<Entry> table(m_layout.blocks, {m_layout.blockLen, 0});
            WriteTable(fd, table);
        }
        close(file.data);
        file = {};
    }

private:
    static constexpr uint32_t NONE = UINT32_MAX;
    static constexpr uint32_t PAGE = 4096;
    struct Free {
        void operator()(char* memory) const { std::free(memory); }
    };
    struct Entry {
        uint64_t length;
        uint64_t at;
    };
    struct File {
        int data = -1;
        bool isNew = false;
        std::vector<Entry> table;
    };

    static void WriteTable(int fd, const std::vector<Entry>& table) {
        const size_t size = table.size() * sizeof(Entry);
        Require(write(fd, table.data(), size) == static_cast<ssize_t>(size),
                "the table file failed");
        close(fd);
    }
    std::string PathOf(uint32_t file) const { return (m_dir / std::to_string(file)).string(); }
    uint32_t IndexOf(Place place) const { return place.file * m_layout.blocks + place.block; }

    File& OpenFile(uint32_t index) {
        File& file = m_files[index];
        if (file.data >= 0)
            return file;
        const std::string path = PathOf(index);
        const int table = open((path + ".table").c_str(), O_RDONLY | O_CLOEXEC);
        file.isNew = table < 0;
        if (table >= 0) {
            file.table.resize(m_layout.blocks);
            const size_t size = file.table.size() * sizeof(Entry);
            Require(read(table, file.table.data(), size) == static_cast<ssize_t>(size),
                    "the table file failed");
            close(table);
        }
        file.data = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        Require(file.data >= 0, "open failed");
        return file;
    }
    char* SlotAt(uint32_t slot) {
        if (!m_memory) {
            void* memory =
                mmap(nullptr, size_t{m_slots} * m_layout.blockLen, PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
            Require(memory != MAP_FAILED, "mmap failed");
            m_memory = static_cast<char*>(memory);
        }
        return m_memory + size_t{slot} * m_layout.blockLen;
    }
    // Slots are reused round-robin. A slot can be reused when its block has been written.
    void TakeSlot(Place place) {
        if (m_written >= m_slots) {
            m_thread.WaitFor(m_slots / 2);
            m_slotOf[m_blockIn[m_written % m_slots]] = NONE;
        }
        m_blockIn.resize(m_slots);
        m_blockIn[m_written % m_slots] = IndexOf(place);
        m_slotOf[IndexOf(place)] = m_written % m_slots;
    }
    void HandOver(Place last) {
        const uint32_t count = m_written - m_handedOver;
        m_thread.Post({OpenFile(last.file).data, SlotAt(m_handedOver % m_slots),
                       size_t{count} * m_layout.blockLen,
                       (off_t{last.block} + 1 - count) * m_layout.blockLen});
        m_handedOver = m_written;
    }

    std::filesystem::path m_dir;
    Layout m_layout;
    std::vector<File> m_files;
    char* m_memory = nullptr; // allocated once, for all rounds
    uint32_t m_slots = 0;
    uint32_t m_written = 0;
    uint32_t m_handedOver = 0;
    std::vector<uint32_t> m_slotOf;
    std::vector<uint32_t> m_blockIn;
    std::unique_ptr<char, Free>
        m_buffer; // page-aligned: the kernel copies fastest to such addresses
    SecondThread m_thread;
};

} // namespace

std::unique_ptr<Store> MakeStore() { return std::make_unique<PlainCalls>(); }

} // namespace bench
