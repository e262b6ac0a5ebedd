// The POSIX implementation of RtOs.h.
#define _FILE_OFFSET_BITS 64 // 64-bit offsets and file times on 32-bit systems too
#define _TIME_BITS 64

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>
#include <random>
#include <thread>
#include <vector>

#include "RtOs.h"

namespace {

// Repeats a call that a signal has interrupted.
template <class Call>
auto Repeat(Call call) {
    auto result = call();
    while (result < 0 && errno == EINTR)
        result = call();
    return result;
}

// A path with the separators of the system; a usual one fits on the stack.
class Native {
public:
    explicit Native(const CRtString& path) {
        char* to = m_short.data();
        if (path.size() >= m_short.size()) {
            m_long.resize(path.size());
            to = m_long.data();
        }
        std::replace_copy(path.c_str(), path.c_str() + path.size() + 1, to, '\\', '/');
        m_path = to;
    }
    Native(const Native&) = delete;
    Native& operator=(const Native&) = delete;
    const char* c_str() const { return m_path; }

private:
    std::array<char, 512> m_short;
    std::string m_long;
    const char* m_path;
};

// If the path ends in a separator, lstat and rmdir follow a link.
std::string NativeWithoutTail(const CRtString& path) {
    std::string native = Native(path).c_str();
    while (native.size() > 1 && native.back() == '/')
        native.pop_back();
    return native;
}

bool IsMissing(int error) { return error == ENOENT || error == ENOTDIR; }

// If the system or the file system does not support locks, the lock counts as granted.
bool LockFile(int fd, int operation) {
    return ::flock(fd, operation | LOCK_NB) == 0 || errno != EWOULDBLOCK;
}

// A directory that was removed before the lock was granted is not the one that its path names.
bool LockDirectory(int fd, int operation) {
    struct stat info {};
    return LockFile(fd, operation) && (::fstat(fd, &info) != 0 || info.st_nlink > 0);
}

} // namespace

namespace RtOs {

void* AllocatePages(size_t) { return nullptr; }
void FreePages(void*) {}

uint32_t GetProcessId() { return static_cast<uint32_t>(::getpid()); }

bool IsProcessAlive(int64_t processId) {
    if (processId <= 0 || processId > std::numeric_limits<pid_t>::max())
        return false;
    return ::kill(static_cast<pid_t>(processId), 0) == 0 || errno == EPERM;
}

uint32_t GetThreadId() {
    static std::atomic<uint32_t> next{1};
    thread_local const uint32_t id = next.fetch_add(1, std::memory_order_relaxed);
    return id;
}

// Linux names the process that traces this one; other systems have no common way to find a debugger.
void BreakIntoDebugger() {
    std::ifstream status("/proc/self/status");
    for (std::string field; status >> field;) {
        int tracer = 0;
        if (field == "TracerPid:" && status >> tracer && tracer != 0)
            ::raise(SIGTRAP);
    }
}

bool AtProcessEnd(int (*work)()) {
    struct End {
        explicit End(int (*what)()) : work(what) {}
        ~End() { work(); }
        End(const End&) = delete;
        End& operator=(const End&) = delete;
        int (*const work)();
    };
    static const End end(work);
    return true;
}

namespace {

void FillFromStandardGenerator(uint8_t (&bytes)[16]) {
    std::random_device source;
    for (size_t i = 0; i < sizeof(bytes); i += sizeof(uint32_t)) {
        const uint32_t word = source();
        std::memcpy(bytes + i, &word, sizeof(word));
    }
}

} // namespace

void CreateGuid(uint8_t (&bytes)[16]) {
    // std::random_device may use a processor instruction that takes 100 microseconds on some CPUs.
    if (::getentropy(bytes, sizeof(bytes)) != 0)
        FillFromStandardGenerator(bytes);
    // RFC 4122, section 4.4: version 4 in the top bits of the third field, which the GUID structure stores
    // in host byte order; the variant in the top bits of the fourth field.
    uint16_t third = 0;
    std::memcpy(&third, bytes + 6, sizeof(third));
    third = static_cast<uint16_t>((third & 0x0FFFU) | 0x4000U);
    std::memcpy(bytes + 6, &third, sizeof(third));
    bytes[8] = static_cast<uint8_t>((bytes[8] & 0x3FU) | 0x80U);
}

uint32_t GetDriveStrings(uint32_t, char*) { return 0; }
uint32_t GetDriveKind(const char*) { return 0; }
bool GetDriveFreeBytes(const char*, uint64_t&) { return false; }

bool GetUserDataDir(CRtString& directory) {
    // The XDG base directories are absolute paths: a relative value is invalid and ignored.
    if (const char* cache = std::getenv("XDG_CACHE_HOME"); cache && cache[0] == '/') {
        std::string path(cache);
        std::replace(path.begin(), path.end(), '/', '\\');
        directory = CRtString(path);
        return true;
    }
    std::string home;
    if (const char* value = std::getenv("HOME"); value && value[0] == '/') {
        home = value;
    } else {
        passwd entry{};
        passwd* found = nullptr;
        std::vector<char> buffer(16384);
        if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found)
            home = found->pw_dir;
    }
    if (home.empty())
        return false;
    home += "/.cache";
    std::replace(home.begin(), home.end(), '/', '\\');
    directory = CRtString(home);
    return true;
}

EntryKind GetEntryKind(const CRtString& path) {
    const Native native(path);
    struct stat info {};
    if (::stat(native.c_str(), &info) == 0)
        return S_ISDIR(info.st_mode) ? EntryKind::Directory : EntryKind::File;
    const bool missing = ::lstat(native.c_str(), &info) != 0 && IsMissing(errno);
    return missing ? EntryKind::Missing : EntryKind::File;
}

bool MakeDirectory(const CRtString& path) { return ::mkdir(Native(path).c_str(), 0700) == 0; }

void SetHidden(const CRtString&) {} // needs a leading dot, but the names are fixed

size_t FindLastSeparator(const CRtString& path) { return path.view().find_last_of("\\/"); }

bool HasExtension(const CRtString& name, const CRtString& extension) {
    return name.view().ends_with(extension.view());
}

int RemoveFile(const CRtString& path) { return ::unlink(Native(path).c_str()); }

int RemoveEmptyDirectory(const CRtString& path) {
    const std::string native = NativeWithoutTail(path);
    struct stat info {};
    if (::lstat(native.c_str(), &info) == 0 && S_ISLNK(info.st_mode))
        return ::unlink(native.c_str());
    return ::rmdir(native.c_str());
}

struct DirectoryWalk::State {
    struct Identity {
        dev_t device;
        ino_t node;
    };

    State(int parent, const char* name, int follow) { Open(parent, name, follow); }
    ~State() { Close(); }
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    // If the open fails, the previous directory stays open.
    bool Open(int parent, const char* name, int follow) {
        const int fd = ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | follow);
        DIR* const opened = fd < 0 ? nullptr : ::fdopendir(fd);
        if (!opened) {
            if (fd >= 0)
                ::close(fd);
            return false;
        }
        Close();
        stream = opened;
        return true;
    }
    void Close() {
        if (stream)
            ::closedir(stream);
        stream = nullptr;
    }
    int Handle() const { return stream ? ::dirfd(stream) : -1; }
    bool GetIdentity(Identity& identity) const {
        struct stat info {};
        if (::fstat(Handle(), &info) != 0)
            return false;
        identity = {info.st_dev, info.st_ino};
        return true;
    }

    DIR* stream = nullptr;
    std::vector<Identity> outer; // the parents of the open directory, the outermost first
};

DirectoryWalk::DirectoryWalk(const CRtString& path, bool followLast)
    : m_state(std::make_unique<State>(AT_FDCWD, NativeWithoutTail(path).c_str(),
                                      followLast ? 0 : O_NOFOLLOW)) {}

DirectoryWalk::DirectoryWalk(const DirectoryWalk& parent, const CRtString& name)
    : m_state(std::make_unique<State>(parent.m_state->Handle(), name.c_str(), O_NOFOLLOW)) {}

DirectoryWalk::~DirectoryWalk() = default;

bool DirectoryWalk::IsOpen() const { return m_state->stream != nullptr; }

bool DirectoryWalk::TakeAlone() { return LockDirectory(m_state->Handle(), LOCK_EX); }

DirectoryUse::DirectoryUse(const CRtString& path)
    : m_handle(::open(NativeWithoutTail(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    if (LockDirectory(m_handle, LOCK_SH))
        return;
    m_isRefused = true;
    ::close(m_handle);
    m_handle = -1;
}

DirectoryUse::~DirectoryUse() {
    if (m_handle >= 0)
        ::close(m_handle);
}

bool DirectoryWalk::Next(CRtString& name, bool& isDirectory) {
    while (m_state->stream) {
        const dirent* entry = ::readdir(m_state->stream);
        if (!entry)
            return false;
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0)
            continue;
        struct stat info {};
        name = entry->d_name;
        isDirectory =
            ::fstatat(m_state->Handle(), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISDIR(info.st_mode);
        return true;
    }
    return false;
}

bool DirectoryWalk::Enter(const CRtString& name) {
    State::Identity own{};
    if (!m_state->GetIdentity(own) || !m_state->Open(m_state->Handle(), name.c_str(), O_NOFOLLOW))
        return false;
    m_state->outer.push_back(own);
    return true;
}

// If the subdirectory was moved, ".." names a directory that this walk must not touch.
bool DirectoryWalk::Leave() {
    State::Identity found{};
    if (m_state->outer.empty())
        return false;
    const State::Identity expected = m_state->outer.back();
    m_state->outer.pop_back();
    if (m_state->Open(m_state->Handle(), "..", O_NOFOLLOW) && m_state->GetIdentity(found) &&
        found.device == expected.device && found.node == expected.node)
        return true;
    m_state->Close();
    return false;
}

bool DirectoryWalk::RemoveFile(const CRtString& name) {
    return ::unlinkat(m_state->Handle(), name.c_str(), 0) == 0;
}

bool DirectoryWalk::RemoveSubdirectory(const CRtString& name) {
    return ::unlinkat(m_state->Handle(), name.c_str(), AT_REMOVEDIR) == 0;
}

namespace {

template <class Info>
bool Stamp(int result, const Info& info, FileStamp& stamp) {
    stamp = {};
    if (result != 0)
        return IsMissing(errno);
    if (S_ISREG(info.st_mode) && info.st_size >= 0)
        stamp = {true,
                 info.st_dev,
                 info.st_ino,
                 static_cast<uint64_t>(info.st_size),
                 info.st_mtim.tv_sec,
                 static_cast<uint32_t>(info.st_mtim.tv_nsec),
                 false};
    stamp.isSpecial = !S_ISREG(info.st_mode) && !S_ISDIR(info.st_mode);
    return true;
}

int OpenOrCreate(const char* path, uint32_t flags, bool& created) {
    // O_NOFOLLOW: the target of a link is outside the cache. A dangling link can be neither opened nor created.
    // O_NONBLOCK: to open a pipe for reading would wait for a writer.
    const int access = flags & OPEN_READ ? O_RDONLY | O_NONBLOCK : O_RDWR;
    const int mode = access | O_CLOEXEC | O_NOFOLLOW;
    for (;;) {
        created = false;
        int fd = ::open(path, mode);
        if (fd >= 0 || errno != ENOENT || !(flags & OPEN_CREATE))
            return fd;
        fd = ::open(path, mode | O_CREAT | O_EXCL, 0600);
        created = fd >= 0;
        if (created || errno != EEXIST) // else another process has created the file
            return fd;
    }
}

// A query (IsLocked) holds the shared lock for an instant, which refuses the exclusive one.
bool LockAlone(int fd) {
    for (const int pauseMs : {0, 1, 2, 4, 8, 16, 32}) {
        if (LockFile(fd, LOCK_EX))
            return true;
        if (!LockFile(fd, LOCK_SH)) // another descriptor holds the exclusive lock
            return false;
        LockFile(fd, LOCK_UN);
        std::this_thread::sleep_for(std::chrono::milliseconds(pauseMs));
    }
    return LockFile(fd, LOCK_EX);
}

} // namespace

int OpenFile(const CRtString& path, uint32_t flags, int& error, bool& created, FileStamp& stamp) {
    const Native native(path);
    for (;;) {
        const int fd = OpenOrCreate(native.c_str(), flags, created);
        error = fd < 0 ? errno : 0;
        if (fd >= 0 && (flags & OPEN_ALONE) && !LockAlone(fd))
            error = EWOULDBLOCK;
        struct stat info {};
        if (error == 0 && ::fstat(fd, &info) != 0)
            error = errno;
        const bool isRemoved = error == 0 && (flags & OPEN_ALONE) && info.st_nlink == 0;
        if (error == 0 && !isRemoved && Stamp(0, info, stamp))
            return fd;
        if (fd >= 0)
            ::close(fd);
        if (!isRemoved) // else it was removed between open and flock
            return NO_FILE;
    }
}

void CloseFile(int file) { ::close(file); }

void SetUtf8Paths(bool) {}

bool IsNoSuchFile(int error) { return IsMissing(error); }
bool IsOutOfStreams(int error) { return error == EMFILE || error == ENFILE; }
bool IsInUse(int error) { return error == EWOULDBLOCK; }

bool IsLocked(const CRtString& path) {
    bool created = false;
    const int fd = OpenOrCreate(Native(path).c_str(), OPEN_READ, created);
    if (fd < 0)
        return false;
    const bool isLocked = !LockFile(fd, LOCK_SH);
    ::close(fd); // releases the lock
    return isLocked;
}

// May move the position of the descriptor: every transfer passes its own offset.
bool GetLength(int file, uint64_t& length) {
    const off_t end = ::lseek(file, 0, SEEK_END);
    if (end < 0)
        return false;
    length = static_cast<uint64_t>(end);
    return true;
}

bool GetStamp(int file, FileStamp& stamp) {
    struct stat info {};
    const int result = ::fstat(file, &info);
    return Stamp(result, info, stamp);
}

bool GetStamp(const CRtString& path, FileStamp& stamp) {
    struct stat info {};
    const int result = ::lstat(Native(path).c_str(), &info);
    return Stamp(result, info, stamp);
}

namespace {

// `move` is pread or pwrite of the bytes from `done` on; both may transfer fewer bytes than requested.
template <class Move>
Transfer MoveAll(uint64_t offset, uint32_t length, Move move) {
    if (offset > static_cast<uint64_t>(std::numeric_limits<off_t>::max()) - length)
        return Transfer::NoPosition;
    uint32_t done = 0;
    while (done < length) {
        const ssize_t moved = move(done, static_cast<off_t>(offset + done));
        if (moved == 0)
            return Transfer::Short;
        if (moved > 0)
            done += static_cast<uint32_t>(moved);
        else if (errno != EINTR)
            return Transfer::Failed;
    }
    return Transfer::Done;
}

} // namespace

Transfer ReadAt(int file, uint64_t offset, void* bytes, uint32_t length) {
    return MoveAll(offset, length, [&](uint32_t done, off_t at) {
        return ::pread(file, static_cast<char*>(bytes) + done, length - done, at);
    });
}

Transfer WriteAt(int file, uint64_t offset, const void* bytes, uint32_t length) {
    return MoveAll(offset, length, [&](uint32_t done, off_t at) {
        return ::pwrite(file, static_cast<const char*>(bytes) + done, length - done, at);
    });
}

Transfer WriteAllAt(int file, uint64_t offset, std::span<const Piece> pieces) {
    static_assert(PIECES_MAX <= IOV_MAX);
    std::array<iovec, PIECES_MAX> vectors;
    if (pieces.size() > vectors.size())
        return Transfer::Failed;
    size_t length = 0;
    for (size_t i = 0; i < pieces.size(); ++i) {
        vectors[i] = {const_cast<void*>(pieces[i].bytes), pieces[i].length}; // only read from
        length += pieces[i].length;
    }
    const ssize_t moved = Repeat([&] {
        return ::pwritev(file, vectors.data(), static_cast<int>(pieces.size()),
                         static_cast<off_t>(offset));
    });
    if (moved < 0)
        return Transfer::Failed;
    return static_cast<size_t>(moved) == length ? Transfer::Done : Transfer::Short;
}

bool Sync(int file) {
    return Repeat([file] { return ::fdatasync(file); }) == 0;
}

bool SyncPath(const CRtString& path) {
    bool created = false;
    const int fd = OpenOrCreate(Native(path).c_str(), OPEN_READ, created);
    if (fd < 0)
        return IsMissing(errno);
    // A file system that keeps nothing in a cache may have no such operation.
    const bool isDone = Repeat([fd] { return ::fsync(fd); }) == 0 || errno == EINVAL;
    const int error = errno;
    ::close(fd);
    errno = error;
    return isDone;
}

uint32_t GetStreamLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur > INT_MAX)
        return INT_MAX;
    return static_cast<uint32_t>(limit.rlim_cur);
}

} // namespace RtOs
