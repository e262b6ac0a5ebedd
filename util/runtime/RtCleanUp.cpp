#include "RtCleanUp.h"

#include <vector>

#include "RtThreadManager.h"
#include "os/RtOs.h"

namespace {

// Guards the list. Recursive: a singleton registers while its creator holds this mutex.
CRtMutexBase& Mutex() { return *CRtThreadManager::Instance()->GetSingletonMutex(); }

std::vector<CRtCleanUpBase*>& Enrolled() {
    static auto* objects = new std::vector<CRtCleanUpBase*>; // outlives every static object
    return *objects;
}

CRtCleanUpBase* TakeYoungest() {
    const CRtMutexGuard lock(Mutex());
    if (Enrolled().empty())
        return nullptr;
    CRtCleanUpBase* object = Enrolled().back();
    Enrolled().pop_back();
    return object;
}

} // namespace

CRtCleanUpBase::CRtCleanUpBase() {
    const CRtMutexGuard lock(Mutex());
    Enrolled().push_back(this);
}

CRtCleanUpBase::~CRtCleanUpBase() {
    const CRtMutexGuard lock(Mutex());
    std::erase(Enrolled(), this);
}

void CRtCleanUpBase::CleanUp() { delete this; }

class CRtProcessEnd {
public:
    static int Run() {
        if (!CRtThreadManager::Instance()->EndAllThreads())
            return 0; // a running thread may still use the objects
        while (CRtCleanUpBase* object = TakeYoungest())
            object->CleanUp();
        return 0;
    }
};

// The static objects of the library are constructed before those of the program and destroyed after them, so
// this is the last function of the library that runs.
[[maybe_unused]] const bool g_isEnrolled = RtOs::AtProcessEnd(&CRtProcessEnd::Run);
