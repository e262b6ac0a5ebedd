#include "node.h"

#include <algorithm>
#include <iostream>
#include <list>

using asio::ip::tcp;
using namespace std::chrono_literals;

namespace {

constexpr uint32_t HELLO_MAGIC = 0x434E4643;
constexpr auto TICK = 20ms;
constexpr uint32_t TICKS_PER_PROGRESS = 10;
constexpr uint32_t TICKS_PER_CONNECT = 50; // a node that the server refuses is no burden
constexpr auto SILENCE_MAX = 3s;
constexpr size_t LINKS_MAX = 256;
constexpr size_t IN_TURN = 4;                   // blocks that a link gets at a time
constexpr uint64_t BACKLOG_WANTED = 256 * 1024; // keeps a connection busy
constexpr uint32_t FILE_FIELDS_LEN_MAX = 512;   // a name has 255 bytes at most

void CheckInfo(const FMFileInfo& info) {
    Check(!(info.fileID == FMFileID_None) && info.blockBeg == 1 && info.name.size() <= 255,
          "a file that is none");
    Check(info.userValue > 0 && info.userValue <= FILE_LEN_MAX, "a file of no usable length");
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
    Check(IsUsed(info.fileID), "another file than before");
    Check(m_file->GetFileInfo().userValue == info.userValue, "a file of another length");
}

void Node::Create(const FMFileInfo& info) {
    CheckInfo(info);
    FileRef file;
    Must(m_cache.Manager().CreateFile(file.Receive(), info), "no room for a file");
    Use(std::move(file));
}

void Node::SendFile(Link& link) {
    CRtMessageChain body = MakeBuffer(FILE_FIELDS_LEN_MAX);
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
    if (RT_FAILED(m_file->GetBlock(block.Receive(), id, 1)))
        throw std::bad_alloc(); // the identifier was checked when it came
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
    CRtString text;
    Take(body, magic, port, text);
    CheckEnd(body);
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
    link.heard = Clock::now();
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
    const std::list<FMRetrieveItem> retrieves = block.GetRetrieves();
    for (const FMRetrieveItem& retrieve : retrieves)
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

// The first few transfers of a link take turns, a piece each, as fast as the connection takes them.
void Node::SendPieces(Link& link) {
    std::deque<Transfer>& queue = link.transfers;
    for (size_t turn = 0; turn < std::min(IN_TURN, queue.size());) {
        const std::chrono::duration<double> elapsed = Clock::now() - m_start;
        if (link.GetBacklog() >= BACKLOG_WANTED ||
            static_cast<double>(m_sent) > m_options.rate * elapsed.count())
            return; // goes on when the connection, or the clock, lets it
        const auto next = queue.begin() + static_cast<std::ptrdiff_t>(turn);
        if (!next->block
                 ->IsInMemory()) { // from the disk, without waiting: OnBlockDataReady goes on
            Must(next->block->ReadData(this), "a block cannot be loaded");
            ++turn;
            continue;
        }
        if (SendPiece(link, *next))
            queue.erase(next);
        else
            std::rotate(next, next + 1,
                        queue.size() > IN_TURN ? queue.begin() + IN_TURN : queue.end());
        turn = 0;
    }
}

// Answers whether it was the last.
bool Node::SendPiece(Link& link, Transfer& transfer) {
    const BlockRef& block = transfer.block;
    const uint32_t length = std::min(PIECE_LEN, block->GetTotalLen() - transfer.pos);
    CRtMessageChain view; // of the block's own memory: no byte is copied on the way to the socket
    Must(block->ReadData(transfer.pos, length, RtReceive(view)), "a block cannot be read");
    CRtMessageChain body = Pack(block->GetBlockID(), transfer.pos);
    body->Append(std::move(view));
    link.Send(Kind::PIECE, std::move(body));
    transfer.pos += length;
    m_sent += length;
    if (transfer.pos < block->GetTotalLen())
        return false;
    link.wants.erase(block->GetBlockID());
    return true;
}

// The library calls; what throws must not pass through it.
void Node::OnBlockDataReady(IFMBlock* block, int aResult) {
    asio::post(m_acceptor.get_executor(), [this, id = block->GetBlockID(), aResult] {
        if (RT_FAILED(aResult))
            LoseBlock(id);
        for (const auto& [key, link] : m_links)
            SendPieces(*link);
    });
}

// The block's bytes are gone. All come back and say anew what they own and want, and so does this node.
void Node::LoseBlock(uint32_t id) {
    if (id > m_count || !GetBlock(id)->IsComplete())
        return; // told twice
    std::cout << "event block " << id << " is lost" << std::endl;
    for (const auto& [key, link] : m_links) {
        link->transfers.clear();
        link->owns.erase(id); // as its owners go with the block
        link->Close("a block is lost");
    }
    BlockRef lost;
    m_file->RemoveBlock(id, lost.Receive());
    --m_have;
    OnLost(id);
}

// --- The clock ----------------------------------------------------------------------------------

void Node::Tick() {
    if (m_options.role != "server" && !m_source && m_ticks % TICKS_PER_CONNECT == 0) {
        m_source = &Connect({asio::ip::address_v4::loopback(), m_options.port});
        OnMember(*m_source);
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
    m_ticker.async_wait([this](std::error_code cancelled) {
        if (!cancelled)
            Tick();
    });
}

void Node::CloseSilent() {
    const auto oldest = Clock::now() - SILENCE_MAX;
    for (const auto& [key, link] : m_links)
        if (!link->member && link->heard < oldest)
            link->Close("no greeting came");
    // The server may have to wait for a block itself, but not in the middle of one.
    for (const auto& [id, fetch] : m_fetches)
        if ((fetch.from != m_source || fetch.begun) && fetch.from->heard < oldest)
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
