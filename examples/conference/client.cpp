// A client collects the file: it asks the server for what it lacks, takes it from there or from the
// peers that the server names, and serves what it has to other peers.
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
        : Node(loop, cache, options) {
        Listen(0);
    }

private:
    void OnRoleFrame(Link& link, Kind kind, CRtMessageBlock& body) override {
        if (kind == Kind::OFFER)
            return OnOffer(link, body);
        const uint32_t id = TakeBlockID(body);
        const auto fetch = m_fetches.find(id);
        Check(fetch != m_fetches.end() && fetch->second.from == &link && fetch->second.pos == 0,
              "an answer to no question");
        if (kind == Kind::PEERS && fetch->second.pri == FROM_PEERS)
            return OnPeers(link, id, body);
        Check(kind == Kind::NOT_YET, "a frame that a client does not take");
        CheckEnd(body);
        fetch->second.postponed = true;
        if (&link == m_source)
            return;
        m_fetches.erase(id);
        Disown(link, id);
        OnLost(id);
    }

    void OnOffer(Link& link, CRtMessageBlock& body) {
        Check(&link == m_source && !std::exchange(link.offered, true), "a file out of place");
        TakeFile(body);
        // Everybody's own part comes from the server, and so has each soon something for the others.
        for (uint32_t id = 1; id <= m_count; ++id) {
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
            Check(address.address().is_loopback(), "a peer on another machine");
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
        if (!output.flush())
            throw std::runtime_error("cannot write " + m_options.file);
        std::cout << "complete" << std::endl;
    }
};

} // namespace

std::unique_ptr<Node> MakeClient(asio::io_context& loop, Cache& cache, const Options& options) {
    return std::make_unique<Client>(loop, cache, options);
}
