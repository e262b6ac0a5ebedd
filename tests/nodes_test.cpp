// Requests of other nodes for a block, and the nodes that own it.
#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <utility>

#include "FMDurability.h"
#include "testing/kit.h"
#include "testing/node.h"
#include "util/filemanager/fmblock.h"

namespace {

// The owners that GetOwners returns, by the number that is a node's identifier and host.
std::multiset<uint32_t> Owners(IFMBlock& block, ISDUser& requester, uint16_t capacity) {
    std::vector<SDDataAddressItem> items(capacity);
    EXPECT_EQ(block.GetOwners({&requester, 2}, &capacity, items.data()), 0);
    std::multiset<uint32_t> named;
    for (uint16_t i = 0; i < capacity; ++i) {
        const uint32_t number = items[i].m_sid.GetHashValue();
        EXPECT_EQ(items[i].m_tag, number + 1);
        EXPECT_EQ(items[i].m_address.m_host, CRtString(std::to_string(number)));
        named.insert(number);
    }
    return named;
}

} // namespace

TEST(Requests, KeepTheirNodeAliveUntilCancelled) {
    const auto nodes = Nodes(2, true, true, 1);
    LogCapture log;
    for (const int isServer : {0, 1}) {
        Cache cache(isServer);
        const FileRef file = cache.Create();
        const BlockRef block = Cache::Block(*file, 1);
        block->AddRetrieve(nullptr, 1);
        block->SetOwner(nullptr, 1);
        EXPECT_FALSE(block->HasOwner());
        EXPECT_EQ(block->CancelRetrieve(nullptr), 0);
        for (const auto& [node, priority] : {std::pair(0, 1), {1, 2}, {0, 3}})
            block->AddRetrieve(nodes[static_cast<size_t>(node)].get(),
                               static_cast<uint32_t>(priority));
        EXPECT_EQ(block->GetRetrieves().size(), 3U);
        EXPECT_EQ(block->CancelRetrieve(nodes[0].get()), 1);
        EXPECT_EQ(block->GetRetrieves().front().m_pri, 2U);
        Write(*block, "complete");
        EXPECT_EQ(block->GetRetrieves().size(), 2U);
        block->SetOwner(nodes[0].get(), 1);
        EXPECT_TRUE(block->HasOwner() && block->GetOwner() == nodes[0].get());
        file->CancelRetrieve(nodes[0].get(), 0);
        EXPECT_TRUE(block->HasOwner());
        file->CancelRetrieve(nodes[0].get(), 1); // removes it as an owner, too
        EXPECT_TRUE(!block->HasOwner() && !block->GetOwner());
        file->CancelRetrieve(nullptr, 1);
        EXPECT_EQ(block->CancelRetrieve(nodes[0].get()), 0);
        EXPECT_EQ(nodes[0]->references, 0);
        EXPECT_EQ(nodes[1]->references, 1);
    }
    EXPECT_EQ(log.Count(" Assert failed: node"), 6U);
    EXPECT_EQ(log.Count(",blockID=1,node=0.0.0.1,pri=3 this="), 2U);
}

TEST(Requests, EachOperationReportsABlockBeyondItsLimits) {
    const auto nodes = Nodes(1, true, true, 1);
    Cache cache;
    const FileRef file = cache.Create();
    const BlockRef block = Cache::Block(*file, 1);
    Write(*block, "bytes");
    LogCapture log(RT_LOG_ERROR);
    for (size_t count = 0; count < cmax_check_owners; ++count)
        block->AddRetrieve(nodes[0].get(), 1);
    CountingSink sink;
    EXPECT_EQ(log.Count("Assert failed"), 0U);
    block->AddRetrieve(nodes[0].get(), 1);
    Read(*block);
    block->ReadData(&sink);
    Write(*block, "other");
    EXPECT_EQ(log.Count("Assert failed: m_retrieves.size() < cmax_check_owners"), 4U);
}

// Releasing the blocks of a file that is being closed runs code of the application.
TEST(Requests, ANodeThatIsReleasedMayOpenOrCloseItsFile) {
    struct Calling final : Node {
        using Node::Node;
        uint32_t ReleaseReference() override {
            if (const auto call = std::exchange(then, {}))
                call();
            return Node::ReleaseReference();
        }
        std::function<void()> then;
    } node(1'000'000, true, true, 1);
    LogCapture quiet(RT_LOG_SILENT);
    Cache cache;
    for (const bool isOpened : {true, false}) {
        FileRef file = cache.Create();
        const FMFileInfo info = file->GetFileInfo();
        Cache::Block(*file, 1)->SetOwner(&node, 1);
        FileRef next;
        node.then = [&] {
            std::vector<FMUnsavedBlock> unsaved;
            EXPECT_EQ(FMFlush(unsaved), RT_OK);
            if (isOpened)
                next = cache.Create(info);
            else
                EXPECT_EQ(cache.manager->DetachFile(info.fileID), RT_OK);
        };
        cache.Close(file);
        EXPECT_EQ(static_cast<bool>(next), isOpened);
        EXPECT_EQ(cache.Open(info.fileID, 0).Get(), next.Get());
    }
}

TEST(Requests, AreAnsweredByKindPriorityAndOwners) {
    const auto p2p = Nodes(1, true, true, 1);
    const auto plain = Nodes(1, false, true, 1);
    {
        Cache server(1);
        const FileRef file = server.Create();
        const BlockRef block = Cache::Block(*file, 1);
        EXPECT_EQ(block->GetRetrieveType({p2p[0].get(), 2}), FM_RETRIEVE_NOT_YET);
        block->SetOwner(p2p[0].get(), 1);
        EXPECT_EQ(block->GetRetrieveType({p2p[0].get(), 2}), FM_RETRIEVE_PEERS);
        EXPECT_EQ(block->GetRetrieveType({plain[0].get(), 2}), FM_RETRIEVE_NOT_YET);
        EXPECT_EQ(block->GetRetrieveType({nullptr, 2}), FM_RETRIEVE_NOT_YET);
        Write(*block, "complete");
        EXPECT_EQ(block->GetRetrieveType({p2p[0].get(), 2}), FM_RETRIEVE_PEERS);
        EXPECT_EQ(block->GetRetrieveType({p2p[0].get(), 1}), FM_RETRIEVE_HERE);
        EXPECT_EQ(block->GetRetrieveType({p2p[0].get(), 0x80000000}), FM_RETRIEVE_HERE);
        // The count of peers has 16 bits and wraps: one more removal than additions gives 65535.
        block->SetOwner(p2p[0].get(), 0);
        EXPECT_EQ(block->GetRetrieveType({p2p[0].get(), 2}), FM_RETRIEVE_HERE);
        block->SetOwner(p2p[0].get(), 0);
        EXPECT_EQ(block->GetRetrieveType({p2p[0].get(), 2}), FM_RETRIEVE_PEERS);
    }
    Cache client(0);
    const FileRef file = client.Create();
    const BlockRef block = Cache::Block(*file, 1);
    block->SetOwner(p2p[0].get(), 1);
    EXPECT_EQ(block->GetRetrieveType({p2p[0].get(), 2}), FM_RETRIEVE_CLIENT_NOT_YET);
    Write(*block, "complete");
    EXPECT_EQ(block->GetRetrieveType({p2p[0].get(), 2}), FM_RETRIEVE_HERE);
    uint16_t count = 5;
    EXPECT_EQ(block->GetOwners({p2p[0].get(), 2}, &count, nullptr), RT_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(count, 0);
}

TEST(Owners, ServerListsPublicOwnersAndGroupsOthersByAddress) {
    const auto publics = Nodes(130, true, true, 7);
    const auto ten = Nodes(34, true, false, 10);
    const auto five = Nodes(2, false, false, 5);
    LogCapture log;
    Cache cache(1);
    const FileRef file = cache.Create();
    const BlockRef block = Cache::Block(*file, 1);
    const auto own = [&](const auto& nodes, int bOwn) {
        for (const auto& node : nodes)
            block->SetOwner(node.get(), bOwn);
    };
    own(ten, 1);
    own(five, 1);
    EXPECT_EQ(ten[32]->references, 0);
    const ISDUser* owner = block->GetOwner(); // the lowest address
    EXPECT_TRUE(owner == five[0].get() || owner == five[1].get());
    EXPECT_EQ(Owners(*block, *five[0], 3).size(), 0U); // none of them is a peer
    EXPECT_EQ(Owners(*block, *ten[0], 50).size(), 32U);
    EXPECT_EQ(Owners(*block, *publics[0], 50).size(), 0U); // a public requester gets no groups

    own(publics, 1);
    EXPECT_EQ(log.Count(",pubs=128,nets=2,owner="), 1U);
    EXPECT_TRUE(block->GetOwner()->IsPublic());
    EXPECT_EQ(Owners(*block, *five[0], 200).size(), 128U); // its group has no peer
    const auto far = Nodes(1, true, false, 99);            // no owner has its address
    EXPECT_EQ(Owners(*block, *far[0], 200).size(), 128U);
    EXPECT_EQ(Owners(*block, *ten[0], 40).size(), 40U);
    EXPECT_EQ(Owners(*block, *ten[0], 0).size(), 0U);
    std::multiset<uint32_t> seen;
    for (int i = 0; i < 400; ++i)
        seen.merge(Owners(*block, *publics[0], 1));
    EXPECT_GT(std::set<uint32_t>(seen.begin(), seen.end()).size(), 60U); // starts at a random owner
    const auto all = Owners(*block, *publics[0], 200);
    EXPECT_EQ(all.size(), 128U);
    EXPECT_EQ(std::set<uint32_t>(all.begin(), all.end()).size(), 128U);
    uint16_t count = 9;
    EXPECT_EQ(block->GetOwners({}, &count, nullptr), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(count, 9);

    own(publics, 0);
    own(five, 0);
    own(five, 0); // a missing group logs nothing
    EXPECT_EQ(log.Count(" net noown,IP=5 :"), 2U);
    EXPECT_TRUE(block->HasOwner());
    own(ten, 0);
    EXPECT_FALSE(block->HasOwner());
}
