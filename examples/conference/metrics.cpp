#include "metrics.h"

#include <FMStatistics.h>

#include <sstream>
#include <string>

#include "turns.h"

using asio::use_awaitable;
using asio::ip::tcp;
using namespace std::chrono_literals;

namespace {

constexpr auto TIME_MAX = 2s; // for a request and its response
constexpr size_t REQUEST_MAX = 4096;
constexpr int CONNECTIONS_MAX = 8;
constexpr auto PAUSE = 100ms; // if no connection can be accepted

std::string Format(const std::string& status, const std::string& type, const std::string& body) {
    return "HTTP/1.1 " + status + "\r\nContent-Type: " + type +
           "\r\nContent-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" +
           body;
}

std::string FormatStatistics() {
    FMStatistics statistics;
    FMGetStatistics(statistics);
    return FMFormatStatistics(statistics).c_str();
}

// The response to a request line; empty if the line is malformed.
std::string Respond(const std::string& line) {
    std::istringstream in(line);
    std::string method, path, version, more;
    if (!(in >> method >> path >> version) || in >> more || !path.starts_with('/') ||
        !version.starts_with("HTTP/1."))
        return "";
    if (path != "/metrics")
        return Format("404 Not Found", "text/plain", "The only path is /metrics.\n");
    if (method != "GET")
        return Format("405 Method Not Allowed\r\nAllow: GET", "text/plain", "Use GET.\n");
    return Format("200 OK", "text/plain; version=0.0.4; charset=utf-8", FormatStatistics());
}

} // namespace

Metrics::Metrics(asio::io_context& loop, uint16_t port)
    : m_acceptor(loop, tcp::endpoint(asio::ip::address_v4::loopback(), port)) {
    asio::co_spawn(loop, Accept(), asio::detached);
}

asio::awaitable<void> Metrics::Accept() {
    for (asio::steady_timer pause(m_acceptor.get_executor());;) {
        std::error_code error;
        const auto socket = std::make_shared<tcp::socket>(m_acceptor.get_executor());
        if (m_connections < CONNECTIONS_MAX)
            co_await m_acceptor.async_accept(*socket, asio::redirect_error(use_awaitable, error));
        Turns::Begin();
        if (socket->is_open()) {
            ++m_connections;
            asio::co_spawn(m_acceptor.get_executor(), Answer(socket),
                           [this](const std::exception_ptr&) { --m_connections; });
        } else { // too many connections, or an error such as EMFILE, which must not cause a busy loop
            pause.expires_after(PAUSE);
            co_await pause.async_wait(use_awaitable);
        }
    }
}

// A failure of the connection ends the coroutine, which closes the socket.
asio::awaitable<void> Metrics::Answer(Socket socket) {
    asio::steady_timer limit(socket->get_executor(), TIME_MAX);
    limit.async_wait([socket](std::error_code cancelled) {
        std::error_code ignored;
        if (!cancelled)
            socket->close(ignored);
    });
    std::string request;
    const auto buffer = asio::dynamic_buffer(request, REQUEST_MAX);
    const size_t length = co_await asio::async_read_until(*socket, buffer, "\r\n", use_awaitable);
    Turns::Begin();
    const std::string response = Respond(request.substr(0, length));
    if (response.empty())
        co_return;
    co_await asio::async_read_until(*socket, buffer, "\r\n\r\n",
                                    use_awaitable); // the header fields
    co_await asio::async_write(*socket, asio::buffer(response), use_awaitable);
}
