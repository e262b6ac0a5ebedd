#include "houserun.h"

#include "FMCatalog.h"
#include "platform.h"
#include "progress.h"
#include "session.h"

// A run is a chain of events: each one examines one data file and posts the next one. Without a time to
// wait, FMWaitUntilIdle runs the events that are queued, which is one of this chain.
void RunHousekeeping(const std::filesystem::path& dir, uint16_t days, uint64_t dataFiles) {
    const Session session(dir, days);
    CheckStop();
    Require(FMStartHousekeeping(), "cannot start housekeeping");
    Progress progress("housekeeping", dataFiles, Progress::Unit::Files);
    uint64_t examined = 0;
    while (FMWaitUntilIdle(0) == RT_ERROR_NOT_READY) {
        CheckStop();
        progress.Add(examined++ < dataFiles ? 1 : 0);
    }
}
