// A client collects the file: it asks the server for what it lacks, takes it from there or from the
// peers that the server names, and serves what it has to other peers.
#include <fstream>
#include <iostream>
#include <vector>

#include "node.h"

namespace {

constexpr uint32_t URGENT = 1;
constexpr uint32_t FROM_PEERS = 2; // above 1 the server names peers

class Client final : public Node {
public:
    Client(asio::io_context& loop, Cache& cache, const Options& options)
        : Node(loop, cache, options) {
        Listen(0);
    }

private:
    void OnRoleFrame(Link& link, Kind kind, CRtMessageBlock& body) override {
        if (kind == Kind::OFFER)
            return OnOffer(link, body);
        const uint32_t id = TakeBlockID(body);
        const auto fetch = m_fetches.find(id);
        Check(fetch != m_fetches.end() && fetch->second.from == &link && !fetch->second.begun,
              "an answer to no question");
        if (kind == Kind::PEERS)
            return OnPeers(link, id, body);
        Check(kind == Kind::NOT_YET, "a frame that a client does not take");
        CheckEnd(body);
        if (&link == m_source)
            return; // it comes when it is there
        m_fetches.erase(id);
        Disown(link, id);
        OnLost(id);
    }

    void OnOffer(Link& link, CRtMessageBlock& body) {
        Check(&link == m_source, "a file that is not the server's");
        TakeFile(body);
        // Everybody begins elsewhere, and so has soon something for the others.
        const uint32_t begin = m_options.index * m_count / m_options.clients;
        for (uint32_t i = 0; i < m_count; ++i) {
            const uint32_t id = 1 + (i + begin) % m_count;
            if (GetBlock(id)->IsComplete())
                link.Send(Kind::OWN, Pack(id));
            else if (IsLacking(id))
                Ask(link, id, id % m_options.clients == m_options.index ? URGENT : FROM_PEERS);
        }
    }

    void OnPeers(Link& link, uint32_t id, CRtMessageBlock& body) {
        Check(&link == m_source, "peers that are not the server's");
        uint16_t count = 0;
        Take(body, count);
        Check(count <= PEERS_MAX, "too many peers");
        std::vector<Endpoint> addresses(count);
        for (Endpoint& address : addresses) {
            CRtString host;
            uint16_t port = 0;
            std::error_code error;
            Take(body, host, port);
            address = Endpoint(asio::ip::make_address_v4(host.c_str(), error), port);
            Check(!error && port != 0, "a malformed address");
        }
        CheckEnd(body);
        for (const Endpoint& address : addresses) {
            Link& peer = PeerAt(address);
            if (peer.owns.insert(id).second)
                GetBlock(id)->SetOwner(peer.member.Get(), 1);
        }
        m_fetches.erase(id);
        OnLost(id);
    }

    Link& PeerAt(const Endpoint& address) {
        for (const auto& [key, link] : m_links)
            if (link->peer == address)
                return *link;
        Link& link = Connect(address);
        link.peer = address;
        return link;
    }

    // From a peer that is known to have it, else from the server, and then at once. Without a server:
    // when there is one again.
    void OnLost(uint32_t id) override {
        if (Link* const peer = LinkOf(GetBlock(id)->GetOwner()))
            Ask(*peer, id, FROM_PEERS);
        else if (m_source)
            Ask(*m_source, id, URGENT);
    }

    void OnComplete(IFMBlock& block) override {
        if (m_source)
            m_source->Send(Kind::OWN, Pack(block.GetBlockID()));
        if (m_have == m_count)
            WriteOut();
    }

    void WriteOut() {
        std::ofstream output(m_options.file, std::ios::binary | std::ios::trunc);
        for (uint32_t id = 1; id <= m_count; ++id) {
            CRtMessageChain bytes; // waits for the disk if it must
            Must(GetBlock(id)->ReadData(0, LengthOf(id), RtReceive(bytes)),
                 "a block cannot be read");
            output.write(bytes->GetTopLevelReadPtr(), bytes->GetTopLevelLength());
        }
        ShowProgress();
        if (!output.flush())
            throw std::runtime_error("cannot write " + m_options.file);
        std::cout << "complete" << std::endl;
    }
};

} // namespace

std::unique_ptr<Node> MakeClient(asio::io_context& loop, Cache& cache, const Options& options) {
    return std::make_unique<Client>(loop, cache, options);
}
