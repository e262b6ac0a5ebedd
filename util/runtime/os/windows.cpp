// The Windows implementation of RtOs.h. Windows accepts both separators, so paths are passed unchanged.
#include "RtOs.h" // before windows.h, which defines macros with names used there

#include <direct.h>
#include <errno.h>
#include <fcntl.h>
#include <io.h>
#include <objbase.h>
#include <share.h>
#include <shlobj.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <windows.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <utility>

namespace {

// True for junctions too.
bool IsLink(DWORD attributes) { return (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0; }
bool IsDirectory(DWORD attributes) { return (attributes & _A_SUBDIR) != 0; }
bool IsRealDirectory(DWORD attributes) { return IsDirectory(attributes) && !IsLink(attributes); }

bool IsDots(const char* name) {
    return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

// A trailing separator makes the system follow a link. The one of a drive's root is kept.
CRtString WithoutTail(CRtString path) {
    while (path.size() > 1 && path.back() == '\\' && path[path.size() - 2] != ':')
        path.resize(path.size() - 1);
    return path;
}

uint64_t Wide(DWORD high, DWORD low) { return uint64_t{high} << 32 | low; }

bool IsMissing(DWORD error) {
    return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND ||
           error == ERROR_INVALID_NAME || error == ERROR_BAD_NETPATH ||
           error == ERROR_BAD_NET_NAME || error == ERROR_NOT_READY;
}

// RAII handle of an open file or directory. The arguments are those of CreateFileA.
class Handle {
public:
    Handle(const CRtString& path, DWORD access, DWORD sharing, DWORD flags = 0) {
        Open(path, access, sharing, flags);
    }
    ~Handle() { Close(); }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    void Open(const CRtString& path, DWORD access, DWORD sharing, DWORD flags) {
        flags |= FILE_FLAG_BACKUP_SEMANTICS; // directories too
        m_handle =
            ::CreateFileA(path.c_str(), access, sharing, nullptr, OPEN_EXISTING, flags, nullptr);
    }
    void Close() {
        if (IsOpen())
            ::CloseHandle(Release());
    }
    HANDLE Release() { return std::exchange(m_handle, INVALID_HANDLE_VALUE); }
    bool IsOpen() const { return m_handle != INVALID_HANDLE_VALUE; }
    HANDLE Get() const { return m_handle; }

private:
    HANDLE m_handle = INVALID_HANDLE_VALUE;
};

} // namespace

namespace RtOs {

uint32_t GetProcessId() { return ::GetCurrentProcessId(); }

bool IsProcessAlive(int64_t processId) {
    if (processId <= 0 || processId > int64_t{UINT32_MAX})
        return false;
    // A process that cannot be opened counts as ended. DirectoryUse still protects its directory.
    const HANDLE process =
        ::OpenProcess(PROCESS_QUERY_INFORMATION, FALSE, static_cast<DWORD>(processId));
    if (!process)
        return false;
    // A process that has ended can be opened as long as another process holds a handle to it.
    DWORD exitCode = 0;
    const bool ended = ::GetExitCodeProcess(process, &exitCode) && exitCode != STILL_ACTIVE;
    ::CloseHandle(process);
    return !ended;
}

uint32_t GetThreadId() { return ::GetCurrentThreadId(); }

void BreakIntoDebugger() {
    if (::IsDebuggerPresent())
        ::DebugBreak();
}

// Destructors of static objects of a DLL run after the system has terminated all other threads, which is too
// late. This call also pins the DLL until the process ends.
bool AtProcessEnd(int (*work)()) {
    HMODULE self = nullptr;
    constexpr DWORD flags = GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN;
    return ::GetModuleHandleExA(flags, reinterpret_cast<const char*>(work), &self) &&
           ::_onexit(work) != nullptr;
}

void CreateGuid(uint8_t (&bytes)[16]) {
    GUID guid{};
    ::CoCreateGuid(&guid); // cannot fail in a working process
    std::memcpy(bytes, &guid, sizeof(bytes));
}

uint32_t GetDriveStrings(uint32_t size, char* buffer) {
    return ::GetLogicalDriveStringsA(size, buffer);
}

uint32_t GetDriveKind(const char* root) { return ::GetDriveTypeA(root); }

bool GetDriveFreeBytes(const char* root, uint64_t& available) {
    ULARGE_INTEGER free{};
    ULARGE_INTEGER total{};
    ULARGE_INTEGER totalFree{};
    if (!::GetDiskFreeSpaceExA(root, &free, &total, &totalFree))
        return false;
    available = free.QuadPart;
    return true;
}

bool GetUserDataDir(CRtString& directory) {
    char path[MAX_PATH] = {};
    if (!::SHGetSpecialFolderPathA(nullptr, path, CSIDL_APPDATA, FALSE))
        return false;
    directory = path;
    return true;
}

EntryKind GetEntryKind(const CRtString& path) {
    __finddata64_t entry{};
    DWORD attributes = 0;
    if (const intptr_t search = ::_findfirst64(path.c_str(), &entry); search != -1) {
        ::_findclose(search);
        attributes = entry.attrib;
    } else {
        // FindFirstFile does not find a drive's root: it is no entry of a directory.
        attributes = ::GetFileAttributesA(path.c_str());
    }
    if (attributes == INVALID_FILE_ATTRIBUTES)
        return IsMissing(::GetLastError()) ? EntryKind::Missing : EntryKind::File;
    return IsDirectory(attributes) ? EntryKind::Directory : EntryKind::File;
}

bool MakeDirectory(const CRtString& path) { return ::_mkdir(path.c_str()) == 0; }

void SetHidden(const CRtString& path) { ::SetFileAttributesA(path.c_str(), FILE_ATTRIBUTE_HIDDEN); }

size_t FindLastSeparator(const CRtString& path) { return path.view().find_last_of('\\'); }

bool HasExtension(const CRtString& name, const CRtString& extension) {
    return name.size() >= extension.size() &&
           ::_stricmp(name.c_str() + name.size() - extension.size(), extension.c_str()) == 0;
}

int RemoveFile(const CRtString& path) { return ::_unlink(path.c_str()); }

// If the path is a junction or a link to a directory, _rmdir removes the link itself.
int RemoveEmptyDirectory(const CRtString& path) { return ::_rmdir(WithoutTail(path).c_str()); }

// An open handle prevents other processes from renaming, removing or replacing the directory. The walk can
// therefore name the entries by their paths.
struct DirectoryWalk::State {
    State(const CRtString& directory, bool followLast)
        : path(WithoutTail(directory)), base(path + (path.view().ends_with('\\') ? "" : "\\")),
          hold(path, FILE_LIST_DIRECTORY, FILE_SHARE_READ | FILE_SHARE_WRITE,
               followLast ? 0 : FILE_FLAG_OPEN_REPARSE_POINT) {
        // From here on the open handle ensures that the path names this directory.
        const DWORD attributes = ::GetFileAttributesA(path.c_str());
        isOpen = hold.IsOpen() && attributes != INVALID_FILE_ATTRIBUTES &&
                 (followLast ? IsDirectory(attributes) : IsRealDirectory(attributes));
    }
    ~State() { EndSearch(); }
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    void EndSearch() {
        if (search != -1)
            ::_findclose(search);
        search = -1;
    }

    const CRtString path;
    const CRtString base;
    Handle hold;
    __finddata64_t entry{};
    // The first step opens the search: an open search can prevent the removal of the directory.
    bool Step() {
        if (search != -1)
            return ::_findnext64(search, &entry) == 0;
        search = ::_findfirst64((base + "*.*").c_str(), &entry);
        return search != -1;
    }

    bool isOpen = false;
    intptr_t search = -1;
    std::unique_ptr<State> outer; // the parent, which Leave returns to
};

DirectoryWalk::DirectoryWalk(const CRtString& path, bool followLast)
    : m_state(std::make_unique<State>(path, followLast)) {}

DirectoryWalk::DirectoryWalk(const DirectoryWalk& parent, const CRtString& name)
    : m_state(std::make_unique<State>(parent.m_state->base + name, false)) {}

DirectoryWalk::~DirectoryWalk() = default;

bool DirectoryWalk::IsOpen() const { return m_state->isOpen; }

// Exclusive lock: the sharing mode conflicts with the access that DirectoryUse opens with, but permits removal.
// The directory disappears when this handle is closed.
bool DirectoryWalk::TakeAlone() {
    m_state->hold.Close();
    m_state->hold.Open(m_state->path, FILE_LIST_DIRECTORY, FILE_SHARE_READ | FILE_SHARE_DELETE,
                       FILE_FLAG_OPEN_REPARSE_POINT);
    return m_state->hold.IsOpen() || ::GetLastError() != ERROR_SHARING_VIOLATION;
}

// Without FILE_SHARE_DELETE, no process can remove or rename the directory while the handle is open.
DirectoryUse::DirectoryUse(const CRtString& path)
    : m_handle(static_cast<int>(reinterpret_cast<intptr_t>( // no handle needs more than 32 bits
          Handle(WithoutTail(path), FILE_ADD_FILE, FILE_SHARE_READ | FILE_SHARE_WRITE).Release()))),
      m_isRefused(!IsHeld() && ::GetLastError() == ERROR_SHARING_VIOLATION) {}

DirectoryUse::~DirectoryUse() {
    if (IsHeld())
        ::CloseHandle(reinterpret_cast<HANDLE>(intptr_t{m_handle}));
}

bool DirectoryWalk::Next(CRtString& name, bool& isDirectory) {
    while (IsOpen() && m_state->Step()) {
        if (IsDots(m_state->entry.name))
            continue;
        name = m_state->entry.name;
        isDirectory = IsRealDirectory(m_state->entry.attrib);
        return true;
    }
    return false;
}

bool DirectoryWalk::Enter(const CRtString& name) {
    auto entered = std::make_unique<State>(m_state->base + name, false);
    if (!entered->isOpen)
        return false;
    entered->outer = std::move(m_state);
    m_state = std::move(entered);
    return true;
}

bool DirectoryWalk::Leave() {
    if (!m_state->outer)
        return false;
    m_state = std::move(m_state->outer); // closes the handle: an open directory cannot be removed
    m_state->EndSearch();
    return true;
}

bool DirectoryWalk::RemoveFile(const CRtString& name) {
    const CRtString path = m_state->base + name;
    return ::_unlink(path.c_str()) == 0 || ::_rmdir(path.c_str()) == 0; // for a link to a directory
}

bool DirectoryWalk::RemoveSubdirectory(const CRtString& name) {
    return ::_rmdir((m_state->base + name).c_str()) == 0;
}

namespace {

HANDLE HandleOf(int file) { return reinterpret_cast<HANDLE>(::_get_osfhandle(file)); }

bool Stamp(HANDLE file, FileStamp& stamp) {
    constexpr uint64_t ticksPerSecond = 10'000'000;
    constexpr uint64_t nanosecondsPerTick = 100;
    BY_HANDLE_FILE_INFORMATION info{};
    if (!::GetFileInformationByHandle(file, &info))
        return false;
    if (IsDirectory(info.dwFileAttributes))
        return true;
    const uint64_t changed =
        Wide(info.ftLastWriteTime.dwHighDateTime, info.ftLastWriteTime.dwLowDateTime);
    stamp = {true,
             info.dwVolumeSerialNumber,
             Wide(info.nFileIndexHigh, info.nFileIndexLow),
             Wide(info.nFileSizeHigh, info.nFileSizeLow),
             static_cast<int64_t>(changed / ticksPerSecond),
             static_cast<uint32_t>(changed % ticksPerSecond * nanosecondsPerTick),
             false};
    return true;
}

} // namespace

namespace {

// Replaces the runtime library's EACCES for a sharing violation, so that IsInUse can tell the two apart.
constexpr int IN_USE = EBUSY;

int Open(const CRtString& path, int mode, uint32_t flags, int& file) {
    // _SH_DENYWR: every other open for writing fails.
    const int sharing = (flags & OPEN_ALONE) ? _SH_DENYWR : _SH_DENYNO;
    mode |= (flags & OPEN_READ ? _O_RDONLY : _O_RDWR) | _O_BINARY | _O_NOINHERIT;
    const int error = ::_sopen_s(&file, path.c_str(), mode, sharing, _S_IREAD | _S_IWRITE);
    const bool isInUse = error == EACCES && _doserrno == ERROR_SHARING_VIOLATION;
    return isInUse ? IN_USE : error;
}

// A query (IsLocked) permits no writing for an instant, so that every open for writing fails.
int OpenPastQueries(const CRtString& path, int mode, uint32_t flags, int& file) {
    int error = Open(path, mode, flags, file);
    for (DWORD pauseMs = 1; pauseMs <= 32 && error == IN_USE && !IsLocked(path); pauseMs *= 2) {
        ::Sleep(pauseMs);
        error = Open(path, mode, flags, file);
    }
    return error;
}

} // namespace

// The sharing mode conflicts with the access for writing of a descriptor that OPEN_ALONE has opened, and permits
// what queries and readers do.
bool IsLocked(const CRtString& path) {
    const Handle query(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE);
    return !query.IsOpen() && ::GetLastError() == ERROR_SHARING_VIOLATION;
}

int OpenFile(const CRtString& path, uint32_t flags, int& error, bool& created, FileStamp& stamp) {
    // Another process may create or remove the file in between. Bounded: a dangling link can neither be opened
    // nor created, so that both attempts always fail.
    constexpr int tries = 10;
    int file = NO_FILE;
    error = EEXIST;
    for (int i = 0; i < tries && error == EEXIST; ++i) {
        created = false;
        error = OpenPastQueries(path, 0, flags, file);
        if (error == ENOENT && (flags & OPEN_CREATE)) {
            error = Open(path, _O_CREAT | _O_EXCL, flags, file);
            created = error == 0;
        }
    }
    if (error != 0)
        return NO_FILE;
    if (GetStamp(file, stamp))
        return file;
    error = EIO;
    CloseFile(file);
    if (created)
        ::_unlink(path.c_str());
    return NO_FILE;
}

void CloseFile(int file) { ::_close(file); }

bool IsNoSuchFile(int error) { return error == ENOENT; }
bool IsOutOfStreams(int error) { return error == EMFILE || error == ENFILE; }
bool IsInUse(int error) { return error == IN_USE; }

namespace {

void SetErrno(DWORD error) {
    switch (error) {
    case ERROR_DISK_FULL:
    case ERROR_HANDLE_DISK_FULL:
        errno = ENOSPC;
        break;
    case ERROR_ACCESS_DENIED:
    case ERROR_LOCK_VIOLATION:
    case ERROR_SHARING_VIOLATION:
    case ERROR_WRITE_PROTECT:
        errno = EACCES;
        break;
    default:
        errno = EIO;
    }
}

// `move` is ReadFile or WriteFile of the bytes from `done` on; both may transfer fewer bytes than requested.
// Not fread or fwrite: unbuffered, they transfer the last bytes of a record one by one. Each call passes its
// offset, because all threads share the position of the handle.
template <class Move>
Transfer MoveAll(int descriptor, uint64_t offset, uint32_t length, Move move) {
    const HANDLE file = HandleOf(descriptor);
    if (offset > uint64_t{INT64_MAX} - length)
        return Transfer::NoPosition;
    for (uint32_t done = 0; done < length;) {
        OVERLAPPED at{};
        at.Offset = static_cast<DWORD>(offset + done);
        at.OffsetHigh = static_cast<DWORD>((offset + done) >> 32);
        DWORD moved = 0;
        const bool didMove = move(file, done, &moved, &at) != 0;
        if (!didMove && ::GetLastError() != ERROR_HANDLE_EOF) {
            SetErrno(::GetLastError()); // the C library was not involved
            return Transfer::Failed;
        }
        if (!didMove || moved == 0)
            return Transfer::Short;
        done += moved;
    }
    return Transfer::Done;
}

// By default the system may update the time of the last change only when the handle is closed. The fingerprint
// would then change after this process took it, as if another process had written to the file.
void NoteChange(int file) {
    FILETIME now{};
    ::GetSystemTimeAsFileTime(&now);
    ::SetFileTime(HandleOf(file), nullptr, nullptr, &now);
}

} // namespace

Transfer ReadAt(int file, uint64_t offset, void* bytes, uint32_t length) {
    const auto read = [&](HANDLE handle, uint32_t done, DWORD* moved, OVERLAPPED* at) {
        return ::ReadFile(handle, static_cast<char*>(bytes) + done, length - done, moved, at);
    };
    return MoveAll(file, offset, length, read);
}

Transfer WriteAt(int file, uint64_t offset, const void* bytes, uint32_t length) {
    const auto write = [&](HANDLE handle, uint32_t done, DWORD* moved, OVERLAPPED* at) {
        return ::WriteFile(handle, static_cast<const char*>(bytes) + done, length - done, moved,
                           at);
    };
    const Transfer result = MoveAll(file, offset, length, write);
    NoteChange(file); // a failed write may have changed the file too
    return result;
}

Transfer WriteAllAt(int file, uint64_t offset, std::span<const Piece> pieces) {
    Transfer result = Transfer::Done;
    for (const Piece& piece : pieces) {
        if (result == Transfer::Done)
            result = WriteAt(file, offset, piece.bytes, piece.length);
        offset += piece.length;
    }
    return result;
}

bool GetLength(int file, uint64_t& length) {
    const int64_t now = ::_filelengthi64(file);
    if (now < 0)
        return false;
    length = static_cast<uint64_t>(now);
    return true;
}

bool GetStamp(int file, FileStamp& stamp) {
    stamp = {};
    return Stamp(HandleOf(file), stamp);
}

bool GetStamp(const CRtString& path, FileStamp& stamp) {
    stamp = {};
    const Handle file(path, FILE_READ_ATTRIBUTES,
                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
    return file.IsOpen() ? Stamp(file.Get(), stamp) : IsMissing(::GetLastError());
}

uint32_t GetStreamLimit() { return static_cast<uint32_t>(::_getmaxstdio()); }

} // namespace RtOs
