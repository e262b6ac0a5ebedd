/// @defgroup runtime Runtime
/// The layer below the file manager: threads and event queues, timers, the clock and the log.
///
/// **The caller thread.** The application calls all operations of the file manager on one thread, the caller
/// thread, and the file manager calls the application back on it. The runtime calls it thread number 3,
/// because its thread manager finds threads by number and the file manager requests that number
/// (#RT_CALLER_THREAD). No other number has a meaning.
///
/// Before the application calls IFileManager::Initialize, it chooses one of three ways to provide the thread:
///
/// - **The runtime starts the thread.** The application creates no CRtCallerThread. It passes each call of
///   the file manager, Initialize included, to RtRunOnCallerThread.
/// - **A thread of the application without a loop.** The thread creates a CRtCallerThread and calls
///   CRtCallerThread::Run. It may also call the file manager directly, before Run or instead of it. While the
///   thread runs no events, no sink is called and no timer fires; IFileManager::UnInitialize still stores
///   everything.
/// - **A thread of the application with a main loop.** The thread creates a CRtCallerThread with a wake-up
///   callback. The callback makes the loop call CRtCallerThread::RunDue. The loop waits for at most
///   CRtCallerThread::GetNextDueMs, so that timers fire.
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
#include "RtPath.h"
#include "RtResult.h"
#include "RtSid.h"
#include "RtString.h"
#include "RtThread.h"
#include "RtThreadManager.h"
#include "RtTimeValue.h"
#include "RtTimer.h"

/// Makes the current thread the caller thread as long as the object lives. Destroy the object on the same
/// thread, after IFileManager::UnInitialize. The destructor runs the events that are still queued; timers no
/// longer fire.
class CRtCallerThread {
public:
    /// Registers the current thread. Test IsValid afterwards.
    /// @param wakeUp called on any thread, under the lock of the queue, when an event is queued or a timer is
    ///     scheduled. It may only notify the loop (post to it, write to a pipe), must not call the runtime,
    ///     and must not throw.
    RT_EXPORT explicit CRtCallerThread(std::function<void()> wakeUp = {});
    RT_EXPORT ~CRtCallerThread();
    CRtCallerThread(const CRtCallerThread&) = delete;
    CRtCallerThread& operator=(const CRtCallerThread&) = delete;

    /// False if the constructor failed: the process already had a caller thread, the current thread already
    /// had an event queue, or the process was ending. Then the other operations are no-ops.
    RT_EXPORT bool IsValid() const;
    /// Runs events and timers until Quit is called. Call it on the caller thread.
    RT_EXPORT void Run();
    /// Makes Run return when the current event has run. Any thread.
    RT_EXPORT void Quit();
    /// Fires the timers that are due, and runs as many events as were queued at the call. It does not wait
    /// for events. Call it on the caller thread.
    /// @returns the number of timers fired and events run.
    RT_EXPORT size_t RunDue();
    /// Returns the time until the next timer is due, in ms: 0 if a timer is due now, -1 if no timer is
    /// scheduled. Any thread.
    RT_EXPORT int64_t GetNextDueMs() const;

private:
    CRtThread* m_pThread = nullptr;
};

/// Runs a function on the caller thread. Call it on any thread. If there is no caller thread, the runtime
/// starts one.
/// @param work the function; it must not throw.
/// @param wait true: return when the function has run; if the calling thread is the caller thread, the
///     function runs immediately. False: queue the function and return.
/// @retval RT_OK the function has run or is queued.
/// @retval RT_ERROR_NULL_OBJECT `work` is empty.
/// @retval RT_ERROR_NOT_READY the caller thread could not be started, is stopping, or the process is
///     ending. `work` does not run.
RT_EXPORT int RtRunOnCallerThread(std::function<void()> work, bool wait);
/// @}
