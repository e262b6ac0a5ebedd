#include "RtCleanUp.h"

#include <mutex>
#include <vector>

#include "RtThreadManager.h"
#include "os/RtOs.h"

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

class CRtProcessEnd {
public:
    static int Run() {
        if (!CRtThreadManager::Instance()->EndAllThreads())
            return 0; // a thread that still runs may use any of them
        while (CRtCleanUpBase* object = TakeYoungest())
            object->CleanUp();
        return 0;
    }
};

// The library's static objects are made before the program's and destroyed after them, so this is the
// last thing of the library that runs.
[[maybe_unused]] const bool g_isEnrolled = RtOs::AtProcessEnd(&CRtProcessEnd::Run);
