// The runtime layer for applications: thread number 3, the clock, the log sink.
//
// Every call of the file manager's interfaces belongs on thread number 3, and every completion comes
// there. An application has three ways to have that thread; it chooses one before it initialises the
// file manager:
//
//  1. It does nothing. The runtime starts a thread of its own; the application hands work to it with
//     RtRunOnCallerThread.
//  2. It has a thread to spare: it makes a CRtCallerThread there and calls Run.
//  3. It has a main loop already: it makes a CRtCallerThread there with a wake-up callback that makes
//     the loop call RunDue, and lets the loop wait no longer than GetNextDueMs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "RtCleanUp.h"
#include "RtEvent.h"
#include "RtExport.h"
#include "RtHome.h"
#include "RtLog.h"
#include "RtResult.h"
#include "RtSid.h"
#include "RtString.h"
#include "RtThread.h"
#include "RtThreadManager.h"
#include "RtTimeValue.h"
#include "RtTimer.h"

/// While it lives, the thread that made it is number 3. To be destroyed on that thread, after the file
/// manager's UnInitialize; what is still queued then runs first.
class RT_EXPORT CRtCallerThread {
public:
    /// `wakeUp`, if given, is called from any thread when there is something to run; it only notifies
    /// (posts to the loop, writes to a pipe) and calls nothing of this layer.
    explicit CRtCallerThread(std::function<void()> wakeUp = {});
    ~CRtCallerThread();
    CRtCallerThread(const CRtCallerThread&) = delete;
    CRtCallerThread& operator=(const CRtCallerThread&) = delete;

    /// False when the process has a number 3 already; the other operations then do nothing.
    bool IsValid() const;
    /// Runs events and timers until Quit, which an event may call.
    void Run();
    /// Lets Run return. From any thread.
    void Quit();
    /// Fires the timers that are due and runs the events that were queued when it was called; answers
    /// how many. Never waits.
    size_t RunDue();
    /// Milliseconds until a timer is due, 0 when one is due now, -1 when there is none.
    int64_t GetNextDueMs() const;

private:
    CRtThread* m_pThread = nullptr;
};

/// Runs `work` on thread number 3: with `wait` the call returns when it has run (at once when this is
/// that thread), without it is only queued. `work` must not throw.
/// 0; 10007 for empty work; 10015 without a thread (the work is dropped).
RT_EXPORT int RtRunOnCallerThread(std::function<void()> work, bool wait);
