#include <chrono>
#include <functional>
#include <utility>
#include <vector>

#include "IFileManager.h"
#include "RtEventQueue.h"
#include "RtRuntime.h"
#include "filemanager.h"
#include "fmfunctor.h"
#include "mistakes.h"

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

// The functions that wait for an idle moment. One check at a time is in flight for all of them: two would see
// each other in the queues. Caller thread only.
std::vector<std::function<void(int)>>& Waiting() {
    // Never destroyed: the last events run after the destructors of static objects.
    static auto* waiting = new std::vector<std::function<void(int)>>;
    return *waiting;
}

void EndWait(int result) {
    std::vector<std::function<void(int)>> waiting;
    waiting.swap(Waiting());
    for (const auto& done : waiting)
        done(result);
}

// Checks again behind everything that is queued on both threads, until nothing is.
void CheckIdle(CFileManager& manager) {
    CRtEventQueue& own = *CRtEventQueue::Current();
    if (own.GetCount() == 0 && manager.IsReadwrThreadIdle())
        return EndWait(RT_OK);
    const auto check = [&manager] { CheckIdle(manager); };
    const auto post = [&manager, check] { manager.PostToCallerThread(new CFMCall(check), 0); };
    const int result = manager.GetReadwrThreadID() == 0
                           ? own.PostEvent(new CFMCall(check), RT_PRIORITY_NORMAL)
                           : manager.PostToReadwrThread(new CFMCall(post), 0, RT_PRIORITY_LOW);
    if (RT_FAILED(result))
        EndWait(RT_ERROR_NOT_READY);
}

} // namespace

int FMCallWhenIdle(std::function<void(int result)> done) {
    CFMMistakes::CheckThread("FMCallWhenIdle");
    if (!done)
        return RT_ERROR_INVALID_ARG;
    CFileManager* const manager = CFileManager::Instance();
    if (!manager)
        return RT_ERROR_NULL_OBJECT;
    if (!CRtEventQueue::IsCallerThread())
        return RT_ERROR_NOT_READY;
    Waiting().push_back(std::move(done));
    if (Waiting().size() > 1)
        return RT_OK; // the check that is in flight is for this function, too
    const auto check = [manager] { CheckIdle(*manager); };
    const int result = CRtEventQueue::Current()->PostEvent(new CFMCall(check), RT_PRIORITY_NORMAL);
    if (RT_FAILED(result))
        Waiting().clear();
    return result;
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
