// The Windows side of the seam. Paths go to the system as they are: both separators are its own.
#include <direct.h>
#include <errno.h>
#include <fcntl.h>
#include <io.h>
#include <objbase.h>
#include <share.h>
#include <shlobj.h>
#include <sys/stat.h>
#include <windows.h>

#include <cstring>

#include "RtOs.h"

namespace {

bool IsLink(DWORD attributes) { return (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0; }
bool IsDirectory(DWORD attributes) { return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0; }

} // namespace

namespace RtOs {

uint32_t GetProcessId() { return ::GetCurrentProcessId(); }

bool IsProcessAlive(int64_t processId) {
    if (processId <= 0 || processId > int64_t{UINT32_MAX})
        return false;
    const HANDLE process =
        ::OpenProcess(PROCESS_QUERY_INFORMATION, FALSE, static_cast<DWORD>(processId));
    if (!process)
        return ::GetLastError() == ERROR_ACCESS_DENIED;
    DWORD exitCode = 0;
    const bool ended = ::GetExitCodeProcess(process, &exitCode) && exitCode != STILL_ACTIVE;
    ::CloseHandle(process);
    return !ended;
}

uint32_t GetThreadId() { return ::GetCurrentThreadId(); }

void CreateGuid(uint8_t (&bytes)[16]) {
    GUID guid{};
    ::CoCreateGuid(&guid); // fails only where the process could not run at all
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
    const DWORD attributes = ::GetFileAttributesA(path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES) {
        const DWORD error = ::GetLastError();
        const bool missing = error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND ||
                             error == ERROR_INVALID_NAME || error == ERROR_BAD_NETPATH ||
                             error == ERROR_NOT_READY;
        return missing ? EntryKind::Missing : EntryKind::File;
    }
    return IsDirectory(attributes) ? EntryKind::Directory : EntryKind::File;
}

bool GetFileLength(const CRtString& path, uint64_t& length) {
    WIN32_FILE_ATTRIBUTE_DATA data{};
    if (!::GetFileAttributesExA(path.c_str(), GetFileExInfoStandard, &data) ||
        IsDirectory(data.dwFileAttributes))
        return false;
    length = uint64_t{data.nFileSizeHigh} << 32 | data.nFileSizeLow;
    return true;
}

bool MakeDirectory(const CRtString& path) { return ::_mkdir(path.c_str()) == 0; }

void SetHidden(const CRtString& path) { ::SetFileAttributesA(path.c_str(), FILE_ATTRIBUTE_HIDDEN); }

size_t FindLastSeparator(const CRtString& path) { return path.view().find_last_of('\\'); }

int RemoveFile(const CRtString& path) { return ::_unlink(path.c_str()); }

// Of a junction or a link to a directory this removes the link itself.
int RemoveEmptyDirectory(const CRtString& path) { return ::_rmdir(path.c_str()); }

struct DirectoryWalk::State {
    explicit State(CRtString path, bool followLast) {
        // A separator at the end would show what a link leads to.
        while (path.size() > 3 && path.back() == '\\')
            path.resize(path.size() - 1);
        base = path + (path.empty() || path.back() != '\\' ? "\\" : "");
        const DWORD attributes = ::GetFileAttributesA(path.c_str());
        if (attributes == INVALID_FILE_ATTRIBUTES || !IsDirectory(attributes))
            return;
        if (IsLink(attributes) && !followLast)
            return;
        search = ::FindFirstFileA((base + "*.*").c_str(), &entry);
    }
    ~State() {
        if (IsOpen())
            ::FindClose(search);
    }
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    bool IsOpen() const { return search != INVALID_HANDLE_VALUE; }
    bool IsDots() const {
        return std::strcmp(entry.cFileName, ".") == 0 || std::strcmp(entry.cFileName, "..") == 0;
    }

    CRtString base;
    WIN32_FIND_DATAA entry{};
    HANDLE search = INVALID_HANDLE_VALUE;
    bool fresh = true; // `entry` has not been handed out
};

DirectoryWalk::DirectoryWalk(const CRtString& path, bool followLast)
    : m_state(std::make_unique<State>(path, followLast)) {}

DirectoryWalk::DirectoryWalk(const DirectoryWalk& parent, const CRtString& name)
    : m_state(std::make_unique<State>(parent.m_state->base + name, false)) {}

DirectoryWalk::~DirectoryWalk() = default;

bool DirectoryWalk::IsOpen() const { return m_state->IsOpen(); }

bool DirectoryWalk::TakeAlone() { return true; }
DirectoryUse::DirectoryUse(const CRtString&) : m_handle(-1) {}
DirectoryUse::~DirectoryUse() = default;

bool DirectoryWalk::Next(CRtString& name, bool& isDirectory) {
    while (m_state->IsOpen()) {
        if (!m_state->fresh && !::FindNextFileA(m_state->search, &m_state->entry))
            return false;
        m_state->fresh = false;
        if (m_state->IsDots())
            continue;
        name = m_state->entry.cFileName;
        const DWORD attributes = m_state->entry.dwFileAttributes;
        isDirectory = IsDirectory(attributes) && !IsLink(attributes);
        return true;
    }
    return false;
}

bool DirectoryWalk::RemoveFile(const CRtString& name) {
    const CRtString path = m_state->base + name;
    return ::_unlink(path.c_str()) == 0 || ::_rmdir(path.c_str()) == 0; // a link to a directory
}

bool DirectoryWalk::RemoveSubdirectory(const CRtString& name) {
    return ::_rmdir((m_state->base + name).c_str()) == 0;
}

FILE* OpenStream(const CRtString& path, uint32_t flags, int& error, bool& created) {
    constexpr int mode = _O_RDWR | _O_BINARY | _O_NOINHERIT;
    // Whoever else wants to write is refused with EACCES.
    const int sharing = (flags & OPEN_ALONE) ? _SH_DENYWR : _SH_DENYNO;
    int file = -1;
    created = false;
    error = ::_sopen_s(&file, path.c_str(), mode, sharing, 0);
    if (error == ENOENT && (flags & OPEN_CREATE)) {
        error = ::_sopen_s(&file, path.c_str(), mode | _O_CREAT, sharing, _S_IREAD | _S_IWRITE);
        created = error == 0;
    }
    if (error != 0)
        return nullptr;
    FILE* stream = ::_fdopen(file, "rb+");
    if (!stream) {
        error = errno;
        ::_close(file);
        return nullptr;
    }
    std::setvbuf(stream, nullptr, _IONBF, 0);
    return stream;
}

bool IsOutOfStreams(int error) { return error == EMFILE || error == ENFILE; }
bool IsInUse(int error) { return error == EACCES; }

namespace {

// `move` transfers all bytes in one item and answers how many items it moved.
template <class Move>
Transfer MoveAll(FILE* stream, uint64_t offset, Move move) {
    if (offset > uint64_t{INT64_MAX} ||
        ::_fseeki64(stream, static_cast<int64_t>(offset), SEEK_SET) != 0)
        return Transfer::NoPosition;
    if (move() == 1)
        return Transfer::Done;
    const bool failed = std::ferror(stream) != 0;
    std::clearerr(stream);
    return failed ? Transfer::Failed : Transfer::Short;
}

} // namespace

Transfer ReadAt(FILE* stream, uint64_t offset, void* bytes, uint32_t length) {
    return MoveAll(stream, offset, [&] { return std::fread(bytes, length, 1, stream); });
}

Transfer WriteAt(FILE* stream, uint64_t offset, const void* bytes, uint32_t length) {
    return MoveAll(stream, offset, [&] { return std::fwrite(bytes, length, 1, stream); });
}

namespace {

FileStamp Stamp(int result, const struct _stat64& info) {
    if (result != 0 || info.st_size < 0)
        return {};
    // No node number: an open file is neither removed nor replaced here.
    return {true, 0, 0, static_cast<uint64_t>(info.st_size),
            info.st_mtime * int64_t{1'000'000'000}};
}

} // namespace

bool GetStamp(FILE* stream, FileStamp& stamp) {
    struct _stat64 info {};
    const int result = ::_fstat64(::_fileno(stream), &info);
    return Stamp(result, info, stamp);
}

bool GetStamp(const CRtString& path, FileStamp& stamp) {
    struct _stat64 info {};
    const int result = ::_stat64(path.c_str(), &info);
    return Stamp(result, info, stamp);
}

uint32_t GetStreamLimit() { return static_cast<uint32_t>(::_getmaxstdio()); }

} // namespace RtOs
