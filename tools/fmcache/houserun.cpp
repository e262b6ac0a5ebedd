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

// Waits until the read/write thread has run everything queued so far. The interface has no call for this.
// But CreateFile waits for that queue if an object with the same identifier exists, so each pass creates
// such a file again while the last one is still referenced. Files without blocks create nothing on disk.
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
        Require(m_session.Manager().CreateFile(file, m_info), "cannot wait for housekeeping");
        m_file = FileRef::Adopt(file);
    }

private:
    Session& m_session;
    FMFileInfo m_info;
    FileRef m_file;
};

} // namespace

// A run is a chain of events on the read/write thread: each examines one data file and posts the next one.
// So after each pass of the barrier at least one more data file has been examined. Two more passes are for
// the first event and for the one that finds no more files.
void RunHousekeeping(const std::filesystem::path& dir, uint16_t days, uint64_t dataFiles) {
    constexpr uint64_t firstTickMs = 60'001;
    MovableClock clock;
    Session session(dir, days);
    Barrier barrier(session);
    CheckStop();
    clock.Advance(firstTickMs);
    session.Pump(); // fires the tick, which posts the first event
    Progress progress("housekeeping", dataFiles, Progress::Unit::Files);
    for (uint64_t i = 0; i < dataFiles + 2; ++i) {
        CheckStop();
        barrier.Pass();
        session.Pump();
        progress.Add(i < dataFiles ? 1 : 0);
    }
}
