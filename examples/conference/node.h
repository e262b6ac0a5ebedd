// What the three roles have in common: links to other nodes, serving blocks to those who want them, and
// fetching blocks from those who have them. Everything runs on the loop's thread, which is number 3.
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
    std::string dir;      ///< where the cache lies
    std::string file;     ///< presenter: the file to show; client: where it goes in the end
    std::string id;       ///< server: the file to open from its store at the start
    uint16_t port = 0;    ///< the server's
    uint32_t index = 0;   ///< client: its number, from 0; fixes its share of urgent requests
    uint32_t clients = 1; ///< client: how many share the file like that
    double rate = 1e12;   ///< bytes per second, on average since the start, that it sends at most
};

/// Another node as the file manager sees it. A value and no more: blocks hold references on it, and the
/// last one may go on the read/write thread, where a socket could not be closed. A block counts and finds
/// it by what IsP2P, IsPublic and GetIP answer, so they never change.
class Member final : public CRtCounted<ISDUser> {
public:
    /// `at`: where peers can fetch from it; with port 0 they cannot.
    Member(uint32_t number, const Endpoint& at)
        : m_sid(number), m_ip(at.address().to_v4().to_uint()),
          m_address(SDAddress{CRtString(at.address().to_string()), at.port()}) {}
    const CTavoSID& GetNodeSID() override { return m_sid; }
    int IsP2P() override { return m_address.m_port != 0; }
    int IsPublic() override { return 0; } // all are on this machine
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
    // What a role adds.
    virtual void OnRoleFrame(Link& link, Kind kind, CRtMessageBlock& body) = 0;
    virtual void OnSource(Link&) {} // the server, on its way to be connected
    virtual void OnComplete(IFMBlock&) {}
    virtual void OnLost(uint32_t) {} // that block will not come from where it was asked for
    virtual void OnTick() {}
    /// Which answer a request gets, an FMRetrieveType. With FM_RETRIEVE_PEERS it has been given.
    virtual int Decide(Link&, IFMBlock& block, const FMRetrieveItem& retrieve) {
        return block.GetRetrieveType(retrieve);
    }

    void Listen(uint16_t port);
    Link& Connect(const Endpoint& address);
    Link* LinkOf(const ISDUser* member);
    void Disown(Link& link, uint32_t id);
    /// The file of this conference from now on. Its `userValue` is its length in bytes.
    void Use(FileRef file);
    void Create(const FMFileInfo& info);
    /// Takes the description of a file: of a new one when there is none yet, else of the same.
    void TakeFile(CRtMessageBlock& body);
    void SendFile(Link& link);
    /// Ends the use of the file, if there is one.
    void LetGo();
    uint32_t TakeBlockID(CRtMessageBlock& body) const;
    uint32_t LengthOf(uint32_t id) const;
    BlockRef GetBlock(uint32_t id);
    bool IsLacking(uint32_t id) { return !m_fetches.contains(id) && !GetBlock(id)->IsComplete(); }
    /// Answers whom it can of those who asked for the block.
    void Answer(IFMBlock& block);
    void Ask(Link& link, uint32_t id, uint32_t pri);

    struct Fetch {
        Link* from;
        uint32_t pri;
        Clock::time_point since = Clock::now();
        bool postponed = false; ///< the server has said that it does not have it yet
        uint32_t pos = 0;       ///< of the next piece
    };

    Cache& m_cache;
    const Options m_options;
    FileRef m_file;
    uint32_t m_count = 0; ///< blocks of the file, numbered from 1
    uint32_t m_have = 0;
    std::map<uint32_t, Fetch> m_fetches; ///< blocks that somebody was asked for
    std::map<const Link*, std::shared_ptr<Link>> m_links;
    uint64_t m_ticks = 0;
    Link* m_source = nullptr; ///< the server, on a server the presenter; none while it is away

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
    void CloseSilent();
    bool AnswerOne(IFMBlock& block, FMRetrieveItem retrieve);
    void SendPieces(Link& link);
    void SendPiece(Link& link, Transfer& transfer);

    asio::ip::tcp::acceptor m_acceptor;
    asio::steady_timer m_ticker;
    uint16_t m_listenPort = 0;
    uint32_t m_members = 0;
    uint64_t m_fromPeers = 0;
    uint64_t m_fromOthers = 0;
    uint64_t m_sent = 0;
    const Clock::time_point m_start = Clock::now();
};

std::unique_ptr<Node> MakeServer(asio::io_context& loop, Cache& cache, const Options& options);
std::unique_ptr<Node> MakePresenter(asio::io_context& loop, Cache& cache, const Options& options);
std::unique_ptr<Node> MakeClient(asio::io_context& loop, Cache& cache, const Options& options);
