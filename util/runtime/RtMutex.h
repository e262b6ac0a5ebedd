/// @addtogroup runtime
/// @{
#pragma once

#include <mutex>
#include <system_error>

#include "RtResult.h"

/// A recursive mutex whose operations return result codes.
class CRtMutexBase {
public:
    /// Locks the mutex; waits until it is free.
    /// @retval RT_OK
    /// @retval RT_ERROR_FAILURE the system reported an error; the mutex is not locked.
    int Lock() {
        try {
            m_mutex.lock();
        } catch (const std::system_error&) {
            return RT_ERROR_FAILURE;
        }
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
/// @}
