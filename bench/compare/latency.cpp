// Workloads that measure single latencies. One thread, the event loop of an application, sends all operations;
// a participant without threads of its own works on that thread. The loop sleeps between operations.
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <random>

#include "../common.h"
#include "../memory.h"
#include "workloads.h"

namespace bench {

namespace {

using Clock = Store::Clock;
using Time = Clock::time_point;

double UsSince(Time time) {
    return std::chrono::duration<double, std::micro>(Clock::now() - time).count();
}

// FILES files are stored by another process before (Prepare); the reads choose among their blocks, each block
// once per round. Their block 0 is read before, so that the file is open. New blocks go to FILES other files,
// which are new in each round.
class LatencyWork : public Workload {
public:
    LatencyWork(uint32_t blocks)
        : Workload({.files = FILES * (1 + MAX_ROUNDS),
                    .blocks = blocks + 1,
                    .blockLen = BLOCK_LEN,
                    .pieceLen = PIECE_LEN,
                    .memory = 128 << 20}),
          m_blocks(blocks) {
        // Before the first thread starts: threads inherit it. By default a sleep lasts up to 50 us longer.
        Require(prctl(PR_SET_TIMERSLACK, 1) == 0, "prctl failed");
    }
    void Prepare(Stage& stage) override {
        for (uint32_t i = 0; i < Count(); ++i)
            m_old.push_back({i % FILES, 1 + i / FILES});
        if (!std::filesystem::is_empty(stage.dir))
            return;
        stage.store.Open(stage.dir, m_layout);
        for (uint32_t file = 0; file < FILES; ++file) {
            for (uint32_t block = 0; block < m_layout.blocks; ++block)
                WriteBlock(stage.store, m_layout, {file, block});
        }
        stage.store.Flush();
        stage.store.Close();
    }
    bool Round(Stage& stage, Meter& meter, bool check) override {
        Require(++m_round <= MAX_ROUNDS, "too many rounds");
        m_check = check;
        m_moved = 0;
        m_latencies.clear();
        std::shuffle(m_old.begin(), m_old.end(), m_random);
        stage.store.Open(stage.dir, m_layout);
        for (uint32_t file = 0; file < FILES; ++file)
            stage.store.Read({file, 0}, 0, BLOCK_LEN);
        sync(); // otherwise the kernel writes the bytes of earlier rounds back during this one
        MeasureLoop(stage.store);
        meter.WarmUp(2 * uint64_t{Count()} * BLOCK_LEN);
        meter.Begin();
        Measure(stage.store);
        stage.store.Flush();
        meter.End();
        stage.store.Close();
        if (check)
            CheckNewBlocks(stage);
        return true;
    }
    double Operations() const override { return Count(); }
    uint64_t Bytes() const override { return m_moved; }

protected:
    static constexpr uint32_t FILES = 64, MAX_ROUNDS = 64;

    virtual void Measure(Store& store) = 0;
    virtual uint32_t Written() const { return Count(); } // number of new blocks
    uint32_t Count() const { return FILES * m_blocks; }
    Place NewPlace(uint32_t i) const { return {m_round * FILES + i % FILES, i / FILES}; }
    void Write(Store& store, uint32_t block, uint32_t piece) {
        WritePiece(store, m_layout, NewPlace(block), piece * PIECE_LEN);
        m_moved += PIECE_LEN;
    }
    void BeginRead(Store& store, uint32_t i, Time due) {
        ++m_reading;
        const Place place = m_old[i];
        store.BeginRead(place, BLOCK_LEN, [this, place, due](const char* bytes) {
            Touch(bytes, BLOCK_LEN);
            m_latencies["read"].push_back(UsSince(due));
            m_moved += BLOCK_LEN;
            --m_reading;
            if (m_check)
                RequireBytes(m_layout, place, bytes, 0, BLOCK_LEN);
        });
    }
    void EndReads(Store& store) {
        while (m_reading > 0)
            store.WaitUntil(Clock::now() + std::chrono::milliseconds(1));
    }

private:
    // How late the loop runs when it has nothing to do: the share of the machine in each latency.
    void MeasureLoop(Store& store) {
        constexpr int wakeUps = 640;
        Time due = Clock::now();
        for (int i = 0; i < wakeUps; ++i) {
            due += std::chrono::microseconds(156);
            store.WaitUntil(due);
            m_latencies["loop"].push_back(UsSince(due));
        }
    }
    void CheckNewBlocks(Stage& stage) {
        stage.store.Open(stage.dir, m_layout);
        for (uint32_t i = 0; i < Written(); ++i)
            RequireBytes(m_layout, NewPlace(i), stage.store.Read(NewPlace(i), 0, BLOCK_LEN), 0,
                         BLOCK_LEN);
        stage.store.Close();
    }

    const uint32_t m_blocks; // of each file, new or stored before, that a round writes or reads
    uint32_t m_round = 0;
    bool m_check = false;
    uint64_t m_moved = 0;
    uint32_t m_reading = 0;
    std::vector<Place> m_old;
    std::minstd_rand m_random{1};
};

// Open loop: the clock alone decides when an operation is due, and its latency counts from then. Blocks arrive
// piece by piece in all files round-robin. While a block arrives, a stored one is read, at a random moment:
// with a fixed one, all reads would meet the disk in the same state. After 1.5 times the length of the
// schedule, the operations left are not sent, and are charged with the time until then.
class TailWork final : public LatencyWork {
public:
    TailWork(uint32_t blocks, uint32_t blocksPerSecond)
        : LatencyWork(blocks), m_interval(1e9 / (blocksPerSecond * PIECES)) {}

private:
    static constexpr uint32_t PIECES = BLOCK_LEN / PIECE_LEN;

    void Measure(Store& store) override {
        const uint32_t pieces = Count() * PIECES;
        std::minstd_rand random(1);
        std::uniform_real_distribution<double> within(0, PIECES);
        double readAt = 0;
        m_written = 0;
        m_begin = Clock::now() + std::chrono::milliseconds(1);
        m_end = Due(1.5 * pieces);
        for (uint32_t i = 0; i < pieces; ++i) {
            if (Await(store, Due(i), "piece")) {
                const Time called = Clock::now();
                Write(store, i / PIECES, i % PIECES);
                m_latencies["call"].push_back(UsSince(called));
                m_latencies["piece"].push_back(UsSince(Due(i)));
                m_written = (i + 1) / PIECES;
            }
            if (i % PIECES == 0)
                readAt = i + within(random);
            if (static_cast<uint32_t>(readAt) == i && Await(store, Due(readAt), "read"))
                BeginRead(store, i / PIECES, Due(readAt));
        }
        EndReads(store);
    }
    uint32_t Written() const override { return m_written; }
    Time Due(double piece) const {
        return m_begin + std::chrono::nanoseconds(static_cast<int64_t>(piece * m_interval));
    }
    bool Await(Store& store, Time due, const char* kind) {
        store.WaitUntil(due);
        if (Clock::now() < m_end)
            return true;
        m_latencies[kind].push_back(UsSince(due));
        m_latencies["unsent"].push_back(UsSince(due));
        return false;
    }

    const double m_interval; // between pieces, in ns
    uint32_t m_written = 0;
    Time m_begin, m_end;
};

// Queues one store per file at once, then reads a stored block. For participants whose stores wait in a queue.
class BehindWork final : public LatencyWork {
public:
    using LatencyWork::LatencyWork;

private:
    void Measure(Store& store) override {
        for (uint32_t i = 0; i < Count(); i += FILES) {
            for (uint32_t block = i; block < i + FILES; ++block) {
                for (uint32_t piece = 0; piece < BLOCK_LEN / PIECE_LEN; ++piece)
                    Write(store, block, piece);
            }
            const Time begin = Clock::now();
            BeginRead(store, i / FILES, begin);
            EndReads(store);
            store.Flush();
            m_latencies["drain"].push_back(UsSince(begin)); // shows that the read was behind stores
        }
    }
};

} // namespace

std::unique_ptr<Workload> MakeLatencyWorkload(const std::string& name, uint32_t share) {
    const auto part = [share](uint32_t blocks) { return std::max(blocks / share, 1U); };
    if (name == "tail") // one second, 100 MiB/s
        return std::make_unique<TailWork>(part(6), 400);
    if (name == "tail_slow") // one second; one thread completes about 450 writes/s of 2 ms
        return std::make_unique<TailWork>(part(4), 256);
    if (name == "behind")
        return std::make_unique<BehindWork>(part(10));
    return nullptr;
}

} // namespace bench
