// Many open files, more of them than streams, and full lists of owners and requests.
#include <sys/resource.h>

#include <atomic>
#include <fstream>
#include <memory>

#include "support.h"

namespace {

using namespace bench;

constexpr uint32_t SMALL_BLOCK = 4096;

// Resident memory of this process, from the kernel's own count of pages.
double ResidentBytes() {
    std::ifstream statm("/proc/self/statm");
    uint64_t size = 0;
    uint64_t resident = 0;
    statm >> size >> resident;
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE));
}

// Lets a tick come when the benchmark wants it.
class TestClock final : public IRtClock {
public:
    TestClock() { RtSetClock(this); }
    ~TestClock() override { RtSetClock(nullptr); }
    uint64_t TickCountMs() override { return now; }
    CRtTimeValue TimeOfDay() override { return CRtTimeValue(1'700'000'000, 0); }
    std::atomic<uint64_t> now{GetTickCountEx()};
};

// A tick of the manager over files that have nothing to release, and what an open file costs.
void TickOverIdleFiles(benchmark::State& state) {
    Cache cache;
    const auto count = static_cast<size_t>(state.range(0));
    const double before = ResidentBytes();
    std::vector<FileRef> files;
    files.reserve(count);
    for (size_t i = 0; i < count; ++i)
        files.push_back(cache.Create(1));
    state.counters["bytes_per_file"] = (ResidentBytes() - before) / static_cast<double>(count);
    TestClock clock;
    for (auto _ : state) {
        clock.now += 60'000;
        Require(cache.thread.RunDue() == 1, "no tick");
    }
}
// A fixed count, because only the first run of the process finds fresh memory.
BENCHMARK(TickOverIdleFiles)->Arg(100'000)->Iterations(20)->Unit(benchmark::kMillisecond);

// One store per file, round after round, with room for every stream and without.
void StoreIntoManyFiles(benchmark::State& state) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = 256;
    Require(setrlimit(RLIMIT_NOFILE, &limit) == 0, "no limit on streams");
    Cache cache;
    std::vector<FileRef> files;
    for (int64_t i = 0; i < state.range(0); ++i)
        files.push_back(cache.Create(2));
    const CRtMessageChain bytes = CRtMessageBlock::Wrap(BytesOf(0), SMALL_BLOCK);
    const auto storeAll = [&] {
        for (const FileRef& file : files)
            Require(BlockAt(*file, 0)->WriteData(SMALL_BLOCK, 0, bytes.get()) == 0, "refused");
        cache.Drain();
    };
    storeAll();
    for (auto _ : state)
        storeAll();
    for (const FileRef& file : files)
        Require(static_cast<CFMBlock*>(BlockAt(*file, 0).Get())->IsStored(), "a store failed");
    state.SetItemsProcessed(state.iterations() * state.range(0));
    for (FileRef& file : files)
        cache.manager->DetachFile(file->GetFileInfo().fileID);
}
BENCHMARK(StoreIntoManyFiles)->Arg(100)->Arg(20'000)->Unit(benchmark::kMillisecond)->UseRealTime();

class Node final : public ISDUser {
public:
    Node(bool isPublic, uint32_t ip) : m_public(isPublic), m_ip(ip) {}
    uint32_t AddReference() override { return ++m_count; }
    uint32_t ReleaseReference() override { return --m_count; }
    const CTavoSID& GetNodeSID() override { return m_sid; }
    int IsP2P() override { return 1; }
    int IsPublic() override { return m_public; }
    uint32_t GetAddressTag() override { return 0; }
    uint32_t GetIP() override { return m_ip; }
    const SDAddress& GetAddress() override { return m_address; }

private:
    std::atomic<uint32_t> m_count{0};
    CTavoSID m_sid;
    SDAddress m_address;
    bool m_public;
    uint32_t m_ip;
};

// A server's block with 128 public owners and 200 groups of 32.
struct Crowd {
    Crowd() : file(cache.Create(1)), block(BlockAt(*file, 0)) {
        for (uint32_t i = 0; i < 128; ++i)
            Join(true, 1);
        for (uint32_t i = 0; i < 200 * 32; ++i)
            Join(false, 2 + i / 32);
    }
    ~Crowd() {
        for (const auto& node : nodes)
            block->SetOwner(node.get(), 0);
        while (!block->GetRetrieves().empty())
            block->CancelRetrieve(block->GetRetrieves().front().m_userNode.Get());
    }
    Crowd(const Crowd&) = delete;
    Crowd& operator=(const Crowd&) = delete;
    void Join(bool isPublic, uint32_t ip) {
        nodes.push_back(std::make_unique<Node>(isPublic, ip));
        block->SetOwner(nodes.back().get(), 1);
    }

    std::vector<std::unique_ptr<Node>> nodes;
    Cache cache;
    FileRef file;
    BlockRef block;
};

void SetOwner(benchmark::State& state) {
    const Crowd crowd;
    Node& node = *crowd.nodes.back();
    for (auto _ : state) {
        crowd.block->SetOwner(&node, 0);
        crowd.block->SetOwner(&node, 1);
    }
}
BENCHMARK(SetOwner);

void GetOwner(benchmark::State& state) {
    const Crowd crowd;
    for (auto _ : state)
        benchmark::DoNotOptimize(crowd.block->GetOwner());
}
BENCHMARK(GetOwner);

void GetOwners(benchmark::State& state) {
    const Crowd crowd;
    std::vector<SDDataAddressItem> items(64);
    const FMRetrieveItem retrieve{crowd.nodes.back().get(), 2};
    for (auto _ : state) {
        uint16_t count = 64;
        Require(crowd.block->GetOwners(retrieve, &count, items.data()) == 0 && count == 64,
                "not the owners there are");
    }
}
BENCHMARK(GetOwners);

void GetRetrieveTypeOverAllRequests(benchmark::State& state) {
    const Crowd crowd;
    for (uint32_t i = 0; i < 8000; ++i)
        crowd.block->AddRetrieve(crowd.nodes[i % crowd.nodes.size()].get(), i % 3);
    for (auto _ : state) {
        for (const FMRetrieveItem& retrieve : crowd.block->GetRetrieves())
            benchmark::DoNotOptimize(crowd.block->GetRetrieveType(retrieve));
    }
    state.SetItemsProcessed(state.iterations() * 8000);
}
BENCHMARK(GetRetrieveTypeOverAllRequests)->Unit(benchmark::kMicrosecond);

} // namespace
