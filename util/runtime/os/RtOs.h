// Interface to the operating system. One source per system implements it; code outside this folder does not
// depend on the system.
//
// Callers pass paths with the backslash as separator; a slash is accepted too. The POSIX source replaces each
// backslash by a slash just before the system call. These functions neither log nor throw.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "RtRetry.h"
#include "RtString.h"

namespace RtOs {

// --- Processes, threads, identifiers ------------------------------------------------------------

uint32_t GetProcessId();
/// Whether a process with that identifier runs, on POSIX including processes of other users. False for 0 and
/// for numbers that no process can have.
bool IsProcessAlive(int64_t processId);
/// Never 0, unique among the running threads of the process.
uint32_t GetThreadId();
/// Stops the process in the debugger that is attached to it; a no-op without one.
void BreakIntoDebugger();
/// CPU hint for spin-wait loops.
inline void Pause() {
#if defined(__i386__) || defined(__x86_64__)
    __builtin_ia32_pause();
#endif
}
/// Registers `work` to run at process end while the process's threads still run, after the destructors of
/// static objects that were constructed later. If the system can unload the library, `work` runs then too.
/// Call once: a second registration may be ignored.
bool AtProcessEnd(int (*work)());
/// Generates a unique identifier with the layout of the platform's GUID structure. Never all zero.
void CreateGuid(uint8_t (&bytes)[16]);

// --- Memory -------------------------------------------------------------------------------------

/// Pages that FreePages returns to the system at once. A heap can keep the memory of a freed buffer if a buffer beside
/// it is in use, which a 32-bit process cannot afford. Null if out of memory, and always on POSIX.
void* AllocatePages(size_t size);
void FreePages(void* pages);

// --- Errors -------------------------------------------------------------------------------------

/// errno: the error number of the last operation of this thread on a file or directory that has failed.
int GetErrno();
/// An error number as its symbolic name and its text: "ENOSPC (No space left on device)".
CRtString GetErrorText(int error);

// --- Drives and the user's folder ---------------------------------------------------------------

constexpr uint32_t DRIVE_KIND_FIXED = 3;
/// With size 0 and no buffer: returns the required buffer size, 0 if the system has no drive list. With a
/// buffer: fills it with the drive roots, each terminated by a NUL, and returns the number of characters
/// without the final NUL, 0 on failure.
uint32_t GetDriveStrings(uint32_t size, char* buffer);
uint32_t GetDriveKind(const char* root);
bool GetDriveFreeBytes(const char* root, uint64_t& available);
/// The folder for application data of the current user. False if it is unknown.
bool GetUserDataDir(CRtString& directory);

// --- Paths --------------------------------------------------------------------------------------

/// Whether paths are UTF-8. By default they are in the code page of the process. Windows only: POSIX passes bytes.
void SetUtf8Paths(bool isUtf8);

// --- Directories and files ----------------------------------------------------------------------

enum class EntryKind { Missing, File, Directory };
/// The kind of the entry at a path; links are followed. A dangling link counts as a file, and so does an entry
/// whose kind cannot be determined.
EntryKind GetEntryKind(const CRtString& path);
/// Creates one directory. On POSIX its mode is 0700; on Windows it inherits the access rights of its parent.
bool MakeDirectory(const CRtString& path);
void SetHidden(const CRtString& path);
/// The position of the last separator, or npos: a backslash or a slash.
size_t FindLastSeparator(const CRtString& path);
/// Compares as the file system does: case-insensitively on Windows, byte by byte on POSIX.
bool HasExtension(const CRtString& name, const CRtString& extension);
/// Removes the directory entry, never the target of a link. Returns 0 or -1.
int RemoveFile(const CRtString& path);
/// Removes an empty directory or a link to a directory. Returns 0 or -1.
int RemoveEmptyDirectory(const CRtString& path);

/// A walk over the entries of one directory, without "." and "..". Links are never entered. On POSIX the walk
/// holds one descriptor, that of its directory, at any depth: it removes and enters entries of that very
/// directory even if another process renames directories of the path. Windows works by path, and the open
/// handles prevent other processes from renaming or removing the directory and those above it in this walk.
class DirectoryWalk {
public:
    /// If the last component of the path is a link, the walk opens only with `followLast`.
    explicit DirectoryWalk(const CRtString& path, bool followLast = false);
    /// A walk over a subdirectory of `parent`.
    DirectoryWalk(const DirectoryWalk& parent, const CRtString& name);
    ~DirectoryWalk();
    DirectoryWalk(const DirectoryWalk&) = delete;
    DirectoryWalk& operator=(const DirectoryWalk&) = delete;

    /// False if the path is not a directory, is a link that must not be followed, or cannot be opened.
    bool IsOpen() const;
    /// Takes the exclusive lock on the open directory for the lifetime of this object; ends the walk.
    /// False if another process holds a lock (DirectoryUse) or has removed the directory. True on systems
    /// without such locks.
    bool TakeAlone();
    /// The next entry, in the system's order. False at the end. A link does not count as a directory.
    bool Next(CRtString& name, bool& isDirectory);
    /// Moves the walk to the first entry of a subdirectory. If that fails, the walk does not move.
    bool Enter(const CRtString& name);
    /// Moves the walk back to the first entry of the directory that Enter left. False if the subdirectory
    /// was moved elsewhere; the walk is then closed.
    bool Leave();
    /// Both remove an entry of this directory. True on success.
    bool RemoveFile(const CRtString& name);
    bool RemoveSubdirectory(const CRtString& name);

private:
    struct State;
    std::unique_ptr<State> m_state;
};

/// Shared advisory lock on a directory: tells other processes that this process works in it. Writes nothing to
/// the disk. The system releases the lock when the process ends, after a crash too.
class DirectoryUse {
public:
    explicit DirectoryUse(const CRtString& path);
    ~DirectoryUse();
    /// False if the directory cannot be opened, another process holds the exclusive lock, or the system has
    /// no such locks.
    bool IsHeld() const { return m_handle >= 0; }
    /// Whether another process holds the exclusive lock or has just removed the directory.
    bool IsRefused() const { return m_isRefused; }
    DirectoryUse(const DirectoryUse&) = delete;
    DirectoryUse& operator=(const DirectoryUse&) = delete;

private:
    int m_handle;
    bool m_isRefused = false;
};

// --- Files --------------------------------------------------------------------------------------

/// The fingerprint of a file. If it differs, the path names another file or the bytes have changed; changes
/// within the resolution of the system's file times (a few milliseconds) may go unnoticed.
struct FileStamp {
    bool exists = false;
    uint64_t device = 0;
    uint64_t node = 0;
    uint64_t length = 0;
    int64_t changedSeconds = 0; // 64 bits of nanoseconds would overflow in the year 2262
    uint32_t changedNanoseconds = 0;
    bool isSpecial = false; ///< of a path: a link, a pipe or a device; POSIX only
    bool operator==(const FileStamp&) const = default;
    bool IsSameFile(const FileStamp& other) const {
        return exists && other.exists && device == other.device && node == other.node;
    }
};
enum OpenFlags : uint32_t {
    OPEN_EXISTING = 0,
    OPEN_CREATE = 1, ///< creates a missing file, on POSIX with mode 0600
    OPEN_ALONE = 2,  ///< exclusive lock: a second open with this flag fails, see IsInUse
    OPEN_READ = 4,   ///< for reading only; not with the other flags
};
/// Opens a file, without OPEN_READ for reading and writing, and returns its descriptor. Never truncates the file. Child processes do
/// not inherit the descriptor. On POSIX, a link at the path is not followed. On failure returns NO_FILE and sets
/// `error` to the system's error number. `created`: this call has created the file. `stamp`: its fingerprint.
constexpr int NO_FILE = -1;
int OpenFile(const CRtString& path, uint32_t flags, int& error, bool& created, FileStamp& stamp);
void CloseFile(int file);
/// Whether that error number means that the path names no file.
bool IsNoSuchFile(int error);
/// Whether that error number means that another descriptor holds the exclusive lock, or on Windows that another
/// process holds a handle that prevents the operation.
bool IsInUse(int error);
/// Whether a descriptor of this process or of another one holds the exclusive lock on the file. Opens the file for
/// reading; false if that fails. OpenFile with OPEN_ALONE does not fail because of this query: it tries again.
bool IsLocked(const CRtString& path);
/// Whether that error number means that the process or the system has run out of file descriptors.
bool IsOutOfStreams(int error);
enum class Transfer {
    Done,
    NoPosition, ///< the offset is out of the file system's range
    Failed,
    Short, ///< end of file before `length` bytes
};
/// Transfer exactly `length` bytes at `offset`; the position of the descriptor is not used. Several threads may
/// read one file concurrently.
Transfer ReadAt(int file, uint64_t offset, void* bytes, uint32_t length);
Transfer WriteAt(int file, uint64_t offset, const void* bytes, uint32_t length);
struct Piece {
    const void* bytes;
    uint32_t length;
};
constexpr size_t PIECES_MAX = 64;
/// Writes up to PIECES_MAX pieces contiguously, with one system call if the system has one for it. If the
/// result is not Done, some of the bytes may have been written.
Transfer WriteAllAt(int file, uint64_t offset, std::span<const Piece> pieces);
/// Both write what the system holds in its cache to the device, so that a power loss does not lose it: the bytes and the
/// length of a file; the entries of a directory. SyncPath takes the path of a directory or of a file that is not open.
/// True if the path names nothing. False on failure; a later attempt may then succeed without the bytes, because a
/// system need not keep what it could not write.
bool Sync(int file);
bool SyncPath(const CRtString& path);
/// The current length of the file. Makes the next write cheaper than GetStamp does: after a query of the file
/// times, some systems record an exact time with the next change. False on failure.
bool GetLength(int file, uint64_t& length);
/// If there is no regular file, `exists` is false. Returns false if the fingerprint cannot be determined.
bool GetStamp(int file, FileStamp& stamp);
bool GetStamp(const CRtString& path, FileStamp& stamp);
/// The number of files that the process may have open at a time, by the current limit.
uint32_t GetStreamLimit();

} // namespace RtOs
