// CRtThreadManager: makes threads, knows the numbered one, and holds the mutex under which singletons
// are made.
#pragma once

#include <cstdint>
#include <memory>

#include "RtExport.h"
#include "RtMutex.h"
#include "RtThread.h"

/// The number of the thread on which the file manager's callers work.
constexpr int RT_CALLER_THREAD = 3;

class RT_EXPORT CRtThreadManager {
public:
    enum TFlag : int { TT_NETWORK = 1, TT_TASK = 2 };

    /// Any thread. Lives to the end of the process.
    static CRtThreadManager* Instance();

    CRtMutexBase* GetSingletonMutex();
    /// Starts a thread with a queue. It is the caller's, who ends it with Destory; one that is left is
    /// stopped and waited for at process end. `reserved` is 0.
    /// 0; 10001 when the system gives no thread (`thread` is null); 10015 at process end.
    int CreateUserTaskThread(CRtThread*& thread, TFlag flag, int reserved);
    /// The numbered thread; only RT_CALLER_THREAD has a meaning, others answer null. Unless the
    /// application has made a thread of its own number 3 (CRtCallerThread), the first request starts
    /// one. Null at process end.
    CRtThread* GetThread(int number);
    static uint32_t GetThreadSelfId();

private:
    friend class CRtCallerThread;
    friend class CRtThread;
    friend class CRtProcessEnd;

    CRtThreadManager();
    ~CRtThreadManager() = delete; // threads may ask for it until the last one has ended
    int AdoptCallerThread(CRtThread*& thread);
    void ReleaseCallerThread(CRtThread* thread);
    void ForgetThread(CRtThread* thread);
    /// Answers whether every thread has ended; one that has not still uses what it used.
    bool EndAllThreads();
    void RunCallerQueue(CRtThread& caller);
    bool EndCallerThread(CRtThread& caller);

    struct State;
    std::unique_ptr<State> m_state;
};
