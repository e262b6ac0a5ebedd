// The Windows implementation of RtOs.h. A descriptor of a file is its handle: no handle needs more than 32 bits.
#include "RtOs.h" // before windows.h, which defines macros with names used there

#include <errno.h>
#include <objbase.h>
#include <shlobj.h>
#include <stdio.h>
#include <stdlib.h>
#include <windows.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <utility>

#include "windowspath.h"
#include "windowsretry.h"

using RtOs::Narrow;
using RtOs::Native;
using RtOs::Retry;

namespace {

// True for junctions too.
bool IsLink(DWORD attributes) { return (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0; }
bool IsDirectory(DWORD attributes) { return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0; }
bool IsRealDirectory(DWORD attributes) { return IsDirectory(attributes) && !IsLink(attributes); }

bool IsDots(const std::wstring_view name) { return name == L"." || name == L".."; }

bool IsSeparator(char c) { return c == '\\' || c == '/'; }

// A trailing separator makes the system follow a link. The one of a drive's root is kept.
CRtString WithoutTail(CRtString path) {
    while (path.size() > 1 && IsSeparator(path.back()) && path[path.size() - 2] != ':')
        path.resize(path.size() - 1);
    return path;
}

HANDLE HandleOf(int file) { return reinterpret_cast<HANDLE>(intptr_t{file}); }
int DescriptorOf(HANDLE handle) { return static_cast<int>(reinterpret_cast<intptr_t>(handle)); }

uint64_t Wide(DWORD high, DWORD low) { return uint64_t{high} << 32 | low; }

// --- Errors -------------------------------------------------------------------------------------

int ErrnoOf(DWORD error) {
    switch (error) {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
    case ERROR_INVALID_DRIVE:
    case ERROR_INVALID_NAME:
    case ERROR_BAD_PATHNAME:
    case ERROR_BAD_NETPATH:
    case ERROR_BAD_NET_NAME:
        return ENOENT;
    case ERROR_FILENAME_EXCED_RANGE:
        return ENAMETOOLONG;
    case ERROR_FILE_EXISTS:
    case ERROR_ALREADY_EXISTS:
        return EEXIST;
    case ERROR_DIR_NOT_EMPTY:
        return ENOTEMPTY;
    case ERROR_DIRECTORY:
        return ENOTDIR;
    case ERROR_TOO_MANY_OPEN_FILES:
        return EMFILE;
    case ERROR_NOT_ENOUGH_MEMORY:
    case ERROR_OUTOFMEMORY:
        return ENOMEM;
    case ERROR_DISK_FULL:
    case ERROR_HANDLE_DISK_FULL:
        return ENOSPC;
    case ERROR_SHARING_VIOLATION:
    case ERROR_DELETE_PENDING:
        return EBUSY; // see IsInUse
    case ERROR_ACCESS_DENIED:
    case ERROR_LOCK_VIOLATION:
    case ERROR_WRITE_PROTECT:
    case ERROR_NETWORK_ACCESS_DENIED:
    case ERROR_NOT_READY:
        return EACCES;
    default:
        return EIO;
    }
}

bool IsMissing(DWORD error) { return ErrnoOf(error) == ENOENT || error == ERROR_NOT_READY; }

// While the removal of a file is pending, the system denies access to it, even to its attributes. Permissions of a file
// do not hide its attributes: the directory shows them.
int ErrnoOf(DWORD error, const Native& path) {
    const bool isPending = error == ERROR_ACCESS_DENIED &&
                           ::GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES &&
                           ::GetLastError() == ERROR_ACCESS_DENIED;
    return ErrnoOf(isPending ? ERROR_DELETE_PENDING : error);
}

// Sets errno if a call of the system has failed: the C library was not involved.
bool Succeeded(BOOL result) {
    if (!result)
        errno = ErrnoOf(::GetLastError());
    return result != FALSE;
}

// RAII handle of an open file or directory. The arguments are those of CreateFileW.
class Handle {
public:
    Handle() = default;
    Handle(const CRtString& path, DWORD access, DWORD sharing, DWORD flags = 0) {
        Open(path, access, sharing, flags);
    }
    ~Handle() { Close(); }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    // Sets errno.
    bool Open(const CRtString& path, DWORD access, DWORD sharing, DWORD flags) {
        flags |= FILE_FLAG_BACKUP_SEMANTICS; // directories too
        m_handle = ::CreateFileW(Native(path).c_str(), access, sharing, nullptr, OPEN_EXISTING,
                                 flags, nullptr);
        return Succeeded(IsOpen());
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

// --- Handles of other processes -----------------------------------------------------------------

constexpr DWORD SHARE_ALL = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// Whether the handles that others have on a directory permit reading it, as those of this library do.
bool IsReadable(const CRtString& directory) {
    return Handle(directory, FILE_LIST_DIRECTORY, SHARE_ALL).IsOpen();
}

bool OpenDirectory(const CRtString& path, Handle& handle, DWORD access, DWORD sharing,
                   DWORD flags) {
    return Retry([&] { return handle.Open(path, access, sharing, flags); },
                 [&path] { return IsReadable(path); });
}

} // namespace

namespace RtOs {

void* AllocatePages(size_t size) {
    return ::VirtualAlloc(nullptr, size, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
}
void FreePages(void* pages) { ::VirtualFree(pages, 0, MEM_RELEASE); }

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
    if (!::GetDiskFreeSpaceExA(root, &free, nullptr, nullptr))
        return false;
    available = free.QuadPart;
    return true;
}

bool GetUserDataDir(CRtString& directory) {
    wchar_t path[MAX_PATH] = {};
    if (!::SHGetSpecialFolderPathW(nullptr, path, CSIDL_APPDATA, FALSE))
        return false;
    directory = Narrow(path);
    return true;
}

EntryKind GetEntryKind(const CRtString& path) {
    const Native native(path);
    WIN32_FIND_DATAW entry{};
    DWORD attributes = 0;
    if (const HANDLE search = ::FindFirstFileW(native.c_str(), &entry);
        search != INVALID_HANDLE_VALUE) {
        ::FindClose(search);
        attributes = entry.dwFileAttributes;
    } else {
        // FindFirstFile does not find the root of a drive or a share: it is no entry of a directory.
        attributes = ::GetFileAttributesW(native.c_str());
    }
    if (attributes == INVALID_FILE_ATTRIBUTES)
        return IsMissing(::GetLastError()) ? EntryKind::Missing : EntryKind::File;
    return IsDirectory(attributes) ? EntryKind::Directory : EntryKind::File;
}

bool MakeDirectory(const CRtString& path) {
    return Succeeded(::CreateDirectoryW(Native(path).c_str(), nullptr));
}

void SetHidden(const CRtString& path) {
    ::SetFileAttributesW(Native(path).c_str(), FILE_ATTRIBUTE_HIDDEN);
}

size_t FindLastSeparator(const CRtString& path) { return path.view().find_last_of("\\/"); }

bool HasExtension(const CRtString& name, const CRtString& extension) {
    return name.size() >= extension.size() &&
           ::_stricmp(name.c_str() + name.size() - extension.size(), extension.c_str()) == 0;
}

int RemoveFile(const CRtString& path) {
    const Native native(path);
    const auto remove = [&native] { return Succeeded(::DeleteFileW(native.c_str())); };
    return Retry(remove, [&path] { return IsLocked(path); }) ? 0 : -1;
}

// If the path is a junction or a link to a directory, RemoveDirectory removes the link itself.
int RemoveEmptyDirectory(const CRtString& path) {
    const CRtString directory = WithoutTail(path);
    const Native native(directory);
    const auto remove = [&native] { return Succeeded(::RemoveDirectoryW(native.c_str())); };
    return Retry(remove, [&directory] { return IsReadable(directory); }) ? 0 : -1;
}

// An open handle prevents other processes from renaming, removing or replacing the directory. The walk can
// therefore name the entries by their paths.
struct DirectoryWalk::State {
    State(const CRtString& directory, bool followLast)
        : path(WithoutTail(directory)), base(path + (path.view().ends_with('\\') ? "" : "\\")) {
        OpenDirectory(path, hold, FILE_LIST_DIRECTORY, FILE_SHARE_READ | FILE_SHARE_WRITE,
                      followLast ? 0 : FILE_FLAG_OPEN_REPARSE_POINT);
        // From here on the open handle ensures that the path names this directory.
        const DWORD attributes = ::GetFileAttributesW(Native(path).c_str());
        isOpen = hold.IsOpen() && attributes != INVALID_FILE_ATTRIBUTES &&
                 (followLast ? IsDirectory(attributes) : IsRealDirectory(attributes));
    }
    ~State() { EndSearch(); }
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    void EndSearch() {
        if (search != INVALID_HANDLE_VALUE)
            ::FindClose(std::exchange(search, INVALID_HANDLE_VALUE));
    }

    const CRtString path;
    const CRtString base;
    Handle hold;
    WIN32_FIND_DATAW entry{};
    // The first step opens the search: an open search can prevent the removal of the directory.
    bool Step() {
        if (search != INVALID_HANDLE_VALUE)
            return ::FindNextFileW(search, &entry) != FALSE;
        search = ::FindFirstFileW(Native(base + "*").c_str(), &entry);
        return search != INVALID_HANDLE_VALUE;
    }

    bool isOpen = false;
    HANDLE search = INVALID_HANDLE_VALUE;
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
    return OpenDirectory(m_state->path, m_state->hold, FILE_LIST_DIRECTORY,
                         FILE_SHARE_READ | FILE_SHARE_DELETE, FILE_FLAG_OPEN_REPARSE_POINT) ||
           !IsInUse(errno);
}

// Without FILE_SHARE_DELETE, no process can remove or rename the directory while the handle is open. The exclusive
// lock of TakeAlone permits reading; without that, another program holds the directory.
DirectoryUse::DirectoryUse(const CRtString& path) : m_handle(NO_FILE) {
    const CRtString directory = WithoutTail(path);
    Handle use;
    if (OpenDirectory(directory, use, FILE_ADD_FILE, FILE_SHARE_READ | FILE_SHARE_WRITE, 0))
        m_handle = DescriptorOf(use.Release());
    else
        m_isRefused = IsInUse(errno) && IsReadable(directory);
}

DirectoryUse::~DirectoryUse() {
    if (IsHeld())
        ::CloseHandle(HandleOf(m_handle));
}

bool DirectoryWalk::Next(CRtString& name, bool& isDirectory) {
    while (IsOpen() && m_state->Step()) {
        if (IsDots(m_state->entry.cFileName))
            continue;
        name = Narrow(m_state->entry.cFileName);
        isDirectory = IsRealDirectory(m_state->entry.dwFileAttributes);
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
    return RtOs::RemoveFile(path) == 0 ||
           (!IsInUse(errno) && RemoveEmptyDirectory(path) == 0); // a link to a directory
}

bool DirectoryWalk::RemoveSubdirectory(const CRtString& name) {
    return RemoveEmptyDirectory(m_state->base + name) == 0;
}

namespace {

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

// Returns 0 or an errno value.
int Open(const CRtString& path, DWORD disposition, uint32_t flags, int& file) {
    const DWORD access = flags & OPEN_READ ? GENERIC_READ : GENERIC_READ | GENERIC_WRITE;
    // With OPEN_ALONE every other open for writing fails.
    const DWORD sharing = flags & OPEN_ALONE ? FILE_SHARE_READ : FILE_SHARE_READ | FILE_SHARE_WRITE;
    const Native native(path);
    file = DescriptorOf(::CreateFileW(native.c_str(), access, sharing, nullptr, disposition,
                                      FILE_ATTRIBUTE_NORMAL, nullptr));
    return file == NO_FILE ? ErrnoOf(::GetLastError(), native) : 0;
}

// Also past queries (IsLocked), which permit no writing for an instant.
int OpenExisting(const CRtString& path, uint32_t flags, int& file) {
    const auto open = [&] {
        errno = Open(path, OPEN_EXISTING, flags, file);
        return errno == 0;
    };
    return Retry(open, [&path] { return IsLocked(path); }) ? 0 : errno;
}

} // namespace

// The sharing mode of a query conflicts with the access for writing of a descriptor that OPEN_ALONE has opened. That
// descriptor permits reading: if a reader that shares everything is refused, another program holds the file.
bool IsLocked(const CRtString& path) {
    const auto isRefused = [&path] {
        const Handle query(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE);
        return !query.IsOpen() && ::GetLastError() == ERROR_SHARING_VIOLATION;
    };
    if (!isRefused())
        return false;
    const Handle reader(path, GENERIC_READ, SHARE_ALL); // a handle without sharing refuses it
    return reader.IsOpen() && isRefused();
}

int OpenFile(const CRtString& path, uint32_t flags, int& error, bool& created, FileStamp& stamp) {
    // Another process may create or remove the file in between. Bounded: a dangling link can neither be opened
    // nor created, so that both attempts always fail.
    constexpr int tries = 10;
    int file = NO_FILE;
    error = EEXIST;
    for (int i = 0; i < tries && error == EEXIST; ++i) {
        created = false;
        error = OpenExisting(path, flags, file);
        if (error == ENOENT && (flags & OPEN_CREATE)) {
            error = Open(path, CREATE_NEW, flags, file);
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
        RemoveFile(path);
    return NO_FILE;
}

void CloseFile(int file) { ::CloseHandle(HandleOf(file)); }

bool IsNoSuchFile(int error) { return error == ENOENT; }
bool IsOutOfStreams(int error) { return error == EMFILE || error == ENFILE; }
bool IsInUse(int error) { return error == EBUSY; }

namespace {

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
            errno = ErrnoOf(::GetLastError());
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
    LARGE_INTEGER now{};
    if (!::GetFileSizeEx(HandleOf(file), &now))
        return false;
    length = static_cast<uint64_t>(now.QuadPart);
    return true;
}

bool GetStamp(int file, FileStamp& stamp) {
    stamp = {};
    return Stamp(HandleOf(file), stamp);
}

bool GetStamp(const CRtString& path, FileStamp& stamp) {
    stamp = {};
    const Handle file(path, FILE_READ_ATTRIBUTES, SHARE_ALL);
    return file.IsOpen() ? Stamp(file.Get(), stamp) : IsMissing(::GetLastError());
}

bool Sync(int file) { return Succeeded(::FlushFileBuffers(HandleOf(file))); }

// The access is the least that permits the call: to append, which in a directory is to add a directory.
bool SyncPath(const CRtString& path) {
    static_assert(FILE_ADD_SUBDIRECTORY == FILE_APPEND_DATA);
    Handle entry;
    if (!OpenDirectory(WithoutTail(path), entry, FILE_APPEND_DATA, SHARE_ALL, 0))
        return IsNoSuchFile(errno);
    return Succeeded(::FlushFileBuffers(entry.Get()));
}

uint32_t GetStreamLimit() { return static_cast<uint32_t>(::_getmaxstdio()); }

} // namespace RtOs
