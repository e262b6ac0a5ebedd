// The library, used as an application uses it: the benchmark's thread is the caller thread. A server keeps up
// to 512 MiB of blocks resident and a client up to 64 MiB, so Layout::memory decides which of the two runs.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

#include "../common.h"
#include "IFileManager.h"
#include "RtRuntime.h"
#include "store.h"
#include "testing/node.h"

namespace bench {

const bool keepsFreedPages = true;

namespace {

constexpr uint64_t CLIENT_MEMORY = 64 << 20;
constexpr uint64_t MINUTE_MS = 60'000;
constexpr uint64_t LONG_IDLE_MS = 240'001;

using BlockRef = CRtComAutoPtr<IFMBlock>;

// The real clock plus an offset, which advances when a workload simulates minutes.
class SkippingClock final : public IRtClock {
public:
    uint64_t TickCountMs() override {
        using namespace std::chrono;
        const auto since = steady_clock::now().time_since_epoch();
        return skipped + static_cast<uint64_t>(duration_cast<milliseconds>(since).count());
    }
    // Constant, so that housekeeping runs at most once.
    CRtTimeValue TimeOfDay() override { return CRtTimeValue(1'700'000'000, 0); }
    std::atomic<uint64_t> skipped{0};
};

FMFileID IdOf(uint32_t file) { return {file + 1, 0, 0, {}}; }

class FileManager final : public Store {
public:
    FileManager() {
        Require(m_thread.IsValid(), "the process already has a caller thread");
        RtSetLogSink(nullptr, nullptr, RT_LOG_ERROR); // large tables are intended: no warnings
        for (uint32_t i = 0; i < NODES; ++i)
            m_nodes.push_back(std::make_unique<Node>(i, true, true, i));
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
        Require(m_manager->Initialize(CRtString(dir.string()), 7, isServer) == 0,
                "Initialize failed");
    }
    void Close() override {
        m_view.reset();
        m_files.clear();
        m_manager->UnInitialize();
        Pump();
    }

    void Write(Place place, uint32_t at, const char* bytes, uint32_t length) override {
        const CRtMessageChain piece = CRtMessageBlock::Wrap(bytes, length);
        Require(BlockAt(place, 1).WriteData(m_layout.blockLen, at, piece.get()) == 0,
                "WriteData failed");
    }
    // An application gets the same effect from UnInitialize.
    void Flush() override {
        Require(FMWaitUntilIdle(FM_WAIT_FOREVER) == 0, "the read/write thread does not run");
    }

    const char* Read(Place place, uint32_t at, uint32_t length) override {
        CRtMessageBlock* view = nullptr;
        Require(BlockAt(place, 0).ReadData(at, length, view) == 0, "ReadData failed");
        m_view.reset(view);
        return view->GetTopLevelReadPtr();
    }
    bool ReadMany(const std::vector<Place>& places, size_t window, const Visit& visit) override {
        Window(*this, places, visit).Run(window);
        return true;
    }
    void BeginRead(Place place, uint32_t length, const Done& done) override {
        auto* const sink = new Single(length, done);
        Require(BlockAt(place, 0).ReadData(sink) == 0, "ReadData failed");
    }
    void WaitUntil(Clock::time_point time) override {
        for (bool woken = true; woken; m_woken = false) {
            m_thread.RunDue();
            std::unique_lock lock(m_mutex);
            woken = m_wake.wait_until(lock, time, [this] { return m_woken; });
        }
    }
    // The manager's tick does the same with blocks that were idle for four minutes.
    void Release() override {
        m_view.reset();
        Skip(LONG_IDLE_MS);
        for (const File& file : m_files) {
            for (const BlockRef& block : file.blocks)
                Require(!block || !block->FreeMemory(), "a block was not evicted");
        }
        Pump();
    }
    void CloseFile(uint32_t index) override {
        m_view.reset();
        m_files[index] = {};
        Require(m_manager->DetachFile(IdOf(index)) == 0, "the file was not open");
    }

    void SetOwner(Place place, uint32_t node, bool owns) override {
        BlockAt(place, 0).SetOwner(m_nodes[node].get(), owns ? 1 : 0);
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

    // Keeps `window` loads in flight and quits the loop after the last one.
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
            Require(block->ReadData(0, m_store.m_layout.blockLen, view) == 0, "ReadData failed");
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
            Require(m_store.BlockAt(place, 0).ReadData(this) == 0, "ReadData failed");
        }
        FileManager& m_store;
        const std::vector<Place>& m_places;
        const Visit& m_visit;
        size_t m_asked = 0;
        size_t m_done = 0;
    };

    // One read; destroys itself when it is complete.
    class Single final : public IFMBlockSink {
    public:
        Single(uint32_t length, const Done& done) : m_length(length), m_done(done) {}
        void OnBlockDataReady(IFMBlock* block, int result) override {
            const std::unique_ptr<Single> self(this);
            Require(result == 0, "a load failed");
            CRtMessageBlock* view = nullptr;
            Require(block->ReadData(0, m_length, view) == 0, "ReadData failed");
            const CRtMessageChain owned(view);
            m_done(view->GetTopLevelReadPtr());
        }

    private:
        const uint32_t m_length;
        const Done m_done;
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
            Require(m_manager->CreateFile(file.file.Receive(), info) == 0,
                    "the file cannot be opened");
        } else {
            Require(m_manager->OpenFile(file.file.Receive(), IdOf(index), 1) == 0,
                    "the file cannot be opened");
        }
        file.blocks.resize(m_layout.blocks);
        return file;
    }
    IFMBlock& BlockAt(Place place, int create) {
        File& file = OpenFile(place.file, create);
        BlockRef& block = file.blocks[place.block];
        if (!block)
            Require(file.file->GetBlock(block.Receive(), place.block + 1, create) == 0,
                    "GetBlock failed");
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

    void Wake() {
        const std::lock_guard lock(m_mutex);
        m_woken = true;
        m_wake.notify_one();
    }

    SkippingClock m_clock;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_woken = false; // an event was queued since WaitUntil has run all events
    CRtCallerThread m_thread{[this] { Wake(); }};
    IFileManager* const m_manager = IFileManager::Instance();
    std::vector<std::unique_ptr<Node>> m_nodes;
    Layout m_layout;
    std::vector<File> m_files;
    CRtMessageChain m_view;
};

} // namespace

std::unique_ptr<Store> MakeStore() { return std::make_unique<FileManager>(); }

} // namespace bench
