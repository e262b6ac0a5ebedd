// The base of the three roles: keeps links to other nodes, serves blocks that they request and fetches
// blocks from them. Everything runs on the loop's thread, which is the caller thread.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "cache.h"
#include "wire.h"

using FileRef = CRtComAutoPtr<IFMFile>;
using BlockRef = CRtComAutoPtr<IFMBlock>;
using Endpoint = asio::ip::tcp::endpoint;

constexpr uint32_t BLOCK_LEN = 256 * 1024;
constexpr uint32_t FILE_LEN_MAX = 1u << 30; ///< the library's limit for one cached file
constexpr size_t LINKS_MAX = 256;

struct Options {
    std::string role;     ///< server, presenter or client
    std::string dir;      ///< data directory of the cache
    std::string file;     ///< presenter: the file to send; client: the copy to write
    std::string id;       ///< server: the cached file to open at the start
    uint16_t port = 0;    ///< TCP port of the server
    uint16_t metrics = 0; ///< server: TCP port for GET /metrics; 0 selects a free port
    uint32_t index = 0;   ///< client: its number, from 0; selects the blocks that it requests first
    uint32_t clients = 1; ///< client: number of clients, which divide the first requests
    bool keep = false;    ///< client: leave the cache on disk at the end
    double rate = 1e12;   ///< highest send rate in bytes per second
};

/// Another node as the file manager sees it. It holds values only: blocks keep references to it, and the
/// last one may be released on the read/write thread, which must not close a socket. A block counts and
/// finds its owners by IsP2P, IsPublic and GetIP, so these results never change.
class Member final : public CRtCounted<ISDUser> {
public:
    /// `at`: the address that peers fetch from; port 0 means that the node does not serve peers.
    Member(uint32_t number, const Endpoint& at)
        : m_sid(number), m_ip(at.address().to_v4().to_uint()),
          m_address(SDAddress{CRtString(at.address().to_string()), at.port()}) {}
    const CTavoSID& GetNodeSID() override { return m_sid; }
    int IsP2P() override { return m_address.m_port != 0; }
    int IsPublic() override { return 0; } // every node runs on this machine
    uint32_t GetAddressTag() override { return m_sid.GetHashValue(); }
    uint32_t GetIP() override { return m_ip; }
    const SDAddress& GetAddress() override { return m_address; }

private:
    const CTavoSID m_sid;
    const uint32_t m_ip;
    const SDAddress m_address;
};

class Node : public Link::User, public IFMBlockSink {
public:
    Node(asio::io_context& loop, Cache& cache, Options options);
    virtual ~Node();
    void ShowProgress();

protected:
    // Overridden by the roles.
    virtual void OnRoleFrame(Link& link, Kind kind, CRtMessageBlock& body) = 0;
    virtual bool IsReady() const { return true; } ///< false: do not connect to the server yet
    virtual void OnSource(Link&) {}               ///< a connection to the server was started
    virtual void OnComplete(IFMBlock&) {}
    virtual void OnFetchFailed(uint32_t) {} ///< the link that the block was requested from closed
    virtual void OnTick() {}
    /// The answer to a request, an FMRetrieveType. For FM_RETRIEVE_PEERS the override has sent it.
    virtual int Decide(Link&, IFMBlock& block, const FMRetrieveItem& retrieve) {
        return block.GetRetrieveType(retrieve);
    }

    void Listen(uint16_t port);
    Link& Connect(const Endpoint& address);
    Link* LinkOf(const ISDUser* member);
    void RemoveOwner(Link& link, uint32_t id);
    /// Sets the file of this conference. Its `userValue` is its length in bytes.
    void UseFile(FileRef file);
    void Create(const FMFileInfo& info);
    /// Reads the description of a file from `body`. Creates the file if the node has none; otherwise the
    /// description must be that of the current file.
    void AcceptFile(CRtMessageBlock& body);
    void SendFile(Link& link);
    /// Closes the file; a no-op without one.
    void CloseFile();
    uint32_t ReadBlockID(CRtMessageBlock& body) const;
    uint32_t LengthOf(uint32_t id) const;
    BlockRef GetBlock(uint32_t id);
    bool IsMissing(uint32_t id) { return !m_fetches.contains(id) && !GetBlock(id)->IsComplete(); }
    /// Answers every request for the block that can be answered now.
    void AnswerRequests(IFMBlock& block);
    void Request(Link& link, uint32_t id, uint32_t pri);

    struct Fetch {
        Link* from;
        uint32_t pri;
        uint64_t since;         ///< tick of the request
        bool postponed = false; ///< the server answered that it does not have the block yet
        uint32_t pos = 0;       ///< position of the next piece
    };

    Cache& m_cache;
    const Options m_options;
    FileRef m_file;
    uint32_t m_count = 0;                ///< blocks of the file, numbered from 1
    uint32_t m_have = 0;                 ///< complete blocks
    std::map<uint32_t, Fetch> m_fetches; ///< blocks that were requested and are incomplete
    std::map<const Link*, std::shared_ptr<Link>> m_links;
    uint64_t m_ticks = 0;
    Link* m_source =
        nullptr; ///< link to the server, on a server to the presenter; null without one

private:
    void OnFrame(Link& link, Kind kind, CRtMessageBlock& body) override;
    void OnSent(Link& link) override { SendPieces(link); }
    void OnClosed(Link& link, const std::string& why) override;
    void OnBlockDataReady(IFMBlock* block, int aResult) override;
    void OnHello(Link& link, CRtMessageBlock& body);
    void OnWant(Link& link, CRtMessageBlock& body);
    void OnPiece(Link& link, CRtMessageBlock& body);
    Link& AddLink(asio::ip::tcp::socket socket);
    void Accept();
    void Tick();
    void CloseUnresponsive();
    void SendToAll();
    bool AnswerRequest(IFMBlock& block, FMRetrieveItem retrieve);
    void SendPieces(Link& link);
    void SendPiece(Link& link, Transfer& transfer);

    asio::ip::tcp::acceptor m_acceptor;
    asio::steady_timer m_ticker;
    uint16_t m_listenPort = 0;
    uint32_t m_members = 0;
    uint64_t m_fromPeers = 0;
    uint64_t m_fromOthers = 0;
    uint64_t m_sent = 0;
    uint64_t m_connectTick = 0; ///< earliest tick of the next attempt to connect to the server
    double m_sendBudget =
        0; ///< bytes that `rate` allows now; negative after a piece that exceeds it
    Clock::time_point m_budgetTime = Clock::now();
};

std::unique_ptr<Node> MakeServer(asio::io_context& loop, Cache& cache, const Options& options);
std::unique_ptr<Node> MakePresenter(asio::io_context& loop, Cache& cache, const Options& options);
std::unique_ptr<Node> MakeClient(asio::io_context& loop, Cache& cache, const Options& options);
