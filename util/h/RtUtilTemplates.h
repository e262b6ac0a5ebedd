/// @addtogroup runtime
/// @{
#pragma once

#include <atomic>
#include <new>

#include "RtCleanUp.h"
#include "RtLog.h"
#include "RtThreadManager.h"

/// Holder of a singleton of the process. The first call of Instance creates the object, under the runtime's
/// singleton mutex (CRtThreadManager::GetSingletonMutex). That mutex guards the list of threads, too: the constructor
/// must not wait for another thread. The clean-up at process end destroys it
/// (CRtCleanUpBase).
template <class T>
class CRtSingletonHolder final : public CRtCleanUpBase {
public:
    /// Returns the object. Thread-safe. Null if out of memory.
    static T* Instance() {
        if (auto* holder = s_pInstance.load(std::memory_order_acquire))
            return &holder->m_object;
        CRtMutexBase* mutex = CRtThreadManager::Instance()->GetSingletonMutex();
        if (mutex) {
            const bool locked = mutex->Lock() == RT_OK;
            if (!s_pInstance.load(std::memory_order_relaxed))
                s_pInstance.store(new (std::nothrow) CRtSingletonHolder, std::memory_order_release);
            if (locked)
                mutex->UnLock();
        }
        CRtSingletonHolder* made = s_pInstance.load(std::memory_order_acquire);
        if (!RT_CHECK("util/h/RtUtilTemplates", made, "s_pInstance"))
            return nullptr;
        return &made->m_object;
    }

private:
    CRtSingletonHolder() = default;
    ~CRtSingletonHolder() override { s_pInstance.store(nullptr, std::memory_order_release); }

    T m_object;
    inline static std::atomic<CRtSingletonHolder*> s_pInstance{nullptr};
};
/// @}
