// Answers GET /metrics with the figures of the file manager, so that a monitoring system can collect them.
#pragma once

#include <asio.hpp>
#include <cstdint>
#include <memory>

/// A small HTTP server on the loopback address. Everything runs on the loop's thread and nothing waits for a
/// client: each connection has a time limit.
class Metrics {
public:
    /// Port 0 selects a free port.
    Metrics(asio::io_context& loop, uint16_t port);
    uint16_t GetPort() const { return m_acceptor.local_endpoint().port(); }

private:
    using Socket = std::shared_ptr<asio::ip::tcp::socket>;
    asio::awaitable<void> Accept();
    static asio::awaitable<void> Answer(Socket socket);

    asio::ip::tcp::acceptor m_acceptor;
    int m_connections = 0;
};
