#include "houserun.h"

#include <atomic>
#include <chrono>

#include "failure.h"
#include "platform.h"
#include "progress.h"
#include "session.h"

namespace {

// Advances the tick count, so that the timer fires without a wait. The time of day stays real: ages depend
// on it.
class MovableClock final : public IRtClock {
public:
    MovableClock() { RtSetClock(this); }
    ~MovableClock() override { RtSetClock(nullptr); }
    MovableClock(const MovableClock&) = delete;
    MovableClock& operator=(const MovableClock&) = delete;

    uint64_t TickCountMs() override { return Since(std::chrono::steady_clock::now()) + m_ahead; }
    CRtTimeValue TimeOfDay() override {
        const auto ms = static_cast<int64_t>(Since(std::chrono::system_clock::now()));
        return {ms / 1000, ms % 1000 * 1000};
    }
    void Advance(uint64_t ms) { m_ahead += ms; }

private:
    template <class Time>
    static uint64_t Since(Time time) {
        using std::chrono::milliseconds;
        return static_cast<uint64_t>(
            std::chrono::duration_cast<milliseconds>(time.time_since_epoch()).count());
    }
    std::atomic<uint64_t> m_ahead{0}; // read on every thread
};

} // namespace

// A run is a chain of events: each one examines one data file and posts the next one. Without a time to
// wait, FMWaitUntilIdle runs the events that are queued, which is one of this chain.
void RunHousekeeping(const std::filesystem::path& dir, uint16_t days, uint64_t dataFiles) {
    constexpr uint64_t firstTickMs = 60'001;
    MovableClock clock;
    Session session(dir, days);
    CheckStop();
    clock.Advance(firstTickMs);
    session.Pump(); // fires the tick, which posts the first event
    Progress progress("housekeeping", dataFiles, Progress::Unit::Files);
    uint64_t examined = 0;
    while (FMWaitUntilIdle(0) == RT_ERROR_NOT_READY) {
        CheckStop();
        progress.Add(examined++ < dataFiles ? 1 : 0);
    }
}
