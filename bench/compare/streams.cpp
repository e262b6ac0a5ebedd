// Makes bench/slowdisk delay the writes of C streams too. The C library writes a stream by an internal call,
// which no preloaded library can replace; so the delay is taken from an empty write before it.
#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

extern "C" size_t fwrite(const void* ptr, size_t size, size_t n, FILE* s) {
    static auto* const next = reinterpret_cast<decltype(&fwrite)>(dlsym(RTLD_NEXT, "fwrite"));
    static const bool isSlow = std::getenv("SLOW_DISK_US") != nullptr;
    constexpr size_t streamBuffer = 4096; // what is smaller does not reach the file yet
    if (isSlow && size * n >= streamBuffer)
        static_cast<void>(pwrite(fileno(s), "", 0, 0) == 0);
    return next(ptr, size, n, s);
}
