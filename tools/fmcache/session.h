// The file manager as a verb uses it: the main thread is thread number 3, and everything that was
// opened is closed again however the verb ends.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <string>

#include "IFileManager.h"
#include "RtReferenceControl.h"
#include "RtRuntime.h"

using FileRef = CRtComAutoPtr<IFMFile>;
using BlockRef = CRtComAutoPtr<IFMBlock>;

/// A cached file ends there: beyond, the library gives no promise.
constexpr uint64_t CACHED_FILE_MAX = uint64_t{1} << 30;
constexpr uint64_t CACHED_BLOCK_MAX = uint64_t{1} << 24;

/// The manager keeps the blocks of a file in memory until it is closed, so a transfer closes and opens
/// its file each time that many bytes have passed.
constexpr uint64_t REOPEN_BYTES = uint64_t{64} << 20;

/// Throws Failure unless `result` is success. `what` says what could not be done.
void Require(int result, const std::string& what);

/// For Session: housekeeping is the user's decision, and nothing else clears.
constexpr uint16_t CLEAR_DAYS_NEVER = 65535;

class Session {
public:
    /// Initialises the manager, as a server, on the cache in `dir`. Makes the directory when it is
    /// missing: verbs that only look have made sure that it is there. `clearDays` is Initialize's.
    /// Throws Failure.
    explicit Session(const std::filesystem::path& dir, uint16_t clearDays = CLEAR_DAYS_NEVER);
    /// When it returns everything is on disk, or was given up.
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    IFileManager& Manager() { return *m_manager; }
    /// Runs what has come for this thread.
    void Pump() { m_thread.RunDue(); }
    /// Waits a moment for something to come, and runs it.
    void WaitAndPump();

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_woken = false;
    CRtCallerThread m_thread; // calls back into what stands above
    IFileManager* m_manager = nullptr;
};

/// One file that is open and attached.
class CachedFile {
public:
    explicit CachedFile(Session& session) : m_session(session) {}
    ~CachedFile() { Close(); }
    CachedFile(const CachedFile&) = delete;
    CachedFile& operator=(const CachedFile&) = delete;

    /// These throw Failure.
    void Create(const FMFileInfo& info);
    void Load(const FMFileID& id);
    /// Brings what was written to disk and gives the memory of the blocks back. Nobody may hold a
    /// block.
    void Reopen();
    void Close();

    IFMFile& Get() { return *m_file; }
    /// Null when there is no such block, unless it may be created.
    BlockRef Block(uint32_t id, bool create);

private:
    void Attach(FileRef file, const FMFileID& id);

    Session& m_session;
    FileRef m_file;
    FMFileID m_id = FMFileID_None;
};
