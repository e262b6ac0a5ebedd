// A preloaded library that delays every write to a regular file by SLOW_DISK_US microseconds. It imitates a
// slow disk for a process that it is preloaded into:
//
//     SLOW_DISK_US=10000 LD_PRELOAD=.../libslowdisk.so PROGRAM
//
// Writes through a memory map are not delayed: they make no system call.
#include <dlfcn.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>

namespace {

long DelayUs() {
    const char* const text = std::getenv("SLOW_DISK_US");
    return text ? std::strtol(text, nullptr, 10) : 0;
}

void Delay(int fd) {
    static const long us = DelayUs();
    struct stat status = {};
    if (us <= 0 || fstat(fd, &status) != 0 || !S_ISREG(status.st_mode))
        return;
    timespec left = {us / 1'000'000, us % 1'000'000 * 1000};
    while (nanosleep(&left, &left) != 0) {
    }
}

// The function of that name in the next library.
template <class Function>
Function* Next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace

// Each function is called in place of the one of the C library.
#define SLOW(result, name, parameters, arguments)                                                  \
    extern "C" result name parameters {                                                            \
        static auto* const next = Next<result parameters>(#name);                                  \
        Delay(fd);                                                                                 \
        return next arguments;                                                                     \
    }

SLOW(ssize_t, write, (int fd, const void* bytes, size_t length), (fd, bytes, length))
SLOW(ssize_t, writev, (int fd, const iovec* parts, int count), (fd, parts, count))
SLOW(ssize_t, pwrite, (int fd, const void* bytes, size_t length, off_t at), (fd, bytes, length, at))
SLOW(ssize_t, pwrite64, (int fd, const void* bytes, size_t length, off64_t at),
     (fd, bytes, length, at))
SLOW(ssize_t, pwritev, (int fd, const iovec* parts, int count, off_t at), (fd, parts, count, at))
SLOW(ssize_t, pwritev64, (int fd, const iovec* parts, int count, off64_t at),
     (fd, parts, count, at))
