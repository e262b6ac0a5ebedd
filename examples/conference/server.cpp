// The server keeps the shared store: it takes the file from the presenter and answers the others with
// bytes, with the addresses of peers, or with "not yet".
#include <iostream>

#include "node.h"

using namespace std::chrono_literals;

namespace {

/// So long the bytes of a new block are for urgent requests only: who gets them serves the others.
constexpr auto YOUNG = 500ms;

class Server final : public Node {
public:
    Server(asio::io_context& loop, Cache& cache, const Options& options)
        : Node(loop, cache, options) {
        if (!options.id.empty()) { // from the store of an earlier run
            FMFileID id;
            FMFileIDFromString(CRtString(options.id), id);
            FileRef file;
            if (RT_FAILED(m_cache.Manager().OpenFile(file.Receive(), id, 1)))
                throw std::runtime_error("the store does not hold " + options.id);
            Use(std::move(file));
        }
        Listen(options.port);
    }

private:
    void OnRoleFrame(Link& link, Kind kind, CRtMessageBlock& body) override {
        switch (kind) {
        case Kind::OFFER:
            return OnOffer(link, body);
        case Kind::OWN:
            return OnOwn(link, TakeBlockID(body));
        default:
            throw Fault("a frame that a server does not take");
        }
    }

    void OnOffer(Link& link, CRtMessageBlock& body) {
        Check(!m_source, "a second presenter");
        TakeFile(body);
        std::cout << "file " << FMFileIDToString(m_file->GetFileInfo().fileID).c_str() << std::endl;
        m_source = &link;
        for (uint32_t id = 1; id <= m_count; ++id)
            OnLost(id);
        for (const auto& [key, each] : m_links)
            OnMember(*each);
    }

    void OnOwn(Link& link, uint32_t id) {
        Check(link.member->IsP2P(), "an owner that nobody can reach");
        if (!link.owns.insert(id).second)
            return; // the file manager would count it twice
        const BlockRef block = GetBlock(id);
        block->SetOwner(link.member.Get(), 1);
        Answer(*block);
    }

    void OnMember(Link& link) override {
        if (m_file && link.member)
            SendFile(link);
    }

    int Decide(Link& link, IFMBlock& block, const FMRetrieveItem& retrieve) override {
        int type = block.GetRetrieveType(retrieve);
        if (type == FM_RETRIEVE_PEERS && !NamePeers(link, block, retrieve))
            type = block.IsComplete() ? FM_RETRIEVE_HERE : FM_RETRIEVE_NOT_YET;
        const bool mayWait = retrieve.m_pri > 1 && IsYoung(block.GetBlockID());
        return type == FM_RETRIEVE_HERE && mayWait ? FM_RETRIEVE_NOT_YET : type;
    }

    static bool NamePeers(Link& link, IFMBlock& block, const FMRetrieveItem& retrieve) {
        SDDataAddressItem items[PEERS_MAX];
        uint16_t count = PEERS_MAX;
        if (RT_FAILED(block.GetOwners(retrieve, &count, items)) || count == 0)
            return false;
        CRtMessageChain body = Pack(block.GetBlockID(), count);
        CRtByteStreamT out(*body);
        for (uint16_t i = 0; i < count; ++i)
            out << items[i].m_address.m_host << items[i].m_address.m_port;
        link.Send(Kind::PEERS, std::move(body));
        return true;
    }

    bool IsYoung(uint32_t id) const {
        const auto it = m_young.find(id);
        return it != m_young.end() && Clock::now() - it->second < YOUNG;
    }

    // Called before the requests that wait for the block are answered.
    void OnComplete(IFMBlock& block) override { m_young[block.GetBlockID()] = Clock::now(); }

    void OnTick() override {
        std::erase_if(m_young, [this](const auto& each) {
            if (IsYoung(each.first))
                return false;
            Answer(*GetBlock(each.first));
            return true;
        });
    }

    void OnLost(uint32_t id) override {
        if (m_source && IsLacking(id))
            Ask(*m_source, id, 1);
    }

    std::map<uint32_t, Clock::time_point> m_young; ///< when each of the latest blocks was complete
};

} // namespace

std::unique_ptr<Node> MakeServer(asio::io_context& loop, Cache& cache, const Options& options) {
    return std::make_unique<Server>(loop, cache, options);
}
