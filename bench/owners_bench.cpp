// Cost of a server's answers about owners for a block with more than 6,500 owners.
#include <benchmark/benchmark.h>

#include <vector>

#include "support.h"
#include "testing/node.h"

namespace {

using namespace bench;

// A server's block with 128 public owners and 200 address groups of 32 owners.
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
    }
    Crowd(const Crowd&) = delete;
    Crowd& operator=(const Crowd&) = delete;
    void Join(bool isPublic, uint32_t ip) {
        nodes.push_back(std::make_unique<Node>(0, true, isPublic, ip));
        block->SetOwner(nodes.back().get(), 1);
    }

    std::vector<std::unique_ptr<Node>> nodes;
    Fixture cache;
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
                "GetOwners returned fewer owners than requested");
    }
}
BENCHMARK(GetOwners);

} // namespace
