// The file manager inside a loop of libuv: stores standard input in a cache, and serves it in a later run.
#include <uv.h>

#include <csignal>
#include <optional>

#include "transfer.h"

namespace {

bool SucceededUv(int result, const char* what) {
    if (result < 0)
        std::fprintf(stderr, "%s: %s\n", what, uv_strerror(result));
    return result >= 0;
}

// --- The loop -----------------------------------------------------------------------------------

// Makes the current thread the caller thread.
class Loop {
public:
    Loop() {
        m_wakeUp.data = m_timer.data = this;
        const auto onWakeUp = [](uv_async_t* handle) { static_cast<Loop*>(handle->data)->Pump(); };
        if (SucceededUv(uv_async_init(uv_default_loop(), &m_wakeUp, onWakeUp), "uv_async_init") &&
            SucceededUv(uv_timer_init(uv_default_loop(), &m_timer), "uv_timer_init"))
            m_callerThread.emplace([this] { uv_async_send(&m_wakeUp); }); // called on any thread
    }
    ~Loop() {
        m_callerThread.reset(); // before the handle that it notifies
        const auto close = [](uv_handle_t* handle, void*) {
            if (!uv_is_closing(handle))
                uv_close(handle, nullptr);
        };
        uv_walk(uv_default_loop(), close, nullptr);
        uv_run(uv_default_loop(), UV_RUN_DEFAULT); // until the handles are closed
        uv_loop_close(uv_default_loop());
    }
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    bool IsValid() const { return m_callerThread && m_callerThread->IsValid(); }
    /// Runs until Stop is called, and returns the argument of Stop.
    bool Run() {
        Pump(); // schedules the first timer
        uv_run(uv_default_loop(), UV_RUN_DEFAULT);
        return m_succeeded;
    }
    void Stop(bool succeeded) {
        m_succeeded = succeeded;
        uv_stop(uv_default_loop());
    }

private:
    void Pump() {
        m_callerThread->RunDue();
        const int64_t ms = m_callerThread->GetNextDueMs();
        const auto onTimer = [](uv_timer_t* handle) { static_cast<Loop*>(handle->data)->Pump(); };
        if (ms >= 0) // uv_timer_start fails for a null callback and a closing handle only
            uv_timer_start(&m_timer, onTimer, static_cast<uint64_t>(ms), 0);
    }

    uv_async_t m_wakeUp{};
    uv_timer_t m_timer{};
    bool m_succeeded = false;
    std::optional<CRtCallerThread> m_callerThread;
};

// --- Store --------------------------------------------------------------------------------------

// uv_fs_read reads pipes, terminals and files, each on a thread of libuv. If the program that started this one has
// set O_NONBLOCK, which standard input shares with it, a read can find no bytes: then uv_poll waits for them.
class Input {
public:
    Input(Loop& loop, IFileManager& manager) : m_loop(loop), m_writer(manager, [this] { Read(); }) {
        m_request.data = m_poll.data = this;
    }
    ~Input() {
        if (m_poll.loop)
            uv_close(reinterpret_cast<uv_handle_t*>(&m_poll), nullptr);
        uv_run(uv_default_loop(), UV_RUN_NOWAIT); // libuv uses the handle until it is closed
    }
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
        const std::span<char> space = m_writer.Space();
        const uv_buf_t buffer = uv_buf_init(space.data(), static_cast<unsigned>(space.size()));
        const auto onRead = [](uv_fs_t* request) {
            const ssize_t length = request->result;
            uv_fs_req_cleanup(request);
            static_cast<Input*>(request->data)->OnRead(length);
        };
        constexpr int64_t NEXT = -1; // the current position of the descriptor
        m_isReading =
            SucceededUv(uv_fs_read(uv_default_loop(), &m_request, STDIN, &buffer, 1, NEXT, onRead),
                        "uv_fs_read");
        if (!m_isReading)
            m_loop.Stop(false);
    }

    void WaitForBytes() {
        const auto onBytes = [](uv_poll_t* poll, int, int) {
            uv_poll_stop(poll);
            static_cast<Input*>(poll->data)->Read();
        };
        if ((!m_poll.loop &&
             !SucceededUv(uv_poll_init(uv_default_loop(), &m_poll, STDIN), "uv_poll_init")) ||
            !SucceededUv(uv_poll_start(&m_poll, UV_READABLE, onBytes), "uv_poll_start"))
            m_loop.Stop(false);
    }

    void OnRead(ssize_t length) {
        m_isReading = false;
        if (length == UV_EAGAIN)
            return WaitForBytes();
        if (length == 0)
            return m_loop.Stop(m_writer.Finish());
        if (!SucceededUv(static_cast<int>(length), "standard input") ||
            !m_writer.Add(static_cast<size_t>(length)))
            return m_loop.Stop(false);
        Read(); // if the input is paused, the writer calls Read later
    }

    static constexpr uv_file STDIN = 0;

    Loop& m_loop;
    FileWriter m_writer;
    uv_fs_t m_request{};
    uv_poll_t m_poll{};
    bool m_isReading = false;
};

// --- Serve --------------------------------------------------------------------------------------

class Output {
public:
    Output(Loop& loop, IFileManager& manager, const FMFileID& id)
        : m_loop(loop), m_reader(manager, id, [this] { Send(); }) {
        m_listener.data = m_client.data = m_write.data = this;
    }

    ~Output() {
        m_isOver = true;
        for (uv_tcp_t* tcp : {&m_listener, &m_client}) {
            auto* const handle = reinterpret_cast<uv_handle_t*>(tcp);
            if (tcp->loop && !uv_is_closing(handle))
                uv_close(handle, nullptr);
        }
        uv_run(uv_default_loop(), UV_RUN_NOWAIT); // libuv uses the handles until they are closed
    }
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    bool Run(uint16_t port) { return m_reader.Open() && Listen(port) && m_loop.Run(); }

private:
    bool Listen(uint16_t port) {
        sockaddr_in address{};
        auto* const generic = reinterpret_cast<sockaddr*>(&address);
        int size = sizeof address;
        const auto onConnection = [](uv_stream_t* listener, int status) {
            static_cast<Output*>(listener->data)->OnConnection(status);
        };
        if (!SucceededUv(uv_ip4_addr("127.0.0.1", port, &address), "uv_ip4_addr") ||
            !SucceededUv(uv_tcp_init(uv_default_loop(), &m_listener), "uv_tcp_init") ||
            !SucceededUv(uv_tcp_bind(&m_listener, generic, 0), "uv_tcp_bind") ||
            !SucceededUv(uv_listen(Stream(m_listener), SOMAXCONN, onConnection), "uv_listen") ||
            !SucceededUv(uv_tcp_getsockname(&m_listener, generic, &size), "uv_tcp_getsockname"))
            return false;
        PrintPort(ntohs(address.sin_port));
        return true;
    }

    // libuv reports the next connection after this one has been accepted.
    void OnConnection(int status) {
        if (!SucceededUv(status, "cannot accept"))
            return;
        m_isWaiting = true;
        if (!m_isConnected)
            Accept();
    }

    void Accept() {
        m_isWaiting = false;
        m_isConnected = true;
        if (!SucceededUv(uv_tcp_init(uv_default_loop(), &m_client), "uv_tcp_init") ||
            !SucceededUv(uv_accept(Stream(m_listener), Stream(m_client)), "uv_accept"))
            return m_loop.Stop(false);
        m_reader.Start();
        Send();
    }

    // Called if no write is in flight.
    void Send() {
        if (m_reader.HasFailed())
            return m_loop.Stop(false);
        if (m_reader.IsEnd())
            return End();
        const std::span<const char> bytes = m_reader.Bytes();
        if (bytes.empty())
            return; // the reader calls Send when the block has been loaded
        // libuv only reads the bytes, but the type of its buffers is not const.
        const uv_buf_t buffer =
            uv_buf_init(const_cast<char*>(bytes.data()), static_cast<unsigned>(bytes.size()));
        const auto onSent = [](uv_write_t* request, int status) {
            static_cast<Output*>(request->data)->OnSent(status);
        };
        const int result = uv_write(&m_write, Stream(m_client), &buffer, 1, onSent);
        if (result < 0)
            OnSent(result);
    }

    // libuv repeats partial writes, so all bytes have been sent.
    void OnSent(int status) {
        if (m_isOver)
            return;
        if (!SucceededUv(status, "cannot send"))
            return End(); // this client only
        m_reader.Consume(m_reader.Bytes().size());
        Send();
    }

    void End() {
        m_reader.Stop();
        uv_close(reinterpret_cast<uv_handle_t*>(&m_client), [](uv_handle_t* client) {
            auto* const self = static_cast<Output*>(client->data);
            self->m_isConnected = false;
            if (self->m_isWaiting)
                self->Accept();
        });
    }

    static uv_stream_t* Stream(uv_tcp_t& handle) { return reinterpret_cast<uv_stream_t*>(&handle); }

    Loop& m_loop;
    FileReader m_reader;
    uv_tcp_t m_listener{};
    uv_tcp_t m_client{};
    uv_write_t m_write{};
    bool m_isConnected = false;
    bool m_isWaiting = false; // a client can be accepted
    bool m_isOver = false;    // the destructor runs
};

} // namespace

int main(int argc, char** argv) {
    Options options;
    if (!ParseOptions(argc, argv, options))
        return 2;
    if (!AreStreamsOpen())
        return 1;
    std::signal(SIGPIPE, SIG_IGN); // a write then reports a closed connection
    Loop loop;
    if (!loop.IsValid())
        return 1;
    const FMManagerGuard manager(options.dir, CLEAR_DAYS, SERVER);
    if (!manager.IsValid())
        return 1;
    const bool succeeded = options.isStore ? Input(loop, *manager).Run()
                                           : Output(loop, *manager, options.id).Run(options.port);
    return succeeded ? 0 : 1;
}
