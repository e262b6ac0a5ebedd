// The file manager inside a loop of poll(): stores standard input in a cache, and serves it in a later run.
//
// With epoll the loop has the same three parts: the descriptor that WakeUp writes to is registered with
// EPOLL_CTL_ADD, epoll_wait gets the same timeout, and RunDue follows each wait. epoll_ctl refuses regular
// files with EPERM: a loop of epoll reads standard input without waiting if it is a regular file.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>

#include "transfer.h"

namespace {

class Descriptor {
public:
    explicit Descriptor(int fd = -1) : m_fd(fd) {}
    ~Descriptor() {
        if (m_fd >= 0)
            close(m_fd);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int Get() const { return m_fd; }

private:
    const int m_fd;
};

bool Fail(const char* what) {
    std::perror(what);
    return false;
}

bool SetNonBlocking(int fd) {
    const int flags = fcntl(fd, F_GETFL);
    return flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

bool MustWait(int error) { return error == EAGAIN || error == EWOULDBLOCK || error == EINTR; }

// --- The loop -----------------------------------------------------------------------------------

std::array<int, 2> MakePipe() {
    std::array<int, 2> ends{-1, -1};
    if (pipe(ends.data()) != 0)
        std::perror("pipe");
    return ends;
}

// Makes the current thread the caller thread.
class Loop {
public:
    Loop()
        : m_pipe(MakePipe()), m_wakeRead(m_pipe[0]), m_wakeWrite(m_pipe[1]),
          m_callerThread([fd = m_pipe[1]] { WakeUp(fd); }) {}

    bool IsValid() const {
        return SetNonBlocking(m_pipe[0]) && SetNonBlocking(m_pipe[1]) && m_callerThread.IsValid();
    }

    // Waits until `events` has occurred on `fd`, an event of the library is queued or a timer is due. Then it
    // runs the events and timers. If `fd` is negative, poll ignores it.
    // The result is 1 if `fd` is ready, 0 if it is not, -1 after a failure.
    int Wait(int fd, short events) {
        std::array<pollfd, 2> waiting{{{m_pipe[0], POLLIN, 0}, {fd, events, 0}}};
        const int64_t timeout = std::min<int64_t>(m_callerThread.GetNextDueMs(), INT_MAX);
        if (poll(waiting.data(), waiting.size(), static_cast<int>(timeout)) < 0) {
            if (errno == EINTR)
                return 0;
            std::perror("poll");
            return -1;
        }
        std::array<char, 64> bytes;
        while (read(m_pipe[0], bytes.data(), bytes.size()) > 0) {
        }
        m_callerThread.RunDue(); // after the pipe was emptied, so that no wake-up is lost
        return waiting[1].revents == 0 ? 0 : 1;
    }

private:
    // Runs on any thread, with a lock of the library held. If the pipe is full, the loop is awake anyway.
    static void WakeUp(int fd) {
        const char byte = 0;
        [[maybe_unused]] const ssize_t ignored = write(fd, &byte, 1);
    }

    const std::array<int, 2> m_pipe;
    const Descriptor m_wakeRead;
    const Descriptor m_wakeWrite;
    CRtCallerThread m_callerThread; // declared last: its callback uses the pipe
};

// --- Store --------------------------------------------------------------------------------------

bool Store(Loop& loop, IFileManager& manager) {
    FileWriter writer(manager, [] {}); // the loop below asks IsPaused before each wait
    if (!writer.Create())
        return false;
    for (;;) {
        const int ready = loop.Wait(writer.IsPaused() ? -1 : STDIN_FILENO, POLLIN);
        if (ready < 0)
            return false;
        if (ready == 0)
            continue;
        // After poll, read() does not wait. O_NONBLOCK would also change the descriptor of the shell.
        const ssize_t length = read(STDIN_FILENO, writer.Space().data(), writer.Space().size());
        if (length == 0)
            return writer.Finish();
        if (length < 0 && !MustWait(errno))
            return Fail("standard input");
        if (length > 0 && !writer.Add(static_cast<size_t>(length)))
            return false;
    }
}

// --- Serve --------------------------------------------------------------------------------------

// Writes until the receiver takes no more bytes or a block has to be loaded. This loop also continues from
// block to block if they are in memory, without recursion. False: the connection has failed.
bool WriteBytes(int fd, FileReader& reader) {
    while (!reader.Bytes().empty()) {
        const ssize_t length = write(fd, reader.Bytes().data(), reader.Bytes().size());
        if (length < 0)
            return MustWait(errno);
        reader.Consume(static_cast<size_t>(length));
    }
    return true;
}

// A failure of the connection ends the transfer to this client. False: the cache has failed.
bool Send(Loop& loop, FileReader& reader, int fd) {
    if (!SetNonBlocking(fd))
        return Fail("fcntl");
    reader.Start();
    for (;;) {
        if (!WriteBytes(fd, reader)) {
            std::perror("cannot send");
            reader.Stop();
            return true;
        }
        if (reader.IsEnd() || reader.HasFailed())
            return reader.IsEnd();
        if (loop.Wait(reader.Bytes().empty() ? -1 : fd, POLLOUT) < 0)
            return false;
    }
}

// Serves clients until a signal ends the process. False: a failure.
bool Serve(Loop& loop, IFileManager& manager, const Options& options) {
    FileReader reader(manager, options.id, [] {}); // Send looks at the reader after each wait
    if (!reader.Open())
        return false;
    const Descriptor listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(options.port);
    socklen_t size = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    const int on = 1;
    if (listener.Get() < 0 || !SetNonBlocking(listener.Get()) ||
        setsockopt(listener.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(listener.Get(), generic, size) != 0 || listen(listener.Get(), SOMAXCONN) != 0 ||
        getsockname(listener.Get(), generic, &size) != 0)
        return Fail("cannot listen");
    PrintPort(ntohs(address.sin_port));
    for (;;) {
        if (loop.Wait(listener.Get(), POLLIN) < 0)
            return false;
        const Descriptor client(accept(listener.Get(), nullptr, nullptr));
        if (client.Get() < 0 && !MustWait(errno) && errno != ECONNABORTED)
            return Fail("cannot accept");
        if (client.Get() >= 0 && !Send(loop, reader, client.Get()))
            return false;
    }
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    if (!ParseOptions(argc, argv, options))
        return 2;
    if (!AreStreamsOpen())
        return 1;
    std::signal(SIGPIPE, SIG_IGN); // write() then reports a closed connection
    Loop loop;
    if (!loop.IsValid())
        return 1;
    const FMManagerGuard manager(options.dir, CLEAR_DAYS, SERVER);
    if (!manager.IsValid())
        return 1;
    return (options.isStore ? Store(loop, *manager) : Serve(loop, *manager, options)) ? 0 : 1;
}
