#include "log.h"

#include <cstdio>
#include <mutex>

#include "RtLog.h"

namespace {

struct LogKeeper {
    bool show = false;
    std::mutex mutex; // lines come from any thread
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

// Lines may come later than static objects live.
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

std::string LogCause() {
    const std::lock_guard lock(Keeper().mutex);
    if (Keeper().lastError.empty())
        return "";
    // The address of the object that has written the line tells a user nothing.
    return " (" + Keeper().lastError.substr(0, Keeper().lastError.rfind(" this=")) + ")";
}
