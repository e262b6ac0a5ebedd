#include <chrono>
#include <utility>

#include "IFileManager.h"
#include "RtEventQueue.h"
#include "RtRuntime.h"
#include "filemanager.h"
#include "fmfunctor.h"

namespace {

using Clock = std::chrono::steady_clock; // the application's clock may not advance

// Runs after everything that is queued for the read/write thread, which is idle while it runs. Lives on the
// stack of the sender: the wait needs no allocation.
class CIdleProbe final : public IRtEvent {
public:
    int OnEventFire() override {
        m_isIdle = CRtEventQueue::Current()->GetCount() == 0;
        return RT_OK;
    }
    void OnDestorySelf() override {}
    bool IsIdle() const { return m_isIdle; }

private:
    bool m_isIdle = false;
};

// On the caller thread. After the probe, only events of this thread can post to the read/write thread: if there
// are none either, both threads are idle.
int PumpUntilIdle(CFileManager& manager, CRtEventQueue& own, uint32_t milliseconds) {
    const auto start = Clock::now();
    for (;;) {
        own.RunDue();
        CIdleProbe probe;
        const bool hasThread = manager.GetReadwrThreadID() != 0;
        int result = RT_OK; // low comes last: an event of this lane may overtake the others
        for (const int priority : {RT_PRIORITY_HIGH, RT_PRIORITY_NORMAL, RT_PRIORITY_LOW}) {
            if (hasThread && RT_SUCCEEDED(result))
                result = manager.PostToReadwrThread(&probe, 1, priority);
        }
        if (RT_FAILED(result) || ((!hasThread || probe.IsIdle()) && own.GetCount() == 0))
            return result;
        if (milliseconds != FM_WAIT_FOREVER &&
            Clock::now() - start >= std::chrono::milliseconds(milliseconds)) {
            own.RunDue(); // results of the events that were queued at the call
            return RT_ERROR_NOT_READY;
        }
    }
}

// On the caller thread. Checks again behind everything that is queued on both threads, until nothing is.
void CheckIdle(std::function<void(int)> done);

class CIdleCheck final : public CFMFunctorBase {
public:
    explicit CIdleCheck(std::function<void(int)> done) : m_done(std::move(done)) {}
    int OnEventFire() override {
        RtRunOnCallerThread([done = std::move(m_done)] { CheckIdle(done); }, false);
        return RT_OK;
    }

private:
    std::function<void(int)> m_done;
};

void CheckIdle(std::function<void(int)> done) {
    CFileManager* const manager = CFileManager::IfAlive();
    if (!manager)
        return done(RT_ERROR_NOT_READY);
    if (CRtEventQueue::Current()->GetCount() == 0 && manager->IsReadwrThreadIdle())
        return done(RT_OK);
    if (manager->GetReadwrThreadID() == 0)
        RtRunOnCallerThread([done] { CheckIdle(done); }, false);
    else if (RT_FAILED(manager->PostToReadwrThread(new CIdleCheck(done), 0, RT_PRIORITY_LOW)))
        done(RT_ERROR_NOT_READY);
}

} // namespace

int FMCallWhenIdle(std::function<void(int result)> done) {
    if (!done)
        return RT_ERROR_INVALID_ARG;
    if (!CFileManager::Instance())
        return RT_ERROR_NULL_OBJECT;
    if (!CRtEventQueue::IsCallerThread())
        return RT_ERROR_NOT_READY;
    return RtRunOnCallerThread([done = std::move(done)] { CheckIdle(done); }, false);
}

int FMWaitUntilIdle(uint32_t milliseconds) {
    CFileManager* const manager = CFileManager::Instance();
    CRtThread* const caller = CRtThreadManager::Instance()->GetThread(RT_CALLER_THREAD);
    if (!manager)
        return RT_ERROR_NULL_OBJECT;
    const uint32_t self = CRtThreadManager::GetThreadSelfId();
    if (!caller ||
        CFileManager::IsOnReadwrThread()) // deadlock: the caller thread would wait for this one
        return RT_ERROR_NOT_READY;
    if (self == caller->GetThreadId())
        return PumpUntilIdle(*manager, *CRtEventQueue::Current(), milliseconds);
    int result = RT_ERROR_NOT_READY;
    const auto pump = [&] {
        result = PumpUntilIdle(*manager, *CRtEventQueue::Current(), milliseconds);
    };
    const int sent = RtRunOnCallerThread(pump, true);
    return RT_FAILED(sent) ? sent : result;
}
