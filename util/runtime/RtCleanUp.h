/// @addtogroup runtime
/// @{
#pragma once

#include "RtExport.h"

/// Base of objects that are allocated with `new` and destroyed at process end. The constructor registers the
/// object. At process end, everything that is queued on the threads runs first; then the registered objects
/// are cleaned up, the latest first. If a thread cannot be stopped, the process ends without that.
class RT_EXPORT CRtCleanUpBase {
public:
    CRtCleanUpBase(const CRtCleanUpBase&) = delete;
    CRtCleanUpBase& operator=(const CRtCleanUpBase&) = delete;

    /// Called once, on the thread that ends the process. The default deletes the object.
    virtual void CleanUp();

protected:
    /// Registers the object; its destructor removes it from the list.
    CRtCleanUpBase();
    virtual ~CRtCleanUpBase();
};
/// @}
