#include "testing/faults.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstring>
#include <functional>
#include <mutex>
#include <set>
#include <thread>

namespace {

using namespace faults;

struct State {
    char root[512];
    Plan plan;
    std::atomic<Action> action;
    std::atomic<uint32_t> matched;
    std::atomic<uint32_t> hits;
    std::atomic<bool> isFrozen;
    const char* firstHit;
};

constinit State g_state{};

constinit std::array<std::atomic<bool>, 65536> g_ours{}; // indexed by file descriptor

bool IsOurs(const char* path) {
    const State& state = g_state;
    return state.root[0] != '\0' && std::strncmp(path, state.root, std::strlen(state.root)) == 0;
}
bool IsOurs(int fd) { return fd >= 0 && g_ours[static_cast<size_t>(fd)]; }
bool IsOurs(DIR* walk) { return IsOurs(::dirfd(walk)); }

// Counts an operation and returns its planned action.
Action Next(uint32_t kind, const char* call) {
    State& state = g_state;
    const Action action = state.action.load();
    if (action == NOTHING || !(state.plan.kinds & kind))
        return NOTHING;
    const uint32_t number = ++state.matched;
    if (number < state.plan.nth || (number > state.plan.nth && !state.plan.forever))
        return NOTHING;
    if (state.hits++ == 0)
        state.firstHit = call;
    // After a half write the calls fail, as on a full disk.
    return action == HALF && number > state.plan.nth ? FAIL : action;
}

std::function<void()> g_callback;

std::set<std::string> g_createdWhileFrozen;

bool IsChange(uint32_t kind) { return (kind & (WRITE | REMOVE | REMOVE_DIR)) != 0; }

// `whole` and `half` call the real function with all or half of the bytes. `done`: the result of a call that has
// succeeded.
template <class Result, class Whole, class Half>
Result Operate(uint32_t kind, const char* call, Result failed, Whole whole, Half half,
               Result done = {}) {
    if (IsChange(kind) && g_state.isFrozen)
        return done;
    const Action action = kind == NONE ? NOTHING : Next(kind, call);
    if (action == STALL)
        std::this_thread::sleep_for(std::chrono::milliseconds(g_state.plan.stallMs));
    if (action == FAIL) {
        errno = g_state.plan.error;
        return failed;
    }
    if (action == CALL)
        g_callback();
    if (action == FREEZE_BEFORE) {
        g_state.isFrozen = true;
        return IsChange(kind) ? done : whole();
    }
    const bool isHalf = action == HALF || action == FREEZE_HALFWAY;
    const Result result = isHalf ? half() : whole();
    if (action == FREEZE_HALFWAY || action == FREEZE_AFTER)
        g_state.isFrozen = true;
    return result;
}

std::function<void(Change)> g_observer;
std::mutex g_order;

template <class Call, class Describe>
auto Observed(bool ours, Call call, Describe describe) {
    if (!ours || !g_observer)
        return call();
    const std::lock_guard lock(g_order);
    const auto result = call();
    if (result >= 0)
        g_observer(describe(result));
    return result;
}

std::string PathOf(int fd) {
    char path[512] = {};
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    return ::readlink(link.c_str(), path, sizeof(path) - 1) < 0 ? "" : path;
}

int Opened(int fd, bool ours) {
    if (fd >= 0)
        g_ours[static_cast<size_t>(fd)] = ours;
    return fd;
}

extern "C" ssize_t __real_pwritev64(int fd, const iovec* pieces, int count, off64_t at);

// For a half write: half of the pieces, or of the only one.
ssize_t WriteAt(const char* call, int fd, const iovec* pieces, int count, off64_t at) {
    ssize_t length = 0;
    for (int i = 0; i < count; ++i)
        length += static_cast<ssize_t>(pieces[i].iov_len);
    const iovec front{pieces->iov_base, pieces->iov_len / 2};
    const auto write = [&] {
        return Operate<ssize_t>(
            IsOurs(fd) ? WRITE : NONE, call, -1,
            [&] { return __real_pwritev64(fd, pieces, count, at); },
            [&] {
                return __real_pwritev64(fd, count > 1 ? pieces : &front, std::max(count / 2, 1),
                                        at);
            },
            length);
    };
    return Observed(IsOurs(fd), write, [&](ssize_t done) {
        Change change{WRITE, PathOf(fd), static_cast<uint64_t>(at), {}};
        for (int i = 0; i < count; ++i)
            change.bytes.append(static_cast<const char*>(pieces[i].iov_base), pieces[i].iov_len);
        change.bytes.resize(static_cast<size_t>(done));
        return change;
    });
}

} // namespace

// --- Replacements of the system calls, inserted by the linker -----------------------------------

#define REAL(result, name, ...)                                                                    \
    extern "C" result __real_##name(__VA_ARGS__);                                                  \
    extern "C" result __wrap_##name(__VA_ARGS__);                                                  \
    extern "C" result __wrap_##name(__VA_ARGS__)
// A call that transfers no bytes: its half is the whole.
#define CALL(result, failed, kind, object, name, ...)                                              \
    const auto call = [&] { return __real_##name(__VA_ARGS__); };                                  \
    return Operate<result>(IsOurs(object) ? kind : NONE, #name, failed, call, call)
// A call that returns 0 after it has changed `path`.
#define CHANGE(kind, object, path, name, ...)                                                      \
    const auto change = [&] { CALL(int, -1, kind, object, name, __VA_ARGS__); };                   \
    return Observed(IsOurs(object), change, [&](int) {                                             \
        return Change{static_cast<Kind>(kind), path, 0, {}};                                       \
    })
// A close releases the descriptor even if it fails.
#define CLOSE_CALL(name, object)                                                                   \
    const uint32_t kind = IsOurs(object) ? CLOSE : NONE;                                           \
    const auto done = [result = __real_##name(object)] { return result; };                         \
    return Operate<int>(kind, #name, EOF, done, done)

REAL(int, open64, const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = flags & O_CREAT ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    const auto call = [&] { return __real_open64(path, flags, mode); };
    const bool ours = IsOurs(path);
    if (ours && g_state.isFrozen && (flags & O_CREAT)) {
        int fd = __real_open64(path, flags & ~(O_CREAT | O_EXCL));
        if (fd < 0 && errno == ENOENT && (fd = __real_open64(path, flags, mode)) >= 0)
            g_createdWhileFrozen.insert(path);
        return Opened(fd, true);
    }
    return Observed(
        ours && (flags & O_CREAT),
        [&] { return Opened(Operate(ours ? OPEN : NONE, "open", -1, call, call), ours); },
        [&](int) {
            return Change{OPEN, path, 0, {}};
        });
}
// The library opens only directories with openat.
REAL(int, openat64, int parent, const char* path, int flags, ...) {
    const auto call = [&] { return __real_openat64(parent, path, flags); };
    const bool ours = parent == AT_FDCWD ? IsOurs(path) : IsOurs(parent);
    return Opened(Operate(ours ? LOOK : NONE, "openat", -1, call, call), ours);
}
REAL(ssize_t, pwritev64, int fd, const iovec* pieces, int count, off64_t at) {
    return WriteAt("pwritev", fd, pieces, count, at);
}
REAL(ssize_t, pwrite64, int fd, const void* bytes, size_t length, off64_t at) {
    const iovec piece{const_cast<void*>(bytes), length};
    return WriteAt("pwrite", fd, &piece, 1, at);
}
REAL(ssize_t, pread64, int fd, void* bytes, size_t length, off64_t at) {
    CALL(ssize_t, -1, READ, fd, pread64, fd, bytes, length, at);
}
REAL(int, close, int fd) { CLOSE_CALL(close, fd); }
REAL(int, closedir, DIR* walk) { CLOSE_CALL(closedir, walk); }
REAL(DIR*, fdopendir, int fd) { CALL(DIR*, nullptr, LOOK, fd, fdopendir, fd); }
REAL(dirent64*, readdir64, DIR* walk) { CALL(dirent64*, nullptr, LOOK, walk, readdir64, walk); }
REAL(int, flock, int fd, int operation) { CALL(int, -1, LOOK, fd, flock, fd, operation); }
REAL(off64_t, lseek64, int fd, off64_t at, int from) {
    CALL(off64_t, -1, LOOK, fd, lseek64, fd, at, from);
}
REAL(int, fstat64, int fd, struct stat64* info) { CALL(int, -1, LOOK, fd, fstat64, fd, info); }
REAL(int, fstatat64, int parent, const char* path, struct stat64* info, int flags) {
    CALL(int, -1, LOOK, parent, fstatat64, parent, path, info, flags);
}
REAL(int, unlinkat, int parent, const char* path, int flags) {
    CHANGE((flags & AT_REMOVEDIR ? REMOVE_DIR : REMOVE), parent, PathOf(parent) + "/" + path,
           unlinkat, parent, path, flags);
}
REAL(int, stat64, const char* path, struct stat64* info) {
    CALL(int, -1, LOOK, path, stat64, path, info);
}
REAL(int, lstat64, const char* path, struct stat64* info) {
    CALL(int, -1, LOOK, path, lstat64, path, info);
}
REAL(int, unlink, const char* path) { CHANGE(REMOVE, path, path, unlink, path); }
REAL(int, mkdir, const char* path, mode_t mode) { CHANGE(MAKE_DIR, path, path, mkdir, path, mode); }
REAL(int, rmdir, const char* path) { CHANGE(REMOVE_DIR, path, path, rmdir, path); }
REAL(int, fsync, int fd) { CHANGE(SYNC, fd, PathOf(fd), fsync, fd); }
REAL(int, fdatasync, int fd) { CHANGE(SYNC, fd, PathOf(fd), fdatasync, fd); }

// The other forms of new and delete call these, except those for over-aligned types.
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    const auto call = [size] { return std::malloc(size == 0 ? 1 : size); };
    return Operate<void*>(ALLOCATE, "new", nullptr, call, call);
}
void* operator new(size_t size) {
    if (void* memory = operator new(size, std::nothrow))
        return memory;
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, size_t) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }

// --- Plans and children -------------------------------------------------------------------------

namespace faults {

void Begin(const std::filesystem::path& root, const Plan& plan) {
    State& state = g_state;
    state.matched = state.hits = 0;
    state.plan = plan;
    std::snprintf(state.root, sizeof(state.root), "%s/", root.c_str());
    state.action = plan.action;
}

void Lift() { g_state.action = NOTHING; }
uint32_t Hits() { return g_state.hits; }
bool IsFrozen() { return g_state.isFrozen; }
void Thaw() {
    g_state.isFrozen = false;
    for (const std::string& path : g_createdWhileFrozen)
        __real_unlink(path.c_str());
    g_createdWhileFrozen.clear();
}
void SetCallback(std::function<void()> callback) { g_callback = std::move(callback); }
void Observe(std::function<void(Change)> observer) { g_observer = std::move(observer); }
const char* FirstHit() { return g_state.firstHit; }

} // namespace faults
