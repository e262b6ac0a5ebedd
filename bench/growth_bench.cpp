// Scaling: the time of one operation and the memory of one object, for 1 to 1,000,000 objects. The reported
// time is the time of one operation.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <vector>

#include "support.h"
#include "testing/node.h"
#include "util/filemanager/fmfile.h"

namespace {

using namespace bench;

// Runs `work`, which handles `count` objects, and reports time and heap bytes per object.
template <class Work>
void TimeEach(benchmark::State& state, size_t count, Work work) {
    const uint64_t before = LiveBytes();
    const auto start = std::chrono::steady_clock::now();
    work();
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    state.SetIterationTime(took.count() / static_cast<double>(count));
    state.counters["bytes"] = (static_cast<double>(LiveBytes()) - static_cast<double>(before)) /
                              static_cast<double>(count);
}

std::vector<uint32_t> Shuffled(size_t count) {
    std::vector<uint32_t> order(count);
    for (size_t i = 0; i < count; ++i)
        order[i] = static_cast<uint32_t>(i);
    std::shuffle(order.begin(), order.end(), std::minstd_rand(1));
    return order;
}

void Once(benchmark::internal::Benchmark* benchmark) {
    benchmark->Iterations(1)->UseManualTime()->Unit(benchmark::kNanosecond);
}
void OverFiles(benchmark::internal::Benchmark* benchmark) {
    Once(benchmark);
    for (const int64_t files : {1000, 10'000, 100'000})
        benchmark->Arg(files);
}
void OverSlots(benchmark::internal::Benchmark* benchmark) {
    Once(benchmark);
    for (const int64_t slots : {64, 1000, 8000, 50'000, 1'000'000})
        benchmark->Arg(slots);
}
// Stops at 50,000 slots: an information file stores at most 65,535.
void OverStoredSlots(benchmark::internal::Benchmark* benchmark) {
    Once(benchmark);
    for (const int64_t slots : {64, 1000, 8000, 50'000})
        benchmark->Arg(slots);
}
void OverRequests(benchmark::internal::Benchmark* benchmark) {
    constexpr int enoughForOne = 50;
    benchmark->Iterations(enoughForOne)->UseManualTime()->Unit(benchmark::kNanosecond);
    for (const int64_t requests : {1, 64, 1000, 8000})
        benchmark->Arg(requests);
}

// --- Files ---------------------------------------------------------------------------------------

struct OpenFiles {
    explicit OpenFiles(benchmark::State& state) : count(static_cast<size_t>(state.range(0))) {
        files.reserve(count);
    }
    void Create() {
        for (size_t i = 0; i < count; ++i)
            files.push_back(cache.Create(1));
    }
    const size_t count;
    Fixture cache;
    std::vector<FileRef> files;
};

void CreateFile(benchmark::State& state) {
    OpenFiles open(state);
    for (auto _ : state)
        TimeEach(state, open.count, [&] { open.Create(); });
}
BENCHMARK(CreateFile)->Apply(OverFiles);

void FindFile(benchmark::State& state) {
    OpenFiles open(state);
    open.Create();
    const std::vector<uint32_t> order = Shuffled(open.count);
    const auto find = [&] {
        for (const uint32_t i : order) {
            FileRef found;
            open.cache.manager->OpenFile(found.Receive(), open.files[i]->GetFileInfo().fileID, 0);
            Require(found.Get() == open.files[i].Get(), "OpenFile returned another file");
        }
    };
    for (auto _ : state)
        TimeEach(state, open.count, find);
}
BENCHMARK(FindFile)->Apply(OverFiles);

// No file has a block to release.
void TickOverFiles(benchmark::State& state) {
    OpenFiles open(state);
    open.Create();
    TestClock clock;
    const auto tick = [&] {
        clock.Advance(60'000);
        Require(open.cache.thread.RunDue() == 1, "the tick did not run");
    };
    for (auto _ : state)
        TimeEach(state, open.count, tick);
}
BENCHMARK(TickOverFiles)->Apply(OverFiles);

void DetachFile(benchmark::State& state) {
    OpenFiles open(state);
    open.Create();
    const auto detachAll = [&] {
        for (FileRef& file : open.files) {
            const FMFileID id = file->GetFileInfo().fileID;
            file.Reset();
            Require(open.cache.manager->DetachFile(id) == 0, "the file was not open");
        }
        open.cache.Drain();
    };
    for (auto _ : state)
        TimeEach(state, open.count, detachAll);
}
BENCHMARK(DetachFile)->Apply(OverFiles);

// --- Slots ---------------------------------------------------------------------------------------

// From 131,072 slots on, the library logs one line for each further block; the benchmark turns the log off.
struct Table {
    explicit Table(benchmark::State& state, uint32_t flag = FM_FILE_TEMPORARY)
        : slots(static_cast<uint32_t>(state.range(0))), file(cache.Create(0, flag)) {
        RtSetLogSink(nullptr, nullptr, RT_LOG_SILENT);
    }
    ~Table() { cache.Close(file); }
    Table(const Table&) = delete;
    Table& operator=(const Table&) = delete;
    void Fill() {
        for (uint32_t i = 0; i < slots; ++i)
            BlockAt(*file, i);
    }
    const uint32_t slots;
    Fixture cache;
    FileRef file;
};

// The table starts empty, so the time includes its growth.
void CreateBlock(benchmark::State& state) {
    Table table(state);
    for (auto _ : state)
        TimeEach(state, table.slots, [&] { table.Fill(); });
}
BENCHMARK(CreateBlock)->Apply(OverSlots);

void FindBlock(benchmark::State& state) {
    Table table(state);
    table.Fill();
    const std::vector<uint32_t> order = Shuffled(table.slots);
    const auto find = [&] {
        for (const uint32_t i : order)
            Require(BlockAt(*table.file, i)->GetBlockID() == i + 1,
                    "GetBlock returned another block");
    };
    for (auto _ : state)
        TimeEach(state, table.slots, find);
}
BENCHMARK(FindBlock)->Apply(OverSlots);

// One resident byte is enough to make the pass visit every slot of the file.
void CollectOverSlots(benchmark::State& state) {
    Table table(state);
    table.Fill();
    const CRtMessageChain byte = CRtMessageBlock::Wrap(BytesOf(0), 1);
    Require(BlockAt(*table.file, 0)->WriteData(1, 0, byte.get()) == 0, "WriteData failed");
    table.cache.Drain();
    const auto collect = [&] { static_cast<CFMFile*>(table.file.Get())->FreeBlocksMemory(); };
    for (auto _ : state)
        TimeEach(state, table.slots, collect);
}
BENCHMARK(CollectOverSlots)->Apply(OverSlots);

struct StoredTable : Table {
    explicit StoredTable(benchmark::State& state)
        : Table(state, FM_FILE_KEPT), id(file->GetFileInfo().fileID) {
        const CRtMessageChain byte = CRtMessageBlock::Wrap(BytesOf(0), 1);
        for (uint32_t i = 0; i < slots; ++i)
            Require(BlockAt(*file, i)->WriteData(1, 0, byte.get()) == 0, "WriteData failed");
        cache.Drain();
    }
    const FMFileID id;
};

// Closing a file encodes and writes its table.
void CloseFile(benchmark::State& state) {
    StoredTable table(state);
    const auto close = [&] { table.cache.Close(table.file); };
    for (auto _ : state)
        TimeEach(state, table.slots, close);
    Require(table.cache.manager->OpenFile(table.file.Receive(), table.id, 1) == 0,
            "OpenFile failed");
}
BENCHMARK(CloseFile)->Apply(OverStoredSlots);

void LoadFile(benchmark::State& state) {
    StoredTable table(state);
    table.cache.Close(table.file);
    const auto load = [&] {
        Require(table.cache.manager->OpenFile(table.file.Receive(), table.id, 1) == 0,
                "OpenFile failed");
    };
    for (auto _ : state)
        TimeEach(state, table.slots, load);
    Require(table.file->GetBlocks()[table.slots - 1]->IsComplete(), "a block was not restored");
}
BENCHMARK(LoadFile)->Apply(OverStoredSlots);

// --- Requests ------------------------------------------------------------------------------------

struct Requests {
    explicit Requests(benchmark::State& state)
        : count(static_cast<size_t>(state.range(0))), file(cache.Create(1)),
          block(BlockAt(*file, 0)) {
        for (uint32_t i = 0; i < count; ++i)
            nodes.push_back(std::make_unique<Node>(i, true, true, i));
    }
    ~Requests() {
        DropAll();
        block.Reset();
        cache.Close(file);
    }
    Requests(const Requests&) = delete;
    Requests& operator=(const Requests&) = delete;
    void Add() {
        for (const auto& node : nodes)
            block->AddRetrieve(node.get(), 1);
    }
    void DropAll() {
        while (!block->GetRetrieves().empty())
            block->CancelRetrieve(block->GetRetrieves().front().m_userNode.Get());
    }
    const size_t count;
    Fixture cache;
    FileRef file;
    BlockRef block;
    std::vector<std::unique_ptr<Node>> nodes;
};

void AddRetrieve(benchmark::State& state) {
    Requests requests(state);
    for (auto _ : state) {
        TimeEach(state, requests.count, [&] { requests.Add(); });
        requests.DropAll();
    }
}
BENCHMARK(AddRetrieve)->Apply(OverRequests);

void GetRetrieveType(benchmark::State& state) {
    Requests requests(state);
    requests.Add();
    const auto ask = [&] {
        for (const FMRetrieveItem& each : requests.block->GetRetrieves())
            benchmark::DoNotOptimize(requests.block->GetRetrieveType(each));
    };
    for (auto _ : state)
        TimeEach(state, requests.count, ask);
}
BENCHMARK(GetRetrieveType)->Apply(OverRequests);

// Cancelling searches the list from the oldest request on. A server that answers in arrival order finds its
// request at the front; this benchmark cancels in random order, the expensive case.
void CancelRetrieve(benchmark::State& state) {
    Requests requests(state);
    const std::vector<uint32_t> order = Shuffled(requests.count);
    const auto cancel = [&] {
        for (const uint32_t i : order)
            Require(requests.block->CancelRetrieve(requests.nodes[i].get()) == 1,
                    "CancelRetrieve found no request");
    };
    for (auto _ : state) {
        requests.Add();
        TimeEach(state, requests.count, cancel);
    }
}
BENCHMARK(CancelRetrieve)->Apply(OverRequests);

} // namespace
