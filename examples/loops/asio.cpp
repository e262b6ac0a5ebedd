// The file manager inside a loop of asio: stores standard input in a cache, and serves it in a later run.
#include <fcntl.h>
#include <unistd.h>

#include <asio.hpp>
#include <chrono>
#include <exception>

#include "transfer.h"

namespace {

using asio::ip::tcp;

// --- The loop -----------------------------------------------------------------------------------

// Makes the current thread the caller thread.
class Loop {
public:
    Loop() : m_timer(m_context), m_callerThread([this] { WakeUp(); }) {}
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    bool IsValid() const { return m_callerThread.IsValid(); }
    asio::io_context& Context() { return m_context; }
    /// Runs until Stop is called, and returns the argument of Stop.
    bool Run() {
        Pump(); // schedules the first timer
        m_context.run();
        return m_succeeded;
    }
    void Stop(bool succeeded) {
        m_succeeded = succeeded;
        m_context.stop();
    }

private:
    // Runs on any thread, with a lock of the library held: post and return, never call the library.
    void WakeUp() {
        asio::post(m_context, [this] { Pump(); });
    }

    void Pump() {
        m_callerThread.RunDue();
        const int64_t ms = m_callerThread.GetNextDueMs();
        if (ms < 0)
            return;
        m_timer.expires_after(std::chrono::milliseconds(ms));
        m_timer.async_wait([this](std::error_code cancelled) {
            if (!cancelled)
                Pump();
        });
    }

    asio::io_context m_context;
    asio::steady_timer m_timer;
    bool m_succeeded = false;
    CRtCallerThread m_callerThread; // declared last: its callback uses the members above
};

// --- Store --------------------------------------------------------------------------------------

class Input {
public:
    Input(Loop& loop, IFileManager& manager)
        : m_loop(loop), m_input(loop.Context(), dup(STDIN_FILENO)),
          m_writer(manager, [this] { Read(); }) {}
    // asio has set O_NONBLOCK, which standard input shares with the program that started this one.
    ~Input() { fcntl(STDIN_FILENO, F_SETFL, m_flags); }
    Input(const Input&) = delete;
    Input& operator=(const Input&) = delete;

    bool Run() {
        if (!m_writer.Create())
            return false;
        Read();
        return m_loop.Run();
    }

private:
    void Read() {
        if (m_isReading || m_writer.IsPaused())
            return;
        m_isReading = true;
        const std::span<char> space = m_writer.Space();
        m_input.async_read_some(asio::buffer(space.data(), space.size()),
                                [this](std::error_code error, size_t length) {
                                    m_isReading = false;
                                    OnRead(error, length);
                                });
    }

    void OnRead(std::error_code error, size_t length) {
        if (error == asio::error::eof)
            return m_loop.Stop(m_writer.Finish());
        if (error)
            std::fprintf(stderr, "standard input: %s\n", error.message().c_str());
        if (error || !m_writer.Add(length))
            return m_loop.Stop(false);
        Read(); // if the input is paused, the writer calls Read later
    }

    Loop& m_loop;
    const int m_flags = fcntl(STDIN_FILENO, F_GETFL);
    asio::posix::stream_descriptor m_input;
    FileWriter m_writer;
    bool m_isReading = false;
};

// --- Serve --------------------------------------------------------------------------------------

class Output {
public:
    Output(Loop& loop, IFileManager& manager, const Options& options)
        : m_loop(loop),
          m_acceptor(loop.Context(), {asio::ip::address_v4::loopback(), options.port}),
          m_client(loop.Context()), m_reader(manager, options.id, [this] { Send(); }) {}

    bool Run() {
        if (!m_reader.Open())
            return false;
        PrintPort(m_acceptor.local_endpoint().port());
        Accept();
        return m_loop.Run();
    }

private:
    void Accept() {
        m_acceptor.async_accept(m_client, [this](std::error_code error) {
            if (error) {
                std::fprintf(stderr, "cannot accept: %s\n", error.message().c_str());
                return m_loop.Stop(false);
            }
            m_reader.Start();
            Send();
        });
    }

    // Called if no write is in flight. async_write repeats partial writes.
    void Send() {
        if (m_reader.HasFailed())
            return m_loop.Stop(false);
        if (m_reader.IsEnd())
            return End();
        const std::span<const char> bytes = m_reader.Bytes();
        if (bytes.empty())
            return; // the reader calls Send when the block has been loaded
        asio::async_write(m_client, asio::buffer(bytes.data(), bytes.size()),
                          [this](std::error_code error, size_t length) { OnSent(error, length); });
    }

    void OnSent(std::error_code error, size_t length) {
        if (error) {
            std::fprintf(stderr, "cannot send: %s\n", error.message().c_str());
            return End(); // this client only
        }
        m_reader.Consume(length);
        Send();
    }

    void End() {
        m_reader.Stop();
        m_client.close();
        Accept();
    }

    Loop& m_loop;
    tcp::acceptor m_acceptor;
    tcp::socket m_client;
    FileReader m_reader;
};

int Run(const Options& options) {
    Loop loop;
    if (!loop.IsValid())
        return 1;
    const FMManagerGuard manager(options.dir, CLEAR_DAYS, SERVER);
    if (!manager.IsValid())
        return 1;
    const bool succeeded =
        options.isStore ? Input(loop, *manager).Run() : Output(loop, *manager, options).Run();
    return succeeded ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    if (!ParseOptions(argc, argv, options))
        return 2;
    if (!AreStreamsOpen())
        return 1;
    try {
        return Run(options);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
        return 1;
    }
}
