/// @defgroup runtime Runtime
/// The layer below the file manager: threads and event queues, timers, the clock and the log.
///
/// **The caller thread.** All operations of the file manager run on one thread, and all its callbacks come
/// there: the caller thread. The runtime calls it thread number 3, because its thread manager looks threads
/// up by number and the file manager asks for that one (#RT_CALLER_THREAD). The numbers are the runtime's; no
/// other has a meaning here.
///
/// The application chooses how to provide that thread before it calls IFileManager::Initialize:
///
/// - It has no thread to provide: it does nothing. The runtime starts a thread; RtRunOnCallerThread runs work
///   on it.
/// - It has a thread to provide: it creates a CRtCallerThread there and calls CRtCallerThread::Run.
/// - It has a main loop: it creates a CRtCallerThread on the loop's thread, with a wake-up callback that makes
///   the loop call CRtCallerThread::RunDue. The loop waits no longer than CRtCallerThread::GetNextDueMs.
/// @{
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

/// Makes the current thread the caller thread as long as the object lives. Destroy it on the same thread,
/// after IFileManager::UnInitialize; the destructor runs what is still queued.
class CRtCallerThread {
public:
    /// Check IsValid afterwards.
    /// @param wakeUp called from any thread, under the queue's lock, when there is something to run. It may
    ///     only notify the loop (post to it, write to a pipe) and must not call the runtime.
    RT_EXPORT explicit CRtCallerThread(std::function<void()> wakeUp = {});
    RT_EXPORT ~CRtCallerThread();
    CRtCallerThread(const CRtCallerThread&) = delete;
    CRtCallerThread& operator=(const CRtCallerThread&) = delete;

    /// False if the process already has a caller thread, the current thread has an event queue of its own,
    /// or the process is ending. The other operations are then no-ops.
    RT_EXPORT bool IsValid() const;
    /// Runs events and timers until Quit. On the caller thread.
    RT_EXPORT void Run();
    /// Makes Run return after the current event. Any thread.
    RT_EXPORT void Quit();
    /// Fires the timers that are due and runs the events that were queued at the time of the call. It does
    /// not wait for events. On the caller thread.
    /// @returns how many timers and events ran.
    RT_EXPORT size_t RunDue();
    /// Milliseconds until the next timer is due; 0 if one is due now, -1 if there is none.
    RT_EXPORT int64_t GetNextDueMs() const;

private:
    CRtThread* m_pThread = nullptr;
};

/// Runs a function on the caller thread. Any thread. If there is no caller thread, the runtime starts one.
/// @param work the function; it must not throw.
/// @param wait true: return when it has run; on the caller thread it runs immediately. False: queue it and
///     return.
/// @retval RT_OK
/// @retval RT_ERROR_NULL_OBJECT `work` is empty.
/// @retval RT_ERROR_NOT_READY the caller thread could not be started, is stopping, or the process is
///     ending. `work` does not run.
RT_EXPORT int RtRunOnCallerThread(std::function<void()> work, bool wait);
/// @}
