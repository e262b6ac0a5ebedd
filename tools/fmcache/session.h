// The file manager for one verb: the main thread is the caller thread, and the destructors close everything
// on every path.
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

/// Blocks of an open file stay resident, so a transfer closes and reopens the file after each 64 MiB to bound
/// its memory.
constexpr uint64_t REOPEN_BYTES = uint64_t{64} << 20;

/// Throws Failure, starting with `what`, if `result` is an error code.
void Require(int result, const std::string& what);

/// Largest clearDays: a session of the tool must neither clear nor expire files unless told to.
constexpr uint16_t CLEAR_DAYS_NEVER = 65535;

class Session {
public:
    /// Initialises the manager as a server on the cache in `dir`, and creates a missing directory: verbs that
    /// must not create it have to check first. `clearDays` is passed to Initialize. Throws Failure.
    explicit Session(const std::filesystem::path& dir, uint16_t clearDays = CLEAR_DAYS_NEVER);
    /// Calls UnInitialize: afterwards everything is on disk, or its store has failed.
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    IFileManager& Manager() { return *m_manager; }
    /// Runs due timers and queued events of the caller thread.
    void Pump() { m_thread.RunDue(); }
    /// Waits up to 50 ms for an event, then pumps.
    void WaitAndPump();

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_woken = false;
    CRtCallerThread m_thread; // declared last: its callback uses the members above
    IFileManager* m_manager = nullptr;
};

/// One cached file, open and attached.
class CachedFile {
public:
    explicit CachedFile(Session& session) : m_session(session) {}
    ~CachedFile() { Close(); }
    CachedFile(const CachedFile&) = delete;
    CachedFile& operator=(const CachedFile&) = delete;

    /// These throw Failure.
    void Create(const FMFileInfo& info);
    void Load(const FMFileID& id);
    /// Closes and loads the file: writes what is pending and releases the memory of its blocks.
    /// Precondition: no BlockRef of this file exists.
    void Reopen();
    void Close();

    IFMFile& Get() { return *m_file; }
    /// Null if there is no such block and `create` is false.
    BlockRef Block(uint32_t id, bool create);

private:
    void Attach(FileRef file, const FMFileID& id);

    Session& m_session;
    FileRef m_file;
    FMFileID m_id = FMFileID_None;
};
