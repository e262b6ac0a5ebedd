// Everything that differs between operating systems, in one header; one source per system implements
// it. Nothing above this folder knows which system it runs on.
//
// Paths come in with the backslash as separator (a slash passes as it is). The POSIX source turns each
// backslash into a slash just before the system call. Nothing here logs and nothing throws.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>
#include <string>

#include "RtString.h"

namespace RtOs {

// --- Processes, threads, identifiers ------------------------------------------------------------

uint32_t GetProcessId();
/// Whether a process of that id runs; on POSIX also one that this user may not ask about. False for 0 and
/// for numbers that no process can have.
bool IsProcessAlive(int64_t processId);
/// Never 0, unique among the running threads of the process.
uint32_t GetThreadId();
/// Tells the processor that this thread only looks whether another one is done.
inline void Pause() {
#if defined(__i386__) || defined(__x86_64__)
    __builtin_ia32_pause();
#endif
}
/// Has `work` run at the end of the process, while its threads still run: behind the destructors of what
/// was made later. Also when the library is unloaded, where it can be. For one piece of work: a second one
/// may be ignored.
bool AtProcessEnd(int (*work)());
/// 16 bytes of a fresh unique identifier, laid out as the platform's GUID structure; never all zero.
void CreateGuid(uint8_t (&bytes)[16]);

// --- Drives and the user's folder ---------------------------------------------------------------

constexpr uint32_t DRIVE_KIND_FIXED = 3;
/// With size 0 and no buffer: the buffer size needed, 0 when there is no drive list. With a buffer:
/// fills it with the drive roots, each ended by a NUL, and answers the characters without the final
/// NUL; 0 on failure.
uint32_t GetDriveStrings(uint32_t size, char* buffer);
uint32_t GetDriveKind(const char* root);
bool GetDriveFreeBytes(const char* root, uint64_t& available);
/// The folder of this user's application data; false when it is unknown.
bool GetUserDataDir(CRtString& directory);

// --- Directories and files ----------------------------------------------------------------------

enum class EntryKind { Missing, File, Directory };
/// What a path names; a link counts as what it leads to, one that leads nowhere as a file, and so does
/// what the system does not tell.
EntryKind GetEntryKind(const CRtString& path);
/// On POSIX only this user may enter it, else whoever may enter the one it lies in. False when it could
/// not be made.
bool MakeDirectory(const CRtString& path);
void SetHidden(const CRtString& path);
/// The position of the last character that ends a directory's name, or npos: the backslash, and on POSIX,
/// where a path is not told from the system's own, the slash.
size_t FindLastSeparator(const CRtString& path);
/// Compares as the file system does: case-insensitively on Windows, byte by byte on POSIX.
bool HasExtension(const CRtString& name, const CRtString& extension);
/// Removes the directory entry, never the target of a link. 0, or -1.
int RemoveFile(const CRtString& path);
/// Removes an empty directory or a link to one. 0, or -1.
int RemoveEmptyDirectory(const CRtString& path);

/// A walk over the entries of one directory, without "." and "..". Links are never entered. On POSIX the walk
/// holds a descriptor of its directory, whatever the depth: it removes and enters entries of that very
/// directory even if another process renames directories of the path. Windows works by path, and the open
/// handles prevent that the directory or one above it in this walk is renamed or removed.
class DirectoryWalk {
public:
    /// If the path itself is a link, it is opened with `followLast` only.
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
    /// The next entry, in the system's order; false at the end. A link does not count as a directory.
    bool Next(CRtString& name, bool& isDirectory);
    /// Moves the walk to the first entry of a subdirectory. If that fails, the walk does not move.
    bool Enter(const CRtString& name);
    /// Moves the walk back to the first entry of the directory that Enter left. False if the subdirectory
    /// was moved elsewhere; the walk is then closed.
    bool Leave();
    /// Both act on an entry of this directory; true if the entry is removed.
    bool RemoveFile(const CRtString& name);
    bool RemoveSubdirectory(const CRtString& name);

private:
    struct State;
    std::unique_ptr<State> m_state;
};

/// Shows other processes, as long as it lives, that this one works in a directory. It changes nothing on
/// the disk, and ends with the process however that ends.
class DirectoryUse {
public:
    explicit DirectoryUse(const CRtString& path);
    ~DirectoryUse();
    /// False when the directory could not be opened, another process has it alone, or the system has no
    /// such thing.
    bool IsHeld() const { return m_handle >= 0; }
    /// Whether another process has it alone, or has just removed it.
    bool IsRefused() const { return m_isRefused; }
    DirectoryUse(const DirectoryUse&) = delete;
    DirectoryUse& operator=(const DirectoryUse&) = delete;

private:
    int m_handle;
    bool m_isRefused = false;
};

// --- Streams ------------------------------------------------------------------------------------

enum OpenFlags : uint32_t {
    OPEN_EXISTING = 0,
    OPEN_CREATE = 1, ///< a missing file is made, on POSIX readable by this user only
    OPEN_ALONE = 2,  ///< while it is open, nobody else who asks for this gets the file, see IsInUse
};
/// Opens a binary stream for reading and writing, contents kept, not inherited by child processes and
/// unbuffered: another stream on the same file sees what was written at once. A file that exists is
/// never emptied; on POSIX a link is not followed. Null on failure, with the system's error number.
/// `created`: the file was made.
FILE* OpenStream(const CRtString& path, uint32_t flags, int& error, bool& created);
/// Whether that error number means that there is no file of that path.
bool IsNoSuchFile(int error);
/// Whether that error number means that somebody else has the file open alone.
bool IsInUse(int error);
/// Whether that error number means that the process or the system has no stream left.
bool IsOutOfStreams(int error);
enum class Transfer {
    Done,
    NoPosition, ///< the file cannot have that offset
    Failed,
    Short, ///< the file ended first
};
/// Move exactly `length` bytes at a 64-bit offset from the start of the file, past the stream's position.
/// Several threads may read one stream at a time.
Transfer ReadAt(FILE* stream, uint64_t offset, void* bytes, uint32_t length);
Transfer WriteAt(FILE* stream, uint64_t offset, const void* bytes, uint32_t length);
struct Piece {
    const void* bytes;
    uint32_t length;
};
constexpr size_t PIECES_MAX = 64;
/// Writes the pieces, PIECES_MAX at most, one behind the other, with one call where the system has such a
/// call. Whatever it answers but Done, some of the bytes may have been written.
Transfer WriteAllAt(FILE* stream, uint64_t offset, std::span<const Piece> pieces);
/// The file's length now. Costs a write less than a stamp does: systems that were asked for a file's
/// times write the exact time with the next change. False when the system does not tell.
bool GetLength(FILE* stream, uint64_t& length);
/// The fingerprint of a file. If it differs, the path names another file or the bytes have changed; changes
/// within the resolution of the system's file times (a few milliseconds) may go unnoticed.
struct FileStamp {
    bool exists = false;
    uint64_t device = 0;
    uint64_t node = 0;
    uint64_t length = 0;
    int64_t changedSeconds = 0; // 64 bits of nanoseconds would overflow in the year 2262
    uint32_t changedNanoseconds = 0;
    bool operator==(const FileStamp&) const = default;
    bool IsSameFile(const FileStamp& other) const {
        return exists && other.exists && device == other.device && node == other.node;
    }
};
/// Without `exists` when there is no regular file. False when the system does not tell.
bool GetStamp(FILE* stream, FileStamp& stamp);
bool GetStamp(const CRtString& path, FileStamp& stamp);
/// How many streams the process may have open at a time, by the limit in force now.
uint32_t GetStreamLimit();

} // namespace RtOs
