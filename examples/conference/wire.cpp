#include "wire.h"

#include <vector>

using asio::use_awaitable;
using asio::ip::tcp;
using namespace std::chrono_literals;

namespace {

constexpr uint32_t HEAD_LEN = 6;
/// A link with more queued bytes stops reading, so a node that sends requests but does not read the
/// answers cannot exhaust the memory.
constexpr uint64_t BACKLOG_MAX = 1024 * 1024;

/// The share of a frame in the backlog: roughly the memory that it uses while it is queued.
uint64_t CostOf(const CRtMessageBlock& frame) { return 1024 + frame.GetChainedLength(); }

} // namespace

void Link::Open(const tcp::endpoint& address) {
    asio::co_spawn(m_socket.get_executor(), Run(address),
                   [self = shared_from_this()](const std::exception_ptr& error) {
                       Turns::Begin();
                       try {
                           if (error)
                               std::rethrow_exception(error);
                       } catch (const ProtocolError& fault) {
                           self->Close(fault.what());
                       } catch (const std::system_error&) {
                           self->Close(""); // the connection broke; other exceptions end this node
                       }
                       self->m_user.OnClosed(*self, self->m_why);
                   });
}

asio::awaitable<void> Link::Run(tcp::endpoint address) {
    if (!m_socket.is_open())
        co_await m_socket.async_connect(address, use_awaitable);
    m_socket.set_option(tcp::no_delay(true));
    m_open = true;
    Write();
    while (m_open) {
        const CRtMessageChain head = co_await Read(HEAD_LEN);
        uint32_t size = 0;
        uint16_t kind = 0;
        ReadFields(*head, size, kind);
        Check(size <= FIELDS_LEN_MAX, "frame too long");
        const CRtMessageChain body = co_await Read(size);
        m_user.OnFrame(*this, Kind{kind}, *body);
        while ((m_backlog > BACKLOG_MAX || isPaused) && m_open) {
            asio::steady_timer pause(m_socket.get_executor(), 10ms);
            co_await pause.async_wait(use_awaitable);
        }
    }
}

asio::awaitable<CRtMessageChain> Link::Read(uint32_t size) {
    CRtMessageChain bytes = MakeBuffer(size);
    co_await asio::async_read(m_socket, asio::buffer(bytes->GetTopLevelWritePtr(), size),
                              use_awaitable);
    Turns::Begin();
    bytes->AdvanceTopLevelWritePtr(size);
    co_return bytes;
}

void Link::Send(Kind kind, CRtMessageChain body) {
    CRtMessageChain frame =
        Pack(static_cast<uint32_t>(body->GetChainedLength()), static_cast<uint16_t>(kind));
    frame->Append(std::move(body));
    m_backlog += CostOf(*frame);
    m_out.push_back(std::move(frame));
    if (m_out.size() == 1)
        Write();
}

// Sends the first queued frame, which keeps its buffers (some share memory of a block) until it is sent.
void Link::Write() {
    if (m_out.empty() || !m_open)
        return;
    std::vector<asio::const_buffer> buffers;
    for (const CRtMessageBlock* each = m_out.front().get(); each; each = each->GetNext())
        buffers.emplace_back(each->GetTopLevelReadPtr(), each->GetTopLevelLength());
    asio::async_write(m_socket, buffers,
                      [self = shared_from_this()](std::error_code error, size_t) {
                          Turns::Begin();
                          if (error || !self->m_open)
                              return self->Close("");
                          self->m_backlog -= CostOf(*self->m_out.front());
                          self->m_out.pop_front();
                          self->Write();
                          self->m_user.OnSent(*self);
                      });
}

void Link::Close(const std::string& why) {
    if (m_why.empty())
        m_why = why;
    m_open = false;
    std::error_code ignored;
    m_socket.close(ignored);
}
