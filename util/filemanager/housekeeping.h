// CHouseKeeping: one run of housekeeping over the data directory.
#pragma once

#include <atomic>
#include <memory>

#include "RtString.h"
#include "os/RtOs.h"

class CHouseKeeping {
public:
    /// Any thread. False while a run is queued or runs.
    bool Begin() { return !m_isRunning.exchange(true); }
    void End() {
        m_walk.reset();
        m_isRunning = false;
    }
    bool IsRunning() const { return m_isRunning; }

    // Read/write thread.
    /// False if the directory cannot be read: Next then finds nothing.
    bool Open(const CRtString& directory);
    /// The stem of the next data file. False at the end.
    bool Next(CRtString& stem);

private:
    std::atomic<bool> m_isRunning{false};
    std::unique_ptr<RtOs::DirectoryWalk> m_walk;
};
