/// @addtogroup runtime
/// @{
#pragma once

#include <cstdint>
#include <memory>

#include "RtExport.h"
#include "RtMutex.h"
#include "RtThread.h"

/// The number of the caller thread (RtRuntime.h).
constexpr int RT_CALLER_THREAD = 3;

/// Starts threads, provides the caller thread, and holds the mutex under which singletons are created.
/// Thread-safe.
class CRtThreadManager {
public:
    /// Kinds of threads. The runtime makes no difference between them.
    enum TFlag : int {
        TT_NETWORK = 1, ///< for network input and output
        TT_TASK = 2     ///< for other work
    };

    /// The manager of this process; never null, never destroyed.
    RT_EXPORT static CRtThreadManager* Instance();

    /// The mutex under which CRtSingletonHolder creates its object.
    RT_EXPORT CRtMutexBase* GetSingletonMutex();

    /// Starts a thread with an event queue. The caller owns the thread and ends it with CRtThread::Destory.
    /// If it does not, process end stops the thread and waits for it without a limit.
    /// @param[out] thread the thread; null if the call fails.
    /// @param flag the kind.
    /// @param reserved 0.
    /// @retval RT_OK
    /// @retval RT_ERROR_FAILURE the system could not start a thread.
    /// @retval RT_ERROR_NOT_READY the process is ending.
    RT_EXPORT int CreateUserTaskThread(CRtThread*& thread, TFlag flag, int reserved);

    /// Returns the caller thread. If the application does not provide it (CRtCallerThread), the first call
    /// starts it.
    /// @param number #RT_CALLER_THREAD.
    /// @returns the thread. Null if `number` is another one, the thread cannot be started, or the process is
    ///     ending.
    RT_EXPORT CRtThread* GetThread(int number);
    /// The identifier that the system has given the current thread.
    RT_EXPORT static uint32_t GetThreadSelfId();

private:
    friend class CRtCallerThread;
    friend class CRtThread;
    friend class CRtProcessEnd;
    friend class CFMMistakes; // asks for the caller thread without starting it

    CRtThreadManager();
    ~CRtThreadManager() = delete; // threads may call Instance until the last one has ended
    bool HasCallerThread();
    int AdoptCallerThread(CRtThread*& thread);
    void ReleaseCallerThread(CRtThread* thread);
    void ForgetThread(CRtThread* thread);
    /// Returns whether all threads have ended. A thread that has not may still use the objects registered for
    /// clean-up.
    bool EndAllThreads();
    void RunCallerQueue(CRtThread& caller);
    bool EndCallerThread(CRtThread& caller);

    struct State;
    std::unique_ptr<State> m_state;
};
/// @}
