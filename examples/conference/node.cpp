#include "node.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>

using asio::ip::tcp;
using namespace std::chrono_literals;

namespace {

constexpr uint32_t HELLO_MAGIC = 0x434E4643;
constexpr auto TICK = 20ms;
constexpr uint32_t TICKS_PER_PROGRESS = 10;
constexpr uint32_t TICKS_PER_CONNECT = 10;
constexpr auto SILENCE_MAX = 3s;
constexpr size_t LINKS_MAX = 256;
constexpr size_t IN_TURN = 4;                   // blocks that a link gets at a time
constexpr uint64_t BACKLOG_WANTED = 256 * 1024; // keeps a connection busy

} // namespace

Member::Member(uint32_t number, const Endpoint& address)
    : m_sid(1u << 24 | number << 8), m_ip(address.address().to_v4().to_uint()),
      m_public(!address.address().is_loopback()) {
    m_address.m_host = CRtString(address.address().to_string());
    m_address.m_port = address.port();
}

Node::Node(asio::io_context& loop, Cache& cache, Options options)
    : m_cache(cache), m_options(std::move(options)), m_acceptor(loop), m_ticker(loop) {
    asio::post(loop, [this] { Tick(); }); // once the role is there
}

Node::~Node() {
    for (const auto& [key, link] : m_links)
        link->transfers
            .clear(); // an operation under way keeps the link, which need not keep blocks
    if (!m_file)
        return;
    for (uint32_t id = 1; id <= m_count; ++id)
        GetBlock(id)->CancelReadData(this); // a sink has to live until it is called or cancelled
    m_cache.Manager().DetachFile(m_file->GetFileInfo().fileID); // the last use: closes the file
}

// --- The file -----------------------------------------------------------------------------------

void Node::TakeFile(CRtMessageBlock& body) {
    FMFileInfo info;
    Check(RT_SUCCEEDED(info.DecodeFileInfo(body)), "a malformed file");
    Check(!(info.fileID == FMFileID_None) && info.blockBeg == 1 && info.name.size() <= 255,
          "a file that is none");
    Check(info.userValue > 0 && info.userValue <= FILE_LEN_MAX, "a file of no usable length");
    info.flag = 0; // how it is kept is this node's own affair
    if (!m_file)
        Create(info);
    Check(IsUsed(info.fileID), "another file than before");
    Check(m_file->GetFileInfo().userValue == info.userValue, "a file of another length");
}

void Node::Create(const FMFileInfo& info) {
    FileRef file;
    Check(RT_SUCCEEDED(m_cache.Manager().CreateFile(file.Receive(), info)), "no room for a file");
    Use(std::move(file));
}

void Node::SendFile(Link& link) {
    CRtMessageChain body = Pack();
    m_file->GetFileInfo().EncodeFileInfo(*body);
    link.Send(Kind::OFFER, std::move(body));
}

void Node::Use(FileRef file) {
    m_file = std::move(file);
    const FMFileInfo& info = m_file->GetFileInfo();
    m_cache.Manager().AttachFile(info.fileID);
    m_count = (info.userValue + BLOCK_LEN - 1) / BLOCK_LEN;
    for (uint32_t id = 1; id <= m_count; ++id)
        m_have += GetBlock(id)->IsComplete() ? 1 : 0;
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
    if (RT_FAILED(m_file->GetBlock(block.Receive(), id, 1)))
        throw std::bad_alloc(); // the identifier was checked when it came
    return block;
}

// --- Links --------------------------------------------------------------------------------------

void Node::Listen(uint16_t port) {
    m_acceptor =
        tcp::acceptor(m_acceptor.get_executor(), Endpoint(asio::ip::address_v4::loopback(), port));
    m_listenPort = m_acceptor.local_endpoint().port();
    std::cout << "port " << m_listenPort << std::endl;
    Accept();
}

void Node::Accept() {
    m_acceptor.async_accept([this](std::error_code error, tcp::socket socket) {
        if (!error && m_links.size() < LINKS_MAX)
            AddLink(std::move(socket)).Open();
        Accept();
    });
}

Link& Node::AddLink(tcp::socket socket) {
    const auto link = std::make_shared<Link>(std::move(socket), *this);
    m_links[link.get()] = link;
    return *link;
}

Link& Node::Connect(const Endpoint& address) {
    Link& link = AddLink(tcp::socket(m_acceptor.get_executor()));
    link.member = new Member(++m_members, address);
    const CRtString file = m_file ? FMFileIDToString(m_file->GetFileInfo().fileID) : CRtString();
    link.Send(Kind::HELLO, Pack(HELLO_MAGIC, m_listenPort, file));
    link.Open(address);
    return link;
}

Link* Node::LinkOf(const ISDUser* member) {
    const auto it = std::find_if(m_links.begin(), m_links.end(), [member](const auto& each) {
        return member && each.second->member.Get() == member;
    });
    return it == m_links.end() ? nullptr : it->second.get();
}

// Not IFMFile::CancelRetrieve for the owners too: it tells blocks that the node never owned as well.
void Node::Disown(Link& link, uint32_t id) {
    if (link.owns.erase(id))
        GetBlock(id)->SetOwner(link.member.Get(), 0);
}

void Node::OnClosed(Link& link, const std::string& why) {
    const auto ended = m_links.extract(&link);
    if (!why.empty())
        std::cout << "event a link ends: " << why << std::endl;
    if (m_source == &link)
        m_source = nullptr;
    while (!link.owns.empty())
        Disown(link, *link.owns.begin());
    if (m_file && link.member)
        m_file->CancelRetrieve(link.member.Get(), 0);
    std::set<uint32_t> lost;
    for (const auto& [id, fetch] : m_fetches)
        if (fetch.from == &link)
            lost.insert(id);
    for (const uint32_t id : lost) {
        m_fetches.erase(id);
        OnLost(id);
    }
}

// --- What arrives -------------------------------------------------------------------------------

void Node::OnFrame(Link& link, Kind kind, CRtMessageBlock& body) {
    if (kind == Kind::HELLO)
        OnHello(link, body);
    else
        Check(static_cast<bool>(link.member), "no greeting");
    if (kind == Kind::WANT)
        OnWant(link, body);
    else if (kind == Kind::PIECE)
        OnPiece(link, body);
    else if (kind != Kind::HELLO)
        OnRoleFrame(link, kind, body);
    Check(body.GetChainedLength() == 0, "a frame that does not end");
}

void Node::OnHello(Link& link, CRtMessageBlock& body) {
    uint32_t magic = 0;
    uint16_t port = 0;
    CRtString text;
    Check(!link.member, "a second greeting");
    Take(body, magic, port, text);
    FMFileID id;
    FMFileIDFromString(text, id);
    Check(magic == HELLO_MAGIC, "a greeting of another kind");
    Check(!m_file || text.empty() || IsUsed(id), "a greeting from another conference");
    link.member = new Member(++m_members, {link.GetAddress(), port});
    OnMember(link);
}

// --- Fetching -----------------------------------------------------------------------------------

void Node::Ask(Link& link, uint32_t id, uint32_t pri) {
    m_fetches.insert_or_assign(id, Fetch{&link});
    link.heard = Clock::now(); // its silence begins here
    link.Send(Kind::WANT, Pack(id, pri));
}

void Node::OnPiece(Link& link, CRtMessageBlock& body) {
    const uint32_t id = TakeBlockID(body);
    const auto fetch = m_fetches.find(id);
    Check(fetch != m_fetches.end() && fetch->second.from == &link, "a piece that nobody asked for");
    const BlockRef block = GetBlock(id);
    uint32_t pos = 0;
    Take(body, pos);
    Check(pos == (fetch->second.begun ? block->GetPosition() : 0), "a piece out of order");
    const auto length = static_cast<uint32_t>(body.GetChainedLength());
    Check(length > 0 && length <= LengthOf(id) - pos, "a piece beyond its block");
    // Position 0 begins the block, also one that somebody else left half done.
    Check(RT_SUCCEEDED(block->WriteData(LengthOf(id), pos, &body)), "a piece that cannot be kept");
    body.AdvanceTopLevelReadPtr(length);
    fetch->second.begun = true;
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
    if (!link.wants.insert(id).second)
        return; // the answer is on its way
    const BlockRef block = GetBlock(id);
    block->AddRetrieve(link.member.Get(), pri);
    Answer(*block);
    const auto& waiting = block->GetRetrieves();
    if (std::any_of(waiting.begin(), waiting.end(),
                    [&](const auto& each) { return each.m_userNode.Get() == link.member.Get(); }))
        link.Send(Kind::NOT_YET, Pack(id));
}

int Node::Decide(Link&, IFMBlock& block, const FMRetrieveItem& retrieve) {
    return block.GetRetrieveType(retrieve);
}

void Node::Answer(IFMBlock& block) {
    // A copy: a request that is answered leaves the block's list.
    const std::list<FMRetrieveItem> retrieves = block.GetRetrieves();
    for (const FMRetrieveItem& retrieve : retrieves) {
        ISDUser* const user = retrieve.m_userNode.Get();
        Link& link = *LinkOf(user);
        const int type = Decide(link, block, retrieve);
        if (type != FM_RETRIEVE_PEERS && type != FM_RETRIEVE_HERE)
            continue;
        block.CancelRetrieve(user);
        if (type == FM_RETRIEVE_PEERS) {
            link.wants.erase(block.GetBlockID());
        } else {
            link.transfers.push_back({&block});
            SendPieces(link);
        }
    }
}

// The first few transfers of a link take turns, a piece each, as fast as the connection takes them.
void Node::SendPieces(Link& link) {
    std::deque<Transfer>& queue = link.transfers;
    for (size_t held = 0; held < std::min(IN_TURN, queue.size());) {
        const std::chrono::duration<double> elapsed = Clock::now() - m_start;
        if (link.GetBacklog() >= BACKLOG_WANTED ||
            static_cast<double>(m_sent) > m_options.rate * elapsed.count())
            return; // goes on when the connection, or the clock, lets it
        Transfer next = queue.front();
        queue.pop_front();
        held = SendPiece(link, next) ? 0 : held + 1;
        const auto turn = static_cast<std::ptrdiff_t>(std::min(IN_TURN - 1, queue.size()));
        if (next.block)
            queue.insert(queue.begin() + turn, next);
    }
}

// Answers whether a piece was sent. A transfer that has ended has no block any more.
bool Node::SendPiece(Link& link, Transfer& transfer) {
    const BlockRef block = transfer.block;
    const uint32_t id = block->GetBlockID();
    if (!block->IsInMemory()) {
        // From the disk, without waiting: OnBlockDataReady goes on.
        if (const int result = block->ReadData(this); RT_FAILED(result))
            OnBlockDataReady(block.Get(), result);
        return false;
    }
    const uint32_t length = std::min(PIECE_LEN, block->GetTotalLen() - transfer.pos);
    CRtMessageChain view; // of the block's own memory: no byte is copied on the way to the socket
    if (RT_FAILED(block->ReadData(transfer.pos, length, RtReceive(view))))
        throw std::bad_alloc();
    CRtMessageChain body = Pack(id, transfer.pos);
    body->Append(std::move(view));
    link.Send(Kind::PIECE, std::move(body));
    m_sent += length;
    if (++m_piecesSent == m_options.leaveAfter)
        std::_Exit(EXIT_FAILURE);
    transfer.pos += length;
    if (transfer.pos == block->GetTotalLen()) {
        link.wants.erase(id);
        transfer.block.Reset();
    }
    return true;
}

void Node::OnBlockDataReady(IFMBlock* block, int aResult) {
    if (RT_SUCCEEDED(aResult)) {
        for (const auto& [key, link] : m_links)
            SendPieces(*link);
        return;
    }
    // Its bytes are gone. Who waited for them comes back and asks anew, and so does this node.
    const uint32_t id = block->GetBlockID();
    std::cout << "event block " << id << " is lost, error " << aResult << std::endl;
    for (const auto& [key, link] : m_links)
        if (std::erase_if(link->transfers, [&](auto& each) { return each.block.Get() == block; }))
            link->Close("a block that is lost");
    BlockRef removed;
    m_file->RemoveBlock(id, removed.Receive());
    --m_have;
    OnLost(id);
}

// --- The clock ----------------------------------------------------------------------------------

void Node::Tick() {
    if (m_options.role != "server" && !m_source && m_ticks % TICKS_PER_CONNECT == 0) {
        m_source = &Connect({asio::ip::address_v4::loopback(), m_options.port});
        OnServer();
    }
    CloseSilent();
    for (const auto& [key, link] : m_links)
        SendPieces(*link);
    OnTick();
    if (m_ticks++ % TICKS_PER_PROGRESS == 0)
        ShowProgress();
    m_ticker.expires_after(TICK);
    m_ticker.async_wait([this](std::error_code) { Tick(); });
}

void Node::CloseSilent() {
    const auto oldest = Clock::now() - SILENCE_MAX;
    for (const auto& [key, link] : m_links)
        if (!link->member && link->heard < oldest)
            link->Close("no greeting came");
    for (const auto& [id, fetch] : m_fetches)
        if (fetch.from->peer.port() && fetch.from->heard < oldest)
            fetch.from->Close("a peer that is silent");
}

void Node::ShowProgress() {
    uint64_t memory = 0;
    for (uint32_t id = 1; id <= m_count; ++id)
        if (const BlockRef block = GetBlock(id); block->IsInMemory())
            memory += block->GetTotalLen();
    std::cout << "progress " << m_have << ' ' << m_count << ' ' << m_fromOthers << ' '
              << m_fromPeers << ' ' << m_sent << ' ' << memory << std::endl;
}
