// Mistakes of the application. Each one is reported in a line that says what is wrong and what to do. In builds
// with assertions the process then stops in the debugger, if one is attached.
#pragma once

#include <cstdint>

#include "RtEventQueue.h"
#include "RtLog.h"
#include "os/RtOs.h"

/// Kinds of mistakes that are usually made in a loop: reported once between two calls of Initialize.
enum class FMMistake : uint32_t { WrongThread, NotInitialized, BlockLength };

class CFMMistakes {
public:
    /// True for the first mistake of this kind since Reset. Any thread.
    static bool IsFirst(FMMistake kind);
    static void Reset();
    /// Call it first in each operation that only the caller thread may call. `call`: the name of the operation.
    static void CheckThread([[maybe_unused]] const char* call) {
#ifndef FILEMANAGER_NO_THREAD_CHECK
        if (!CRtEventQueue::IsCallerThread())
            ReportThread(call);
#endif
    }
    static void StopInDebugger() {
#ifndef NDEBUG
        RtOs::BreakIntoDebugger();
#endif
    }

private:
    static void ReportThread(const char* call);
};

/// `items`: the operation, what is wrong, the remedy.
#define FM_REPORT_MISTAKE(items)                                                                   \
    do {                                                                                           \
        RT_LOG(RT_LOG_ERROR, items);                                                               \
        CFMMistakes::StopInDebugger();                                                             \
    } while (0)
