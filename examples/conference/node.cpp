#include "node.h"

#include <algorithm>
#include <iostream>
#include <list>
#include <ranges>
#include <utility>
#include <vector>

using asio::ip::tcp;
using namespace std::chrono_literals;

namespace {

constexpr uint32_t HELLO_MAGIC = 0x434E4643;
constexpr auto TICK = 20ms;
constexpr uint32_t TICKS_PER_PROGRESS = 10;
constexpr uint32_t TICKS_PER_CONNECT = 50; // 1 s: a node that the server rejects causes little load
// 10 s. A node that ends closes its connection, so only one that hangs reaches this limit. The unit is
// the tick, not the clock: a node that was not scheduled for a while, or waited for its disk, first
// reads what its sockets hold before it blames another node.
constexpr uint32_t TICKS_WITHOUT_PIECE_MAX = 500;
constexpr size_t TRANSFERS_INTERLEAVED = 4;     // blocks that a link sends at a time
constexpr uint64_t BACKLOG_WANTED = 256 * 1024; // bytes; enough to keep a connection busy
constexpr double BURST_SECONDS = 0.1;           // of the send rate

void CheckInfo(const FMFileInfo& info) {
    Check(!(info.fileID == FMFileID_None) && info.blockBeg == 1 && info.name.size() <= 255,
          "invalid file description");
    Check(info.userValue > 0 && info.userValue <= FILE_LEN_MAX,
          "file length outside 1 byte to 1 GiB");
}

} // namespace

Node::Node(asio::io_context& loop, Cache& cache, Options options)
    : m_cache(cache), m_options(std::move(options)), m_acceptor(loop), m_ticker(loop) {
    asio::post(loop, [this] { Tick(); }); // runs after the constructor of the role
}

Node::~Node() { CloseFile(); }

// --- The file -----------------------------------------------------------------------------------

void Node::AcceptFile(CRtMessageBlock& body) {
    FMFileInfo info;
    Check(RT_SUCCEEDED(info.DecodeFileInfo(body)), "malformed file description");
    CheckEnd(body);
    info.flag = 0; // each node decides how long it keeps its copy
    if (!m_file)
        Create(info);
    Check(m_file->GetFileInfo().fileID == info.fileID, "identifier of another file");
    Check(m_file->GetFileInfo().userValue == info.userValue, "length of another file");
}

void Node::Create(const FMFileInfo& info) {
    CheckInfo(info);
    FileRef file;
    ThrowIfFailed(m_cache.Manager().CreateFile(file.Receive(), info), "CreateFile failed");
    UseFile(std::move(file));
}

void Node::SendFile(Link& link) {
    CRtMessageChain body = MakeBuffer(FIELDS_LEN_MAX);
    ThrowIfFailed(m_file->GetFileInfo().EncodeFileInfo(*body),
                  "file description too long for a frame");
    link.Send(Kind::OFFER, std::move(body));
}

void Node::UseFile(FileRef file) {
    const FMFileInfo& info = file->GetFileInfo();
    CheckInfo(info); // the store of the server may hold files of other programs
    ThrowIfFailed(m_cache.Manager().AttachFile(info.fileID), "AttachFile failed");
    m_file = std::move(file);
    m_count = (info.userValue + BLOCK_LEN - 1) / BLOCK_LEN;
    for (uint32_t id = 1; id <= m_count; ++id) {
        const BlockRef block = GetBlock(id);
        Check(!block->IsComplete() || block->GetTotalLen() == LengthOf(id),
              "stored block of another length");
        m_have += block->IsComplete() ? 1 : 0;
    }
}

void Node::CloseFile() {
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
            block->CancelReadData(this); // a sink must live until it is called or cancelled
    m_cache.Manager().DetachFile(m_file->GetFileInfo().fileID); // the last detach closes the file
    m_file.Reset();
    m_fetches.clear();
    m_count = m_have = 0;
}

uint32_t Node::LengthOf(uint32_t id) const {
    return std::min(BLOCK_LEN, m_file->GetFileInfo().userValue - (id - 1) * BLOCK_LEN);
}

uint32_t Node::ReadBlockID(CRtMessageBlock& body) const {
    uint32_t id = 0;
    ReadFields(body, id);
    Check(id >= 1 && id <= m_count, "block number outside the file");
    return id;
}

BlockRef Node::GetBlock(uint32_t id) {
    BlockRef block;
    ThrowIfFailed(m_file->GetBlock(block.Receive(), id, 1), "GetBlock failed");
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

// Called by the tick, so that an accept that fails with EMFILE cannot spin.
void Node::Accept() {
    for (std::error_code error; m_links.size() < LINKS_MAX;) {
        tcp::socket socket = m_acceptor.accept(error);
        if (error)
            return;
        AddLink(std::move(socket)).Open();
    }
    // LINKS_MAX is reached: close the link that was idle for the longest time.
    const auto used = [](const auto& each) { return each.second->used; };
    std::ranges::min_element(m_links, {}, used)
        ->second->Close("too many connections, and this one was idle");
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

// IFMFile::CancelRetrieve could remove the owner from all blocks, but it also notifies blocks that the
// node never owned.
void Node::RemoveOwner(Link& link, uint32_t id) {
    if (link.owns.erase(id))
        GetBlock(id)->SetOwner(link.member.Get(), 0);
}

void Node::OnClosed(Link& link, const std::string& why) {
    const auto ended = m_links.extract(&link);
    link.transfers.clear(); // a pending operation may keep the link alive; release its blocks now
    if (!why.empty())
        std::cout << "event connection closed: " << why << std::endl;
    if (m_source == &link)
        m_source = nullptr;
    while (!link.owns.empty())
        RemoveOwner(link, *link.owns.begin());
    if (m_file && link.member)
        m_file->CancelRetrieve(link.member.Get(), 0);
    for (const auto& [id, fetch] : std::map(m_fetches)) { // a copy: OnFetchFailed adds fetches
        if (fetch.from == &link) {
            m_fetches.erase(id);
            OnFetchFailed(id);
        }
    }
}

// --- Frames -------------------------------------------------------------------------------------

void Node::OnFrame(Link& link, Kind kind, CRtMessageBlock& body) {
    Check(!link.member == (kind == Kind::HELLO), "HELLO missing or repeated");
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
    ReadFields(body, magic, port);
    CheckEnd(body);
    Check(magic == HELLO_MAGIC, "HELLO of another protocol");
    link.member = new Member(++m_members, {link.GetAddress(), port});
}

// --- Fetching -----------------------------------------------------------------------------------

void Node::Request(Link& link, uint32_t id, uint32_t pri) {
    m_fetches.insert_or_assign(id, Fetch{&link, pri, m_ticks});
    link.Send(Kind::WANT, Pack(id, pri));
}

void Node::OnPiece(Link& link, CRtMessageBlock& body) {
    const uint32_t id = ReadBlockID(body);
    const auto fetch = m_fetches.find(id);
    Check(fetch != m_fetches.end() && fetch->second.from == &link,
          "piece of a block that was not requested");
    const BlockRef block = GetBlock(id);
    uint32_t pos = 0;
    ReadFields(body, pos);
    Check(pos == fetch->second.pos, "piece out of order");
    const auto length = static_cast<uint32_t>(body.GetChainedLength());
    Check(length == std::min(PIECE_LEN, LengthOf(id) - pos), "piece of wrong length");
    // Position 0 restarts the block, even if another node sent a part of it before.
    Check(RT_SUCCEEDED(block->WriteData(LengthOf(id), pos, &body)), "piece rejected by WriteData");
    body.AdvanceTopLevelReadPtr(length);
    fetch->second.pos += length;
    fetch->second.postponed = false;
    link.lastPiece = m_ticks;
    link.used = Clock::now();
    const bool isPeer = link.peer.port() != 0;
    (isPeer ? m_fromPeers : m_fromOthers) += length;
    if (!block->IsComplete())
        return;
    m_fetches.erase(fetch); // a complete block can be read while its store is pending
    ++m_have;
    std::cout << "block " << id << (isPeer ? " peer\n" : " source\n");
    OnComplete(*block);
    AnswerRequests(*block);
}

// --- Serving ------------------------------------------------------------------------------------

void Node::OnWant(Link& link, CRtMessageBlock& body) {
    const uint32_t id = ReadBlockID(body);
    uint32_t pri = 0;
    ReadFields(body, pri);
    CheckEnd(body);
    if (!link.wants.insert(id).second)
        return; // already being answered
    const BlockRef block = GetBlock(id);
    block->AddRetrieve(link.member.Get(), pri);
    if (!AnswerRequest(*block, block->GetRetrieves().back()))
        link.Send(Kind::NOT_YET, Pack(id));
}

void Node::AnswerRequests(IFMBlock& block) {
    // A copy: AnswerRequest removes requests from the list of the block.
    for (const FMRetrieveItem& retrieve : std::list(block.GetRetrieves()))
        AnswerRequest(block, retrieve);
}

// Returns whether the request was answered. If it was not, a server keeps it.
bool Node::AnswerRequest(IFMBlock& block, FMRetrieveItem retrieve) {
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

// The first TRANSFERS_INTERLEAVED transfers of a link send one piece each, round-robin, until the
// connection or the send rate is saturated.
void Node::SendPieces(Link& link) {
    std::deque<Transfer>& queue = link.transfers;
    while (!queue.empty()) {
        if (link.GetBacklog() >= BACKLOG_WANTED || m_sendBudget <= 0)
            return; // continues in OnSent or in Tick
        auto first = queue | std::views::take(TRANSFERS_INTERLEAVED);
        const auto next = std::ranges::min_element(first, {}, &Transfer::pos);
        if (!next->block->IsInMemory()) // load without waiting; OnBlockDataReady continues
            return ThrowIfFailed(next->block->ReadData(this), "ReadData failed");
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
    CRtMessageChain
        view; // shares the buffer of the block: no byte is copied on the way to the socket
    ThrowIfFailed(block->ReadData(transfer.pos, length, RtReceive(view)), "ReadData failed");
    CRtMessageChain body = Pack(block->GetBlockID(), transfer.pos);
    body->Append(std::move(view));
    link.Send(Kind::PIECE, std::move(body));
    transfer.pos += length;
    m_sent += length;
    m_sendBudget -= length;
    link.used = Clock::now();
}

// An exception must not pass through the library, so the handler runs from the loop. A product would not
// end when a load fails: it would remove the block from the file and fetch it again.
void Node::OnBlockDataReady(IFMBlock*, int aResult) {
    asio::post(m_acceptor.get_executor(), [this, aResult] {
        Turns::Begin();
        ThrowIfFailed(aResult, "loading a block failed");
        SendToAll();
    });
}

// --- Tick ---------------------------------------------------------------------------------------

void Node::Tick() {
    Turns::Begin();
    if (m_options.role != "server" && !m_source && m_ticks >= m_connectTick && IsReady()) {
        m_connectTick = m_ticks + TICKS_PER_CONNECT;
        m_source = &Connect({asio::ip::address_v4::loopback(), m_options.port});
        OnSource(*m_source);
    }
    if (m_acceptor.is_open())
        Accept();
    CloseUnresponsive();
    // Time that was not used does not accumulate: a node that waited must not send a large burst.
    const Clock::time_point now = Clock::now();
    const std::chrono::duration<double> elapsed = now - std::exchange(m_budgetTime, now);
    m_sendBudget += m_options.rate * elapsed.count();
    m_sendBudget = std::min(m_sendBudget, m_options.rate * BURST_SECONDS);
    SendToAll();
    OnTick();
    if (m_ticks++ % TICKS_PER_PROGRESS == 0)
        ShowProgress();
    m_ticker.expires_after(TICK);
    // The timer is not cancelled while the loop runs.
    m_ticker.async_wait([this](std::error_code) { Tick(); });
}

// The least recently used link first: a low send rate is then shared by all links.
void Node::SendToAll() {
    std::vector<Link*> links;
    for (const auto& [key, link] : m_links)
        links.push_back(link.get());
    std::ranges::sort(links, {}, &Link::used);
    for (Link* const link : links)
        SendPieces(*link);
}

// A node that was asked for blocks must send a piece of any of them within TICKS_WITHOUT_PIECE_MAX.
void Node::CloseUnresponsive() {
    for (const auto& [id, fetch] : m_fetches) {
        const uint64_t last = std::max(fetch.since, fetch.from->lastPiece);
        if (!fetch.postponed && m_ticks - last > TICKS_WITHOUT_PIECE_MAX)
            fetch.from->Close("no requested piece arrived in time");
    }
}

void Node::ShowProgress() {
    uint64_t memory = 0;
    for (uint32_t id = 1; id <= m_count; ++id)
        if (const BlockRef block = GetBlock(id); block->IsInMemory())
            memory += block->GetTotalLen();
    std::cout << "progress " << m_have << ' ' << m_count << ' ' << m_fromOthers << ' '
              << m_fromPeers << ' ' << m_sent << ' ' << memory << "\nturn "
              << Turns::GetLongest().count() << std::endl;
}
