// Runs one central operation TIMES times under callgrind, which counts instructions. Operations of the caller
// thread are counted inside Counted, those of the read/write thread inside a function of the library (count.py
// has the list). While one thread is counted, the other one is blocked, so that the count does not depend on
// their relative speed.
#include <latch>
#include <vector>

#include "../support.h"
#include "util/filemanager/fmblock.h"

namespace {

using namespace bench;

constexpr uint32_t TIMES = 200;
constexpr uint32_t PIECE = 64; // small: the count is to exclude the copying of bytes

// callgrind counts while this function runs.
template <class Work>
[[gnu::noinline]] void Counted(Work work) {
    for (uint32_t i = 0; i < TIMES; ++i)
        work(i);
}

// Blocks the read/write thread until the destructor runs.
class Hold {
public:
    Hold() {
        Require(CFileManager::Instance()->PostToReadwrThread(new Event(*this), 0) == 0,
                "the read/write thread does not run");
        m_begun.wait();
    }
    ~Hold() {
        m_end.count_down();
        m_left.wait(); // the event uses this object until then
    }
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

private:
    class Event final : public IRtEvent {
    public:
        explicit Event(Hold& hold) : m_hold(hold) {}
        int OnEventFire() override {
            m_hold.m_begun.count_down();
            m_hold.m_end.wait();
            m_hold.m_left.count_down();
            return 0;
        }

    private:
        Hold& m_hold;
    };
    std::latch m_begun{1};
    std::latch m_end{1};
    std::latch m_left{1};
};

struct Blocks {
    Blocks() : file(cache.Create(TIMES)) {
        for (uint32_t i = 0; i < TIMES; ++i)
            blocks.push_back(BlockAt(*file, i));
    }
    ~Blocks() {
        blocks.clear();
        cache.Close(file);
    }
    Blocks(const Blocks&) = delete;
    Blocks& operator=(const Blocks&) = delete;
    void Write(uint32_t index, uint32_t length, uint32_t at) {
        const CRtMessageChain piece = CRtMessageBlock::Wrap(BytesOf(index), PIECE);
        Require(blocks[index]->WriteData(length, at, piece.get()) == 0, "WriteData failed");
    }
    void WriteAll() {
        for (uint32_t i = 0; i < TIMES; ++i)
            Write(i, PIECE, 0);
    }
    Cache cache;
    FileRef file;
    std::vector<BlockRef> blocks;
};

void PieceWrite() {
    Blocks blocks;
    const uint32_t length = PIECE * (TIMES + 2);
    blocks.Write(0, length, 0);
    Counted([&](uint32_t i) { blocks.Write(0, length, PIECE * (i + 1)); });
}

void LastPieceWrite() {
    Blocks blocks;
    for (uint32_t i = 0; i < TIMES; ++i)
        blocks.Write(i, 2 * PIECE, 0);
    const Hold hold;
    Counted([&](uint32_t i) { blocks.Write(i, 2 * PIECE, PIECE); });
}

// Store and CoalescedStore are counted in CFMStoreEvent::OnEventFire.
void Store() {
    Blocks blocks;
    for (uint32_t i = 0; i < TIMES; ++i) {
        blocks.Write(i, PIECE, 0);
        blocks.cache.Drain();
    }
}

void CoalescedStore() {
    Blocks blocks;
    {
        const Hold hold;
        blocks.WriteAll();
    }
    blocks.cache.Drain();
}

void ResidentRead() {
    Blocks blocks;
    blocks.WriteAll();
    blocks.cache.Drain();
    Counted([&](uint32_t i) {
        CRtMessageBlock* view = nullptr;
        Require(blocks.blocks[i]->ReadData(0, PIECE, view) == 0, "ReadData failed");
        view->DestroyChained();
    });
}

class Sink final : public IFMBlockSink {
public:
    void OnBlockDataReady(IFMBlock*, int result) override {
        Require(result == 0, "a load failed");
        ++done;
    }
    uint32_t done = 0;
};

// Counted in CFMBlock::ReadFromFile.
void Load() {
    class LaterClock final : public IRtClock {
    public:
        LaterClock() { RtSetClock(this); }
        ~LaterClock() override { RtSetClock(nullptr); }
        uint64_t TickCountMs() override { return now; }
        CRtTimeValue TimeOfDay() override { return CRtTimeValue(1'700'000'000, 0); }
        uint64_t now = 1'000'000;
    } clock;
    Blocks blocks;
    blocks.WriteAll();
    blocks.cache.Drain();
    constexpr uint64_t longIdleMs = 240'001;
    clock.now += longIdleMs;
    Sink sink;
    for (const BlockRef& block : blocks.blocks) {
        Require(!block->FreeMemory(), "a block was not evicted");
        Require(block->ReadData(&sink) == 0, "ReadData failed");
    }
    blocks.cache.Drain();
    while (blocks.cache.thread.RunDue() > 0) {
    }
    Require(sink.done == TIMES, "a load did not finish");
}

void PostEvent() {
    Blocks blocks;
    {
        const Hold hold;
        Counted(
            [](uint32_t) { CFileManager::Instance()->PostToReadwrThread(new CFMFunctorBase, 0); });
    }
    blocks.cache.Drain();
}

} // namespace

int main(int argc, char** argv) {
    struct Operation {
        const char* name;
        void (*run)();
    };
    constexpr Operation operations[] = {{"piece_write", PieceWrite},
                                        {"last_piece_write", LastPieceWrite},
                                        {"store", Store},
                                        {"coalesced_store", CoalescedStore},
                                        {"resident_read", ResidentRead},
                                        {"load", Load},
                                        {"post_event", PostEvent}};
    for (const Operation& operation : operations) {
        if (argc != 2 || std::string(argv[1]) != operation.name)
            continue;
        operation.run();
        std::printf("%u\n", TIMES);
        return 0;
    }
    Require(false, "usage: count_operations OPERATION");
    return 1;
}
