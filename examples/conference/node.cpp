#include "node.h"

#include <algorithm>
#include <iostream>
#include <list>
#include <ranges>

using asio::ip::tcp;
using namespace std::chrono_literals;

namespace {

constexpr uint32_t HELLO_MAGIC = 0x434E4643;
constexpr auto TICK = 20ms;
constexpr uint32_t TICKS_PER_PROGRESS = 10;
constexpr uint32_t TICKS_PER_CONNECT = 50; // a node that the server refuses is no burden
constexpr auto SILENCE_MAX = 3s;
constexpr size_t IN_TURN = 4;                   // blocks that a link gets at a time
constexpr uint64_t BACKLOG_WANTED = 256 * 1024; // keeps a connection busy

void CheckInfo(const FMFileInfo& info) {
    Check(!(info.fileID == FMFileID_None) && info.blockBeg == 1 && info.name.size() <= 255,
          "a file that is none");
    Check(info.userValue > 0 && info.userValue <= FILE_LEN_MAX, "not a file of 1 byte to 1 GiB");
}

} // namespace

Node::Node(asio::io_context& loop, Cache& cache, Options options)
    : m_cache(cache), m_options(std::move(options)), m_acceptor(loop), m_ticker(loop) {
    asio::post(loop, [this] { Tick(); }); // once the role is there
}

Node::~Node() { LetGo(); }

// --- The file -----------------------------------------------------------------------------------

void Node::TakeFile(CRtMessageBlock& body) {
    FMFileInfo info;
    Check(RT_SUCCEEDED(info.DecodeFileInfo(body)), "a malformed file");
    CheckEnd(body);
    info.flag = 0; // how it is kept is this node's own affair
    if (!m_file)
        Create(info);
    Check(m_file->GetFileInfo().fileID == info.fileID, "another file than before");
    Check(m_file->GetFileInfo().userValue == info.userValue, "a file of another length");
}

void Node::Create(const FMFileInfo& info) {
    CheckInfo(info);
    FileRef file;
    Must(m_cache.Manager().CreateFile(file.Receive(), info), "no room for a file");
    Use(std::move(file));
}

void Node::SendFile(Link& link) {
    CRtMessageChain body = MakeBuffer(FIELDS_LEN_MAX);
    Must(m_file->GetFileInfo().EncodeFileInfo(*body), "a file that no frame can hold");
    link.Send(Kind::OFFER, std::move(body));
}

void Node::Use(FileRef file) {
    const FMFileInfo& info = file->GetFileInfo();
    CheckInfo(info); // a stored one can be of any kind
    Must(m_cache.Manager().AttachFile(info.fileID), "a file that is not open");
    m_file = std::move(file);
    m_count = (info.userValue + BLOCK_LEN - 1) / BLOCK_LEN;
    for (uint32_t id = 1; id <= m_count; ++id) {
        const BlockRef block = GetBlock(id);
        Check(!block->IsComplete() || block->GetTotalLen() == LengthOf(id), "blocks of no use");
        m_have += block->IsComplete() ? 1 : 0;
    }
}

void Node::LetGo() {
    if (!m_file)
        return;
    for (const auto& [key, link] : m_links) {
        link->transfers.clear();
        link->wants.clear();
        link->owns.clear();
    }
    BlockRef block;
    for (uint32_t id = 1; id <= m_count; ++id)
        if (RT_SUCCEEDED(m_file->GetBlock(block.Receive(), id, 0)))
            block->CancelReadData(this); // a sink has to live until it is called or cancelled
    m_cache.Manager().DetachFile(m_file->GetFileInfo().fileID); // the last use: closes the file
    m_file.Reset();
    m_fetches.clear();
    m_count = m_have = 0;
}

uint32_t Node::LengthOf(uint32_t id) const {
    return std::min(BLOCK_LEN, m_file->GetFileInfo().userValue - (id - 1) * BLOCK_LEN);
}

uint32_t Node::TakeBlockID(CRtMessageBlock& body) const {
    uint32_t id = 0;
    Take(body, id);
    Check(id >= 1 && id <= m_count, "a block that the file does not have");
    return id;
}

BlockRef Node::GetBlock(uint32_t id) {
    BlockRef block;
    Must(m_file->GetBlock(block.Receive(), id, 1), "no room for a block");
    return block;
}

// --- Links --------------------------------------------------------------------------------------

void Node::Listen(uint16_t port) {
    m_acceptor =
        tcp::acceptor(m_acceptor.get_executor(), Endpoint(asio::ip::address_v4::loopback(), port));
    m_listenPort = m_acceptor.local_endpoint().port();
    m_acceptor.non_blocking(true);
    std::cout << "port " << m_listenPort << std::endl;
}

// Called by the clock, so that an accept that fails, for want of descriptors for instance, cannot spin.
void Node::Accept() {
    for (std::error_code error; m_links.size() < LINKS_MAX;) {
        tcp::socket socket = m_acceptor.accept(error);
        if (error)
            return;
        AddLink(std::move(socket)).Open();
    }
    // All places are taken: who has been idle the longest makes room for the next one.
    const auto used = [](const auto& each) { return each.second->used; };
    std::ranges::min_element(m_links, {}, used)->second->Close("others wait for its place");
}

Link& Node::AddLink(tcp::socket socket) {
    const auto link = std::make_shared<Link>(std::move(socket), *this);
    m_links[link.get()] = link;
    return *link;
}

Link& Node::Connect(const Endpoint& address) {
    Link& link = AddLink(tcp::socket(m_acceptor.get_executor()));
    link.member = new Member(++m_members, address);
    link.Send(Kind::HELLO, Pack(HELLO_MAGIC, m_listenPort));
    link.Open(address);
    return link;
}

Link* Node::LinkOf(const ISDUser* member) {
    for (const auto& [key, link] : m_links)
        if (member && link->member.Get() == member)
            return link.get();
    return nullptr;
}

// Not IFMFile::CancelRetrieve for the owners too: it tells blocks that the node never owned as well.
void Node::Disown(Link& link, uint32_t id) {
    if (link.owns.erase(id))
        GetBlock(id)->SetOwner(link.member.Get(), 0);
}

void Node::OnClosed(Link& link, const std::string& why) {
    const auto ended = m_links.extract(&link);
    link.transfers.clear(); // an operation under way keeps the link, which need not keep blocks
    if (!why.empty())
        std::cout << "event a link ends: " << why << std::endl;
    if (m_source == &link)
        m_source = nullptr;
    while (!link.owns.empty())
        Disown(link, *link.owns.begin());
    if (m_file && link.member)
        m_file->CancelRetrieve(link.member.Get(), 0);
    for (const auto& [id, fetch] : std::map(m_fetches)) { // a copy: OnLost asks elsewhere
        if (fetch.from == &link) {
            m_fetches.erase(id);
            OnLost(id);
        }
    }
}

// --- What arrives -------------------------------------------------------------------------------

void Node::OnFrame(Link& link, Kind kind, CRtMessageBlock& body) {
    Check(!link.member == (kind == Kind::HELLO), "no greeting, or a second one");
    if (kind == Kind::HELLO)
        return OnHello(link, body);
    if (kind == Kind::WANT)
        return OnWant(link, body);
    if (kind == Kind::PIECE)
        return OnPiece(link, body);
    OnRoleFrame(link, kind, body);
}

void Node::OnHello(Link& link, CRtMessageBlock& body) {
    uint32_t magic = 0;
    uint16_t port = 0;
    Take(body, magic, port);
    CheckEnd(body);
    Check(magic == HELLO_MAGIC, "a greeting of another kind");
    link.member = new Member(++m_members, {link.GetAddress(), port});
}

// --- Fetching -----------------------------------------------------------------------------------

void Node::Ask(Link& link, uint32_t id, uint32_t pri) {
    m_fetches.insert_or_assign(id, Fetch{&link, pri});
    link.Send(Kind::WANT, Pack(id, pri));
}

void Node::OnPiece(Link& link, CRtMessageBlock& body) {
    const uint32_t id = TakeBlockID(body);
    const auto fetch = m_fetches.find(id);
    Check(fetch != m_fetches.end() && fetch->second.from == &link, "a piece that nobody asked for");
    const BlockRef block = GetBlock(id);
    uint32_t pos = 0;
    Take(body, pos);
    Check(pos == fetch->second.pos, "a piece out of order");
    const auto length = static_cast<uint32_t>(body.GetChainedLength());
    Check(length == std::min(PIECE_LEN, LengthOf(id) - pos), "a piece of another length");
    // Position 0 begins the block, also one that somebody else left half done.
    Check(RT_SUCCEEDED(block->WriteData(LengthOf(id), pos, &body)), "a piece that cannot be kept");
    body.AdvanceTopLevelReadPtr(length);
    fetch->second.pos += length;
    fetch->second.postponed = false;
    link.heard = link.used = Clock::now();
    (link.peer.port() ? m_fromPeers : m_fromOthers) += length;
    if (!block->IsComplete())
        return;
    m_fetches.erase(fetch); // the block is on its way to the disk, and can be read already
    ++m_have;
    OnComplete(*block);
    Answer(*block);
}

// --- Serving ------------------------------------------------------------------------------------

void Node::OnWant(Link& link, CRtMessageBlock& body) {
    const uint32_t id = TakeBlockID(body);
    uint32_t pri = 0;
    Take(body, pri);
    CheckEnd(body);
    if (!link.wants.insert(id).second)
        return; // the answer is on its way
    const BlockRef block = GetBlock(id);
    block->AddRetrieve(link.member.Get(), pri);
    if (!AnswerOne(*block, block->GetRetrieves().back()))
        link.Send(Kind::NOT_YET, Pack(id));
}

void Node::Answer(IFMBlock& block) {
    // A copy: a request that is answered leaves the block's list.
    for (const FMRetrieveItem& retrieve : std::list(block.GetRetrieves()))
        AnswerOne(block, retrieve);
}

// Answers whether there was something to give. If not, a server keeps the request.
bool Node::AnswerOne(IFMBlock& block, FMRetrieveItem retrieve) {
    Link& link = *LinkOf(retrieve.m_userNode.Get());
    const int type = Decide(link, block, retrieve);
    if (type == FM_RETRIEVE_NOT_YET)
        return false;
    block.CancelRetrieve(retrieve.m_userNode.Get());
    if (type == FM_RETRIEVE_HERE) {
        link.transfers.push_back({&block});
        SendPieces(link);
    } else {
        link.wants.erase(block.GetBlockID());
    }
    return type != FM_RETRIEVE_CLIENT_NOT_YET;
}

// The first few transfers of a link share it, a piece each in turn, as fast as the connection takes them.
void Node::SendPieces(Link& link) {
    std::deque<Transfer>& queue = link.transfers;
    while (!queue.empty()) {
        const std::chrono::duration<double> elapsed = Clock::now() - m_start;
        if (link.GetBacklog() >= BACKLOG_WANTED ||
            static_cast<double>(m_sent) > m_options.rate * elapsed.count())
            return; // goes on when the connection, or the clock, lets it
        auto first = queue | std::views::take(IN_TURN);
        const auto next = std::ranges::min_element(first, {}, &Transfer::pos);
        if (!next->block->IsInMemory()) // from the disk, without waiting: OnBlockDataReady goes on
            return Must(next->block->ReadData(this), "a block cannot be loaded");
        SendPiece(link, *next);
        if (next->pos < next->block->GetTotalLen())
            continue;
        link.wants.erase(next->block->GetBlockID());
        queue.erase(next);
    }
}

void Node::SendPiece(Link& link, Transfer& transfer) {
    const BlockRef& block = transfer.block;
    const uint32_t length = std::min(PIECE_LEN, block->GetTotalLen() - transfer.pos);
    CRtMessageChain view; // of the block's own memory: no byte is copied on the way to the socket
    Must(block->ReadData(transfer.pos, length, RtReceive(view)), "a block cannot be read");
    CRtMessageChain body = Pack(block->GetBlockID(), transfer.pos);
    body->Append(std::move(view));
    link.Send(Kind::PIECE, std::move(body));
    transfer.pos += length;
    m_sent += length;
    link.used = Clock::now();
}

// The library calls; what throws must not pass through it. A product would not end with a damaged disk:
// it would remove the block from the file and fetch it again.
void Node::OnBlockDataReady(IFMBlock*, int aResult) {
    asio::post(m_acceptor.get_executor(), [this, aResult] {
        Must(aResult, "a block cannot be loaded");
        for (const auto& [key, link] : m_links)
            SendPieces(*link);
    });
}

// --- The clock ----------------------------------------------------------------------------------

void Node::Tick() {
    if (m_options.role != "server" && !m_source && m_ticks % TICKS_PER_CONNECT == 0) {
        m_source = &Connect({asio::ip::address_v4::loopback(), m_options.port});
        OnSource(*m_source);
    }
    if (m_acceptor.is_open())
        Accept();
    CloseSilent();
    for (const auto& [key, link] : m_links)
        SendPieces(*link);
    OnTick();
    if (m_ticks++ % TICKS_PER_PROGRESS == 0)
        ShowProgress();
    m_ticker.expires_after(TICK);
    // Nothing cancels it while the loop runs.
    m_ticker.async_wait([this](std::error_code) { Tick(); });
}

// Who was asked for blocks has to send a piece, of whichever, within SILENCE_MAX.
void Node::CloseSilent() {
    const auto oldest = Clock::now() - SILENCE_MAX;
    for (const auto& [id, fetch] : m_fetches)
        if (!fetch.postponed && std::max(fetch.since, fetch.from->heard) < oldest)
            fetch.from->Close("a node that is silent");
}

void Node::ShowProgress() {
    uint64_t memory = 0;
    for (uint32_t id = 1; id <= m_count; ++id)
        if (const BlockRef block = GetBlock(id); block->IsInMemory())
            memory += block->GetTotalLen();
    std::cout << "progress " << m_have << ' ' << m_count << ' ' << m_fromOthers << ' '
              << m_fromPeers << ' ' << m_sent << ' ' << memory << std::endl;
}
