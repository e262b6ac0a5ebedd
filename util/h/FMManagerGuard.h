/// @addtogroup manager
/// @{
#pragma once

#include "IFileManager.h"

/// Runs the file manager of this process for one scope: the constructor calls IFileManager::Initialize, the
/// destructor IFileManager::UnInitialize, which closes the files and writes them. Failures are in the log only:
/// call FMFlush before the end of the scope to get a result. Create and destroy the
/// guard on the caller thread; a CRtCallerThread has to outlive it. Only one guard may exist at a time.
class FMManagerGuard {
public:
    /// The arguments are those of IFileManager::Initialize.
    FMManagerGuard(const CRtString& dataDir, uint16_t clearDays, int isServer)
        : m_manager(IFileManager::Instance()) {
        if (m_manager)
            m_manager->Initialize(dataDir, clearDays, isServer);
    }
    ~FMManagerGuard() {
        if (m_manager)
            m_manager->UnInitialize();
    }
    FMManagerGuard(const FMManagerGuard&) = delete;
    FMManagerGuard& operator=(const FMManagerGuard&) = delete;

    bool IsValid() const {
        return m_manager != nullptr;
    } ///< false if Instance has returned null; the log says whether the directory could be created
    IFileManager* operator->() const { return m_manager; } ///< the manager
    IFileManager& operator*() const { return *m_manager; } ///< the manager

private:
    IFileManager* m_manager;
};
/// @}
