// A client collects the file: it requests missing blocks from the server, fetches them from the server
// or from the peers that the server names, and serves complete blocks to other peers.
#include <fstream>
#include <iostream>
#include <utility>
#include <vector>

#include "node.h"

namespace {

constexpr uint32_t URGENT = 1;
constexpr uint32_t FROM_PEERS = 2; // above 1 the server names peers

class Client final : public Node {
public:
    Client(asio::io_context& loop, Cache& cache, const Options& options)
        : Node(loop, cache, options), m_loop(loop),
          m_copy(options.file, std::ios::binary | std::ios::trunc) {
        Listen(0);
    }

private:
    void OnRoleFrame(Link& link, Kind kind, CRtMessageBlock& body) override {
        if (kind == Kind::OFFER)
            return OnOffer(link, body);
        const uint32_t id = ReadBlockID(body);
        const auto fetch = m_fetches.find(id);
        Check(fetch != m_fetches.end() && fetch->second.from == &link && fetch->second.pos == 0,
              "answer without a request");
        if (kind == Kind::PEERS && fetch->second.pri == FROM_PEERS)
            return OnPeers(link, id, body);
        Check(kind == Kind::NOT_YET, "frame kind that a client does not accept");
        CheckEnd(body);
        fetch->second.postponed = true;
        if (&link == m_source)
            return;
        m_fetches.erase(id);
        RemoveOwner(link, id);
        OnFetchFailed(id);
    }

    void OnOffer(Link& link, CRtMessageBlock& body) {
        Check(&link == m_source && !std::exchange(link.offered, true),
              "unexpected file description");
        AcceptFile(body);
        // Each client first requests a different part from the server, so that clients soon have
        // blocks to exchange.
        for (uint32_t id = 1; id <= m_count; ++id) {
            if (GetBlock(id)->IsComplete())
                link.Send(Kind::OWN, Pack(id));
            else if (IsMissing(id))
                Request(link, id, id % m_options.clients == m_options.index ? URGENT : FROM_PEERS);
        }
    }

    void OnPeers(Link& link, uint32_t id, CRtMessageBlock& body) {
        Check(&link == m_source, "peers named by a node that is not the server");
        uint16_t count = 0;
        ReadFields(body, count);
        Check(count <= PEERS_MAX, "too many peers");
        std::vector<Endpoint> addresses(count);
        for (Endpoint& address : addresses) {
            CRtString host;
            uint16_t port = 0;
            std::error_code error;
            ReadFields(body, host, port);
            address = Endpoint(asio::ip::make_address_v4(host.c_str(), error), port);
            Check(!error && port != 0, "malformed address");
            Check(address.address().is_loopback(), "address of another machine");
        }
        CheckEnd(body);
        for (const Endpoint& address : addresses) {
            if (m_links.size() >= LINKS_MAX)
                break;
            Link& peer = PeerAt(address);
            if (peer.owns.insert(id).second)
                GetBlock(id)->SetOwner(peer.member.Get(), 1);
        }
        m_fetches.erase(id);
        OnFetchFailed(id);
    }

    Link& PeerAt(const Endpoint& address) {
        for (const auto& [key, link] : m_links)
            if (link->peer == address)
                return *link;
        Link& link = Connect(address);
        link.peer = address;
        return link;
    }

    // Request the block from a peer that owns it, else from the server as urgent. Without a connection
    // to the server the block is requested after the next one opens.
    void OnFetchFailed(uint32_t id) override {
        if (Link* const peer = LinkOf(GetBlock(id)->GetOwner()))
            Request(*peer, id, FROM_PEERS);
        else if (m_source)
            Request(*m_source, id, URGENT);
    }

    void OnComplete(IFMBlock& block) override {
        if (m_source)
            m_source->Send(Kind::OWN, Pack(block.GetBlockID()));
        Copy(block);
    }

    // On another thread, because a write may wait for the disk. The view shares the buffer of the block, and
    // remains valid if the block is evicted.
    void Copy(IFMBlock& block) {
        CRtMessageChain bytes;
        ThrowIfFailed(block.ReadData(0, block.GetTotalLen(), RtReceive(bytes)), "ReadData failed");
        asio::post(m_writer, [this, id = block.GetBlockID(), bytes = std::move(bytes)] {
            m_copy.seekp(static_cast<std::streamoff>(id - 1) * BLOCK_LEN);
            m_copy.write(bytes->GetTopLevelReadPtr(), bytes->GetTopLevelLength());
            const bool isWritten = m_copy.flush().good();
            asio::post(m_loop, [this, isWritten] { OnCopied(isWritten); });
        });
    }

    void OnCopied(bool isWritten) {
        Turns::Begin();
        if (!isWritten)
            throw std::runtime_error("cannot write " + m_options.file);
        if (++m_copied == m_count)
            std::cout << "complete" << std::endl;
    }

    asio::io_context& m_loop;
    uint32_t m_copied = 0; // blocks
    std::ofstream m_copy;  // m_writer uses it
    asio::thread_pool m_writer{1};
};

} // namespace

std::unique_ptr<Node> MakeClient(asio::io_context& loop, Cache& cache, const Options& options) {
    return std::make_unique<Client>(loop, cache, options);
}
