#include "testing/simulator.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <functional>
#include <iostream>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <random>

#include "FMCatalog.h"
#include "FMDurability.h"
#include "FMStatistics.h"
#include "testing/faults.h"
#include "testing/kit.h"
#include "util/filemanager/filemanager.h"

namespace sim {

namespace {

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
    std::string bytes;    // the pieces that were accepted
    uint32_t version = 0; // not 0: complete
    bool isLost = false;  // another program has changed the data file: a read may fail
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
    bool isRewritten = false; // harmed, but not only by a removal of the data file
    bool isDisplaced = false; // housekeeping may skip the path because of a displaced object
    bool isForeign = false;   // it has replaced the data file by one of the same length
    int lock = -1;            // another server has the file open: a descriptor that holds its lock
    std::map<uint32_t, Block> table;

    // --- On disk
    std::optional<Saved> disk; // exactly what a load finds, if isKnown; null: it does not load
    bool isKnown = true;
    Saved promised; // what a load finds in any case
    // Closed: becomes `disk` when all events have run without a fault; null as above.
    std::optional<std::optional<Saved>> saving;
    Saved
        rescued; // closed: what must be found after that in any case, although another program has changed the files
    bool isSettled = true; // closed, and all events have run since
    uint32_t diskGeneration = 0;
};

struct Version {
    uint32_t generation;
    std::string bytes;
};

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
    ~World() { RtSetLogSink(nullptr, nullptr, RT_LOG_SILENT); }
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    // Returns the first violated expectation.
    std::string Run() {
        while (m_next < m_program.size() && m_violation.empty())
            RunStep();
        if (m_violation.empty())
            End();
        return m_violation;
    }

private:
    struct Held {
        BlockRef block;
        bool isOpen = true; // its file is open, and the block is in the table
    };

    void End() {
        BeginFault({});
        Settle();
        for (File& file : m_files) {
            Unlock(file);
            for (const auto& [id, block] : file.table)
                CheckBlock(file, id);
        }
        Restart(7);
        for (File& file : m_files) {
            if (Load(file))
                Close(file);
            Settle();
        }
        m_waits.clear();
        m_held.clear();
        Stop();
        Require(g_counters.filesCreated == g_counters.filesDestroyed, "every file is released");
        Require(g_counters.blocksCreated == g_counters.blocksDestroyed, "every block is released");
        Require(CFileManager::Instance()->GetMemoryInUse() == 0, "no memory is in use");
        Require(m_answers == m_questions, "every callback is called once");
    }

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

    // --- Expectations ---------------------------------------------------------------------------

    // After the simulated kill the process continues until the step ends; violations in that time are ignored.
    bool Require(bool holds, const std::string& what) {
        if (!holds && !faults::IsFrozen() && m_violation.empty())
            m_violation = "step " + std::to_string(m_next) + ": " + what;
        return holds;
    }
    static void TakeLine(void* self, int level, const char* text) {
        World& world = *static_cast<World*>(self);
        const std::string_view line(text);
        const std::string_view stable = line.substr(0, line.find(" this="));
        if (world.m_isLogTraced)
            world.Trace("    " + std::string(stable) + "\n");
        world.m_lines += level <= RT_LOG_WARNING ? 1 : 0;
        world.Require(world.m_lines < LINES_MAX, "a step writes few log lines");
        world.Require(std::ranges::none_of(line, [](char each) { return each >= 0 && each < ' '; }),
                      "a log line does not control the terminal");
    }
    // Whether a system call of this step has failed.
    bool IsFaulty() const { return faults::Hits() > 0 && m_action != faults::CALL; }
    void Trace(const std::string& text) {
        if (m_trace)
            *m_trace += text;
    }

    static std::string Name(const File& file, uint32_t block) {
        return "block " + std::to_string(block) + " of file " + std::to_string(file.id.Data1);
    }

    // --- Steps ----------------------------------------------------------------------------------

    void RunStep() {
        const Step step = m_program[m_next++];
        const bool isOuter = m_depth == 0;
        m_lines = 0;
        if (isOuter)
            BeginFault(step);
        Call(step);
        if (!isOuter)
            return;
        if (step.up == 255)
            Settle();
        for (uint32_t i = 0; i < step.down % 8; ++i)
            Down();
        for (uint32_t i = 0; i < step.up % 8; ++i)
            Up();
        EndFault();
    }

    void RunStepInSink() {
        if (faults::IsFrozen() || !m_isRunning || m_depth > 1 || m_next >= m_program.size() ||
            m_program[m_next].how % 3 != 0)
            return;
        ++m_depth;
        RunStep();
        --m_depth;
    }

    void Call(const Step& step) {
        using W = World;
        static constexpr struct {
            const char* name;
            void (W::*call)(const Step&, File&);
        } calls[] = {{"write", &W::Write},
                     {"write", &W::Write},
                     {"write", &W::Write},
                     {"write", &W::Write},
                     {"write", &W::Write},
                     {"read", &W::Read},
                     {"read", &W::Read},
                     {"ask", &W::Ask},
                     {"ask", &W::Ask},
                     {"create", &W::CreateStep},
                     {"open", &W::OpenStep},
                     {"open", &W::OpenStep},
                     {"close", &W::CloseStep},
                     {"close", &W::CloseStep},
                     {"cancel", &W::Cancel},
                     {"remove", &W::Remove},
                     {"tick", &W::Tick},
                     {"tick", &W::Tick},
                     {"flush", &W::Flush},
                     {"flush later", &W::FlushLater},
                     {"evict", &W::Evict},
                     {"park", &W::Park},
                     {"describe", &W::Describe},
                     {"lock", &W::LockStep},
                     {"hold", &W::Hold},
                     {"attach", &W::Attach},
                     {"restart", &W::RestartStep},
                     {"housekeep", &W::KeepHouse},
                     {"foreign", &W::Foreign}};
        static_assert(std::size(calls) == CALLS);
        const auto& entry = calls[step.call % CALLS];
        File& file = m_files[step.file % FILES];
        Trace(std::to_string(m_next) + " " + entry.name + " " + std::to_string(file.id.Data1) +
              "/" + std::to_string(step.block % BLOCKS + 1));
        (this->*entry.call)(step, file);
        Trace("\n");
    }

    static bool Down() { return CRtEventQueue::Stepped() && CRtEventQueue::Stepped()->Step(); }
    bool Up() {
        if (m_depth > 0)
            return false;
        return m_isThreaded ? m_cache.thread.RunDue() > 0 : CRtEventQueue::Current()->Step();
    }

    void Settle() {
        if (m_depth > 0)
            return;
        while (Down() || Up()) {
        }
        if (m_isThreaded)
            FMWaitUntilIdle();
        for (File& file : m_files) {
            if (file.ref || file.isSettled)
                continue;
            file.isSettled = true;
            TableWritten(file);
        }
        if (!m_isThreaded && !faults::IsFrozen())
            CheckFigures();
    }

    // The events that save a closed file have run.
    void TableWritten(File& file) {
        const Saved rescued = std::move(file.rescued);
        if (file.saving && !IsFaulty())
            SetDisk(file, std::move(*file.saving));
        else if (file.saving)
            ForgetDisk(file);
        if (!rescued.empty() && !IsFaulty())
            file.promised = rescued;
        file.saving.reset();
    }

    // Both threads are idle.
    void CheckFigures() {
        FMStatistics figures;
        FMGetStatistics(figures);
        Require(figures.pendingBlocks == 0 && figures.pendingBytes == 0, "no store is pending");
        const auto isOpen = [](const File& file) { return static_cast<bool>(file.ref); };
        Require(static_cast<std::ptrdiff_t>(figures.openFiles) ==
                    std::ranges::count_if(m_files, isOpen),
                "open files are counted");
        if (m_faults > 0 || IsFaulty())
            return;
        for (const File& file : m_files) {
            for (const auto& [id, block] : file.table)
                CheckCondition(file, id, block);
        }
    }

    void CheckCondition(const File& file, uint32_t id, const Block& model) {
        const BlockRef block = Cache::Block(*file.ref, id, 0);
        if (file.isHarmed || file.isDisplaced || model.isLost || !block)
            return;
        const FMBlockStatus status = FMGetBlockStatus(*block);
        Require((status.condition == FMBlockCondition::Stored) == (model.version != 0),
                Name(file, id) + " is stored");
        Require(status.isResident || model.bytes.empty() || model.version != 0,
                Name(file, id) + " is stored before it is released");
    }

    static void SetDisk(File& file, std::optional<Saved> saved) {
        if (faults::IsFrozen()) // whether it was written before the kill is unknown
            return ForgetDisk(file);
        file.isKnown = true;
        file.isForeign = file.isForeign && saved && file.generation == file.diskGeneration;
        file.promised.clear();
        if (saved)
            file.promised = *saved;
        file.disk = std::move(saved);
        file.diskGeneration = file.generation;
    }

    static void ForgetDisk(File& file) {
        file.isKnown = false;
        file.promised.clear();
        file.saving.reset();
        file.rescued.clear();
    }

    // --- Faults ---------------------------------------------------------------------------------

    void BeginFault(const Step& step) {
        using namespace faults;
        if (m_isThreaded) // the other thread reads the plan
            return;
        Plan plan;
        plan.nth = step.at % 24 + 1;
        switch (step.fault % 32) {
        case 1:
            plan = {FAIL, ANY_OPERATION, plan.nth, false, ENOSPC, 0};
            break;
        case 2:
            plan = {FAIL, WRITE, plan.nth, true, ENOSPC, 0};
            break;
        case 3:
            plan = {HALF, WRITE, step.at % 6U + 1, true, ENOSPC, 0};
            break;
        case 4:
            plan = {FAIL, OPEN, step.at % 6U + 1, true, EMFILE, 0};
            break;
        case 5:
            plan = {FAIL, READ, step.at % 4U + 1, false, EIO, 0};
            break;
        case 6:
            plan.action = FREEZE_BEFORE;
            break;
        case 7:
            plan.action = FREEZE_HALFWAY;
            break;
        case 8:
            plan.action = FREEZE_AFTER;
            break;
        case 9:
            plan = {FREEZE_HALFWAY, WRITE, step.at % 6U + 1, false, 0, 0};
            break;
        case 10: { // another program changes the files at that moment
            plan.action = CALL;
            File& file = m_files[step.how % FILES];
            SetCallback([this, &file, how = step.at] {
                // Not a truncation: a store that has just checked the length cannot notice it.
                Harm(file, how % 8 == 0 ? 1 : how);
            });
            break;
        }
        case 11:
            plan.action = CALL;
            SetCallback([this] { m_clock.Advance(2000); });
            break;
        default:
            break;
        }
        m_action = plan.action;
        Begin(m_cache.dir.path, plan);
    }

    void EndFault() {
        if (faults::Hits() > 0)
            Trace(std::string("  fault at ") + faults::FirstHit() + "\n");
        faults::Lift();
        if (!IsFaulty())
            return;
        ++m_faults;
        if (faults::IsFrozen())
            return Die();
        for (File& file : m_files) {
            if (!file.ref && !file.isSettled)
                ForgetDisk(file);
        }
    }

    // The process is killed: the rest of its work has changed nothing on disk.
    void Die() {
        Trace("  killed\n");
        for (File& file : m_files) {
            if (file.ref || !file.isSettled)
                file.isKnown = file.isKnown && !file.isChanged && !file.saving && !file.isHarmed;
            Leave(file);
            file.saving.reset();
            file.isSettled = true;
        }
        m_cache.Stop();
        while (Up()) {
        }
        m_waits.clear();
        m_held.clear();
        m_answers = m_questions;
        faults::Thaw();
        Start(7);
    }

    // Another program changes the pair of files.
    void Harm(File& file, uint32_t how) {
        const fs::path data = m_cache.Path(file.id, ".sdd");
        const fs::path info = m_cache.Path(file.id, ".sdi");
        std::error_code ignored;
        const uint64_t length = fs::file_size(data, ignored);
        if (ignored)
            return;
        Trace("  harmed " + std::to_string(file.id.Data1));
        Unlock(file);
        switch (how % 8) {
        case 0:
            fs::resize_file(data, length / 2, ignored);
            break;
        case 1:
            fs::remove(data, ignored);
            break;
        case 2: // replaced by a file of the same length
            fs::remove(data, ignored);
            WriteFile(data, Pattern(how, length));
            file.isForeign = true;
            break;
        case 3:
            fs::remove(data, ignored);
            fs::remove(info, ignored);
            break;
        case 4: // a magic that would control a terminal
            Overwrite(info, 0, "\x1b[2J");
            break;
        case 5: { // a table that announces more entries than it has
            const std::string bytes = ReadFile(info);
            if (bytes.size() > FM_INFO_BODY_OFFSET)
                Overwrite(info,
                          FM_INFO_BODY_OFFSET + FM_INFO_LENGTH_SIZE +
                              static_cast<uint8_t>(bytes[FM_INFO_LENGTH_OFFSET]),
                          "\xff\xff");
            break;
        }
        case 6: { // a time in the year 2318
            const timespec far[] = {{11'000'000'000, 5}, {11'000'000'000, 5}};
            ::utimensat(AT_FDCWD, data.c_str(), far, 0);
            break;
        }
        default:
            for (File& each : m_files)
                Unlock(each);
            fs::remove_all(data.parent_path(), ignored);
            for (File& each : m_files)
                Harmed(each);
        }
        Harmed(file);
        file.isRewritten = file.isRewritten || fs::exists(data);
    }

    static void Overwrite(const fs::path& path, size_t at, const std::string& bytes) {
        std::string content = ReadFile(path);
        if (content.size() >= at + bytes.size())
            WriteFile(path, content.replace(at, bytes.size(), bytes));
    }

    // If the stream was closed since, the library takes the file for another server's.
    static void Harmed(File& file) {
        ForgetDisk(file);
        file.isHarmed = true;
        for (auto& [id, block] : file.table)
            block.isLost = true;
    }

    // --- Another server -------------------------------------------------------------------------

    // It opens the file: it holds the locks of the data file and of the store.
    void LockStep(const Step&, File& file) {
        if (file.lock >= 0)
            return Unlock(file);
        if (m_isThreaded || m_depth > 0 || file.ref || !file.isSettled || IsReferenced(file))
            return;
        const fs::path data = m_cache.Path(file.id, ".sdd");
        file.lock = OpenElsewhere(data, O_RDWR);
        if (file.lock >= 0 && ::syscall(SYS_flock, file.lock, LOCK_EX | LOCK_NB) != 0)
            Unlock(file); // an object that was displaced still has it
        if (file.lock >= 0 && m_storeLock < 0) {
            m_storeLock = OpenElsewhere(data.parent_path(), O_RDONLY | O_DIRECTORY);
            Require(::syscall(SYS_flock, m_storeLock, LOCK_SH | LOCK_NB) == 0,
                    "servers share a store");
        }
    }

    // Not a call of the library: it is not counted and does not fail.
    static int OpenElsewhere(const fs::path& path, int flags) {
        return static_cast<int>(
            ::syscall(SYS_openat, AT_FDCWD, path.c_str(), flags | O_CLOEXEC, 0));
    }

    void Unlock(File& file) {
        if (file.lock >= 0)
            ::syscall(SYS_close, std::exchange(file.lock, -1));
        const auto isLocked = [](const File& each) { return each.lock >= 0; };
        if (m_storeLock >= 0 && std::ranges::none_of(m_files, isLocked))
            ::syscall(SYS_close, std::exchange(m_storeLock, -1));
    }

    void CheckLocks() {
        for (File& file : m_files) {
            const int fd = OpenElsewhere(m_cache.Path(file.id, ".sdd"), O_RDWR);
            if (fd < 0)
                continue;
            Require(file.lock >= 0 || ::syscall(SYS_flock, fd, LOCK_EX | LOCK_NB) == 0,
                    "a stopped manager holds no lock");
            ::syscall(SYS_close, fd);
        }
    }

    // --- The manager ----------------------------------------------------------------------------

    void Start(uint16_t days) {
        m_cache.manager->Initialize(CRtString(m_cache.dir.path.string()), days, 1);
        m_days = days;
        m_isRunning = true;
        if (days == 0)
            ForgetFiles();
    }

    // The cache has been cleared.
    void ForgetFiles() {
        for (File& file : m_files) {
            if (IsFaulty() || m_storeLock >= 0) // another server uses the store: nothing is cleared
                ForgetDisk(file);
            else
                SetDisk(file, std::nullopt);
        }
    }

    void Stop() {
        for (File& file : m_files) {
            if (file.ref)
                Closed(file);
        }
        m_isRunning = false; // sinks do not use a stopped manager
        m_cache.Stop();
        if (!m_isThreaded)
            CheckLocks();
        Settle();
        for (File& file : m_files)
            file.isDisplaced = false;
        if (m_days == 0)
            ForgetFiles();
        for (const Wait& wait : m_waits)
            Require(wait.isOver, "every sink is called or was cancelled");
    }

    void Restart(uint16_t days) {
        Stop();
        Start(days);
    }

    void RestartStep(const Step& step, File&) {
        if (m_depth == 0 && step.how % 4 == 0)
            Restart(step.how % 32 == 0 ? 0 : 7);
    }

    void Tick(const Step& step, File&) {
        m_clock.Advance(step.how % 2 ? TICK_MS : IDLE_MS);
        if (m_depth == 0)
            m_cache.thread.RunDue();
    }

    // Ten days later: removes files that are not open and not kept.
    void KeepHouse(const Step& step, File&) {
        if (m_depth > 0 || step.how % 4 != 0)
            return;
        Settle();
        m_clock.Advance(10 * DAY_MS);
        m_cache.thread.RunDue();
        Settle();
        for (File& file : m_files) {
            const bool isKept =
                (file.flag & FM_FILE_KEPT) && file.diskGeneration == file.generation;
            if (file.ref || isKept || IsReferenced(file) || file.lock >= 0)
                continue;
            // Without a stored block there may be no data file, and housekeeping examines data files.
            const bool hasData = file.isKnown && !file.promised.empty();
            if (IsFaulty() || file.diskGeneration != file.generation || !hasData ||
                file.isDisplaced)
                ForgetDisk(file);
            else
                SetDisk(file, std::nullopt);
        }
    }

    // Housekeeping skips a path that has a live object.
    bool IsReferenced(const File& file) const {
        const auto isOf = [&](const auto& held) { return held->block->GetFileID() == file.id; };
        return std::ranges::any_of(m_held, isOf) ||
               std::ranges::any_of(m_waits, [&](const Wait& wait) { return isOf(wait.GetHeld()); });
    }

    void Foreign(const Step& step, File& file) {
        if (step.how % 8 == 0 && !m_isThreaded)
            Harm(file, step.size);
    }

    // The tables of changed files are written.
    void BeginFlush() {
        for (File& file : m_files) {
            if (file.ref && file.isChanged) {
                file.promised.clear();
                file.isKnown = false;
            }
        }
    }

    void FlushLater(const Step& step, File&) {
        ++m_questions;
        const auto answer = [this] { ++m_answers; };
        if (step.how % 2) {
            FMCallWhenIdle([answer](int) { answer(); });
            return;
        }
        BeginFlush();
        FMFlushAsync([this, answer](int result, const std::vector<FMUnsavedBlock>& unsaved) {
            answer();
            if (result == RT_ERROR_NOT_READY || faults::IsFrozen())
                return;
            Require(result != RT_OK || unsaved.empty(), "a flush lists what it has not written");
            BeginFlush();
            for (File& file : m_files) {
                for (const auto& [id, block] : file.table)
                    PromiseSurvivor(file, id, block);
                if (file.ref && file.isChanged && !IsFaulty())
                    NoteTable(file);
            }
        });
    }

    // True if a kill would not lose the block.
    bool PromiseSurvivor(File& file, uint32_t id, const Block& model) {
        const BlockRef block = Cache::Block(*file.ref, id, 0);
        if (!Require(static_cast<bool>(block), "a block stays in the table"))
            return false;
        const bool survives = FMGetBlockStatus(*block).survivesKill;
        if (survives && !file.isHarmed && model.version != 0)
            file.promised[id] = model.version;
        return survives;
    }

    void Flush(const Step& step, File&) {
        if (step.how % 2)
            return;
        BeginFlush();
        std::vector<FMUnsavedBlock> unsaved;
        const int result = FMFlush(unsaved);
        if (faults::IsFrozen())
            return;
        Require(result != RT_OK || unsaved.empty(), "a flush lists what it has not written");
        for (File& file : m_files)
            Flushed(file, result);
    }

    void Flushed(File& file, int result) {
        if (!file.ref || (file.flag & FM_FILE_TEMPORARY))
            return;
        Require(result == RT_OK || IsFaulty() || IsAnyLost(), "a flush writes everything");
        bool isAllThere = true;
        for (const auto& [id, block] : file.table) {
            const bool survives = PromiseSurvivor(file, id, block);
            isAllThere = isAllThere && (survives || block.length == 0);
        }
        const bool isWritten = file.isChanged && isAllThere && !IsFaulty() && !file.isHarmed;
        if (file.isChanged && !IsFaulty())
            NoteTable(file);
        if (isAllThere)
            file.isChanged = false;
        if (isWritten)
            SetDisk(file, Snapshot(file));
    }

    // A table of this object is on disk: it has overwritten that of a predecessor.
    static void NoteTable(File& file) {
        file.isForeign =
            file.isForeign && (file.isHarmed || file.generation == file.diskGeneration);
        file.diskGeneration = file.generation;
    }

    bool IsAnyLost() const {
        return std::ranges::any_of(m_files, [](const File& file) {
            return file.isHarmed || std::ranges::any_of(file.table, [](const auto& entry) {
                       return entry.second.isLost;
                   });
        });
    }

    // Releases the buffers of idle blocks.
    void Evict(const Step&, File& file) {
        m_clock.Advance(IDLE_MS);
        if (file.ref)
            static_cast<CFMFile&>(*file.ref).FreeBlocksMemory();
    }

    // Closes the streams of an open file, as when too many are open.
    void Park(const Step&, File& file) {
        if (file.ref)
            static_cast<CFMFile&>(*file.ref).GetEntry().CloseStreams();
    }

    void Describe(const Step&, File& file) {
        if (file.ref || !file.isSettled || IsReferenced(file) || file.isDisplaced)
            return;
        FMCachedFile found;
        const CRtString store(m_cache.Path(file.id, "").parent_path().string());
        const int result = FMDescribeCachedFile(store, FMFileIDToString(file.id), found);
        Trace(" -> " + std::to_string(result) + (found.isLoadable ? " loads" : ""));
        if (IsFaulty() || !file.isKnown)
            return;
        Require(found.isLoadable == file.disk.has_value(), "the catalog knows what loads");
        Require(found.isOpenElsewhere == (file.lock >= 0), "the catalog knows who has the file");
        Require(!file.disk || file.isForeign || found.storedBlocks == file.disk->size(),
                "the catalog counts blocks");
    }

    // --- Files ----------------------------------------------------------------------------------

    static Saved Snapshot(const File& file) {
        Saved saved;
        for (const auto& [id, block] : file.table) {
            if (block.version != 0)
                saved[id] = block.version;
        }
        return saved;
    }

    void CreateStep(const Step& step, File& file) {
        FMFileInfo info;
        info.fileID = file.id;
        info.blockBeg = 1;
        info.num = BLOCKS;
        info.flag = step.how % 8 == 0   ? uint32_t{FM_FILE_TEMPORARY}
                    : step.how % 8 == 1 ? uint32_t{FM_FILE_KEPT}
                                        : 0;
        if (file.ref && (file.isChanged || file.isHarmed))
            ForgetDisk(file); // never saved
        if (file.ref && (file.flag & FM_FILE_TEMPORARY))
            ForgetDisk(file);
        if (!file.isSettled)
            ForgetDisk(file); // its table may be written before or after
        Unlock(file);
        file.rescued.clear();
        file.isDisplaced = file.isDisplaced || file.ref;
        Leave(file);
        Require(m_cache.manager->CreateFile(file.ref.Receive(), info) == RT_OK,
                "a file is created");
        file.flag = info.flag;
        file.generation = ++m_generation;
        file.isSettled = true;
    }

    void OpenStep(const Step&, File& file) {
        if (!file.ref)
            Load(file);
    }

    bool Load(File& file) {
        if (file.ref)
            return true;
        const bool wasSettled = file.isSettled;
        const int result = m_cache.manager->OpenFile(file.ref.Receive(), file.id, 1);
        Trace(" -> " + std::to_string(result));
        if (IsFaulty()) { // a fault may hide what is on disk
            if (!wasSettled)
                ForgetDisk(file);
        } else if (!wasSettled) {
            TableWritten(file); // the load waits for the table
        }
        file.saving.reset();
        file.rescued.clear();
        file.isSettled = true;
        if (file.lock >= 0 && result != RT_OK)
            return false;
        // A file system without locks: the call fails, and the file is used as it is.
        Require(file.lock < 0 || IsFaulty(), "a file of another server does not load");
        Unlock(file);
        if (result != RT_OK) {
            Require(IsFaulty() || file.promised.empty(), "a saved file loads");
            Require(IsFaulty() || !file.isKnown || !file.disk, "a saved file loads");
            return false;
        }
        Require(IsFaulty() || !file.isKnown || file.disk, "a removed file does not load");
        Restore(file);
        return true;
    }

    void Restore(File& file) {
        file.flag = file.ref->GetFileInfo().flag;
        file.isChanged = false;
        file.isHarmed = false;
        file.isRewritten = false;
        Saved found;
        uint32_t generation = 0;
        for (uint32_t id = 1; id <= BLOCKS; ++id) {
            const BlockRef block = Cache::Block(*file.ref, id, 0);
            if (!block)
                continue;
            Block model;
            const auto promised = file.promised.find(id);
            if (promised != file.promised.end() && block->IsComplete()) {
                model.version = promised->second;
                model.bytes = History(file, id).at(model.version - 1).bytes;
                Require(block->GetTotalLen() == model.bytes.size(),
                        "a promised block has its length");
                generation = History(file, id).at(model.version - 1).generation;
            } else if (file.isForeign) {
                model.isLost = true;
                model.bytes.resize(block->IsComplete() ? block->GetTotalLen() : 0);
            } else if (block->IsComplete()) {
                Identify(file, id, *block, model, generation);
            }
            model.length = block->IsComplete() ? block->GetTotalLen() : 0;
            if (model.version != 0)
                found[id] = model.version;
            file.table[id] = model;
        }
        for (const auto& [id, version] : file.promised)
            Require(IsFaulty() || (found.contains(id) && found[id] == version),
                    Name(file, id) + " was saved, but is absent");
        Require(IsFaulty() || file.isForeign || !file.isKnown || (file.disk && found == *file.disk),
                "a load finds what was saved, and nothing else");
        file.generation = file.diskGeneration = generation ? generation : ++m_generation;
    }

    // Finds the version of a loaded block that the model cannot predict. All blocks of a file have one generation.
    void Identify(File& file, uint32_t id, IFMBlock& block, Block& model, uint32_t& generation) {
        std::string bytes = ::Read(block);
        if (bytes.starts_with("error")) {
            faults::Lift(); // the generation must be known
            bytes = ::Read(block);
        }
        if (bytes.starts_with("error")) {
            model.isLost = true;
            model.bytes.resize(block.GetTotalLen());
            Require(!file.isKnown || IsFaulty(), Name(file, id) + " cannot be read");
            return;
        }
        const std::vector<Version>& versions = History(file, id);
        const auto it =
            std::find_if(versions.rbegin(), versions.rend(), [&](const Version& version) {
                return version.bytes == bytes &&
                       (generation == 0 || version.generation == generation);
            });
        Require(it != versions.rend(),
                Name(file, id) + " has bytes that no complete write of this file had");
        if (it == versions.rend())
            return;
        generation = it->generation;
        model.version = static_cast<uint32_t>(versions.rend() - it);
        model.bytes = bytes;
    }

    std::vector<Version>& History(const File& file, uint32_t id) {
        return m_history[{file.id.Data1, id}];
    }

    void Attach(const Step&, File& file) {
        const int result = m_cache.manager->AttachFile(file.id);
        Require(result == (file.ref ? RT_OK : RT_ERROR_NOT_FOUND), "an open file can be attached");
        file.attached += file.ref ? 1 : 0;
    }

    void CloseStep(const Step&, File& file) { Close(file); }

    void Close(File& file) {
        const bool isOpen = static_cast<bool>(file.ref);
        if (isOpen && file.attached <= 1)
            Closed(file);
        else if (isOpen)
            --file.attached;
        const int result = m_cache.manager->DetachFile(file.id);
        Require(result == (isOpen ? RT_OK : RT_ERROR_NOT_FOUND), "an open file can be detached");
    }

    // The model of a file that is about to be closed.
    void Closed(File& file) {
        file.isSettled = false;
        NoteResident(file);
        const bool isTemporary = (file.flag & FM_FILE_TEMPORARY) != 0;
        if (isTemporary || file.isChanged || file.isHarmed) {
            const bool isHarmed = file.isHarmed;
            const Saved rescued = std::move(file.rescued);
            ForgetDisk(file);
            file.rescued = isTemporary ? Saved() : rescued;
            if (!isHarmed)
                file.saving.emplace(isTemporary ? std::nullopt : std::optional(Snapshot(file)));
        }
        Leave(file);
    }

    // Blocks in memory are stored again if another program has removed or truncated the files.
    void NoteResident(File& file) {
        file.rescued.clear();
        if (!file.isHarmed || file.isRewritten || file.isForeign || m_isThreaded || IsFaulty() ||
            file.isDisplaced)
            return;
        for (const auto& [id, model] : file.table) {
            const BlockRef block = Cache::Block(*file.ref, id, 0);
            if (model.version != 0 && block && block->IsInMemory())
                file.rescued[id] = model.version;
        }
    }

    // The chosen blocks are no longer in the table of an open file.
    template <class Choose>
    void Part(Choose isChosen) {
        const auto part = [&](Held& held) { held.isOpen = held.isOpen && !isChosen(held); };
        for (const auto& held : m_held)
            part(*held);
        for (const Wait& wait : m_waits)
            part(*wait.GetHeld());
    }

    void Leave(File& file) {
        Part([&](const Held& held) { return held.block->GetFileID() == file.id; });
        file.table.clear();
        file.ref.Reset();
        file.attached = 0;
        file.isChanged = false;
        file.isHarmed = false;
        file.isRewritten = false;
    }

    // --- Blocks ---------------------------------------------------------------------------------

    static uint32_t PickID(const Step& step) { return step.block % BLOCKS + 1; }

    // Opens or creates the file if it is not open.
    BlockRef Find(const Step& step, File& file) {
        if (!file.ref && !Load(file))
            CreateStep(step, file);
        const BlockRef block = Cache::Block(*file.ref, PickID(step), 1);
        if (Require(static_cast<bool>(block), "a block is created"))
            file.table.try_emplace(PickID(step));
        return block;
    }

    void Write(const Step& step, File& file) {
        const BlockRef block = Find(step, file);
        if (!block)
            return;
        Block& model = file.table[PickID(step)];
        const uint32_t position = static_cast<uint32_t>(model.bytes.size());
        const bool isComplete = model.length != 0 && position == model.length;
        const uint32_t pos = isComplete || step.how % 16 == 1 ? 0 : position + (step.how % 16 == 2);
        const bool isRewrite = pos != position;
        const bool isSame = model.length != 0 && step.how % 4 != 3; // the same length again
        const uint32_t length = isSame ? model.length : LengthOf(step);
        const uint32_t left = length > pos ? length - pos : 0;
        const uint32_t size = step.how < 160 ? left : std::min<uint32_t>(left, left / 2 + 1);
        const uint32_t version = static_cast<uint32_t>(History(file, PickID(step)).size()) + 1;
        const std::string whole =
            Pattern(file.id.Data1 * 4099 + PickID(step) * 257 + version, length);
        const uint32_t wholeLength = isRewrite || model.length == 0 ? length : model.length;
        const bool isRefused = (isRewrite && pos != 0) || uint64_t{pos} + size > wholeLength;
        const CRtMessageChain piece =
            CRtMessageBlock::Wrap(whole.data() + std::min(pos, length), size);
        if (!isRefused && isRewrite)
            BeginWrite(file, PickID(step));
        const int result = block->WriteData(length, pos, piece.get());
        Trace(" pos " + std::to_string(pos) + " size " + std::to_string(size) + " of " +
              std::to_string(length) + " -> " + std::to_string(result));
        Require(result == (isRefused ? RT_ERROR_INVALID_ARG : RT_OK), "a piece is accepted");
        if (isRefused || size == 0)
            return;
        if (!isRewrite)
            BeginWrite(file, PickID(step));
        model.bytes = (isRewrite ? std::string() : model.bytes) + whole.substr(pos, size);
        model.length = wholeLength;
        model.version = 0;
        model.isLost = file.isHarmed; // the path of the data file is checked once a second
        if (model.bytes.size() == model.length) {
            History(file, PickID(step)).push_back({file.generation, model.bytes});
            model.version = version;
        }
        Require(block->GetPosition() == model.bytes.size(), "a piece moves the position");
        Require(block->IsComplete() == (model.version != 0), "the last piece completes the block");
    }

    static uint32_t LengthOf(const Step& step) {
        return step.size % 64 == 0 ? 70'000U + step.size : 8U + step.size % 3000;
    }

    void BeginWrite(File& file, uint32_t id) {
        file.isChanged = true;
        file.promised.erase(id);
        if (file.generation !=
            file.diskGeneration) // the older file is removed before the first store
            ForgetDisk(file);
    }

    void Remove(const Step& step, File& file) {
        if (!file.ref)
            return;
        BlockRef removed;
        Require(file.ref->RemoveBlock(PickID(step), removed.Receive()) == RT_OK,
                "a block is removed");
        Require(static_cast<bool>(removed) == file.table.contains(PickID(step)),
                "a block is removed");
        if (!removed)
            return;
        BeginWrite(file, PickID(step));
        file.table.erase(PickID(step));
        Part([&](const Held& held) { return held.block.Get() == removed.Get(); });
    }

    void Read(const Step& step, File& file) {
        if (step.how % 8 == 7)
            return ReadHeld(step);
        const BlockRef block = Find(step, file);
        if (!block)
            return;
        const Block& model = file.table[PickID(step)];
        const uint32_t from = step.size % (model.length + 2);
        const uint32_t length = step.how * 37U % (model.length + 2);
        CRtMessageChain view;
        const int result = block->ReadData(from, length, RtReceive(view));
        Trace(" from " + std::to_string(from) + " length " + std::to_string(length) + " -> " +
              std::to_string(result));
        if (model.isLost || model.version == 0 || !IsFaulty())
            CheckRead(file, PickID(step), model, from, length, result);
        if (result == RT_OK && model.version != 0)
            Require(Bytes(view) == model.bytes.substr(from, length),
                    Name(file, PickID(step)) + " has its bytes");
    }

    void CheckRead(const File& file, uint32_t id, const Block& model, uint32_t from,
                   uint32_t length, int result) {
        if (from > model.bytes.size() || from + length > model.length)
            Require(result == RT_ERROR_INVALID_ARG || model.isLost, "the range is refused");
        else if (model.version == 0)
            Require(result == RT_ERROR_NOT_READY || model.isLost, "an incomplete block is refused");
        else
            Require(result == RT_OK || model.isLost || IsFaulty(), Name(file, id) + " can be read");
    }

    void CheckBlock(File& file, uint32_t id) {
        const BlockRef block = Cache::Block(*file.ref, id, 0);
        if (!Require(static_cast<bool>(block), Name(file, id) + " is in the table"))
            return;
        const Block& model = file.table[id];
        if (model.version == 0 || model.isLost)
            return;
        Require(::Read(*block) == model.bytes, Name(file, id) + " has its bytes");
    }

    // --- Blocks that are referenced, and asynchronous reads -------------------------------------

    std::shared_ptr<Held> Keep(const Step& step, File& file) {
        const BlockRef block = Find(step, file);
        if (!block)
            return nullptr;
        for (const auto& held : m_held) {
            if (held->block.Get() == block.Get())
                return held;
        }
        m_held.push_back(std::make_shared<Held>(Held{block, true}));
        return m_held.back();
    }

    void Hold(const Step& step, File& file) {
        if (step.how % 2)
            Keep(step, file);
        else if (!m_held.empty())
            m_held.erase(m_held.begin() + step.size % static_cast<std::ptrdiff_t>(m_held.size()));
    }

    // Reads a block that is referenced, possibly of a closed file: the bytes must be those of one complete version.
    void ReadHeld(const Step& step) {
        if (m_held.empty())
            return;
        Held& held = *m_held[step.size % m_held.size()];
        CheckHeld(held, ::Read(*held.block));
    }

    void CheckHeld(const Held& held, const std::string& bytes) {
        if (bytes.starts_with("error") || m_files[held.block->GetFileID().Data1 - 1].isForeign)
            return;
        const auto& versions = m_history[{held.block->GetFileID().Data1, held.block->GetBlockID()}];
        Require(std::ranges::any_of(versions,
                                    [&](const Version& version) { return version.bytes == bytes; }),
                NameOf(held) + " has bytes that no complete write had");
    }

    void Ask(const Step& step, File& file) {
        const std::shared_ptr<Held> held = step.how % 8 == 7 && !m_held.empty()
                                               ? m_held[step.size % m_held.size()]
                                               : Keep(step, file);
        if (!held)
            return;
        Wait& wait = m_waits.emplace_back(*this, held);
        const int result = held->block->ReadData(&wait);
        Trace(" -> " + std::to_string(result));
        if (result != RT_OK)
            wait.isOver = true; // after a failure the sink is not called
    }

    // The current version of the block in its open file; 0 if there is none that must be readable.
    uint32_t VersionOf(const Held& held) const {
        const File& file = m_files[held.block->GetFileID().Data1 - 1];
        const auto it = file.table.find(held.block->GetBlockID());
        const bool isReadable =
            held.isOpen && file.ref && it != file.table.end() && !it->second.isLost;
        return isReadable ? it->second.version : 0;
    }

    void CheckCompletion(const Held& held, int result, uint32_t faults, uint32_t version) {
        Trace(" [sink " + std::to_string(result) + "]");
        const bool isCurrent = version != 0 && VersionOf(held) == version;
        Require(result == RT_OK || !isCurrent || m_faults != faults || IsFaulty(),
                NameOf(held) + " can be loaded");
        if (result == RT_OK)
            CheckHeld(held, ::Read(*held.block));
    }

    std::string NameOf(const Held& held) const {
        return Name(m_files[held.block->GetFileID().Data1 - 1], held.block->GetBlockID());
    }

    void Cancel(const Step& step, File&) {
        if (m_waits.empty())
            return;
        Wait& wait =
            *std::next(m_waits.begin(), step.size % static_cast<std::ptrdiff_t>(m_waits.size()));
        if (!wait.isOver)
            wait.Cancel();
    }

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

} // namespace

// Each program uses few kinds of calls and mostly one block of one file: calls that interact are then frequent.
Program Generate(uint64_t seed) {
    std::mt19937_64 random(seed);
    Program program(10 + random() % (STEPS_MAX - 10));
    const bool isFaulty = random() % 4 != 0;
    const uint64_t calls = random() | 1; // 1: a write
    const uint64_t hot = random();
    for (Step& step : program) {
        const uint64_t value = random();
        const uint64_t order = random();
        do
            step.call = static_cast<uint8_t>(random());
        while (!(calls >> step.call % CALLS & 1));
        const uint64_t target = value >> 48 & 1 ? hot : value;
        step.file = static_cast<uint8_t>(target >> 8);
        step.block = static_cast<uint8_t>(target >> 16);
        step.how = static_cast<uint8_t>(value >> 24);
        step.size = static_cast<uint16_t>(value >> 32);
        step.down = static_cast<uint8_t>(order % 4);
        step.up = order % 16 == 0 ? 255 : static_cast<uint8_t>(order >> 8) % 3;
        step.fault = isFaulty && order >> 16 & 1 ? static_cast<uint8_t>(order >> 24) : 0;
        step.at = static_cast<uint8_t>((order >> 32) % 256);
    }
    return program;
}

Program FromBytes(const uint8_t* data, size_t size) {
    Program program(std::min(size / sizeof(Step), STEPS_MAX));
    if (!program.empty())
        std::memcpy(program.data(), data, program.size() * sizeof(Step));
    return program;
}

std::string Run(const Program& program, std::string* trace, bool withLog) {
    CRtEventQueue::SetStepping(true);
    return World(program, false, trace, withLog).Run();
}

std::string RunThreaded(const Program& program) {
    CRtEventQueue::SetStepping(false);
    RtSetLogSink(nullptr, nullptr, RT_LOG_SILENT);
    return World(program, true, nullptr, false).Run();
}

std::string RunInChild(const Program& program, bool withTrace) {
    constexpr unsigned timeoutSeconds = 20;
    int ends[2];
    if (::pipe(ends) != 0)
        return "no pipe";
    std::cout.flush();
    const pid_t child = ::fork();
    if (child < 0)
        return "no child process";
    if (child == 0) {
        ::alarm(timeoutSeconds);
        std::string trace;
        std::string violation = Run(program, withTrace ? &trace : nullptr, withTrace);
        violation += violation.empty() ? "" : "\n" + trace;
        [[maybe_unused]] const auto written = ::write(ends[1], violation.data(), violation.size());
        ::_exit(0);
    }
    ::close(ends[1]);
    std::string text;
    char buffer[256];
    for (ssize_t length = 0; (length = ::read(ends[0], buffer, sizeof(buffer))) > 0;)
        text.append(buffer, static_cast<size_t>(length));
    ::close(ends[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    if (WIFSIGNALED(status))
        return WTERMSIG(status) == SIGALRM ? "does not end"
                                           : "ends by signal " + std::to_string(WTERMSIG(status));
    return WEXITSTATUS(status) == 0
               ? text
               : "ends with exit status " + std::to_string(WEXITSTATUS(status));
}

Program Shrink(Program program) {
    const auto fails = [](const Program& candidate) {
        return !RunInChild(candidate, false).empty();
    };
    for (size_t length = program.size(); length > 0; length /= 2) {
        for (size_t at = 0; at + length <= program.size();) {
            Program shorter = program;
            shorter.erase(shorter.begin() + static_cast<std::ptrdiff_t>(at),
                          shorter.begin() + static_cast<std::ptrdiff_t>(at + length));
            if (fails(shorter))
                program = shorter;
            else
                at += length;
        }
    }
    const auto simplify = [&](auto member, auto value) {
        for (size_t i = 0; i < program.size(); ++i) {
            Program simpler = program;
            simpler[i].*member = value;
            if (fails(simpler))
                program = simpler;
        }
    };
    simplify(&Step::fault, uint8_t{0});
    simplify(&Step::down, uint8_t{0});
    simplify(&Step::up, uint8_t{0});
    simplify(&Step::how, uint8_t{0});
    simplify(&Step::at, uint8_t{0});
    simplify(&Step::size, uint16_t{0});
    return program;
}

std::string Print(const Program& program) {
    std::string text = "sim::Run({";
    for (const Step& step : program) {
        text += "{";
        for (const unsigned value : {unsigned{step.call}, unsigned{step.file}, unsigned{step.block},
                                     unsigned{step.how}, unsigned{step.size}, unsigned{step.down},
                                     unsigned{step.up}, unsigned{step.fault}, unsigned{step.at}})
            text += std::to_string(value) + ",";
        text.back() = '}';
        text += ", ";
    }
    return text + "})";
}

} // namespace sim
