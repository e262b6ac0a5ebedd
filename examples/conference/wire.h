// What goes over the wire: frames, and the link that carries them.
//
// A frame is the length of its fields (32 bits), its kind (16 bits) and its fields: little-endian
// integers, texts with a 16-bit length before them. Whatever arrives is hostile until it was checked:
// the length here, the fields where they are used. What no check can see is wrong bytes of the right
// length; a product would send a digest of each block along with the file.
#pragma once

#include <IFileManager.h>
#include <RtByteStream.h>

#include <asio.hpp>
#include <chrono>
#include <deque>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>

using Clock = std::chrono::steady_clock;

enum class Kind : uint16_t {
    HELLO = 1,   ///< magic, port for peers or 0: whoever connects says it first
    OFFER = 2,   ///< FMFileInfo: the presenter offers it, the server tells everybody, once
    WANT = 3,    ///< block, priority
    NOT_YET = 4, ///< block: from the server, it comes when it is here; from others, ask elsewhere
    PEERS = 5,   ///< block, count, then host and port of each: they have it; for priorities above 1
    PIECE = 6,   ///< block, position, bytes: PIECE_LEN of them, or what is left of the block
    OWN = 7,     ///< block: the sender can serve it
};

constexpr uint32_t PIECE_LEN = 16 * 1024;
constexpr uint32_t FIELDS_LEN_MAX = PIECE_LEN + 1024;
constexpr uint16_t PEERS_MAX = 4;
constexpr uint32_t FIELDS_ROOM = 64; ///< for all but a file's

/// What a node does that it must not. It ends the link and nothing else.
struct Fault : std::runtime_error {
    using std::runtime_error::runtime_error;
};
inline void Check(bool condition, const char* fault) {
    if (!condition)
        throw Fault(fault);
}

/// What this node itself cannot do, by a result code. It ends the process.
inline void Must(int result, const char* failure) {
    if (RT_FAILED(result))
        throw std::runtime_error(failure);
}

inline CRtMessageChain MakeBuffer(uint32_t size) {
    CRtMessageChain buffer = CRtMessageBlock::Create(size);
    if (!buffer)
        throw std::bad_alloc();
    return buffer;
}

/// Fields, in a buffer that leaves little of its memory unused: many may wait to be sent.
template <class... Fields>
CRtMessageChain Pack(const Fields&... fields) {
    CRtMessageChain body = MakeBuffer(FIELDS_ROOM);
    CRtByteStreamT out(*body);
    Must((out << ... << fields).GetWriteResult(), "fields that no frame can hold");
    return body;
}

/// Takes the fields that a body begins with.
template <class... Fields>
void Take(CRtMessageBlock& body, Fields&... fields) {
    CRtByteStreamT in(body);
    static_cast<void>((in >> ... >> fields));
    Check(in.IsGood(), "a frame that ends early");
}

/// To be called before anything is done with what was taken.
inline void CheckEnd(const CRtMessageBlock& body) {
    Check(body.GetChainedLength() == 0, "a frame that does not end");
}

/// Bytes of a block on their way out.
struct Transfer {
    CRtComAutoPtr<IFMBlock> block;
    uint32_t pos = 0;
};

/// A connection with another node. An operation under way keeps it alive; everything runs on the
/// loop's thread.
class Link : public std::enable_shared_from_this<Link> {
public:
    class User {
    public:
        /// Throws what ends the link.
        virtual void OnFrame(Link& link, Kind kind, CRtMessageBlock& body) = 0;
        /// One more frame is out.
        virtual void OnSent(Link& link) = 0;
        /// The last call for that link, and never from inside one of its own operations. `why` is
        /// empty when the other end simply went.
        virtual void OnClosed(Link& link, const std::string& why) = 0;

    protected:
        ~User() = default;
    };

    Link(asio::ip::tcp::socket socket, User& user) : m_socket(std::move(socket)), m_user(user) {}
    /// Starts it; a socket that is not connected yet is connected to `address` first.
    void Open(const asio::ip::tcp::endpoint& address = {});
    void Send(Kind kind, CRtMessageChain body);
    void Close(const std::string& why);
    /// Bytes that wait to be sent.
    uint64_t GetBacklog() const { return m_backlog; }
    asio::ip::address_v4 GetAddress() const { return m_socket.remote_endpoint().address().to_v4(); }

    // What the node keeps about the other end; the link itself never looks at it.

    /// As the file manager knows it; none before its HELLO.
    CRtComAutoPtr<ISDUser> member;
    /// Where a client is reached that this one fetches from.
    asio::ip::tcp::endpoint peer;
    std::set<uint32_t> wants; ///< blocks that it asked for and has not got
    std::set<uint32_t> owns;  ///< blocks on which it is recorded as owner
    std::deque<Transfer> transfers;
    bool offered = false;                  ///< the server's OFFER went over it
    Clock::time_point heard = {};          ///< when a piece came
    Clock::time_point used = Clock::now(); ///< when a piece came or went, or it connected

private:
    asio::awaitable<void> Run(asio::ip::tcp::endpoint address);
    asio::awaitable<CRtMessageChain> Read(uint32_t size);
    void Write();

    asio::ip::tcp::socket m_socket;
    User& m_user;
    bool m_open = false; ///< between connecting and Close
    std::string m_why;
    std::deque<CRtMessageChain> m_out;
    uint64_t m_backlog = 0;
};
