// Clean-up at process end: first what is still queued for the threads runs, then the enrolled objects
// are destroyed, the youngest first.
#pragma once

#include "RtExport.h"

/// Base of an object made with new that lives until process end. The constructor enrols it.
class RT_EXPORT CRtCleanUpBase {
public:
    CRtCleanUpBase(const CRtCleanUpBase&) = delete;
    CRtCleanUpBase& operator=(const CRtCleanUpBase&) = delete;

    /// Called once, at process end, on the thread that ends the process. The default deletes the object.
    virtual void CleanUp();

protected:
    CRtCleanUpBase();
    virtual ~CRtCleanUpBase();
};
