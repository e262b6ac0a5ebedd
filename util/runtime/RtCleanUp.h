/// @addtogroup runtime
/// @{
#pragma once

#include "RtExport.h"

/// Base class of objects that are allocated with `new` and destroyed at process end. The constructor
/// registers the object. At process end the runtime first runs all events that are queued on its threads, and
/// stops the threads. Then it calls CleanUp of the registered objects; the last one registered comes first.
/// If a thread cannot be stopped, the process ends without calling CleanUp. Thread-safe.
class RT_EXPORT CRtCleanUpBase {
public:
    CRtCleanUpBase(const CRtCleanUpBase&) = delete;
    CRtCleanUpBase& operator=(const CRtCleanUpBase&) = delete;

    /// Called once, on the thread that ends the process. The default implementation deletes the object.
    virtual void CleanUp();

protected:
    /// Registers the object. The destructor removes it from the list.
    CRtCleanUpBase();
    virtual ~CRtCleanUpBase();
};
/// @}
