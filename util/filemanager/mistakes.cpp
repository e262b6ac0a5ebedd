#include "mistakes.h"

#include <atomic>

#include "RtThreadManager.h"

namespace {
std::atomic<uint32_t> g_reported{0}; // one bit for each FMMistake
}

bool CFMMistakes::IsFirst(FMMistake kind) {
    const uint32_t bit = 1U << static_cast<uint32_t>(kind);
    return (g_reported.fetch_or(bit, std::memory_order_relaxed) & bit) == 0;
}

void CFMMistakes::Reset() { g_reported.store(0, std::memory_order_relaxed); }

void CFMMistakes::ReportThread(const char* call) {
    // Before the process has a caller thread, the manager is not initialized: CreateFile reports that.
    if (!CRtThreadManager::Instance()->HasCallerThread() || !IsFirst(FMMistake::WrongThread))
        return;
    FM_REPORT_MISTAKE(
        call << ", mistake: called on a thread that is not the caller thread. Call it on the "
                "thread that created CRtCallerThread, or through RtRunOnCallerThread. Further "
                "calls on wrong threads are not reported.");
}
