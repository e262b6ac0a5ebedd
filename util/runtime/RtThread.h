// CRtThread: a thread with an event queue, as handed out by the thread manager.
#pragma once

#include <cstdint>
#include <memory>

#include "RtEvent.h"
#include "RtExport.h"
#include "RtTimeValue.h"

class CRtEventQueue;

class RT_EXPORT CRtThread {
public:
    uint32_t GetThreadId() const;
    IRtEventQueue* GetEventQueue();

    /// The thread takes no more events, runs those that are queued and ends. Returns at once; the time
    /// is not used. 0.
    int Stop(const CRtTimeValue* timeout = nullptr);
    /// Waits for the end, at most `milliseconds`. 0 when it has ended; 10015 when it still runs, or when
    /// the calling thread is this one.
    int Join(uint32_t milliseconds);
    /// Stops, waits for the end however long that takes, and destroys the object. The argument is
    /// reserved and 0. 0; 10015 on this very thread, which cannot outlive itself (nothing happens).
    int Destory(uint32_t reserved);

private:
    friend class CRtThreadManager;
    friend class CRtCallerThread;
    friend class CRtTimerWrapper;

    CRtThread();
    ~CRtThread();
    int StartOwn();
    void AdoptCurrent();
    void ReleaseCurrent();
    bool End();
    CRtEventQueue& Queue();

    struct State;
    std::unique_ptr<State> m_state;
};
