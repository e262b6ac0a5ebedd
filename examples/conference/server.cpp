// The server keeps the shared store: it takes the file from the presenter and answers the others with
// bytes, with the addresses of peers, or with "not yet".
#include <iostream>
#include <utility>

#include "node.h"

namespace {

constexpr uint64_t TICKS_PER_ROUND = 25;

class Server final : public Node {
public:
    Server(asio::io_context& loop, Cache& cache, const Options& options)
        : Node(loop, cache, options) {
        if (!options.id.empty()) { // from the store of an earlier run
            FMFileID id;
            FMFileIDFromString(CRtString(options.id), id);
            FileRef file;
            Must(m_cache.Manager().OpenFile(file.Receive(), id, 1), "the store does not hold it");
            Use(std::move(file));
        }
        Listen(options.port);
    }

private:
    void OnRoleFrame(Link& link, Kind kind, CRtMessageBlock& body) override {
        if (kind == Kind::OFFER)
            return OnOffer(link, body);
        Check(kind == Kind::OWN, "a frame that a server does not take");
        OnOwn(link, body);
    }

    void OnOffer(Link& link, CRtMessageBlock& body) {
        Check(!m_source, "a second presenter");
        TakeFile(body);
        std::cout << "file " << FMFileIDToString(m_file->GetFileInfo().fileID).c_str() << std::endl;
        m_source = &link;
        for (uint32_t id = 1; id <= m_count; ++id)
            OnLost(id);
    }

    void OnOwn(Link& link, CRtMessageBlock& body) {
        const uint32_t id = TakeBlockID(body);
        CheckEnd(body);
        Check(link.member->IsP2P(), "an owner that nobody can reach");
        if (!link.owns.insert(id).second)
            return; // the file manager would count it twice
        const BlockRef block = GetBlock(id);
        block->SetOwner(link.member.Get(), 1);
        Answer(*block);
    }

    // This demonstration wants to show peers at work: the bytes of a new block go to urgent requests
    // only, and the other requests wait for these clients to own it, or for the next round.
    int Decide(Link& link, IFMBlock& block, const FMRetrieveItem& retrieve) override {
        int type = block.GetRetrieveType(retrieve);
        if (type == FM_RETRIEVE_PEERS && !NamePeers(link, block, retrieve))
            type = block.IsComplete() ? FM_RETRIEVE_HERE : FM_RETRIEVE_NOT_YET;
        const bool waits = retrieve.m_pri > 1 && !IsRound();
        return type == FM_RETRIEVE_HERE && waits ? FM_RETRIEVE_NOT_YET : type;
    }

    // A file is told of when something of it has come; until then its presenter may be a stranger.
    void OnTick() override {
        if (!m_source && m_have == 0)
            LetGo();
        for (const auto& [key, link] : m_links)
            if (m_have > 0 && link->member && !std::exchange(link->offered, true))
                SendFile(*link);
        for (uint32_t id = 1; IsRound() && id <= m_count; ++id)
            Answer(*GetBlock(id));
    }

    static bool NamePeers(Link& link, IFMBlock& block, const FMRetrieveItem& retrieve) {
        SDDataAddressItem items[PEERS_MAX];
        uint16_t count = PEERS_MAX;
        if (RT_FAILED(block.GetOwners(retrieve, &count, items)) || count == 0)
            return false;
        CRtMessageChain body = Pack(block.GetBlockID(), count);
        for (uint16_t i = 0; i < count; ++i)
            body->Append(Pack(items[i].m_address.m_host, items[i].m_address.m_port));
        link.Send(Kind::PEERS, std::move(body));
        return true;
    }

    void OnLost(uint32_t id) override {
        if (m_source && IsLacking(id))
            Ask(*m_source, id, 1);
    }

    bool IsRound() const { return m_ticks % TICKS_PER_ROUND == 0; }
};

} // namespace

std::unique_ptr<Node> MakeServer(asio::io_context& loop, Cache& cache, const Options& options) {
    return std::make_unique<Server>(loop, cache, options);
}
