#include "RtThreadManager.h"

#include <algorithm>
#include <atomic>
#include <functional>
#include <future>
#include <vector>

#include "RtCleanUp.h"
#include "RtEventQueue.h"
#include "RtLog.h"
#include "RtResult.h"
#include "RtRuntime.h"
#include "os/RtOs.h"

namespace {

// At process end: the longest wait for an application event that keeps the caller thread busy.
constexpr uint32_t END_TIMEOUT_MS = 10'000;

class CRtWorkEvent final : public IRtEvent {
public:
    explicit CRtWorkEvent(std::function<void()> work) : m_work(std::move(work)) {}
    int OnEventFire() override {
        m_work();
        return RT_OK;
    }

private:
    std::function<void()> m_work;
};

} // namespace

struct CRtThreadManager::State {
    CRtMutexBase mutex; // that of the singletons; guards the members below, except processId
    std::vector<CRtThread*> userThreads;
    CRtThread* callerThread = nullptr;
    bool callerAdopted = false;
    bool ended = false;
    // Former caller threads: their objects are kept, so that a late post is refused and does not crash.
    std::vector<CRtThread*> formerCallerThreads;
    // The process that started the threads. Read without the mutex: in a forked child, the mutex may be locked
    // by a thread that exists in the parent only.
    std::atomic<uint32_t> processId{0};
};

CRtThreadManager::CRtThreadManager() : m_state(std::make_unique<State>()) {}

CRtThreadManager* CRtThreadManager::Instance() {
    static CRtThreadManager* manager = new CRtThreadManager;
    return manager;
}

CRtMutexBase* CRtThreadManager::GetSingletonMutex() { return &m_state->mutex; }

uint32_t CRtThreadManager::GetThreadSelfId() { return CRtEventQueue::CurrentThreadId(); }

int CRtThreadManager::CreateUserTaskThread(CRtThread*& thread, TFlag, int) {
    thread = nullptr;
    const CRtMutexGuard lock(m_state->mutex);
    if (m_state->ended)
        return RT_ERROR_NOT_READY;
    m_state->processId = RtOs::GetProcessId();
    auto* created = new CRtThread;
    if (const int result = created->StartOwn(); RT_FAILED(result)) {
        delete created;
        return result;
    }
    m_state->userThreads.push_back(created);
    thread = created;
    return RT_OK;
}

CRtThread* CRtThreadManager::GetThread(int number) {
    if (number != RT_CALLER_THREAD)
        return nullptr;
    const CRtMutexGuard lock(m_state->mutex);
    if (!m_state->callerThread && !m_state->ended) {
        m_state->processId = RtOs::GetProcessId();
        auto* created = new CRtThread;
        created->Queue().SetCallerQueue();
        if (RT_SUCCEEDED(created->StartOwn()))
            m_state->callerThread = created;
        else
            delete created;
    }
    return m_state->ended ? nullptr : m_state->callerThread;
}

bool CRtThreadManager::HasCallerThread() {
    const CRtMutexGuard lock(m_state->mutex);
    return m_state->callerThread != nullptr;
}

int CRtThreadManager::AdoptCallerThread(CRtThread*& thread) {
    const CRtMutexGuard lock(m_state->mutex);
    if (m_state->callerThread || m_state->ended || CRtEventQueue::Current())
        return RT_ERROR_NOT_READY;
    m_state->processId = RtOs::GetProcessId();
    thread = m_state->callerThread = new CRtThread;
    m_state->callerAdopted = true;
    thread->Queue().SetCallerQueue();
    thread->AdoptCurrent();
    return RT_OK;
}

void CRtThreadManager::ReleaseCallerThread(CRtThread* thread) {
    thread->ReleaseCurrent();
    const CRtMutexGuard lock(m_state->mutex);
    m_state->callerThread = nullptr;
    m_state->callerAdopted = false;
    m_state->formerCallerThreads.push_back(thread);
}

void CRtThreadManager::ForgetThread(CRtThread* thread) {
    const CRtMutexGuard lock(m_state->mutex);
    std::erase(m_state->userThreads, thread);
    if (m_state->callerThread == thread)
        m_state->callerThread = nullptr;
}

// Runs every queued event. First the caller thread's, while they can still start threads; then each user
// thread runs its queue and ends; then the caller thread runs what the user threads have posted.
bool CRtThreadManager::EndAllThreads() {
    // A forked child has none of its parent's threads; the queued events are the parent's work.
    const uint32_t processId = m_state->processId;
    if (processId != 0 && processId != RtOs::GetProcessId())
        return false;
    CRtThread* caller = nullptr;
    std::vector<CRtThread*> userThreads;
    {
        const CRtMutexGuard lock(m_state->mutex);
        caller = m_state->callerThread;
    }
    if (caller)
        RunCallerQueue(*caller);
    {
        const CRtMutexGuard lock(m_state->mutex);
        m_state->ended = true;
        userThreads = m_state->userThreads;
        caller = m_state->callerThread;
    }
    bool allEnded = true;
    for (CRtThread* thread : userThreads)
        allEnded = thread->End() && allEnded; // not deleted: the caller thread may still post to it
    return (!caller || EndCallerThread(*caller)) && allEnded;
}

// Runs the events that are queued now: on the thread's own loop if it has one, else on the calling thread.
void CRtThreadManager::RunCallerQueue(CRtThread& caller) {
    const std::chrono::milliseconds timeout(END_TIMEOUT_MS);
    const bool ownLoop =
        !m_state->callerAdopted && caller.GetThreadId() != CRtThreadManager::GetThreadSelfId();
    if (!ownLoop) {
        caller.Queue().RunRemaining(timeout);
        return;
    }
    const auto reached = std::make_shared<std::promise<void>>();
    std::future<void> future = reached->get_future();
    caller.Queue().PostEvent(new CRtWorkEvent([reached] { reached->set_value(); }),
                             RT_PRIORITY_NORMAL);
    future.wait_for(timeout);
}

bool CRtThreadManager::EndCallerThread(CRtThread& caller) {
    caller.Stop();
    if (!m_state->callerAdopted && RT_SUCCEEDED(caller.Join(END_TIMEOUT_MS)))
        return caller.End();
    if (caller.Queue().RunRemaining(std::chrono::milliseconds(END_TIMEOUT_MS)))
        return true;
    RT_LOG(RT_LOG_ERROR, "CRtThreadManager::EndCallerThread, thread 3 is busy, its queue is lost");
    return false;
}

CRtCallerThread::CRtCallerThread(std::function<void()> wakeUp) {
    if (RT_SUCCEEDED(CRtThreadManager::Instance()->AdoptCallerThread(m_pThread)) && wakeUp)
        m_pThread->Queue().SetWakeUp(std::move(wakeUp));
}

CRtCallerThread::~CRtCallerThread() {
    if (m_pThread)
        CRtThreadManager::Instance()->ReleaseCallerThread(m_pThread);
}

bool CRtCallerThread::IsValid() const { return m_pThread != nullptr; }

void CRtCallerThread::Run() {
    if (m_pThread)
        m_pThread->Queue().Run();
}

void CRtCallerThread::Quit() {
    if (m_pThread)
        m_pThread->Queue().Quit();
}

size_t CRtCallerThread::RunDue() { return m_pThread ? m_pThread->Queue().RunDue() : 0; }

int64_t CRtCallerThread::GetNextDueMs() const {
    return m_pThread ? m_pThread->Queue().GetNextDueMs() : -1;
}

int RtRunOnCallerThread(std::function<void()> work, bool wait) {
    if (!work)
        return RT_ERROR_NULL_OBJECT;
    CRtThread* thread = CRtThreadManager::Instance()->GetThread(RT_CALLER_THREAD);
    if (!thread)
        return RT_ERROR_NOT_READY;
    auto* event = new CRtWorkEvent(std::move(work));
    IRtEventQueue* queue = thread->GetEventQueue();
    return wait ? queue->SendEvent(event) : queue->PostEvent(event, RT_PRIORITY_NORMAL);
}
