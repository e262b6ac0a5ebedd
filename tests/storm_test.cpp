// Random calls that cancel, release, close and stop while callbacks and references are pending: every sink is
// called once or was cancelled, and no object outlives its last reference.
#include <gtest/gtest.h>

#include <memory>
#include <random>

#include "support.h"
#include "util/filemanager/filemanager.h"

namespace {

const int ROUNDS = 100'000 / static_cast<int>(SLOWNESS);
constexpr uint32_t BLOCKS = 6;
constexpr size_t FILES = 3;
constexpr size_t SINKS = 24;

class Storm {
public:
    explicit Storm(Cache& cache, TestClock& clock) : m_cache(cache), m_clock(clock) {
        for (File& file : m_files)
            file.id = Description().fileID;
        for (auto& sink : m_sinks)
            sink = std::make_unique<Sink>(*this);
    }

    void Step() {
        using S = Storm;
        static constexpr void (S::*steps[])() = {&S::Ask,    &S::Ask,    &S::Ask,      &S::Ask,
                                                 &S::Ask,    &S::Cancel, &S::WriteOne, &S::WriteOne,
                                                 &S::Remove, &S::Close,  &S::Look,     &S::Rarely,
                                                 &S::Pump,   &S::Pump,   &S::Pump,     &S::Pump};
        (this->*steps[Pick(std::size(steps))])();
    }

    void End() {
        m_ending = true;
        m_cache.Stop();
        FMWaitUntilIdle();
        for (File& file : m_files)
            file.file.Reset();
        for (auto& sink : m_sinks) {
            EXPECT_FALSE(sink->waiting);
            sink->block.Reset();
        }
        EXPECT_GT(m_called, ROUNDS / 20);
    }

private:
    struct Sink final : IFMBlockSink {
        explicit Sink(Storm& owner) : storm(owner) {}
        void OnBlockDataReady(IFMBlock* which, int) override {
            EXPECT_TRUE(waiting && which == block.Get());
            waiting = false;
            ++storm.m_called;
            storm.FromSink(*this);
        }
        Storm& storm;
        BlockRef block;
        bool waiting = false;
    };
    struct File {
        FMFileID id;
        FileRef file;
    };

    uint32_t Pick(size_t count) { return static_cast<uint32_t>(m_random() % count); }

    IFMFile& SomeFile() {
        File& file = m_files[Pick(FILES)];
        if (!file.file)
            file.file = m_cache.Open(file.id);
        if (!file.file) {
            FMFileInfo info = Description();
            info.fileID = file.id;
            file.file = m_cache.Create(info);
        }
        return *file.file;
    }

    BlockRef SomeBlock() { return Cache::Block(SomeFile(), 1 + Pick(BLOCKS)); }

    void Ask() {
        Sink& sink = *m_sinks[Pick(SINKS)];
        if (sink.waiting)
            return;
        if (!sink.block || Pick(2) == 0) // else the previous block, possibly of a closed file
            sink.block = SomeBlock();
        sink.waiting = true; // it may be called before the call returns
        const BlockRef block = sink.block;
        if (block->ReadData(&sink) != 0)
            sink.waiting = false;
    }

    void Cancel() {
        Sink& sink = *m_sinks[Pick(SINKS)];
        if (sink.waiting)
            sink.block->CancelReadData(&sink);
        sink.waiting = false;
        sink.block.Reset();
    }

    void WriteOne() {
        // Sometimes a block that two threads read.
        const std::string bytes(Pick(100) == 0 ? 150'000 : 1 + Pick(900), 'x');
        Write(*SomeBlock(), bytes.substr(0, bytes.size() - Pick(2)), 300);
    }

    void Remove() {
        BlockRef removed;
        SomeFile().RemoveBlock(1 + Pick(BLOCKS), removed.Receive());
    }

    void Close() {
        File& file = m_files[Pick(FILES)];
        m_cache.manager->DetachFile(file.id);
        file.file.Reset();
    }

    void Look() { Read(*SomeBlock()); }

    // Not from inside a sink, where the thread already runs its queue.
    void Pump() {
        if (m_depth == 0)
            m_cache.thread.RunDue();
    }

    void Rarely() {
        m_clock.Advance(300'000); // the next tick releases idle blocks
        if (Pick(20) != 0)
            return;
        m_cache.Stop();
        for (File& file : m_files)
            file.file.Reset();
        if (!m_ending)
            m_cache.Start();
    }

    void FromSink(Sink& sink) {
        if (Pick(3) == 0)
            sink.block.Reset(); // possibly the last reference except that of the call
        if (m_ending || m_depth >= 3)
            return;
        ++m_depth;
        Step();
        --m_depth;
    }

    Cache& m_cache;
    TestClock& m_clock;
    std::mt19937 m_random{4711};
    File m_files[FILES];
    std::unique_ptr<Sink> m_sinks[SINKS];
    int m_called = 0;
    int m_depth = 0;
    bool m_ending = false;
};

} // namespace

TEST(Storm, EverySinkIsCalledOnceOrCancelledAndEveryObjectIsReleased) {
    TestClock clock;
    LogCapture quiet(RT_LOG_SILENT);
    {
        Cache first; // afterwards the objects that live as long as the process exist
        Write(*Cache::Block(*first.Create(), 1), "bytes");
        FMWaitUntilIdle();
    }
    const size_t threads = CountThreads();
    const size_t handles = CountHandles();
    {
        Cache cache;
        Storm storm(cache, clock);
        for (int round = 0; round < ROUNDS && !testing::Test::HasFailure(); ++round)
            storm.Step();
        storm.End();
    }
    EXPECT_GT(g_counters.blocksCreated, ROUNDS / 20);
    EXPECT_EQ(g_counters.blocksCreated, g_counters.blocksDestroyed);
    EXPECT_EQ(g_counters.filesCreated, g_counters.filesDestroyed);
    EXPECT_EQ(CFileManager::Instance()->GetMemoryInUse(), 0U);
    EXPECT_EQ(CountThreads(), threads);
    EXPECT_EQ(CountHandles(), handles);
}
