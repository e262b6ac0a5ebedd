#include "RtCleanUp.h"

#include <mutex>
#include <vector>

#include "RtThreadManager.h"

namespace {

struct Enrolled {
    std::mutex mutex;
    std::vector<CRtCleanUpBase*> objects;
};

Enrolled& List() {
    static Enrolled* list = new Enrolled; // outlives every static object
    return *list;
}

CRtCleanUpBase* TakeYoungest() {
    const std::lock_guard lock(List().mutex);
    if (List().objects.empty())
        return nullptr;
    CRtCleanUpBase* object = List().objects.back();
    List().objects.pop_back();
    return object;
}

} // namespace

CRtCleanUpBase::CRtCleanUpBase() {
    const std::lock_guard lock(List().mutex);
    List().objects.push_back(this);
}

CRtCleanUpBase::~CRtCleanUpBase() {
    const std::lock_guard lock(List().mutex);
    std::erase(List().objects, this);
}

void CRtCleanUpBase::CleanUp() { delete this; }

// The library's static objects are made before the program's and destroyed after them, so this is the
// last thing of the library that runs, also when it is unloaded.
class CRtProcessEnd {
public:
    CRtProcessEnd() = default;
    CRtProcessEnd(const CRtProcessEnd&) = delete;
    CRtProcessEnd& operator=(const CRtProcessEnd&) = delete;
    ~CRtProcessEnd() {
        if (!CRtThreadManager::Instance()->EndAllThreads())
            return; // a thread that still runs may use any of them
        while (CRtCleanUpBase* object = TakeYoungest())
            object->CleanUp();
    }
};

namespace {
CRtProcessEnd g_processEnd;
}
