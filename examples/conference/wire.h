// The wire protocol: frames, and the link that carries them.
//
// A frame is the length of its fields (32 bits), its kind (16 bits) and its fields: little-endian
// integers, and texts preceded by a 16-bit length. Input is untrusted: the length is checked here, each
// field where it is used. A wrong piece of the right length is not detected; a product would send a
// digest of each block with the file description.
#pragma once

#include <IFileManager.h>
#include <RtByteStream.h>

#include <asio.hpp>
#include <deque>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>

#include "turns.h"

enum class Kind : uint16_t {
    HELLO = 1,   ///< magic, port for peers or 0: the first frame of the node that connects
    OFFER = 2,   ///< FMFileInfo: sent by the presenter, then once by the server to every node
    WANT = 3,    ///< block, priority
    NOT_YET = 4, ///< block: the server answers later; from a client: it does not have the block
    PEERS = 5,   ///< block, count, host and port of each owner; answers priorities above 1
    PIECE = 6,   ///< block, position, bytes: PIECE_LEN of them, or the rest of the block
    OWN = 7,     ///< block: the sender can serve it
};

constexpr uint32_t PIECE_LEN = 16 * 1024;
constexpr uint32_t FIELDS_LEN_MAX = PIECE_LEN + 1024;
constexpr uint16_t PEERS_MAX = 4;
constexpr uint32_t FIELDS_CAPACITY = 64; ///< enough for every frame except OFFER

/// Another node violated the protocol. Closes the link; the node continues.
struct ProtocolError : std::runtime_error {
    using std::runtime_error::runtime_error;
};
inline void Check(bool condition, const char* fault) {
    if (!condition)
        throw ProtocolError(fault);
}

/// An operation of this node failed with a result code. Ends the process.
inline void ThrowIfFailed(int result, const char* failure) {
    if (RT_FAILED(result))
        throw std::runtime_error(failure + (", result code " + std::to_string(result)));
}

inline CRtMessageChain MakeBuffer(uint32_t size) {
    CRtMessageChain buffer = CRtMessageBlock::Create(size);
    if (!buffer)
        throw std::bad_alloc();
    return buffer;
}

/// Encodes fields into a buffer of FIELDS_CAPACITY bytes, small because many frames may be queued.
template <class... Fields>
CRtMessageChain Pack(const Fields&... fields) {
    CRtMessageChain body = MakeBuffer(FIELDS_CAPACITY);
    CRtByteStreamT out(*body);
    ThrowIfFailed((out << ... << fields).GetWriteResult(), "fields too long for a frame");
    return body;
}

/// Reads fields from the start of `body` and advances it.
template <class... Fields>
void ReadFields(CRtMessageBlock& body, Fields&... fields) {
    CRtByteStreamT in(body);
    static_cast<void>((in >> ... >> fields));
    Check(in.IsGood(), "frame too short");
}

/// Call it before the fields are used.
inline void CheckEnd(const CRtMessageBlock& body) {
    Check(body.GetChainedLength() == 0, "frame too long");
}

/// A block that is being sent, and the position of its next piece.
struct Transfer {
    CRtComAutoPtr<IFMBlock> block;
    uint32_t pos = 0;
};

/// A connection to another node. A pending operation keeps it alive. Everything runs on the loop's
/// thread.
class Link : public std::enable_shared_from_this<Link> {
public:
    class User {
    public:
        /// A ProtocolError that it throws closes the link.
        virtual void OnFrame(Link& link, Kind kind, CRtMessageBlock& body) = 0;
        /// A frame was sent.
        virtual void OnSent(Link& link) = 0;
        /// The last call for the link, never made from inside one of its operations. `why` is empty
        /// if the other node closed the connection.
        virtual void OnClosed(Link& link, const std::string& why) = 0;

    protected:
        ~User() = default;
    };

    Link(asio::ip::tcp::socket socket, User& user) : m_socket(std::move(socket)), m_user(user) {}
    /// Starts the link. A socket without a connection is connected to `address` first.
    void Open(const asio::ip::tcp::endpoint& address = {});
    void Send(Kind kind, CRtMessageChain body);
    void Close(const std::string& why);
    /// Bytes queued for sending.
    uint64_t GetBacklog() const { return m_backlog; }
    asio::ip::address_v4 GetAddress() const { return m_socket.remote_endpoint().address().to_v4(); }

    // State of the other node. Node uses it; the link does not.

    /// The other node as the file manager knows it; null before its HELLO.
    CRtComAutoPtr<ISDUser> member;
    /// Address of a client that this client fetches from; port 0 on other links.
    asio::ip::tcp::endpoint peer;
    std::set<uint32_t> wants; ///< blocks that it requested and did not receive yet
    std::set<uint32_t> owns;  ///< blocks on which it is recorded as owner
    std::deque<Transfer> transfers;
    bool offered = false;                  ///< the OFFER of the server was sent
    bool isPaused = false;                 ///< the link stops reading after the current frame
    uint64_t lastPiece = 0;                ///< tick of the last received piece
    Clock::time_point used = Clock::now(); ///< time of the last piece in either direction

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
