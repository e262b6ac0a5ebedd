// CRtMutexBase: a recursive mutex whose operations answer a result code.
#pragma once

#include <mutex>
#include <system_error>

#include "RtResult.h"

class CRtMutexBase {
public:
    /// 0 when the lock is held now.
    int Lock() {
        try {
            m_mutex.lock();
        } catch (const std::system_error&) {
            return RT_ERROR_FAILURE;
        }
        return RT_OK;
    }
    int UnLock() {
        m_mutex.unlock();
        return RT_OK;
    }

private:
    std::recursive_mutex m_mutex;
};
