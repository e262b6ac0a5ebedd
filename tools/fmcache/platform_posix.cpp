#include "platform.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "failure.h"

namespace {

volatile sig_atomic_t g_stop = 0;

void OnStopSignal(int) { g_stop = 1; }

} // namespace

bool IsInputTerminal() { return ::isatty(STDIN_FILENO) == 1; }

bool IsErrorTerminal() { return ::isatty(STDERR_FILENO) == 1; }

bool IsOutputTerminal() { return ::isatty(STDOUT_FILENO) == 1; }

unsigned OutputWidth() {
    constexpr unsigned usual = 80;
    struct winsize size {};
    const bool known = ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return known ? size.ws_col : usual;
}

bool CanWriteInto(const std::filesystem::path& dir) {
    return ::access(dir.c_str(), W_OK | X_OK) == 0;
}

bool CanWrite(const std::filesystem::path& file) { return ::access(file.c_str(), W_OK) == 0; }

uint64_t AllocatedBytes(const std::filesystem::path& file) {
    constexpr uint64_t unit = 512; // of st_blocks, on all file systems
    struct stat status {};
    return ::stat(file.c_str(), &status) == 0 ? unit * static_cast<uint64_t>(status.st_blocks) : 0;
}

std::FILE* OpenNew(const std::filesystem::path& file) { return std::fopen(file.c_str(), "wbx"); }

std::FILE* OpenTemporary() {
    std::error_code error;
    std::string name = (std::filesystem::temp_directory_path(error) / "fmcache-XXXXXX").string();
    const int file = error ? -1 : ::mkstemp(name.data());
    if (file < 0)
        return nullptr;
    ::unlink(name.c_str());
    return ::fdopen(file, "w+b");
}

// POSIX streams are binary. A closed standard stream must not get the descriptor of a cached file: the output of the
// tool would be written into that file. The lowest free descriptor is opened for the other direction, so that its use
// fails.
void PrepareStreams() {
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(stream, F_GETFD) == -1)
            ::open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY);
    }
}

void CatchSignals() {
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction action {};
        if (::sigaction(number, nullptr, &action) != 0 || action.sa_handler == SIG_IGN)
            continue; // ignored on purpose by the parent, nohup for example
        action = {};
        action.sa_handler = OnStopSignal;
        // A second signal ends the process. Without SA_RESTART, so that the signal interrupts a write that
        // blocks on a full pipe.
        action.sa_flags = static_cast<int>(SA_RESETHAND);
        ::sigaction(number, &action, nullptr);
    }
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    ::sigaction(SIGXFSZ, &ignore, nullptr);
    ::sigaction(SIGPIPE, &ignore, nullptr); // put removes a file whose identifier it cannot print
}

void CheckStop() {
    if (g_stop)
        throw Interrupted();
}
