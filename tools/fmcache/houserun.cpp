#include "houserun.h"

#include <atomic>
#include <chrono>

#include "failure.h"
#include "platform.h"
#include "progress.h"
#include "session.h"

namespace {

// The time of day is real, as ages are counted with it; the tick count can be moved forward.
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
    std::atomic<uint64_t> m_ahead{0}; // every thread asks
};

// Waits until the read/write thread has done what was queued for it. No call says so, but one file that
// is created over another of the same identifier, which somebody still holds, waits for what that one
// may have queued. Files without blocks leave no trace on disk.
class Barrier {
public:
    explicit Barrier(Session& session) : m_session(session) {
        CoCreateFMFileID(m_info.fileID);
        m_info.blockBeg = 1;
        Pass();
    }
    ~Barrier() {
        m_file.Reset();
        m_session.Manager().DetachFile(m_info.fileID);
    }
    Barrier(const Barrier&) = delete;
    Barrier& operator=(const Barrier&) = delete;

    void Pass() {
        IFMFile* file = nullptr;
        Require(m_session.Manager().CreateFile(file, m_info), "housekeeping cannot be waited for");
        m_file = FileRef::Adopt(file);
    }

private:
    Session& m_session;
    FMFileInfo m_info;
    FileRef m_file;
};

} // namespace

// A run is a chain of events on the read/write thread: each looks at one data file and queues the next
// one behind whatever waits. So each time that the barrier is passed the chain has come one data file
// further, or was at its end. One time more is for the event that begins it, one for the event that
// finds nothing left.
void RunHousekeeping(const std::filesystem::path& dir, uint16_t days, uint64_t dataFiles) {
    constexpr uint64_t firstTickMs = 60'001;
    MovableClock clock;
    Session session(dir, days);
    Barrier barrier(session);
    CheckStop();
    clock.Advance(firstTickMs);
    session.Pump(); // the tick, which queues the first event
    Progress progress("housekeeping", dataFiles, Progress::Unit::Files);
    for (uint64_t i = 0; i < dataFiles + 2; ++i) {
        CheckStop();
        barrier.Pass();
        session.Pump();
        progress.Add(i < dataFiles ? 1 : 0);
    }
}
