#include "log.h"

#include <cstdio>
#include <mutex>
#include <regex>

#include "RtLog.h"

namespace {

struct LogKeeper {
    bool show = false;
    std::mutex mutex; // lines come from all threads
    std::string lastError;

    static void Take(void* context, int level, const char* text) {
        auto* self = static_cast<LogKeeper*>(context);
        if (self->show)
            std::fprintf(stderr, "%s\n", text);
        if (level != RT_LOG_ERROR)
            return;
        const std::lock_guard lock(self->mutex);
        self->lastError = text;
    }
};

// Never destroyed: lines come until process end, after static objects are destroyed.
LogKeeper& Keeper() {
    static LogKeeper* keeper = new LogKeeper;
    return *keeper;
}

} // namespace

void KeepLog(bool show) {
    Keeper().show = show;
    RtSetLogSink(&LogKeeper::Take, &Keeper(), RT_LOG_WARNING);
}

bool IsLogShown() { return Keeper().show; }

// The library writes an error number as its symbolic name and its text: "ENOSPC (No space left on device)".
std::string LogCause() {
    const std::lock_guard lock(Keeper().mutex);
    static const std::regex pattern("\\bE[A-Z0-9]+ \\(([^)]+)\\)");
    std::smatch found;
    return std::regex_search(Keeper().lastError, found, pattern) ? ": " + found[1].str() : "";
}
