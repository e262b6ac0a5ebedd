// Reading stored blocks whose memory was released, in random order, beside plain preads of the same
// ranges of the same file into fresh buffers. Both sides keep what they read until the clock stops.
//
// The asynchronous read is the main figure: it is how blocks are meant to be fetched in numbers. The
// synchronous one hands each block over between two threads that wait for each other.
#include <fcntl.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <numeric>

#include "compare.h"
#include "support.h"

namespace {

using namespace bench;
using Clock = std::chrono::steady_clock;

constexpr uint32_t BLOCKS = 1024;
constexpr uint64_t BYTES = uint64_t{BLOCKS} * BLOCK_LEN;
constexpr size_t WINDOW = 8;
constexpr int64_t LONG_IDLE_MS = 240'001;

// Milliseconds pass when told to. The time of day stands still, so that housekeeping runs once at most.
class HandClock final : public IRtClock {
public:
    HandClock() { RtSetClock(this); }
    ~HandClock() override { RtSetClock(nullptr); }
    uint64_t TickCountMs() override { return tick; }
    CRtTimeValue TimeOfDay() override { return CRtTimeValue(1'700'000'000, 0); }
    std::atomic<uint64_t> tick{1'000'000};
};

void RequireBytes(const char* bytes, uint32_t index) {
    Require(std::memcmp(bytes, BytesOf(index), BLOCK_LEN) == 0, "not what was stored");
}

class StoredFile {
public:
    StoredFile() : file(cache.Create(BLOCKS)) {
        for (uint32_t i = 0; i < BLOCKS; ++i) {
            blocks.push_back(BlockAt(*file, i));
            WriteInPieces(*blocks[i], BytesOf(i));
        }
        cache.Drain();
        order.resize(BLOCKS);
        std::iota(order.begin(), order.end(), 0U);
        fd = open(Cache::DataPath(*file).c_str(), O_RDONLY | O_CLOEXEC);
        Require(fd >= 0, "there is no data file");
        Release();
    }
    ~StoredFile() {
        close(fd);
        blocks.clear();
        cache.Close(file);
    }

    // What the manager's tick does with idle blocks, and an order for the next round.
    void Release() {
        clock.tick += LONG_IDLE_MS;
        for (const BlockRef& block : blocks)
            Require(!block->FreeMemory(), "a block stays in memory");
        while (cache.thread.RunDue() > 0)
            cache.Drain();
        std::shuffle(order.begin(), order.end(), random);
    }
    void RequireContents() {
        for (uint32_t i = 0; i < BLOCKS; ++i) {
            Require(blocks[i]->IsInMemory(), "a block was not read");
            RequireBytes(blocks[i]->GetData()->GetTopLevelReadPtr(), i);
        }
    }

    HandClock clock; // before the cache, which asks it
    Cache cache;
    FileRef file;
    std::vector<BlockRef> blocks;
    std::vector<uint32_t> order;
    std::minstd_rand random{1};
    int fd = -1;
};

void TakeWhole(IFMBlock& block) {
    CRtMessageBlock* view = nullptr;
    Require(block.ReadData(0, BLOCK_LEN, view) == 0, "a read failed");
    benchmark::DoNotOptimize(view);
    view->DestroyChained();
}

// Keeps a window of blocks in flight and lets the caller thread's loop return after the last.
class WindowReader final : public IFMBlockSink {
public:
    explicit WindowReader(StoredFile& stored) : m_stored(stored) {}
    void Run(size_t window) {
        while (m_asked < window)
            AskNext();
        m_stored.cache.thread.Run();
    }
    void OnBlockDataReady(IFMBlock* block, int result) override {
        Require(result == 0, "a load failed");
        TakeWhole(*block);
        if (m_asked < BLOCKS)
            AskNext();
        if (++m_done == BLOCKS)
            m_stored.cache.thread.Quit();
    }

private:
    void AskNext() {
        Require(m_stored.blocks[m_stored.order[m_asked++]]->ReadData(this) == 0, "a read failed");
    }
    StoredFile& m_stored;
    size_t m_asked = 0;
    size_t m_done = 0;
};

double ReadPlain(StoredFile& stored, bool check) {
    std::vector<std::unique_ptr<char[]>> kept(BLOCKS);
    const auto start = Clock::now();
    for (const uint32_t i : stored.order) {
        kept[i].reset(new char[BLOCK_LEN]); // not cleared, as the cache's
        Require(pread(stored.fd, kept[i].get(), BLOCK_LEN, off_t{i} * BLOCK_LEN) == BLOCK_LEN,
                "pread failed");
    }
    const double seconds = SecondsSince(start);
    for (uint32_t i = 0; check && i < BLOCKS; ++i)
        RequireBytes(kept[i].get(), i);
    return seconds;
}

template <class Read>
void CompareReads(benchmark::State& state, StoredFile& stored, Read read) {
    read();
    stored.RequireContents();
    stored.Release();
    ReadPlain(stored, true);
    const auto ours = [&] {
        const auto start = Clock::now();
        read();
        const double seconds = SecondsSince(start);
        stored.Release();
        return seconds;
    };
    Compare(state, BYTES, ours, [&] { return ReadPlain(stored, false); });
}

void ReadAsynchronously(benchmark::State& state) {
    StoredFile stored;
    CompareReads(state, stored, [&] { WindowReader(stored).Run(WINDOW); });
}
BENCHMARK(ReadAsynchronously)->Apply(AsComparison);

void ReadSynchronously(benchmark::State& state) {
    StoredFile stored;
    CompareReads(state, stored, [&] {
        for (const uint32_t i : stored.order)
            TakeWhole(*stored.blocks[i]);
    });
}
BENCHMARK(ReadSynchronously)->Apply(AsComparison);

} // namespace
