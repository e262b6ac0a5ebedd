#include "RtThread.h"

#include <condition_variable>
#include <mutex>
#include <system_error>
#include <thread>

#include "RtEventQueue.h"
#include "RtResult.h"
#include "RtThreadManager.h"

struct CRtThread::State {
    CRtEventQueue queue;
    std::mutex mutex; // guards what follows
    std::condition_variable changed;
    uint32_t threadId = 0;
    bool ended = false;
    std::thread thread; // not running for an adopted thread
};

CRtThread::CRtThread() : m_state(std::make_unique<State>()) {}

CRtThread::~CRtThread() = default;

CRtEventQueue& CRtThread::Queue() { return m_state->queue; }

IRtEventQueue* CRtThread::GetEventQueue() { return &m_state->queue; }

uint32_t CRtThread::GetThreadId() const {
    const std::lock_guard lock(m_state->mutex);
    return m_state->threadId;
}

// Returns when the thread runs and its identifier is known.
int CRtThread::StartOwn() {
    State* state = m_state.get();
    try {
        state->thread = std::thread([state] {
            state->queue.SetOwner(true);
            {
                const std::lock_guard lock(state->mutex);
                state->threadId = CRtThreadManager::GetThreadSelfId();
                state->changed.notify_all();
            }
            state->queue.Run();
            const std::lock_guard lock(state->mutex);
            state->ended = true;
            state->changed.notify_all();
        });
    } catch (const std::system_error&) {
        return RT_ERROR_FAILURE;
    }
    std::unique_lock lock(state->mutex);
    state->changed.wait(lock, [state] { return state->threadId != 0; });
    return RT_OK;
}

void CRtThread::AdoptCurrent() {
    m_state->queue.SetOwner(true);
    const std::lock_guard lock(m_state->mutex);
    m_state->threadId = CRtThreadManager::GetThreadSelfId();
}

void CRtThread::ReleaseCurrent() {
    m_state->queue.Stop();
    m_state->queue.SetWakeUp({});
    m_state->queue.RunRemaining(std::chrono::milliseconds(0)); // events only: timers never end
    m_state->queue.SetOwner(false);
    const std::lock_guard lock(m_state->mutex);
    m_state->ended = true;
}

int CRtThread::Stop(const CRtTimeValue*) {
    m_state->queue.Stop();
    return RT_OK;
}

int CRtThread::Join(uint32_t milliseconds) {
    if (GetThreadId() == CRtThreadManager::GetThreadSelfId())
        return RT_ERROR_NOT_READY;
    std::unique_lock lock(m_state->mutex);
    const bool ended = m_state->changed.wait_for(lock, std::chrono::milliseconds(milliseconds),
                                                 [this] { return m_state->ended; });
    return ended ? RT_OK : RT_ERROR_NOT_READY;
}

// The object stays: posts to it are refused from now on.
bool CRtThread::End() {
    if (GetThreadId() == CRtThreadManager::GetThreadSelfId())
        return false;
    Stop();
    if (m_state->thread.joinable())
        m_state->thread.join();
    return true;
}

int CRtThread::Destory(uint32_t) {
    if (!End())
        return RT_ERROR_NOT_READY;
    CRtThreadManager::Instance()->ForgetThread(this);
    delete this;
    return RT_OK;
}
