// Runs a program: each step calls the library, which works on a cache directory, and the model (model.h), and
// compares the two. Faults and other programs (others.h) change what the model may expect.
#include "testing/world.h"

#include <algorithm>
#include <functional>
#include <list>
#include <memory>
#include <set>

#include "FMCatalog.h"
#include "FMDurability.h"
#include "testing/faults.h"
#include "testing/model.h"
#include "testing/others.h"
#include "util/filemanager/filemanager.h"
#include "util/filemanager/statistics.h"

namespace sim {

namespace {

constexpr uint32_t FILES = 4;
constexpr uint32_t BLOCKS = 6; // identifiers start at 1
constexpr int LINES_MAX = 200; // of a step
constexpr int64_t TICK_MS = 60'001;
constexpr int64_t IDLE_MS = 300'000;
constexpr int64_t DAY_S = 86'400;
constexpr uint16_t DAYS = 7; // that the manager keeps files; housekeeping adds two

std::string Name(const File& file, uint32_t block) {
    return "block " + std::to_string(block) + " of file " + std::to_string(file.id.Data1);
}

bool IsError(const std::string& bytes) { return bytes.starts_with("error"); }

class World {
public:
    World(const Program& program, bool isThreaded, std::string* trace, bool isLogTraced)
        : m_program(program), m_isThreaded(isThreaded), m_isLogTraced(isLogTraced), m_trace(trace) {
        // Housekeeping is due at the first tick, whatever ran in this process before.
        static int64_t seconds = 1'000'000'000;
        m_clock.seconds = seconds = seconds < 3'000'000'000 ? seconds + 400 * DAY_S : 1'000'000'000;
        std::error_code ignored;
        fs::remove_all(m_cache.dir.path / FM_SERVER_STORE, ignored);
        for (uint32_t i = 0; i < FILES; ++i)
            m_files[i].id = {i + 1, 0x51D, 0, {1, 2, 3, 4, 5, 6, 7, 8}};
        if (!isThreaded)
            RtSetLogSink(&World::TakeLine, this, isLogTraced ? RT_LOG_TRACE : RT_LOG_WARNING);
        Start(DAYS);
        if (!isThreaded)
            faults::Observe([this](const faults::Change& change) { CheckChange(change); });
    }
    ~World() {
        faults::Observe(nullptr);
        RtSetLogSink(nullptr, nullptr, RT_LOG_SILENT);
        for (Wait& wait : m_waits) { // after a violation
            if (!wait.isOver)
                wait.Cancel();
        }
    }
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
    // A block that the program references, possibly longer than its file is open.
    struct Held {
        BlockRef block;
        bool isOpen = true;    // its file is open, and the block is in the table
        bool isClosed = false; // its file was closed
        bool isLost = false;   // another program has changed the files, or the manager was stopped
    };
    // An asynchronous read.
    class Wait final : public IFMBlockSink {
    public:
        Wait(World& world, std::shared_ptr<Held> held)
            : m_world(world), m_held(std::move(held)), m_faults(world.m_faults),
              m_wasComplete(world.VersionOf(*m_held) != 0) {}
        void OnBlockDataReady(IFMBlock* block, int result) override {
            m_world.Require(block == m_held->block.Get(), "the sink gets its block");
            m_world.Require(!isOver, "the sink is called once and not after a cancel");
            m_world.Require(isAsking || m_world.IsFirstWaiting(*this),
                            "sinks are called in the order of their requests");
            isOver = true;
            const bool hasFailed = m_world.m_faults != m_faults || m_world.IsFaulty();
            m_world.CheckCompletion(*m_held, result, hasFailed || !m_wasComplete);
            m_world.RunStepInSink();
        }
        void Cancel() {
            isOver = true;
            m_world.Require(m_held->block->CancelReadData(this) == RT_OK, "a cancel succeeds");
        }
        Held& GetHeld() const { return *m_held; }
        std::shared_ptr<Held> Share() const { return m_held; }
        bool isOver = false;
        bool isAsking = false; // the call returns the bytes at once

    private:
        World& m_world;
        const std::shared_ptr<Held> m_held;
        const uint32_t m_faults; // at the request
        const bool m_wasComplete;
    };

    // --- Steps ----------------------------------------------------------------------------------

    void RunStep() {
        const Step step = m_program[m_next++];
        const bool isOuter = m_depth == 0;
        m_lines = 0;
        if (isOuter)
            BeginFault(step);
        Call(step);
        Require(!m_view || Bytes(m_view) == m_viewed, "a view keeps its bytes");
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
            uint32_t weight;
            void (W::*call)(const Step&, File&);
        } calls[] = {{"write", 5, &W::Write},
                     {"read", 2, &W::Read},
                     {"ask", 2, &W::Ask},
                     {"create", 1, &W::Create},
                     {"open", 2, &W::Open},
                     {"close", 2, &W::Detach},
                     {"cancel", 1, &W::Cancel},
                     {"remove", 1, &W::Remove},
                     {"tick", 2, &W::Tick},
                     {"flush", 1, &W::Flush},
                     {"flush later", 1, &W::FlushLater},
                     {"rest", 1, &W::Rest},
                     {"look", 1, &W::Look},
                     {"other", 1, &W::Other},
                     {"burst", 1, &W::Burst},
                     {"hold", 1, &W::Hold},
                     {"attach", 1, &W::Attach},
                     {"restart", 1, &W::MayRestart},
                     {"housekeep", 1, &W::KeepHouse},
                     {"harm", 1, &W::MayHarm}};
        uint32_t number = step.call % CALLS;
        const auto* entry = calls;
        for (; number >= entry->weight; ++entry)
            number -= entry->weight;
        File& file = m_files[step.file % FILES];
        Trace(std::to_string(m_next) + " " + entry->name + " " + std::to_string(file.id.Data1) +
              "/" + std::to_string(PickID(step)));
        (this->*entry->call)(step, file);
        Trace("\n");
    }

    // Runs one event of the read/write thread, or of the caller thread.
    bool Down() {
        m_isDown = true;
        const bool hasRun = CRtEventQueue::Stepped() && CRtEventQueue::Stepped()->Step();
        m_isDown = false;
        return hasRun;
    }
    static bool IsDownIdle() {
        return !CRtEventQueue::Stepped() || CRtEventQueue::Stepped()->GetCount() == 0;
    }
    bool Up() {
        if (m_depth > 0)
            return false;
        return m_isThreaded ? m_cache.thread.RunDue() > 0 : CRtEventQueue::Current()->Step();
    }

    // Runs all events.
    void Settle() {
        if (m_depth > 0)
            return;
        while (Down() || Up()) {
        }
        if (m_isThreaded)
            FMWaitUntilIdle();
        for (File& file : m_files) {
            if (!file.ref && !std::exchange(file.isSettled, true))
                TableWritten(file);
        }
        if (!m_isThreaded && !faults::IsFrozen())
            CheckFigures();
    }

    void End() {
        BeginFault({});
        Settle();
        for (File& file : m_files) {
            Unlock(file);
            for (const auto& [id, block] : file.table)
                CheckBlock(file, id);
        }
        Restart(DAYS);
        for (File& file : m_files) {
            if (Load(file))
                Close(file);
            Settle();
        }
        m_waits.clear();
        m_held.clear();
        Stop();
        Require(g_statistics.Get(CFMStatistics::FilesCreated) ==
                    g_statistics.Get(CFMStatistics::FilesDestroyed),
                "every file is released");
        Require(g_statistics.Get(CFMStatistics::BlocksCreated) ==
                    g_statistics.Get(CFMStatistics::BlocksDestroyed),
                "every block is released");
        Require(CFileManager::Instance()->GetMemoryInUse() == 0, "no memory is in use");
        Require(m_answers == m_questions, "every callback is called once");
    }

    // --- Expectations ---------------------------------------------------------------------------

    // After the simulated kill the process continues until the step ends: violations are ignored.
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
        world.Require(!stable.ends_with(" Assert failed: !m_data"), "a buffer is not replaced");
        const bool isShortRead = stable.find("fread Failed. Error Ret: 0") != stable.npos &&
                                 stable.find(FM_DATA_EXTENSION) != stable.npos;
        world.Require(!isShortRead || world.m_action == faults::CALL ||
                          std::ranges::any_of(world.m_files, &File::isHarmed),
                      "a load that the data file cannot fill reads nothing");
        world.Require(std::ranges::none_of(line, [](char each) { return each >= 0 && each < ' '; }),
                      "a log line does not control the terminal");
    }

    // Whether a system call of this step has failed.
    bool IsFaulty() const { return faults::Hits() > 0 && m_action != faults::CALL; }

    void Trace(const std::string& text) {
        if (m_trace)
            *m_trace += text;
    }
    void TraceResult(int result) { Trace(" -> " + std::to_string(result)); }

    // Both threads are idle.
    void CheckFigures() {
        const FMStatistics figures = ReadStatistics();
        Require(figures.pendingBlocks == 0 && figures.pendingBytes == 0, "no store is pending");
        Require(figures.failedBytes == FMGetUnstoredBytes(), "unstored bytes are counted");
        for (const auto& histogram :
             {figures.loadWait, figures.loadDisk, figures.storeWait, figures.storeDisk})
            CheckHistogram(histogram);
        const auto isOpen = [](const File& file) { return static_cast<bool>(file.ref); };
        Require(static_cast<std::ptrdiff_t>(figures.openFiles) ==
                    std::ranges::count_if(m_files, isOpen),
                "open files are counted");
        CheckMemory(figures);
        for (const File& file : m_files) {
            for (const auto& [id, block] : file.table)
                CheckCondition(file, id, block);
        }
    }

    // Bucket 0 counts durations of 0 µs, bucket i those below 2^i µs.
    void CheckHistogram(const FMHistogram& histogram) {
        uint64_t least = 0;
        uint64_t below = 0;
        for (size_t i = 1; i < FMHistogram::BUCKETS; ++i) {
            least += histogram.counts[i] << (i - 1);
            below += histogram.counts[i] << i;
        }
        Require(histogram.sumUs >= least && (histogram.sumUs < below || below == 0),
                "the sum of the durations is that of the buckets");
    }

    void CheckMemory(const FMStatistics& figures) {
        std::set<IFMBlock*> blocks;
        for (const File& file : m_files) {
            for (const auto& block : file.ref ? file.ref->GetBlocks() : FMBlockTable()) {
                if (block)
                    blocks.insert(block.Get());
            }
            ForEachHeld(file, [&](Held& held) { blocks.insert(held.block.Get()); });
        }
        size_t bytes = 0;
        size_t failed = 0;
        size_t stored = 0;
        for (IFMBlock* block : blocks) {
            using enum FMBlockCondition;
            bytes += block->IsInMemory() ? block->GetTotalLen() : 0;
            const FMBlockCondition condition = FMGetBlockStatus(*block).condition;
            failed += condition == Failed ? block->GetTotalLen() : 0;
            stored += condition == Stored || condition == Lost ? block->GetTotalLen() : 0;
        }
        const size_t inUse = CFileManager::Instance()->GetMemoryInUse();
        // A displaced file keeps blocks that only the library references.
        const bool isAnyDisplaced = std::ranges::any_of(m_files, &File::isDisplaced);
        Require(inUse == bytes || (inUse > bytes && isAnyDisplaced),
                "memory in use is that of the resident buffers");
        Require(isAnyDisplaced || (figures.failedBytes == failed && figures.storedBytes == stored),
                "bytes are counted by the state of their block");
    }

    void CheckFilling(const File& file, uint32_t id, const Block& model) {
        const BlockRef block = Cache::Block(*file.ref, id, 0);
        if (!block || model.isLost)
            return;
        const FMBlockCondition condition = FMGetBlockStatus(*block).condition;
        Require(model.version != 0 || model.bytes.empty() ? condition != FMBlockCondition::Filling
                                                          : condition == FMBlockCondition::Filling,
                Name(file, id) + " is incomplete");
    }

    void CheckCondition(const File& file, uint32_t id, const Block& model) {
        const BlockRef block = Cache::Block(*file.ref, id, 0);
        if (!block)
            return;
        const FMBlockStatus status = FMGetBlockStatus(*block);
        Require(status.condition != FMBlockCondition::Pending, Name(file, id) + " is not pending");
        CheckFilling(file, id, model);
        if (m_faults > 0 || IsFaulty() || file.isHarmed || file.isDisplaced || model.isLost)
            return;
        Require((status.condition == FMBlockCondition::Stored) == (model.version != 0),
                Name(file, id) + " is stored");
        Require(!status.survivesKill || !model.isUnsaved,
                Name(file, id) + " has changed since the last table");
        Require(status.isResident || model.bytes.empty() || model.version != 0,
                Name(file, id) + " is stored before it is released");
    }

    // After each write of the library: the table on disk names no byte that was overwritten, and none beyond the end of
    // the data file.
    void CheckChange(const faults::Change& change) {
        if (change.kind != faults::WRITE || m_isHarmed || faults::IsFrozen())
            return;
        const fs::path path(change.path);
        const bool isData = path.extension() == FM_DATA_EXTENSION;
        std::error_code ignored;
        const auto length = static_cast<int64_t>(
            fs::file_size(fs::path(path).replace_extension(FM_DATA_EXTENSION), ignored));
        const auto pos = static_cast<int64_t>(isData ? change.offset : length);
        const auto end = isData ? pos + static_cast<int64_t>(change.bytes.size()) : INT64_MAX;
        for (const FMBlockEntry& entry :
             ReadTable(fs::path(path).replace_extension(FM_INFO_EXTENSION)))
            Require(entry.totalLen == 0 || !FMIsEntryPossible(entry) || entry.posInFile >= end ||
                        entry.posInFile + entry.totalLen <= pos,
                    "a table on disk names only bytes of its blocks");
    }

    void CheckBlock(File& file, uint32_t id) {
        const BlockRef block = Cache::Block(*file.ref, id, 0);
        if (!Require(static_cast<bool>(block), Name(file, id) + " is in the table"))
            return;
        const Block& model = file.table[id];
        if (model.version != 0 && !model.isLost)
            Require(::Read(*block) == model.bytes, Name(file, id) + " has its bytes");
    }

    // --- Faults ---------------------------------------------------------------------------------

    void BeginFault(const Step& step) {
        using namespace faults;
        if (m_isThreaded) // the other thread reads the plan
            return;
        const uint32_t nth = step.at % 24 + 1;
        const uint32_t early = step.at % 6 + 1;
        const uint32_t first = step.at % 4 + 1;
        const Plan plans[] = {{},
                              {FAIL, ANY_OPERATION, nth, false, ENOSPC, 0},
                              {FAIL, WRITE, nth, true, ENOSPC, 0},
                              {HALF, WRITE, early, true, ENOSPC, 0},
                              {FAIL, OPEN, early, true, EMFILE, 0},
                              {FAIL, READ, first, true, EIO, 0},
                              {FAIL, LOOK, first, false, EIO, 0},
                              {FREEZE_BEFORE, ANY_OPERATION, nth, false, 0, 0},
                              {FREEZE_HALFWAY, ANY_OPERATION, nth, false, 0, 0},
                              {FREEZE_AFTER, ANY_OPERATION, nth, false, 0, 0},
                              {FREEZE_HALFWAY, WRITE, early, false, 0, 0},
                              {CALL, ANY_OPERATION, nth, false, 0, 0},
                              {CALL, ANY_OPERATION, nth, false, 0, 0},
                              {CALL, ANY_OPERATION, first, false, 0, 0}};
        const uint32_t number = step.fault % 32;
        const Plan plan = number < std::size(plans) ? plans[number] : Plan();
        m_action = plan.action;
        const bool isRewrite = number + 1 == std::size(plans);
        SetCallback(
            [this, step, isRewrite, isHarm = number % 2 != 0, up = CRtEventQueue::Current()] {
                if (isRewrite && m_isDown)
                    return Overtake(step, *up);
                if (isHarm && !isRewrite)
                    ChangeFile(m_files[step.how % FILES], step.at);
                m_clock.Advance(2000); // the check of the path, once a second, is due
            });
        Begin(m_cache.dir.path, plan);
    }

    // The caller thread writes while the read/write thread is in a system call, the next of which may fail.
    void Overtake(const Step& step, CRtEventQueue& up) {
        CRtEventQueue& down = *CRtEventQueue::Current();
        up.SetOwner(true);
        m_isDown = false;
        File& file = m_files[step.file % FILES];
        if (file.ref) {
            for (const auto& [id, block] : file.table)
                CheckFilling(file, id, block);
            Write(step, file);
        }
        down.SetOwner(true);
        m_isDown = true;
        if (step.how % 2 == 0)
            return;
        m_action = faults::FAIL;
        faults::Begin(m_cache.dir.path, {m_action, faults::WRITE, 1, true, ENOSPC, 0});
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
                TableFailed(file);
        }
    }

    // The process is killed: the rest of its work has changed nothing on disk.
    void Die() {
        Trace("  killed\n");
        for (File& file : m_files) {
            if (file.ref || !file.isSettled)
                file.isKnown = file.isKnown && !file.isChanged && !file.saving && !file.isHarmed;
            file.kept.clear();
            file.saving.reset();
            file.isSettled = true;
            Leave(file);
        }
        m_cache.Stop();
        while (Up()) {
        }
        m_waits.clear();
        m_held.clear();
        m_answers = m_questions;
        faults::Thaw();
        Start(DAYS);
    }

    // --- Other programs -------------------------------------------------------------------------

    void MayHarm(const Step& step, File& file) {
        if (step.how % 8 == 0 && !m_isThreaded)
            ChangeFile(file, step.size);
    }

    void ChangeFile(File& file, uint32_t how) {
        const fs::path data = m_cache.Path(file.id, FM_DATA_EXTENSION);
        std::error_code ignored;
        const uint64_t length = fs::file_size(data, ignored);
        if (ignored)
            return;
        Trace("  harmed " + std::to_string(file.id.Data1));
        m_isHarmed = true;
        const bool isDuringCall = m_action == faults::CALL;
        Harm harm = static_cast<Harm>(how % static_cast<uint32_t>(Harm::COUNT));
        if (harm == Harm::Truncation && isDuringCall)
            harm =
                Harm::Removal; // a store that has just checked the length cannot notice the other
        if (harm == Harm::LongName && (isDuringCall || file.ref || !file.isSettled))
            harm = Harm::RemovalOfStore;
        for (File& each : m_files) {
            if (&each != &file && harm != Harm::RemovalOfStore)
                continue;
            Unlock(each);
            const bool isTruncated = harm == Harm::Truncation && !each.hidesTruncation;
            HarmFile(each, !IsRemoval(harm) && !isTruncated);
        }
        ChangeFiles(harm, data, m_cache.Path(file.id, FM_INFO_EXTENSION), file.id, length);
        file.isForeign = file.isForeign || harm == Harm::Replacement;
        if (harm == Harm::LongName)
            SetDisk(file, std::nullopt);
    }

    // A file that is removed while the library opens it looks like one of another server.
    void HarmFile(File& file, bool mayBeForeign) {
        file.Harm(mayBeForeign || m_action == faults::CALL || m_faults > 0);
        ForEachHeld(file, [](Held& held) { held.isLost = true; });
    }

    void Other(const Step& step, File& file) {
        if (m_isThreaded || m_depth > 0)
            return;
        if (step.how % 8 == 7)
            return VisitCache();
        file.lock >= 0 ? Unlock(file) : Lock(file);
    }

    // Another server process loads the files that this one has closed.
    void VisitCache() {
        Settle();
        if (faults::IsFrozen())
            return;
        const std::string violation = InChild([this] {
            std::vector<File*> closed;
            for (File& file : m_files) {
                if (!file.ref && !file.isDisplaced && !IsReferenced(file))
                    closed.push_back(&file);
            }
            // The objects of the other process change nothing on disk.
            struct stat ignored {};
            faults::Begin(m_cache.dir.path, {.action = faults::FREEZE_BEFORE});
            ::stat((m_cache.dir.path / FM_SERVER_STORE).c_str(), &ignored);
            faults::Lift();
            Die();
            BeginFault({});
            for (File* file : closed) {
                if (!Load(*file))
                    continue;
                for (const auto& [id, block] : file->table)
                    CheckBlock(*file, id);
                Close(*file);
            }
            Settle();
            return m_violation;
        });
        Require(violation.empty(), "another process: " + violation);
    }

    // Another server opens the file: it holds the locks of the data file and of the store.
    void Lock(File& file) {
        if (file.ref || !file.isSettled || IsReferenced(file))
            return;
        const fs::path data = m_cache.Path(file.id, FM_DATA_EXTENSION);
        file.lock = OpenElsewhere(data, O_RDWR);
        if (file.lock >= 0 && !LockElsewhere(file.lock, LOCK_EX))
            Unlock(file); // an object that was displaced still has it
        if (file.lock >= 0 && m_storeLock < 0) {
            m_storeLock = OpenElsewhere(data.parent_path(), O_RDONLY | O_DIRECTORY);
            Require(LockElsewhere(m_storeLock, LOCK_SH), "servers share a store");
        }
    }

    void Unlock(File& file) {
        CloseElsewhere(file.lock);
        if (std::ranges::none_of(m_files, [](const File& each) { return each.lock >= 0; }))
            CloseElsewhere(m_storeLock);
    }

    void CheckLocks() {
        for (const File& file : m_files) {
            int fd = OpenElsewhere(m_cache.Path(file.id, FM_DATA_EXTENSION), O_RDWR);
            Require(fd < 0 || file.lock >= 0 || LockElsewhere(fd, LOCK_EX),
                    "a stopped manager holds no lock");
            CloseElsewhere(fd);
        }
        int store = OpenElsewhere(m_cache.dir.path / FM_SERVER_STORE, O_RDONLY | O_DIRECTORY);
        Require(store < 0 || m_storeLock >= 0 || LockElsewhere(store, LOCK_EX),
                "a stopped manager does not lock the store");
        CloseElsewhere(store);
    }

    // --- The manager ----------------------------------------------------------------------------

    void Start(uint16_t days) {
        m_cache.manager->Initialize(CRtString(m_cache.dir.path.string()), days, 1);
        m_days = days;
        m_isRunning = true;
        if (days == 0)
            ClearFiles();
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
        for (File& file : m_files) {
            file.isDisplaced = false;
            ForEachHeld(file, [](Held& held) { held.isLost = true; });
        }
        if (m_days == 0)
            ClearFiles();
        for (const Wait& wait : m_waits)
            Require(wait.isOver, "every sink is called or was cancelled");
    }

    void ClearFiles() {
        for (File& file : m_files) {
            Require(file.lock < 0 || fs::exists(m_cache.Path(file.id, FM_DATA_EXTENSION)),
                    "a store that another server uses is not cleared");
            if (IsFaulty() || m_storeLock >= 0)
                file.ForgetDisk();
            else
                SetDisk(file, std::nullopt);
        }
    }

    void Restart(uint16_t days) {
        Stop();
        Start(days);
    }
    void MayRestart(const Step& step, File&) {
        if (m_depth == 0 && step.how % 4 == 0)
            Restart(step.how % 32 == 0 ? 0 : DAYS);
    }

    void Tick(const Step& step, File&) {
        m_clock.Advance(step.how % 2 ? TICK_MS : IDLE_MS);
        if (m_depth > 0)
            return;
        m_cache.thread.RunDue();
        if (step.how % 4 > 1)
            return;
        Settle();
        for (File& file : m_files) {
            CheckRetried(file);
            CheckStores(file);
        }
    }

    // A tick or a flush has written the table of a closed file that could not be written before.
    void CheckRetried(File& file) {
        if (file.ref || !file.isSettled || file.kept.empty() || IsFaulty())
            return;
        const CRtString store((m_cache.dir.path / FM_SERVER_STORE).string());
        FMCachedFile found;
        FMDescribeCachedFile(store, FMFileIDToString(file.id), found);
        Require(IsFaulty() || found.storedBlocks >= file.kept.size(), "a table is written later");
        Settled(file);
    }

    void CheckStores(const File& file) {
        if (IsFaulty() || file.isHarmed || file.isDisplaced)
            return;
        for (const auto& [id, model] : file.table) {
            const BlockRef block = Cache::Block(*file.ref, id, 0);
            Require(!block || FMGetBlockStatus(*block).condition != FMBlockCondition::Failed,
                    Name(file, id) + " is stored again");
        }
    }

    // Loads of other files: after eight events of the high lane, one of the normal lane runs.
    void Burst(const Step&, File&) {
        for (int i = 0; i < 8; ++i)
            CFileManager::Instance()->PostToReadwrThread(new TestEvent, 0, RT_PRIORITY_HIGH);
    }

    // Now or ten days later: removes files that are not open and not kept, once they have expired.
    void KeepHouse(const Step& step, File&) {
        if (m_depth > 0)
            return;
        for (File& file : m_files) {
            if (file.ref && step.how % 4 > 1)
                Close(file);
        }
        Settle();
        m_clock.Advance(step.how % 2 ? 0 : 10 * DAY_S * 1000);
        FMStartHousekeeping();
        m_cache.thread.RunDue();
        Settle();
        for (File& file : m_files)
            Examined(file);
    }

    void Examined(File& file) {
        if (file.ref || IsReferenced(file) || file.lock >= 0)
            return;
        // Without a stored block there may be no data file, and housekeeping examines data files.
        const bool isSaved = file.isKnown && !file.promised.empty() && !file.IsOverPredecessor();
        const bool isExpired = m_clock.seconds - file.created >= (DAYS + 2) * DAY_S;
        if (isSaved && ((file.flag & FM_FILE_KEPT) || !isExpired))
            return;
        // After a failure, the library keeps the object until a tick has written its table.
        if (isSaved && m_faults == 0 && !IsFaulty() && !file.isDisplaced)
            SetDisk(file, std::nullopt);
        else
            file.ForgetDisk();
    }

    // A path that has a live object is skipped by housekeeping.
    bool IsReferenced(const File& file) {
        bool isReferenced = false;
        ForEachHeld(file, [&](Held&) { isReferenced = true; });
        return isReferenced;
    }

    // The file is idle: its buffers are released, or its streams are closed, as when too many are open.
    void Rest(const Step& step, File& file) {
        m_clock.Advance(IDLE_MS);
        for (const auto& held : m_held)
            Evict(*held);
        if (!file.ref)
            return;
        auto& object = static_cast<CFMFile&>(*file.ref);
        if (step.how % 4 != 0)
            object.FreeBlocksMemory();
        if (step.how % 4 > 1)
            return;
        object.GetEntry().CloseStreams();
        file.hidesTruncation = true;
    }

    // A block whose file is not open is released only if its bytes can be loaded again. The end of a predecessor
    // that is queued may overtake that load.
    void Evict(const Held& held) {
        if (m_isThreaded || !IsDownIdle() || held.isOpen || !held.block->IsInMemory() ||
            held.block->FreeMemory())
            return;
        const bool isRead = !IsError(::Read(*held.block));
        Require(isRead || held.isLost || m_faults > 0 || IsFaulty(),
                NameOf(held) + " was released, but cannot be loaded");
    }

    // --- Flushing -------------------------------------------------------------------------------

    // The tables of changed files are written.
    void BeginFlush() {
        for (File& file : m_files) {
            if (file.ref && file.isChanged)
                file.ForgetDisk();
        }
    }

    void FlushLater(const Step& step, File&) {
        ++m_questions;
        if (step.how % 2) {
            FMCallWhenIdle([this](int called) {
                ++m_answers;
                const bool isIdle =
                    m_isThreaded || (CRtEventQueue::Current()->GetCount() == 0 && IsDownIdle());
                Require(called != RT_OK || isIdle, "both threads are idle");
            });
            return;
        }
        BeginFlush();
        std::vector<AtFlush> before;
        for (const File& file : m_files)
            before.push_back({file.generation, file.Versions()});
        FMFlushAsync([this, before](int result, const std::vector<FMUnsavedBlock>& unsaved) {
            ++m_answers;
            if (result != RT_ERROR_NOT_READY)
                FlushedLater(before, result, unsaved);
        });
    }

    struct AtFlush {
        uint32_t generation;
        Saved versions;
    };
    void FlushedLater(const std::vector<AtFlush>& before, int result,
                      const std::vector<FMUnsavedBlock>& unsaved) {
        BeginFlush(); // a kill while a table is written loses the blocks that it names
        if (faults::IsFrozen())
            return;
        Require(result != RT_OK || unsaved.empty(), "a flush lists what it has not written");
        for (const FMUnsavedBlock& block : unsaved) {
            const File& file = m_files[block.fileID.Data1 - 1];
            const Saved& earlier = before[block.fileID.Data1 - 1].versions;
            const auto at = earlier.find(block.blockID);
            const Saved now = file.Versions();
            const bool isEarlier =
                at != earlier.end() && now.contains(at->first) && now.at(at->first) == at->second;
            Require(!isEarlier || m_faults > 0 || IsFaulty() || IsAnyLost(),
                    Name(file, block.blockID) + " was stored before the flush");
        }
        for (File& file : m_files) {
            const AtFlush& earlier = before[static_cast<size_t>(&file - m_files)];
            for (const auto& [id, block] : file.table)
                PromiseSurvivor(file, id, block);
            if (file.ref && file.generation == earlier.generation && file.isChanged && !IsFaulty())
                file.NoteTable();
            if (result == RT_OK && m_faults == 0 && !IsFaulty())
                PromiseClosed(file, earlier.versions);
        }
    }

    // The table of a file that was closed after the beginning of the flush is on disk.
    static void PromiseClosed(File& file, const Saved& earlier) {
        if (file.ref || file.isSettled || file.isDisplaced || !file.saving || !*file.saving)
            return;
        for (const auto& [id, version] : **file.saving) {
            const auto at = earlier.find(id);
            if (at != earlier.end() && at->second == version)
                file.promised[id] = version;
        }
    }

    // Returns whether the block survives a kill.
    bool PromiseSurvivor(File& file, uint32_t id, const Block& model) {
        const BlockRef block = Cache::Block(*file.ref, id, 0);
        if (!Require(static_cast<bool>(block), "a block stays in the table"))
            return false;
        const bool survives = FMGetBlockStatus(*block).survivesKill;
        if (survives && !file.isHarmed && model.version != 0)
            file.promised[id] = model.version;
        file.table[id].isUnsaved = !survives;
        return survives;
    }

    void Flush(const Step& step, File&) {
        if (step.how % 2)
            Settle();
        BeginFlush();
        std::vector<FMUnsavedBlock> unsaved(1);
        const int result = FMFlush(unsaved);
        if (faults::IsFrozen())
            return;
        Require(result != RT_OK || unsaved.empty(), "a flush lists what it has not written");
        for (File& file : m_files) {
            if (result == RT_OK)
                CheckRetried(file);
            Flushed(file, result);
        }
    }

    void Flushed(File& file, int result) {
        if (!file.ref || file.IsTemporary())
            return;
        Require(result == RT_OK || IsFaulty() || IsAnyLost(), "a flush writes everything");
        bool isAllThere = true;
        for (const auto& [id, block] : file.table) {
            const bool survives = PromiseSurvivor(file, id, block);
            isAllThere = isAllThere && (survives || block.length == 0);
        }
        const bool isWritten = file.isChanged && isAllThere && !IsFaulty() && !file.isHarmed;
        if (file.isChanged && !IsFaulty())
            file.NoteTable();
        if (isAllThere && !IsFaulty())
            file.isChanged = false;
        if (isWritten)
            SetDisk(file, file.Versions());
    }

    bool IsAnyLost() const {
        return std::ranges::any_of(m_files, [](const File& file) {
            return file.isHarmed || std::ranges::any_of(file.table, [](const auto& entry) {
                       return entry.second.isLost;
                   });
        });
    }

    // --- What is on disk ------------------------------------------------------------------------

    // Before a kill, it is unknown whether a table was written.
    static void SetDisk(File& file, std::optional<Saved> saved) {
        faults::IsFrozen() ? file.ForgetDisk() : file.SetDisk(std::move(saved));
    }

    // The events that save a closed file have run.
    void TableWritten(File& file) {
        if (IsFaulty() || !file.saving)
            return TableFailed(file);
        if (!*file.saving && !file.isDisplaced)
            Require(!fs::exists(m_cache.Path(file.id, FM_DATA_EXTENSION)) &&
                        !fs::exists(m_cache.Path(file.id, FM_INFO_EXTENSION)),
                    "the files of a temporary file are removed");
        SetDisk(file, std::move(*file.saving));
    }

    void TableFailed(File& file) {
        if (!file.saving && !IsFaulty())
            return;
        Saved kept = file.saving ? std::move(file.kept) : Saved();
        file.ForgetDisk();
        file.kept = std::move(kept);
    }

    // The library has waited until the table of the closed file is written.
    void Settled(File& file) {
        const bool wasSettled = std::exchange(file.isSettled, true);
        if (IsFaulty() && !wasSettled)
            file.ForgetDisk(); // a fault may hide what is on disk
        if (IsFaulty())
            return;
        if (!wasSettled)
            TableWritten(file);
        if (!file.kept.empty())
            file.promised = std::exchange(file.kept, {});
    }

    void Look(const Step& step, File& file) { step.how % 4 == 0 ? List() : Describe(file); }

    void List() {
        std::vector<CRtString> stems;
        std::vector<CRtString> others;
        const int result = FMListCachedFiles("", stems, others);
        Require(std::ranges::is_sorted(stems, {}, &CRtString::view) &&
                    std::ranges::adjacent_find(stems) == stems.end(),
                "the catalog lists each file once, in order");
        for (File& file : m_files) {
            Require(!file.ref || result != RT_OK ||
                        std::ranges::count(stems, FMFileIDToString(file.id)) == 1,
                    "the catalog lists an open file");
            if (!IsToDescribe(file))
                continue;
            Settled(file);
            const bool isListed = std::ranges::count(stems, FMFileIDToString(file.id)) > 0;
            Require(isListed || IsFaulty() || !file.isKnown || !file.disk,
                    "the catalog lists a file");
        }
    }

    void Describe(File& file) {
        if (!IsToDescribe(file) || IsReferenced(file))
            return;
        FMCachedFile found;
        TraceResult(FMDescribeCachedFile("", FMFileIDToString(file.id), found));
        Settled(file);
        if (IsFaulty() || !file.isKnown)
            return;
        Require(found.isLoadable == file.disk.has_value(),
                "the catalog knows what loads: " + std::string(found.infoFault.view()));
        Require(found.isOpenElsewhere == (file.lock >= 0), "the catalog knows who has the file");
        Require(!file.disk || file.isForeign || found.storedBlocks == file.disk->size(),
                "the catalog counts blocks");
    }

    // The catalog does not wait for the removal of a temporary file.
    static bool IsToDescribe(const File& file) {
        return !file.ref && !file.isDisplaced && (file.isSettled || !file.IsTemporary());
    }

    // --- Files ----------------------------------------------------------------------------------

    void Create(const Step& step, File& file) {
        FMFileInfo info;
        info.fileID = file.id;
        info.blockBeg = 1;
        info.num = BLOCKS;
        info.flag = step.how % 8 == 0   ? uint32_t{FM_FILE_TEMPORARY}
                    : step.how % 8 == 1 ? uint32_t{FM_FILE_KEPT}
                                        : 0;
        const bool isNeverSaved =
            file.ref && (file.isChanged || file.isHarmed || file.IsTemporary());
        if (isNeverSaved || !file.isSettled) // or its table may be written before or after
            file.ForgetDisk();
        Unlock(file);
        file.kept.clear();
        file.isDisplaced = file.isDisplaced || file.ref;
        Leave(file);
        Require(m_cache.manager->CreateFile(file.ref.Receive(), info) == RT_OK,
                "a file is created");
        file.flag = info.flag;
        file.created = m_clock.seconds;
        file.generation = ++m_generation;
        file.isSettled = true;
    }

    void Open(const Step&, File& file) { Load(file); }

    bool Load(File& file) {
        if (file.ref)
            return true;
        const int result = m_cache.manager->OpenFile(file.ref.Receive(), file.id, 1);
        TraceResult(result);
        Settled(file);
        if (file.lock >= 0 && result != RT_OK)
            return false;
        // A file system without locks: the call fails, and the file is used as it is.
        Require(file.lock < 0 || IsFaulty(), "a file of another server does not load");
        Unlock(file);
        const bool mayLoad = IsFaulty() || !file.isKnown || file.disk;
        const bool mayFail = IsFaulty() || (file.promised.empty() && !(file.isKnown && file.disk));
        Require(result == RT_OK ? mayLoad : mayFail,
                result == RT_OK ? "a removed file does not load" : "a saved file loads");
        if (result == RT_OK)
            Restore(file);
        return result == RT_OK;
    }

    void Restore(File& file) {
        file.flag = file.ref->GetFileInfo().flag;
        file.created = static_cast<CFMFile&>(*file.ref).GetCreateTime();
        file.kept.clear();
        file.isHarmed = faults::Hits() > 0 && m_action == faults::CALL; // perhaps after the load
        uint32_t generation = 0;
        for (uint32_t id = 1; id <= BLOCKS; ++id) {
            if (const BlockRef block = Cache::Block(*file.ref, id, 0))
                file.table[id] = Recognize(file, *block, generation);
        }
        const Saved found = file.Versions();
        for (const auto& [id, version] : file.promised)
            Require(IsFaulty() || (found.contains(id) && found.at(id) == version),
                    Name(file, id) + " was saved, but is absent");
        Require(IsFaulty() || file.isForeign || !file.isKnown || (file.disk && found == *file.disk),
                "a load finds what was saved, and nothing else");
        file.generation = file.diskGeneration = generation ? generation : ++m_generation;
    }

    Block Recognize(const File& file, IFMBlock& block, uint32_t& generation) {
        Block model;
        model.isLost = file.isHarmed;
        if (!block.IsComplete())
            return model;
        model.length = block.GetTotalLen();
        const auto promised = file.promised.find(block.GetBlockID());
        if (promised != file.promised.end()) {
            const Version& version = History(file, promised->first).at(promised->second - 1);
            model.version = promised->second;
            model.bytes = version.bytes;
            generation = version.generation;
            Require(model.length == model.bytes.size(), "a promised block has its length");
        } else if (file.isForeign) {
            model.isLost = true;
            model.bytes.resize(model.length);
        } else {
            Identify(file, block, model, generation);
        }
        return model;
    }

    // Finds the version of a loaded block that the model cannot predict.
    void Identify(const File& file, IFMBlock& block, Block& model, uint32_t& generation) {
        const std::string name = Name(file, block.GetBlockID());
        model.bytes = ::Read(block);
        if (IsError(model.bytes)) {
            faults::Lift(); // the generation must be known
            model.bytes = ::Read(block);
        }
        if (IsError(model.bytes)) {
            model.isLost = true;
            model.bytes.assign(model.length, '\0');
            Require(!file.isKnown || IsFaulty(), name + " cannot be read");
            return;
        }
        const std::vector<Version>& versions = History(file, block.GetBlockID());
        const auto it = std::find_if(versions.rbegin(), versions.rend(), [&](const Version& each) {
            return each.bytes == model.bytes && (generation == 0 || each.generation == generation);
        });
        if (!Require(it != versions.rend(),
                     name + " has bytes that no complete write of this file had"))
            return;
        generation = it->generation;
        model.version = static_cast<uint32_t>(versions.rend() - it);
    }

    std::vector<Version>& History(const File& file, uint32_t id) {
        return m_history[{file.id.Data1, id}];
    }

    void Attach(const Step&, File& file) {
        const int result = m_cache.manager->AttachFile(file.id);
        Require(result == (file.ref ? RT_OK : RT_ERROR_NOT_FOUND), "an open file can be attached");
        file.attached += file.ref ? 1 : 0;
    }

    void Detach(const Step&, File& file) { Close(file); }
    void Close(File& file) {
        const FileRef object = file.ref;
        const bool isOpen = static_cast<bool>(object);
        if (isOpen && file.attached <= 1)
            Closed(file);
        else if (isOpen)
            --file.attached;
        const int result = m_cache.manager->DetachFile(file.id);
        Require(result == (isOpen ? RT_OK : RT_ERROR_NOT_FOUND), "an open file can be detached");
        BlockRef block;
        Require(!isOpen || file.ref ||
                    object->GetBlock(block.Receive(), 1, 1) == RT_ERROR_NOT_READY,
                "a closed file has no blocks");
    }

    // The model of a file that is about to be closed.
    void Closed(File& file) {
        file.isSettled = false;
        ForEachHeld(file, [](Held& held) { held.isClosed = held.isClosed || held.isOpen; });
        if (file.IsTemporary() || file.isChanged || file.isHarmed) {
            Saved kept = BlocksToKeep(file);
            file.ForgetDisk();
            file.kept = std::move(kept);
            if (!file.isHarmed)
                file.saving.emplace(file.IsTemporary() ? std::nullopt
                                                       : std::optional(file.Versions()));
        }
        Leave(file);
    }

    // Blocks that the library stores, or names in a table, until it succeeds: resident ones if another program has
    // removed or truncated the files, else stored ones.
    Saved BlocksToKeep(const File& file) const {
        Saved kept;
        if (file.IsTemporary() || file.isRewritten || file.isDisplaced || m_isThreaded ||
            IsFaulty() || (file.isHarmed && file.isForeign))
            return kept;
        for (const auto& [id, version] : file.Versions()) {
            const BlockRef block = Cache::Block(*file.ref, id, 0);
            if (!block)
                continue;
            const FMBlockStatus status = FMGetBlockStatus(*block);
            // A pending store may reach the removed file: the path is checked once a second.
            const bool isResident =
                status.isResident && status.condition != FMBlockCondition::Pending;
            if (file.isHarmed ? isResident : status.condition == FMBlockCondition::Stored)
                kept[id] = version;
        }
        return kept;
    }

    void Leave(File& file) {
        ForEachHeld(file, [](Held& held) { held.isOpen = false; });
        file.Leave();
    }

    // --- Blocks ---------------------------------------------------------------------------------

    static uint32_t PickID(const Step& step) { return step.block % BLOCKS + 1; }

    // Opens or creates the file if it is not open.
    BlockRef Find(const Step& step, File& file) {
        if (!Load(file))
            Create(step, file);
        const BlockRef block = Cache::Block(*file.ref, PickID(step), 1);
        if (Require(static_cast<bool>(block), "a block is created"))
            file.table.try_emplace(PickID(step));
        return block;
    }

    void Write(const Step& step, File& file) {
        const BlockRef block = Find(step, file);
        if (!block)
            return;
        const uint32_t id = PickID(step);
        Block& model = file.table[id];
        const auto position = static_cast<uint32_t>(model.bytes.size());
        const bool isComplete = model.length != 0 && position == model.length;
        const bool isAnew = step.how % 16 == 1 || (isComplete && step.how % 16 > 3);
        const uint32_t pos = isAnew ? 0 : position + (step.how % 16 == 2);
        const bool isRewrite = pos != position;
        const bool isSame = model.length != 0 && step.how % 4 != 3; // the same length again
        const uint32_t length = isSame                ? model.length
                                : step.size % 64 == 0 ? 70'000U + step.size
                                                      : 8U + step.size % 3000;
        const uint32_t left = length > pos ? length - pos : 0;
        const uint32_t size = step.how < 160 ? left : std::min<uint32_t>(left, left / 2 + 1);
        const auto version = static_cast<uint32_t>(History(file, id).size()) + 1;
        const std::string whole = Pattern(file.id.Data1 * 4099 + id * 257 + version, length);
        const uint32_t wholeLength = isRewrite || model.length == 0 ? length : model.length;
        const bool isRefused = (isRewrite && pos != 0) || uint64_t{pos} + size > wholeLength;
        if (!isRefused && (isRewrite || size > 0))
            file.BeginWrite(id);
        const char* const bytes = whole.data() + std::min(pos, length);
        const uint32_t front = step.how % 32 < 8 ? size / 2 : size; // a chain of two message blocks
        const CRtMessageChain piece = CRtMessageBlock::Wrap(bytes, front);
        if (front < size)
            piece->Append(CRtMessageBlock::CreateCopy(bytes + front, size - front));
        const int result = block->WriteData(length, pos, piece.get());
        Trace(" pos " + std::to_string(pos) + " size " + std::to_string(size) + " of " +
              std::to_string(length));
        TraceResult(result);
        Require(result == (isRefused ? RT_ERROR_INVALID_ARG : RT_OK), "a piece is accepted");
        if (isRefused || size == 0)
            return;
        model.bytes = (isRewrite ? std::string() : model.bytes) + whole.substr(pos, size);
        model.length = wholeLength;
        model.version = 0;
        model.isLost = file.isHarmed; // the path of the data file is checked once a second
        if (model.bytes.size() == model.length) {
            History(file, id).push_back({file.generation, model.bytes});
            model.version = version;
        }
        Require(block->GetPosition() == model.bytes.size(), "a piece moves the position");
        Require(block->IsComplete() == (model.version != 0), "the last piece completes the block");
    }

    void Remove(const Step& step, File& file) {
        if (!file.ref)
            return;
        BlockRef removed;
        const int result = file.ref->RemoveBlock(PickID(step), removed.Receive());
        Require(result == RT_OK && static_cast<bool>(removed) == file.table.contains(PickID(step)),
                "a block is removed");
        if (!removed)
            return;
        file.BeginWrite(PickID(step));
        file.table.erase(PickID(step));
        ForEachHeld(file, [&](Held& held) {
            held.isOpen = held.isOpen && held.block.Get() != removed.Get();
        });
    }

    void Read(const Step& step, File& file) {
        if (step.how % 8 == 7)
            return ReadHeld(step);
        const BlockRef block = Find(step, file);
        if (!block)
            return;
        const Block& model = file.table[PickID(step)];
        const std::string name = Name(file, PickID(step));
        const uint32_t from = step.size % (model.length + 2);
        const uint32_t length = // with UINT32_MAX, the sum overflows
            step.how % 16 == 6 ? UINT32_MAX : step.how * 37U % (model.length + 2);
        CRtMessageChain view;
        const int result = block->ReadData(from, length, RtReceive(view));
        Trace(" from " + std::to_string(from) + " length " + std::to_string(length));
        TraceResult(result);
        const bool isInside = from <= model.bytes.size() && uint64_t{from} + length <= model.length;
        const int expected = !isInside            ? RT_ERROR_INVALID_ARG
                             : model.version == 0 ? RT_ERROR_NOT_READY
                                                  : RT_OK;
        Require(result == expected || model.isLost || (model.version != 0 && IsFaulty()),
                name + " can be read as far as it is written");
        if (result != RT_OK || model.version == 0)
            return;
        m_view = std::move(view);
        m_viewed = model.bytes.substr(from, length);
        Require(Bytes(m_view) == m_viewed, name + " has its bytes");
    }

    // --- Blocks that are referenced, and asynchronous reads -------------------------------------

    void ForEachHeld(const File& file, const std::function<void(Held&)>& change) {
        const auto visit = [&](Held& held) {
            if (held.block->GetFileID() == file.id)
                change(held);
        };
        for (const auto& held : m_held)
            visit(*held);
        for (const Wait& wait : m_waits)
            visit(wait.GetHeld());
    }

    std::string NameOf(const Held& held) const {
        return Name(FileOf(held), held.block->GetBlockID());
    }
    const File& FileOf(const Held& held) const {
        return m_files[held.block->GetFileID().Data1 - 1];
    }

    std::shared_ptr<Held> Keep(const Step& step, File& file) {
        const BlockRef block = Find(step, file);
        if (!block)
            return nullptr;
        for (const auto& held : m_held) {
            if (held->block.Get() == block.Get())
                return held;
        }
        m_held.push_back(std::make_shared<Held>(Held{block}));
        return m_held.back();
    }

    std::shared_ptr<Held> PickHeld(const Step& step) const {
        return m_held.empty() ? nullptr : m_held[step.size % m_held.size()];
    }

    void Hold(const Step& step, File& file) {
        if (step.how % 2)
            Keep(step, file);
        else
            std::erase(m_held, PickHeld(step));
    }

    // Reads a block that is referenced, possibly of a closed file.
    void ReadHeld(const Step& step) {
        const std::shared_ptr<Held> held = PickHeld(step);
        if (!held)
            return;
        CheckHeld(*held, ::Read(*held->block));
        const CRtMessageChain piece = CRtMessageBlock::Wrap("piece", 5);
        Require(!held->isClosed || held->block->GetPosition() == 0 ||
                    held->block->WriteData(5, 0, piece.get()) == RT_ERROR_NOT_READY,
                "a block of a closed file is not written");
    }

    void CheckHeld(const Held& held, const std::string& bytes) {
        if (IsError(bytes) || FileOf(held).isForeign)
            return;
        const auto& versions = History(FileOf(held), held.block->GetBlockID());
        const auto hasBytes = [&](const Version& version) { return version.bytes == bytes; };
        const uint32_t current = VersionOf(held);
        Require(current != 0 ? hasBytes(versions.at(current - 1))
                             : std::ranges::any_of(versions, hasBytes),
                NameOf(held) + " has its bytes");
    }

    void Ask(const Step& step, File& file) {
        std::shared_ptr<Held> held = step.how % 8 == 7 ? PickHeld(step) : nullptr;
        if (!held)
            held = Keep(step, file);
        if (!held)
            return;
        for (uint32_t i = 0; i < 1U + step.how % 2; ++i)
            Ask(held, step.how % 4 == 0);
    }

    void Ask(const std::shared_ptr<Held>& held, bool isTwice) {
        Wait& wait = m_waits.emplace_back(*this, held);
        wait.isAsking = true;
        const int result = held->block->ReadData(&wait);
        wait.isAsking = false;
        TraceResult(result);
        if (result != RT_OK)
            wait.isOver = true; // after a failure the sink is not called
        if (!wait.isOver && isTwice)
            held->block->ReadData(&wait); // one call is enough
    }

    bool IsFirstWaiting(const Wait& asked) const {
        return &asked == &*std::ranges::find_if(m_waits, [&](const Wait& wait) {
            return !wait.isOver && wait.GetHeld().block.Get() == asked.GetHeld().block.Get();
        });
    }

    // The current version of the block in its open file; 0 if there is none that must be readable.
    uint32_t VersionOf(const Held& held) const {
        const File& file = FileOf(held);
        const auto it = file.table.find(held.block->GetBlockID());
        const bool isReadable =
            held.isOpen && file.ref && it != file.table.end() && !it->second.isLost;
        return isReadable ? it->second.version : 0;
    }

    // A load that a rewrite overtakes is stale: the next one serves the sink.
    void CheckCompletion(const Held& held, int result, bool mayFail) {
        Trace(" [sink " + std::to_string(result) + "]");
        mayFail = mayFail || VersionOf(held) == 0;
        Require(result == RT_OK || mayFail, NameOf(held) + " can be loaded");
        if (result != RT_OK)
            return;
        const std::string bytes = ::Read(*held.block);
        Require(mayFail || !IsError(bytes), NameOf(held) + " can be read once it is loaded");
        CheckHeld(held, bytes);
    }

    void Cancel(const Step& step, File&) {
        std::vector<Wait*> waiting;
        for (Wait& wait : m_waits) {
            if (!wait.isOver)
                waiting.push_back(&wait);
        }
        if (waiting.empty())
            return;
        Wait& wait = *waiting[step.size % waiting.size()];
        wait.Cancel();
        if (step.how % 2)
            Ask(wait.Share(), false);
    }

    static fs::path Directory() {
        static const TempDir dir; // the manager keeps its directory until process end
        return dir.path;
    }

    const Program& m_program;
    const bool m_isThreaded;
    const bool m_isLogTraced;
    std::string* const m_trace;
    std::string m_violation;
    size_t m_next = 0;
    int m_depth = 0; // of steps in sinks
    int m_lines = 0; // log lines of this step
    faults::Action m_action = faults::NOTHING;
    uint32_t m_faults = 0; // steps in which a system call has failed
    uint32_t m_generation = 0;
    uint16_t m_days = DAYS;
    bool m_isRunning = false;
    int m_questions = 0; // callbacks that were asked for
    int m_answers = 0;
    bool m_isDown = false;   // the read/write thread runs, and the caller thread does not wait
    bool m_isHarmed = false; // another program has changed a file
    int m_storeLock = -1;    // another server's
    std::map<std::pair<uint32_t, uint32_t>, std::vector<Version>> m_history; // by file and block
    CRtMessageChain m_view;                                                  // of the last read
    std::string m_viewed;
    TestClock m_clock;
    Cache m_cache{Directory(), false};
    File m_files[FILES];
    std::vector<std::shared_ptr<Held>> m_held;
    std::list<Wait> m_waits;
};

} // namespace

std::string RunInWorld(const Program& program, bool isThreaded, std::string* trace, bool withLog) {
    return World(program, isThreaded, trace, withLog).Run();
}

} // namespace sim
