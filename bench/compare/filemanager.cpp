// The library as an application has it, with thread number 3 pumped by the benchmark's own loop. Only what
// waits for its read/write thread reaches behind the exported headers. On a server blocks stay in memory up
// to 512 MiB and on a client up to 64 MiB, so the workload's limit says which of the two it is.
#include <atomic>
#include <chrono>
#include <string>

#include "../common.h"
#include "../node.h"
#include "IFileManager.h"
#include "RtRuntime.h"
#include "store.h"
#include "util/filemanager/filemanager.h"
#include "util/filemanager/fmfunctor.h"

namespace bench {

const bool keepsFreedPages = true;

namespace {

constexpr uint64_t CLIENT_MEMORY = 64 << 20;
constexpr uint64_t MINUTE_MS = 60'000;
constexpr uint64_t LONG_IDLE_MS = 240'001;

using BlockRef = CRtComAutoPtr<IFMBlock>;

// The real one, set forward when minutes are to pass.
class SkippingClock final : public IRtClock {
public:
    uint64_t TickCountMs() override {
        using namespace std::chrono;
        const auto since = steady_clock::now().time_since_epoch();
        return skipped + static_cast<uint64_t>(duration_cast<milliseconds>(since).count());
    }
    // Stands still, so that housekeeping runs once at most.
    CRtTimeValue TimeOfDay() override { return CRtTimeValue(1'700'000'000, 0); }
    std::atomic<uint64_t> skipped{0};
};

FMFileID IdOf(uint32_t file) { return {file + 1, 0, 0, {}}; }

class FileManager final : public Store {
public:
    FileManager() {
        Require(m_thread.IsValid(), "the process has a caller thread already");
        RtSetLogSink(nullptr, nullptr, RT_LOG_ERROR); // large tables are meant here
        for (uint32_t i = 0; i < NODES; ++i)
            m_nodes.emplace_back(new Node(true, i));
    }
    ~FileManager() override {
        m_files.clear();
        m_manager->UnInitialize();
        RtSetClock(nullptr);
    }

    void Open(const std::filesystem::path& dir, const Layout& layout) override {
        m_layout = layout;
        m_files.resize(layout.files);
        const int isServer = layout.memory > CLIENT_MEMORY ? 1 : 0;
        Require(m_manager->Initialize(CRtString(dir.string()), 7, isServer) == 0, "no start");
    }
    void Close() override {
        m_view.reset();
        m_files.clear();
        m_manager->UnInitialize();
        Pump();
    }

    void Write(Place place, uint32_t at, const char* bytes, uint32_t length) override {
        const CRtMessageChain piece = CRtMessageBlock::Wrap(bytes, length);
        Require(BlockAt(place, 1).WriteData(m_layout.blockLen, at, piece.get()) == 0, "refused");
    }
    // The queue of the read/write thread keeps the order, so one empty event that is waited for is
    // enough; an application has that as a part of stopping.
    void Flush() override {
        Require(CFileManager::Instance()->PostToReadwrThread(new CFMFunctorBase, 1) == 0,
                "there is no read/write thread");
    }

    const char* Read(Place place, uint32_t at, uint32_t length) override {
        CRtMessageBlock* view = nullptr;
        Require(BlockAt(place, 0).ReadData(at, length, view) == 0, "a read failed");
        m_view.reset(view);
        return view->GetTopLevelReadPtr();
    }
    bool ReadMany(const std::vector<Place>& places, size_t window, const Visit& visit) override {
        Window(*this, places, visit).Run(window);
        return true;
    }
    // What the manager's tick does with idle blocks.
    void Release() override {
        m_view.reset();
        Skip(LONG_IDLE_MS);
        for (const File& file : m_files) {
            for (const BlockRef& block : file.blocks)
                Require(!block || !block->FreeMemory(), "a block stays in memory");
        }
        Pump();
    }
    void CloseFile(uint32_t index) override {
        m_view.reset();
        m_files[index] = {};
        Require(m_manager->DetachFile(IdOf(index)) == 0, "the file was not open");
    }

    void SetOwner(Place place, uint32_t node, bool owns) override {
        BlockAt(place, 0).SetOwner(m_nodes[node].Get(), owns ? 1 : 0);
    }
    bool HasOwner(Place place) override { return BlockAt(place, 0).HasOwner(); }
    void Tick() override {
        Skip(MINUTE_MS);
        Pump();
    }

private:
    static constexpr uint32_t NODES = 8;
    struct File {
        CRtComAutoPtr<IFMFile> file;
        std::vector<BlockRef> blocks;
    };

    // Keeps a number of blocks in flight and lets the loop return after the last.
    class Window final : public IFMBlockSink {
    public:
        Window(FileManager& store, const std::vector<Place>& places, const Visit& visit)
            : m_store(store), m_places(places), m_visit(visit) {}
        void Run(size_t window) {
            while (m_asked < std::min(window, m_places.size()))
                AskNext();
            if (m_done < m_places.size())
                m_store.m_thread.Run();
        }
        void OnBlockDataReady(IFMBlock* block, int result) override {
            Require(result == 0, "a load failed");
            CRtMessageBlock* view = nullptr;
            Require(block->ReadData(0, m_store.m_layout.blockLen, view) == 0, "a read failed");
            const CRtMessageChain owned(view);
            m_visit(m_store.PlaceOf(*block), view->GetTopLevelReadPtr());
            if (m_asked < m_places.size())
                AskNext();
            if (++m_done == m_places.size())
                m_store.m_thread.Quit();
        }

    private:
        void AskNext() {
            const Place place = m_places[m_asked++];
            Require(m_store.BlockAt(place, 0).ReadData(this) == 0, "a read failed");
        }
        FileManager& m_store;
        const std::vector<Place>& m_places;
        const Visit& m_visit;
        size_t m_asked = 0;
        size_t m_done = 0;
    };

    static Place PlaceOf(IFMBlock& block) {
        return {block.GetFileID().Data1 - 1, block.GetBlockID() - 1};
    }
    File& OpenFile(uint32_t index, int create) {
        File& file = m_files[index];
        if (file.file)
            return file;
        if (create) {
            FMFileInfo info;
            info.fileID = IdOf(index);
            info.blockBeg = 1;
            info.num = m_layout.blocks;
            Require(m_manager->CreateFile(file.file.Receive(), info) == 0, "no file");
        } else {
            Require(m_manager->OpenFile(file.file.Receive(), IdOf(index), 1) == 0, "no file");
        }
        file.blocks.resize(m_layout.blocks);
        return file;
    }
    IFMBlock& BlockAt(Place place, int create) {
        File& file = OpenFile(place.file, create);
        BlockRef& block = file.blocks[place.block];
        if (!block)
            Require(file.file->GetBlock(block.Receive(), place.block + 1, create) == 0, "no block");
        return *block.Get();
    }
    void Skip(uint64_t ms) {
        RtSetClock(&m_clock);
        m_clock.skipped += ms;
    }
    void Pump() {
        while (m_thread.RunDue() > 0) {
        }
    }

    SkippingClock m_clock;
    CRtCallerThread m_thread;
    IFileManager* const m_manager = IFileManager::Instance();
    std::vector<CRtComAutoPtr<Node>> m_nodes;
    Layout m_layout;
    std::vector<File> m_files;
    CRtMessageChain m_view;
};

} // namespace

std::unique_ptr<Store> MakeStore() { return std::make_unique<FileManager>(); }

} // namespace bench
