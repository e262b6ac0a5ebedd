// The world of the simulator: the library on a cache directory, and the model of what it must do.
#pragma once

#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "FMDurability.h"
#include "testing/faults.h"
#include "testing/kit.h"
#include "testing/simulator.h"

namespace sim {

constexpr uint32_t FILES = 4;
constexpr uint32_t BLOCKS = 6; // identifiers start at 1
constexpr size_t CALLS = 29;   // in the table of calls
constexpr size_t STEPS_MAX = 60;
constexpr int LINES_MAX = 200; // of a step
constexpr int64_t TICK_MS = 60'001;
constexpr int64_t IDLE_MS = 300'000;
constexpr int64_t DAY_MS = 86'400'000;

// --- The model ----------------------------------------------------------------------------------

struct Block {
    uint32_t length = 0;
    std::string bytes;      // the pieces that were accepted
    uint32_t version = 0;   // not 0: complete
    bool isLost = false;    // another program has changed the data file: a read may fail
    bool isUnsaved = false; // since the last flush
};

/// The versions of complete blocks.
using Saved = std::map<uint32_t, uint32_t>;

struct File {
    FMFileID id;
    FileRef ref; // while it is open
    int attached = 0;
    uint32_t flag = 0;
    uint32_t generation = 0;  // changes with each creation
    bool isChanged = false;   // since it was created, loaded or saved
    bool isHarmed = false;    // another program has changed the files since they were opened
    bool isRewritten = false; // harmed: the library may take it for the file of another server
    bool isParked = false;    // its streams were closed while it was open
    bool hasGap = false;      // a complete block was rewritten or removed
    bool isDisplaced = false; // housekeeping may skip the path because of a displaced object
    bool isForeign = false;   // it has replaced the data file by one of the same length
    int64_t created = 0;      // seconds since 1970
    int lock = -1;            // another server has the file open: a descriptor that holds its lock
    std::map<uint32_t, Block> table;

    // --- On disk
    std::optional<Saved> disk; // exactly what a load finds, if isKnown; null: it does not load
    bool isKnown = true;
    Saved promised; // what a load finds in any case
    // Closed: becomes `disk` when all events have run without a fault; null as above.
    std::optional<std::optional<Saved>> saving;
    Saved
        rescued; // closed: what a load finds after that, although another program removed the files
    Saved stored; // closed: in the data file, although the table may not be written yet
    Saved
        retried; // as `stored`, after the table could not be written: the library keeps it and retries
    bool isSettled = true; // closed, and all events have run since
    uint32_t diskGeneration = 0;
};

struct Version {
    uint32_t generation;
    std::string bytes;
};

// Runs one program.
class World {
public:
    World(const Program& program, bool isThreaded, std::string* trace, bool isLogTraced)
        : m_program(program), m_isThreaded(isThreaded), m_isLogTraced(isLogTraced), m_trace(trace) {
        // Housekeeping is due at the first tick, whatever ran in this process before.
        static int64_t seconds = 1'000'000'000;
        m_clock.seconds = seconds =
            seconds < 3'000'000'000 ? seconds + 400 * DAY_MS / 1000 : 1'000'000'000;
        std::error_code ignored;
        fs::remove_all(m_cache.dir.path / "sdstore", ignored);
        for (uint32_t i = 0; i < FILES; ++i)
            m_files[i].id = {i + 1, 0x51D, 0, {1, 2, 3, 4, 5, 6, 7, 8}};
        if (!isThreaded)
            RtSetLogSink(&World::TakeLine, this, isLogTraced ? RT_LOG_TRACE : RT_LOG_WARNING);
        Start(7);
    }
    ~World() {
        RtSetLogSink(nullptr, nullptr, RT_LOG_SILENT);
        for (Wait& wait : m_waits) { // after a violation
            if (!wait.isOver)
                wait.Cancel();
        }
    }
    World(const World&) = delete;
    World& operator=(const World&) = delete;
    // Runs the program. Returns the first violated expectation.
    std::string Run();

private:
    struct Held {
        BlockRef block;
        bool isOpen = true;    // its file is open, and the block is in the table
        bool isClosed = false; // its file was closed
        bool isLost = false;   // another program has changed the files, or the manager was stopped
    };
    class Wait final : public IFMBlockSink {
    public:
        Wait(World& world, std::shared_ptr<Held> held)
            : m_world(world), m_held(std::move(held)), m_faults(world.m_faults),
              m_version(world.VersionOf(*m_held)) {}
        void OnBlockDataReady(IFMBlock* block, int result) override {
            m_world.Require(block == m_held->block.Get(), "the sink gets its block");
            m_world.Require(!isOver, "the sink is called once and not after a cancel");
            isOver = true;
            m_world.CheckCompletion(*m_held, result, m_faults, m_version);
            m_world.RunStepInSink();
        }
        void Cancel() {
            isOver = true;
            m_world.Require(m_held->block->CancelReadData(this) == RT_OK, "a cancel succeeds");
        }
        const std::shared_ptr<Held>& GetHeld() const { return m_held; }
        bool isOver = false;

    private:
        World& m_world;
        const std::shared_ptr<Held> m_held;
        const uint32_t m_faults;
        const uint32_t m_version; // at the request
    };

    // --- Expectations
    void End();
    bool Require(bool holds, const std::string& what);
    static void TakeLine(void* self, int level, const char* text);
    bool IsFaulty() const;
    void Trace(const std::string& text);
    static std::string Name(const File& file, uint32_t block) {
        return "block " + std::to_string(block) + " of file " + std::to_string(file.id.Data1);
    }

    // --- Steps
    void RunStep();
    void RunStepInSink();
    void Call(const Step& step);
    static bool Down() { return CRtEventQueue::Stepped() && CRtEventQueue::Stepped()->Step(); }
    bool Up();
    void Settle();
    void TableWritten(File& file);
    static void TableFailed(File& file);
    void CheckFigures();
    void CheckCondition(const File& file, uint32_t id, const Block& model);
    static void SetDisk(File& file, std::optional<Saved> saved);
    static void ForgetDisk(File& file);

    // --- Faults, and other programs
    void BeginFault(const Step& step);
    void EndFault();
    void Die();
    void Harm(File& file, uint32_t how);
    static void Overwrite(const fs::path& path, size_t at, const std::string& bytes);
    void Harmed(File& file, bool isRewritten);
    void LockStep(const Step&, File& file);
    static int OpenElsewhere(const fs::path& path, int flags);
    void Unlock(File& file);
    void CheckLocks();

    // --- Calls of the manager
    void Start(uint16_t days);
    void ForgetFiles();
    void Stop();
    void Restart(uint16_t days);
    void RestartStep(const Step& step, File&);
    void Tick(const Step& step, File&);
    void KeepHouse(const Step& step, File&);
    bool IsReferenced(const File& file) const;
    bool IsExpired(const File& file) const;
    static bool IsRemovalPending(const File& file) {
        return !file.isSettled && (file.flag & FM_FILE_TEMPORARY) != 0;
    }
    void Foreign(const Step& step, File& file);
    void BeginFlush();
    void FlushLater(const Step& step, File&);
    bool PromiseSurvivor(File& file, uint32_t id, const Block& model);
    void Flush(const Step& step, File&);
    void Flushed(File& file, int result);
    static void NoteTable(File& file);
    bool IsAnyHarmed() const;
    bool IsAnyLost() const;
    bool IsCurrent(const FMUnsavedBlock& block, const std::map<FMFileID, Saved>& then) const;
    void Burst(const Step&, File&);
    void Rest(const Step& step, File& file);
    void EvictDisplaced(const Held& held);
    void Look(const Step& step, File& file);
    void List();
    void Describe(File& file);
    void Settled(File& file);

    // --- Files
    static Saved Versions(const File& file);
    void CreateStep(const Step& step, File& file);
    void OpenStep(const Step&, File& file);
    bool Load(File& file);
    void Restore(File& file);
    void Identify(File& file, uint32_t id, IFMBlock& block, Block& model, uint32_t& generation);
    std::vector<Version>& History(const File& file, uint32_t id) {
        return m_history[{file.id.Data1, id}];
    }
    void Attach(const Step&, File& file);
    void CloseStep(const Step&, File& file) { Close(file); }
    void Close(File& file);
    void Closed(File& file);
    Saved StoredBlocks(const File& file) const;
    void NoteResident(File& file);
    void ForEachHeld(const File& file, const std::function<void(Held&)>& change);
    void Leave(File& file);

    // --- Blocks
    static uint32_t PickID(const Step& step) { return step.block % BLOCKS + 1; }
    BlockRef Find(const Step& step, File& file);
    void Write(const Step& step, File& file);
    static uint32_t LengthOf(const Step& step) {
        return step.size % 64 == 0 ? 70'000U + step.size : 8U + step.size % 3000;
    }
    void BeginWrite(File& file, uint32_t id);
    void Remove(const Step& step, File& file);
    void Read(const Step& step, File& file);
    void CheckRead(const File& file, uint32_t id, const Block& model, uint32_t from,
                   uint32_t length, int result);
    void CheckBlock(File& file, uint32_t id);

    // --- Blocks that are referenced, and asynchronous reads
    std::shared_ptr<Held> Keep(const Step& step, File& file);
    void Hold(const Step& step, File& file);
    void ReadHeld(const Step& step);
    void CheckHeld(const Held& held, const std::string& bytes);
    void Ask(const Step& step, File& file);
    uint32_t VersionOf(const Held& held) const;
    void CheckCompletion(const Held& held, int result, uint32_t faults, uint32_t version);
    std::string NameOf(const Held& held) const {
        return Name(m_files[held.block->GetFileID().Data1 - 1], held.block->GetBlockID());
    }
    void Cancel(const Step& step, File&);

    const Program& m_program;
    const bool m_isThreaded;
    const bool m_isLogTraced;
    std::string* const m_trace;
    size_t m_next = 0;
    int m_depth = 0;
    faults::Action m_action = faults::NOTHING;
    uint32_t m_faults = 0; // steps in which a system call has failed
    std::string m_violation;
    int m_lines = 0; // log lines of this step
    uint32_t m_generation = 0;
    uint16_t m_days = 7;
    bool m_isRunning = false;
    int m_questions = 0; // callbacks that were asked for
    int m_answers = 0;
    int m_storeLock = -1; // another server's
    std::map<std::pair<uint32_t, uint32_t>, std::vector<Version>> m_history;
    TestClock m_clock;
    Cache m_cache{Directory(), false};
    File m_files[FILES];
    std::vector<std::shared_ptr<Held>> m_held;
    std::list<Wait> m_waits;
    static fs::path Directory() {
        static const TempDir dir; // the manager keeps its directory until process end
        return dir.path;
    }
};

} // namespace sim
