#include "platform.h"

#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>
#include <windows.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>

#include "failure.h"

namespace {

std::atomic<bool> g_stop{false};

// Called on a thread of the system. A second event ends the process.
BOOL WINAPI OnStop(DWORD) { return g_stop.exchange(true) ? FALSE : TRUE; }

bool IsTerminal(std::FILE* stream) { return ::_isatty(::_fileno(stream)) != 0; }

} // namespace

bool IsInputTerminal() { return IsTerminal(stdin); }

bool IsErrorTerminal() { return IsTerminal(stderr); }

bool IsOutputTerminal() { return IsTerminal(stdout); }

unsigned OutputWidth() {
    constexpr unsigned usual = 80;
    CONSOLE_SCREEN_BUFFER_INFO info{};
    const bool known = ::GetConsoleScreenBufferInfo(::GetStdHandle(STD_OUTPUT_HANDLE), &info) &&
                       info.srWindow.Right >= info.srWindow.Left;
    return known ? static_cast<unsigned>(info.srWindow.Right - info.srWindow.Left + 1) : usual;
}

// Directory attributes do not say whether files can be created, so one is created.
bool CanWriteInto(const std::filesystem::path& dir) {
    const std::string probe = (dir / ".fmcache-probe").string();
    const int file =
        ::_open(probe.c_str(), _O_CREAT | _O_EXCL | _O_RDWR | _O_TEMPORARY, _S_IREAD | _S_IWRITE);
    return file >= 0 && ::_close(file) == 0;
}

bool CanWrite(const std::filesystem::path& file) {
    constexpr int writable = 2;
    return ::_waccess(file.c_str(), writable) == 0;
}

// Reading attributes conflicts with no open handle.
uint64_t AllocatedBytes(const std::filesystem::path& file) {
    const HANDLE handle = ::CreateFileW(file.c_str(), FILE_READ_ATTRIBUTES,
                                        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                        nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE)
        return 0;
    FILE_STANDARD_INFO info{};
    const bool known =
        ::GetFileInformationByHandleEx(handle, FileStandardInfo, &info, sizeof(info)) != 0;
    ::CloseHandle(handle);
    return known ? static_cast<uint64_t>(info.AllocationSize.QuadPart) : 0;
}

std::FILE* OpenNew(const std::filesystem::path& file) {
    const int descriptor =
        ::_wopen(file.c_str(), _O_CREAT | _O_EXCL | _O_WRONLY | _O_BINARY, _S_IREAD | _S_IWRITE);
    return descriptor < 0 ? nullptr : ::_fdopen(descriptor, "wb");
}

// The system's own std::tmpfile creates the file in the root directory, which needs rights.
std::FILE* OpenTemporary() {
    char* const name = ::_tempnam(nullptr, "fmcache");
    std::FILE* const stream = name ? std::fopen(name, "w+bxTD") : nullptr;
    std::free(name);
    return stream;
}

void PrepareStreams() {
    ::_setmode(::_fileno(stdin), _O_BINARY);
    ::_setmode(::_fileno(stdout), _O_BINARY);
    ::_setmode(::_fileno(stderr), _O_BINARY);
    // Enables colours on a console.
    const HANDLE console = ::GetStdHandle(STD_OUTPUT_HANDLE);
    DWORD mode = 0;
    if (::GetConsoleMode(console, &mode))
        ::SetConsoleMode(console, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
}

void CatchSignals() { ::SetConsoleCtrlHandler(&OnStop, TRUE); }

void CheckStop() {
    if (g_stop)
        throw Interrupted();
}
