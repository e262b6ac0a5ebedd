// The server owns the shared store: it fetches the file from the presenter and answers clients with
// pieces, with the addresses of peers, or with NOT_YET.
#include <FMStatistics.h>

#include <iostream>
#include <utility>

#include "metrics.h"
#include "node.h"

namespace {

constexpr uint64_t TICKS_PER_ROUND = 25;
constexpr uint64_t PENDING_MAX = 64 * 1024 * 1024; // bytes that wait to be stored

class Server final : public Node {
public:
    Server(asio::io_context& loop, Cache& cache, const Options& options)
        : Node(loop, cache, options), m_metrics(loop, options.metrics) {
        if (!options.id.empty()) { // stored by an earlier run
            FMFileID id;
            FMFileIDFromString(CRtString(options.id), id);
            FileRef file;
            ThrowIfFailed(m_cache.Manager().OpenFile(file.Receive(), id, 1), "OpenFile failed");
            UseFile(std::move(file));
        }
        ThrowIfFailed(FMSetHighWaterMark(PENDING_MAX, [this](bool isAbove) { Throttle(isAbove); }),
                      "FMSetHighWaterMark failed");
        std::cout << "metrics http://127.0.0.1:" << m_metrics.GetPort() << "/metrics" << std::endl;
        Listen(options.port);
    }
    ~Server() override { FMSetHighWaterMark(0, {}); }

private:
    void OnRoleFrame(Link& link, Kind kind, CRtMessageBlock& body) override {
        if (kind == Kind::OFFER)
            return OnOffer(link, body);
        Check(kind == Kind::OWN, "frame kind that a server does not accept");
        OnOwn(link, body);
    }

    void OnOffer(Link& link, CRtMessageBlock& body) {
        Check(!m_source, "a presenter is connected already");
        AcceptFile(body);
        std::cout << "file " << FMFileIDToString(m_file->GetFileInfo().fileID).c_str() << std::endl;
        m_source = &link;
        link.isPaused = m_isThrottled;
        for (uint32_t id = 1; id <= m_count; ++id)
            OnFetchFailed(id);
    }

    // The disk is slower than the presenter. While the server does not read, the pieces stay in the buffers of
    // the connection, and the presenter stops sending.
    void Throttle(bool isAbove) {
        m_isThrottled = isAbove;
        if (m_source)
            m_source->isPaused = isAbove;
        std::cout << "event " << (isAbove ? "stopped" : "resumed")
                  << " reading from the presenter, bytes that wait to be stored: "
                  << FMGetUnstoredBytes() << std::endl;
    }

    void OnOwn(Link& link, CRtMessageBlock& body) {
        const uint32_t id = ReadBlockID(body);
        CheckEnd(body);
        Check(link.member->IsP2P(), "owner without a port");
        if (!link.owns.insert(id).second)
            return; // the file manager would count the owner twice
        const BlockRef block = GetBlock(id);
        block->SetOwner(link.member.Get(), 1);
        AnswerRequests(*block);
    }

    // The server sends a new block to urgent requests only. Other requests wait until one of these
    // clients owns the block, or until the next round, so that most blocks travel between peers.
    int Decide(Link& link, IFMBlock& block, const FMRetrieveItem& retrieve) override {
        int type = block.GetRetrieveType(retrieve);
        if (type == FM_RETRIEVE_PEERS && !NamePeers(link, block, retrieve))
            type = block.IsComplete() ? FM_RETRIEVE_HERE : FM_RETRIEVE_NOT_YET;
        const bool waits = retrieve.m_pri > 1 && !IsRound();
        return type == FM_RETRIEVE_HERE && waits ? FM_RETRIEVE_NOT_YET : type;
    }

    // Announce a file after its first block arrived: a connection that offers a file and sends nothing
    // must not block the conference.
    void OnTick() override {
        if (!m_source && m_have == 0)
            CloseFile();
        for (const auto& [key, link] : m_links)
            if (m_have > 0 && link->member && !std::exchange(link->offered, true))
                SendFile(*link);
        for (uint32_t id = 1; IsRound() && id <= m_count; ++id)
            AnswerRequests(*GetBlock(id));
        if (m_source && m_isThrottled)
            m_source->lastPiece = m_ticks; // the presenter must not count as unresponsive
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

    void OnFetchFailed(uint32_t id) override {
        if (m_source && IsMissing(id))
            Request(*m_source, id, 1);
    }

    bool IsRound() const { return m_ticks % TICKS_PER_ROUND == 0; }

    Metrics m_metrics;
    bool m_isThrottled = false;
};

} // namespace

std::unique_ptr<Node> MakeServer(asio::io_context& loop, Cache& cache, const Options& options) {
    return std::make_unique<Server>(loop, cache, options);
}
