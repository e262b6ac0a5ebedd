/// @addtogroup runtime
/// @{
#pragma once

#include <mutex>

#include "RtResult.h"

/// A recursive mutex whose operations return result codes.
class CRtMutexBase {
public:
    /// Locks the mutex; waits until it is free. If the system reports an error, the process ends.
    /// @retval RT_OK always.
    int Lock() noexcept {
        m_mutex.lock();
        return RT_OK;
    }
    /// Unlocks the mutex. Precondition: the calling thread holds it.
    /// @retval RT_OK always.
    int UnLock() {
        m_mutex.unlock();
        return RT_OK;
    }

private:
    std::recursive_mutex m_mutex;
};

/// Holds a mutex for the lifetime of the object.
class CRtMutexGuard {
public:
    /// Locks the mutex, which has to outlive the object.
    explicit CRtMutexGuard(CRtMutexBase& mutex) : m_mutex(mutex) { m_mutex.Lock(); }
    ~CRtMutexGuard() { m_mutex.UnLock(); }
    CRtMutexGuard(const CRtMutexGuard&) = delete;
    CRtMutexGuard& operator=(const CRtMutexGuard&) = delete;

private:
    CRtMutexBase& m_mutex;
};
/// @}
