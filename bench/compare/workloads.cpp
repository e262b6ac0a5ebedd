#include "workloads.h"

#include <cstring>
#include <numeric>
#include <random>

#include "../common.h"
#include "../memory.h"

namespace bench {

namespace fs = std::filesystem;

namespace {

double Since(const timespec& begin, clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec - begin.tv_sec) +
           static_cast<double>(now.tv_nsec - begin.tv_nsec) * 1e-9;
}

uint32_t IndexOf(const Layout& layout, Place place) {
    return place.file * layout.blocks + place.block;
}

std::vector<Place> AllPlaces(const Layout& layout) {
    std::vector<Place> places;
    for (uint32_t file = 0; file < layout.files; ++file) {
        for (uint32_t block = 0; block < layout.blocks; ++block)
            places.push_back({file, block});
    }
    return places;
}

void WriteAll(Store& store, const Layout& layout) {
    for (uint32_t file = 0; file < layout.files; ++file) {
        for (uint32_t block = 0; block < layout.blocks; ++block)
            WriteBlock(store, layout, {file, block});
    }
    store.Flush();
}

// Truncates the files of the previous round and moves them away. Removing them instead makes file creation slow
// for minutes afterwards; keeping their bytes would make the kernel write them to the disk during later rounds.
void PutAside(Stage& stage) {
    if (fs::exists(stage.dir)) {
        for (const auto& entry : fs::recursive_directory_iterator(stage.dir)) {
            if (entry.is_regular_file())
                fs::resize_file(entry.path(), 0);
        }
        fs::create_directories(stage.old);
        const auto count = std::distance(fs::directory_iterator(stage.old), {});
        fs::rename(stage.dir, stage.old / std::to_string(count));
    }
    fs::create_directories(stage.dir);
}

void CheckAfterReopening(Stage& stage, const Layout& layout) {
    stage.store.Open(stage.dir, layout);
    for (const Place place : AllPlaces(layout))
        RequireBytes(layout, place, stage.store.Read(place, 0, layout.blockLen), 0,
                     layout.blockLen);
    stage.store.Close();
}

// Writes all blocks into an empty store; ends when all bytes have been passed to the operating system.
class WriteWork final : public Workload {
public:
    using Workload::Workload;
    bool Round(Stage& stage, Meter& meter, bool check) override {
        PutAside(stage);
        stage.store.Open(stage.dir, m_layout);
        meter.WarmUp(2 * m_layout.Bytes());
        meter.Begin();
        WriteAll(stage.store, m_layout);
        meter.End();
        stage.store.Close();
        if (check)
            CheckAfterReopening(stage, m_layout);
        return true;
    }
};

// Reads all blocks from their files, in a new random order each round. The files are in the page cache.
class ReadWork final : public Workload {
public:
    ReadWork(const Layout& layout, size_t window) : Workload(layout), m_window(window) {}
    void Prepare(Stage& stage) override {
        stage.store.Open(stage.dir, m_layout);
        WriteAll(stage.store, m_layout);
        m_order = AllPlaces(m_layout);
    }
    bool Round(Stage& stage, Meter& meter, bool check) override {
        std::shuffle(m_order.begin(), m_order.end(), m_random);
        stage.store.Release();
        meter.WarmUp(2 * m_layout.Bytes());
        const Store::Visit visit = [&](Place place, const char* bytes) {
            Touch(bytes, m_layout.blockLen);
            ++m_seen;
            if (check)
                RequireBytes(m_layout, place, bytes, 0, m_layout.blockLen);
        };
        m_seen = 0;
        meter.Begin();
        const bool done = ReadAll(stage.store, visit);
        meter.End();
        Require(!done || m_seen == m_order.size(), "not every block was read");
        return done;
    }

private:
    bool ReadAll(Store& store, const Store::Visit& visit) {
        if (m_window > 1)
            return store.ReadMany(m_order, m_window, visit);
        for (const Place place : m_order)
            visit(place, store.Read(place, 0, m_layout.blockLen));
        return true;
    }
    const size_t m_window;
    size_t m_seen = 0;
    std::vector<Place> m_order;
    std::minstd_rand m_random{1};
};

class ResidentWork final : public Workload {
public:
    ResidentWork(const Layout& layout, uint32_t reads) : Workload(layout), m_reads(reads) {}
    void Prepare(Stage& stage) override {
        stage.store.Open(stage.dir, m_layout);
        WriteAll(stage.store, m_layout);
        for (const Place place : AllPlaces(m_layout))
            stage.store.Read(place, 0, m_layout.blockLen);
        m_places.resize(m_layout.blockLen / READ_LEN);
        std::iota(m_places.begin(), m_places.end(), 0U);
        std::shuffle(m_places.begin(), m_places.end(), std::minstd_rand(1));
    }
    bool Round(Stage& stage, Meter& meter, bool check) override {
        constexpr uint32_t readsAtOnce = 1000;
        constexpr double longEnough = 2;
        for (m_done = 0; m_done < m_reads && meter.Seconds() < longEnough; m_done += readsAtOnce) {
            meter.Begin();
            ReadSome(stage.store, readsAtOnce, check);
            meter.End();
        }
        return true;
    }
    double Operations() const override { return m_done; }

private:
    static constexpr uint32_t READ_LEN = 4096;

    void ReadSome(Store& store, uint32_t reads, bool check) const {
        for (uint32_t i = 0; i < reads; ++i) {
            const uint32_t at = m_places[i % m_places.size()] * READ_LEN;
            const char* bytes = store.Read({0, 0}, at, READ_LEN);
            Touch(bytes, 1); // reading all lines would hide the cost of the call
            if (check)
                RequireBytes(m_layout, {0, 0}, bytes, at, READ_LEN);
        }
    }
    const uint32_t m_reads;
    uint32_t m_done = 0;
    std::vector<uint32_t> m_places;
};

// Opens an existing store and reads its first block.
class ReopenWork final : public Workload {
public:
    using Workload::Workload;
    void Prepare(Stage& stage) override {
        stage.store.Open(stage.dir, m_layout);
        WriteAll(stage.store, m_layout);
        stage.store.Close();
        CheckAfterReopening(stage, m_layout);
    }
    bool Round(Stage& stage, Meter& meter, bool check) override {
        for (uint32_t i = 0; i < REPETITIONS; ++i) {
            meter.Begin();
            stage.store.Open(stage.dir, m_layout);
            const char* bytes = stage.store.Read({0, 0}, 0, m_layout.blockLen);
            Touch(bytes, m_layout.blockLen);
            meter.End();
            if (check)
                RequireBytes(m_layout, {0, 0}, bytes, 0, m_layout.blockLen);
            stage.store.Close();
        }
        return true;
    }
    double Operations() const override { return REPETITIONS; }

private:
    static constexpr uint32_t REPETITIONS = 5;
};

// The store is open. One file after another is opened, its first block read, and the file closed.
class FilesWork final : public Workload {
public:
    using Workload::Workload;
    void Prepare(Stage& stage) override {
        stage.store.Open(stage.dir, m_layout);
        WriteAll(stage.store, m_layout);
        stage.store.Close();
        CheckAfterReopening(stage, m_layout);
        m_order.resize(m_layout.files);
        std::iota(m_order.begin(), m_order.end(), 0U);
    }
    bool Round(Stage& stage, Meter& meter, bool check) override {
        std::shuffle(m_order.begin(), m_order.end(), m_random);
        stage.store.Open(stage.dir, m_layout);
        meter.Begin();
        for (const uint32_t file : m_order) {
            const char* bytes = stage.store.Read({file, 0}, 0, m_layout.blockLen);
            Touch(bytes, m_layout.blockLen);
            if (check)
                RequireBytes(m_layout, {file, 0}, bytes, 0, m_layout.blockLen);
            stage.store.CloseFile(file);
        }
        meter.End();
        stage.store.Close();
        return true;
    }
    double Operations() const override { return m_layout.files; }

private:
    std::vector<uint32_t> m_order;
    std::minstd_rand m_random{1};
};

// Blocks arrive in all files round-robin. After each block, the workload reads two pieces of the most recent
// blocks and two of all blocks, adds eight owners and removes one. A simulated minute passes every 16 MiB.
class MixedWork final : public Workload {
public:
    using Workload::Workload;
    bool Round(Stage& stage, Meter& meter, bool check) override {
        PutAside(stage);
        stage.store.Open(stage.dir, m_layout);
        meter.WarmUp(2 * m_layout.Bytes());
        std::minstd_rand random(1);
        meter.Begin();
        for (uint32_t i = 0; i < m_layout.AllBlocks(); ++i) {
            WriteBlock(stage.store, m_layout, PlaceOf(i));
            for (uint32_t read = 0; read < READS; ++read)
                ReadPiece(stage.store, Pick(random, i, read % 2 == 0), check);
            ChangeOwners(stage.store, i);
            if ((i + 1) % BLOCKS_A_MINUTE == 0)
                stage.store.Tick();
        }
        stage.store.Flush();
        meter.End();
        Require(stage.store.HasOwner(PlaceOf(0)), "an owner was not recorded");
        stage.store.Close();
        if (check)
            CheckAfterReopening(stage, m_layout);
        return true;
    }
    double Operations() const override {
        return static_cast<double>(m_layout.AllBlocks()) * (1 + READS + OWNERS + 1);
    }

private:
    static constexpr uint32_t READS = 4, OWNERS = 8, RECENT = 64, BLOCKS_A_MINUTE = 64;

    Place PlaceOf(uint32_t index) const { return {index % m_layout.files, index / m_layout.files}; }
    static uint32_t Pick(std::minstd_rand& random, uint32_t newest, bool recent) {
        const uint32_t from = recent && newest > RECENT ? newest - RECENT : 0;
        return from + static_cast<uint32_t>(random() >> 8) % (newest - from + 1);
    }
    void ReadPiece(Store& store, uint32_t index, bool check) const {
        const Place place = PlaceOf(index);
        const uint32_t at = index % (m_layout.blockLen / m_layout.pieceLen) * m_layout.pieceLen;
        const char* bytes = store.Read(place, at, m_layout.pieceLen);
        Touch(bytes, m_layout.pieceLen);
        if (check)
            RequireBytes(m_layout, place, bytes, at, m_layout.pieceLen);
    }
    void ChangeOwners(Store& store, uint32_t newest) const {
        for (uint32_t node = 0; node < OWNERS; ++node)
            store.SetOwner(PlaceOf(newest), node, true);
        if (newest >= OWNERS)
            store.SetOwner(PlaceOf(newest - OWNERS), 0, false);
    }
};

} // namespace

void RequireBytes(const Layout& layout, Place place, const char* bytes, uint32_t at,
                  uint32_t length) {
    Require(std::memcmp(bytes, BytesOf(IndexOf(layout, place)) + at, length) == 0,
            "the bytes differ from those written");
}

void Touch(const char* bytes, uint32_t length) {
    constexpr uint32_t line = 64;
    for (uint32_t at = 0; at < length; at += line)
        static_cast<void>(*static_cast<const volatile char*>(bytes + at));
}

void WritePiece(Store& store, const Layout& layout, Place place, uint32_t at) {
    store.Write(place, at, BytesOf(IndexOf(layout, place)) + at,
                std::min(layout.pieceLen, layout.blockLen - at));
}

void WriteBlock(Store& store, const Layout& layout, Place place) {
    for (uint32_t at = 0; at < layout.blockLen; at += layout.pieceLen)
        WritePiece(store, layout, place, at);
}

void Meter::WarmUp(uint64_t bytes) {
    WarmFreeMemory(bytes);
    RestartPeak();
}

void Meter::Begin() {
    if (m_counts)
        m_count.emplace();
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &m_cpuBegin);
    clock_gettime(CLOCK_MONOTONIC, &m_wallBegin);
}

void Meter::End() {
    m_seconds += Since(m_wallBegin, CLOCK_MONOTONIC);
    m_cpuSeconds += Since(m_cpuBegin, CLOCK_PROCESS_CPUTIME_ID);
    if (m_counts)
        m_allocations += m_count->Get();
    m_count.reset();
}

std::unique_ptr<Workload> MakeWorkload(const std::string& name, uint32_t share) {
    const Layout large{.blocks = 1024 / share, .blockLen = BLOCK_LEN, .pieceLen = PIECE_LEN};
    const Layout small{.blocks = 50'000 / share, .blockLen = 1024, .pieceLen = 1024};
    Layout batched = small;
    batched.batch = 1000 / share;
    const Layout resident{.blocks = 1, .blockLen = BLOCK_LEN, .pieceLen = PIECE_LEN};
    const Layout files{
        .files = 2000 / share, .blocks = 4, .blockLen = PIECE_LEN, .pieceLen = PIECE_LEN};
    const Layout mixed{.files = 64,
                       .blocks = 16 / share,
                       .blockLen = BLOCK_LEN,
                       .pieceLen = PIECE_LEN,
                       .memory = 64 << 20};
    constexpr size_t window = 8;
    if (name == "write")
        return std::make_unique<WriteWork>(large);
    if (name == "read")
        return std::make_unique<ReadWork>(large, 1);
    if (name == "read8")
        return std::make_unique<ReadWork>(large, window);
    if (name == "resident")
        return std::make_unique<ResidentWork>(resident, 1'000'000 / share);
    if (name == "reopen")
        return std::make_unique<ReopenWork>(large);
    if (name == "reopen_small")
        return std::make_unique<ReopenWork>(small);
    if (name == "files")
        return std::make_unique<FilesWork>(files);
    if (name == "small")
        return std::make_unique<WriteWork>(small);
    if (name == "small_batched")
        return std::make_unique<WriteWork>(batched);
    if (name == "mixed")
        return std::make_unique<MixedWork>(mixed);
    return MakeLatencyWorkload(name, share);
}

} // namespace bench
