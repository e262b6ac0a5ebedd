#include "RtThread.h"

#include <future>
#include <system_error>
#include <thread>

#include "RtEventQueue.h"
#include "RtResult.h"
#include "RtThreadManager.h"

struct CRtThread::State {
    CRtEventQueue queue;
    uint32_t threadId = 0;        // constant once the object is published
    std::promise<void> ended;     // set by the thread itself
    std::future<void> waitForEnd; // of `ended`
    std::thread thread;           // not joinable if the thread was adopted
};

CRtThread::CRtThread() : m_state(std::make_unique<State>()) {
    m_state->waitForEnd = m_state->ended.get_future();
}

CRtThread::~CRtThread() = default;

CRtEventQueue& CRtThread::Queue() { return m_state->queue; }

IRtEventQueue* CRtThread::GetEventQueue() { return &m_state->queue; }

uint32_t CRtThread::GetThreadId() const { return m_state->threadId; }

// Returns when the thread runs and has stored its identifier.
int CRtThread::StartOwn() {
    State* state = m_state.get();
    if (CRtEventQueue::IsStepping()) {
        static uint32_t next = 0x8000'0000; // no thread of the system has such an identifier
        state->threadId = ++next;
        state->queue.BeginStepping(state->threadId);
        return RT_OK;
    }
    std::promise<uint32_t> started;
    std::future<uint32_t> threadId = started.get_future();
    try {
        state->thread = std::thread([state, started = std::move(started)]() mutable {
            state->queue.SetOwner(true);
            started.set_value(CRtThreadManager::GetThreadSelfId());
            state->queue.Run();
            state->ended.set_value();
        });
    } catch (const std::system_error&) {
        return RT_ERROR_FAILURE;
    }
    state->threadId = threadId.get();
    return RT_OK;
}

void CRtThread::AdoptCurrent() {
    m_state->queue.SetOwner(true);
    m_state->threadId = CRtThreadManager::GetThreadSelfId();
}

void CRtThread::ReleaseCurrent() {
    m_state->queue.Stop();
    m_state->queue.SetWakeUp({});
    m_state->queue.RunRemaining(std::chrono::milliseconds(0)); // events only: timers never end
    m_state->queue.SetOwner(false);
    m_state->ended.set_value();
}

int CRtThread::Stop(const CRtTimeValue*) {
    m_state->queue.Stop();
    return RT_OK;
}

int CRtThread::Join(uint32_t milliseconds) {
    if (GetThreadId() == CRtThreadManager::GetThreadSelfId())
        return RT_ERROR_NOT_READY;
    m_state->queue.StepAll();
    if (m_state->queue.IsStepped())
        return RT_OK;
    const std::chrono::milliseconds timeout(milliseconds);
    const bool isOver = m_state->waitForEnd.wait_for(timeout) == std::future_status::ready;
    return isOver ? RT_OK : RT_ERROR_NOT_READY;
}

// Keeps the object, so that later posts are refused.
bool CRtThread::End() {
    if (GetThreadId() == CRtThreadManager::GetThreadSelfId())
        return false;
    Stop();
    m_state->queue.StepAll();
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
