// Steps, faults, other programs, and the calls of the manager.
#include "testing/world.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

#include "FMCatalog.h"
#include "FMDurability.h"
#include "FMStatistics.h"
#include "util/filemanager/filemanager.h"
#include "util/filemanager/statistics.h"

namespace sim {

// Returns the first violated expectation.
std::string World::Run() {
    while (m_next < m_program.size() && m_violation.empty())
        RunStep();
    if (m_violation.empty())
        End();
    return m_violation;
}

void World::End() {
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
    Require(g_statistics.Get(CFMStatistics::FilesCreated) ==
                g_statistics.Get(CFMStatistics::FilesDestroyed),
            "every file is released");
    Require(g_statistics.Get(CFMStatistics::BlocksCreated) ==
                g_statistics.Get(CFMStatistics::BlocksDestroyed),
            "every block is released");
    Require(CFileManager::Instance()->GetMemoryInUse() == 0, "no memory is in use");
    Require(m_answers == m_questions, "every callback is called once");
}

// --- Expectations ------------------------------------------------------------------------------

// After the simulated kill the process continues until the step ends; violations in that time are ignored.
bool World::Require(bool holds, const std::string& what) {
    if (!holds && !faults::IsFrozen() && m_violation.empty())
        m_violation = "step " + std::to_string(m_next) + ": " + what;
    return holds;
}

void World::TakeLine(void* self, int level, const char* text) {
    World& world = *static_cast<World*>(self);
    const std::string_view line(text);
    const std::string_view stable = line.substr(0, line.find(" this="));
    if (world.m_isLogTraced)
        world.Trace("    " + std::string(stable) + "\n");
    world.m_lines += level <= RT_LOG_WARNING ? 1 : 0;
    world.Require(world.m_lines < LINES_MAX, "a step writes few log lines");
    world.Require(!stable.ends_with(" Assert failed: !m_data"), "a buffer is not replaced");
    const bool isShortRead = stable.find(".sdd dwLength=") != stable.npos &&
                             stable.find("fread Failed. Error Ret: 0") != stable.npos;
    world.Require(!isShortRead || world.m_action == faults::CALL || world.IsAnyHarmed(),
                  "no buffer is allocated that the data file cannot fill");
    world.Require(std::ranges::none_of(line, [](char each) { return each >= 0 && each < ' '; }),
                  "a log line does not control the terminal");
}

// Whether a system call of this step has failed.
bool World::IsFaulty() const { return faults::Hits() > 0 && m_action != faults::CALL; }

void World::Trace(const std::string& text) {
    if (m_trace)
        *m_trace += text;
}

// --- Steps -------------------------------------------------------------------------------------

void World::RunStep() {
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

void World::RunStepInSink() {
    if (faults::IsFrozen() || !m_isRunning || m_depth > 1 || m_next >= m_program.size() ||
        m_program[m_next].how % 3 != 0)
        return;
    ++m_depth;
    RunStep();
    --m_depth;
}

void World::Call(const Step& step) {
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
                 {"rest", &W::Rest},
                 {"look", &W::Look},
                 {"lock", &W::LockStep},
                 {"burst", &W::Burst},
                 {"hold", &W::Hold},
                 {"attach", &W::Attach},
                 {"restart", &W::RestartStep},
                 {"housekeep", &W::KeepHouse},
                 {"foreign", &W::Foreign}};
    static_assert(std::size(calls) == CALLS);
    const auto& entry = calls[step.call % CALLS];
    File& file = m_files[step.file % FILES];
    Trace(std::to_string(m_next) + " " + entry.name + " " + std::to_string(file.id.Data1) + "/" +
          std::to_string(step.block % BLOCKS + 1));
    (this->*entry.call)(step, file);
    Trace("\n");
}

bool World::Up() {
    if (m_depth > 0)
        return false;
    return m_isThreaded ? m_cache.thread.RunDue() > 0 : CRtEventQueue::Current()->Step();
}

void World::Settle() {
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
void World::TableWritten(File& file) {
    const Saved rescued = std::move(file.rescued);
    if (file.saving && (file.flag & FM_FILE_TEMPORARY) && !IsFaulty() && !file.isDisplaced)
        Require(!fs::exists(m_cache.Path(file.id, ".sdd")) &&
                    !fs::exists(m_cache.Path(file.id, ".sdi")),
                "the files of a temporary file are removed");
    if (file.saving && !IsFaulty())
        SetDisk(file, std::move(*file.saving));
    else if (file.saving)
        TableFailed(file);
    if (!rescued.empty() && !IsFaulty())
        file.promised = rescued;
    file.saving.reset();
}

void World::TableFailed(File& file) {
    Saved stored = std::move(file.stored);
    ForgetDisk(file);
    file.retried = std::move(stored);
}

// Both threads are idle.
void World::CheckFigures() {
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

void World::CheckCondition(const File& file, uint32_t id, const Block& model) {
    const BlockRef block = Cache::Block(*file.ref, id, 0);
    if (file.isHarmed || file.isDisplaced || model.isLost || !block)
        return;
    const FMBlockStatus status = FMGetBlockStatus(*block);
    Require((status.condition == FMBlockCondition::Stored) == (model.version != 0),
            Name(file, id) + " is stored");
    Require(!status.survivesKill || !model.isUnsaved,
            Name(file, id) + " has changed since the last table");
    Require(status.isResident || model.bytes.empty() || model.version != 0,
            Name(file, id) + " is stored before it is released");
}

void World::SetDisk(File& file, std::optional<Saved> saved) {
    if (faults::IsFrozen()) // whether it was written before the kill is unknown
        return ForgetDisk(file);
    file.isKnown = true;
    file.stored.clear();
    file.retried.clear();
    file.isForeign = file.isForeign && saved && file.generation == file.diskGeneration;
    file.promised.clear();
    if (saved)
        file.promised = *saved;
    file.disk = std::move(saved);
    file.diskGeneration = file.generation;
}

void World::ForgetDisk(File& file) {
    file.isKnown = false;
    file.promised.clear();
    file.saving.reset();
    file.rescued.clear();
    file.stored.clear();
    file.retried.clear();
}

// --- Faults ------------------------------------------------------------------------------------

void World::BeginFault(const Step& step) {
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
        plan = {FAIL, READ, step.at % 4U + 1, true, EIO, 0};
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
            m_clock.Advance(2000); // the check of the path, once a second, is due
        });
        break;
    }
    case 11:
        plan.action = CALL;
        SetCallback([this] { m_clock.Advance(2000); });
        break;
    case 12:
        plan = {FAIL, LOOK, step.at % 4U + 1, false, EIO, 0};
        break;
    default:
        break;
    }
    m_action = plan.action;
    Begin(m_cache.dir.path, plan);
}

void World::EndFault() {
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
void World::Die() {
    Trace("  killed\n");
    for (File& file : m_files) {
        if (file.ref || !file.isSettled)
            file.isKnown = file.isKnown && !file.isChanged && !file.saving && !file.isHarmed;
        file.stored.clear();
        file.retried.clear();
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
void World::Harm(File& file, uint32_t how) {
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
    case 7: // a name that cannot be saved again, and no creation time
        if (!file.ref && file.isSettled) {
            constexpr size_t shortBody = FM_INFO_FILE_BODY_MAX - 3;
            FMFileInfo named;
            named.fileID = file.id;
            named.name = CRtString(std::string(FM_INFO_NAME_MAX + 1, 'n'));
            std::string bytes = InfoFile(named, std::string(2, '\0'));
            bytes.erase(FM_INFO_BODY_OFFSET + shortBody, 4);
            bytes[FM_INFO_LENGTH_OFFSET] = static_cast<char>(shortBody % 256);
            bytes[FM_INFO_LENGTH_OFFSET + 1] = static_cast<char>(shortBody / 256);
            WriteFile(info, bytes);
            Harmed(file, true);
            return SetDisk(file, std::nullopt);
        }
        [[fallthrough]];
    default:
        for (File& each : m_files)
            Unlock(each);
        fs::remove_all(data.parent_path(), ignored);
        for (File& each : m_files)
            Harmed(each, false);
    }
    Harmed(file, fs::exists(data) && (how % 8 != 0 || file.isParked || file.hasGap));
}

void World::Overwrite(const fs::path& path, size_t at, const std::string& bytes) {
    std::string content = ReadFile(path);
    if (content.size() >= at + bytes.size())
        WriteFile(path, content.replace(at, bytes.size(), bytes));
}

// If the stream was closed since, the library takes the file for another server's.
void World::Harmed(File& file, bool isRewritten) {
    ForgetDisk(file);
    file.isHarmed = true;
    // A file that is removed while the library opens it looks like one of another server.
    file.isRewritten = file.isRewritten || isRewritten || m_action == faults::CALL || m_faults > 0;
    for (auto& [id, block] : file.table)
        block.isLost = true;
    ForEachHeld(file, [](Held& held) { held.isLost = true; });
}

// --- Another server ----------------------------------------------------------------------------

// It opens the file: it holds the locks of the data file and of the store.
void World::LockStep(const Step&, File& file) {
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
        Require(::syscall(SYS_flock, m_storeLock, LOCK_SH | LOCK_NB) == 0, "servers share a store");
    }
}

// Not a call of the library: it is not counted and does not fail.
int World::OpenElsewhere(const fs::path& path, int flags) {
    return static_cast<int>(::syscall(SYS_openat, AT_FDCWD, path.c_str(), flags | O_CLOEXEC, 0));
}

void World::Unlock(File& file) {
    if (file.lock >= 0)
        ::syscall(SYS_close, std::exchange(file.lock, -1));
    const auto isLocked = [](const File& each) { return each.lock >= 0; };
    if (m_storeLock >= 0 && std::ranges::none_of(m_files, isLocked))
        ::syscall(SYS_close, std::exchange(m_storeLock, -1));
}

void World::CheckLocks() {
    for (File& file : m_files) {
        const int fd = OpenElsewhere(m_cache.Path(file.id, ".sdd"), O_RDWR);
        if (fd < 0)
            continue;
        Require(file.lock >= 0 || ::syscall(SYS_flock, fd, LOCK_EX | LOCK_NB) == 0,
                "a stopped manager holds no lock");
        ::syscall(SYS_close, fd);
    }
}

// --- The manager -------------------------------------------------------------------------------

void World::Start(uint16_t days) {
    m_cache.manager->Initialize(CRtString(m_cache.dir.path.string()), days, 1);
    m_days = days;
    m_isRunning = true;
    if (days == 0)
        ForgetFiles();
}

// The cache has been cleared.
void World::ForgetFiles() {
    for (File& file : m_files) {
        Require(file.lock < 0 || fs::exists(m_cache.Path(file.id, ".sdd")),
                "a store that another server uses is not cleared");
        if (IsFaulty() || m_storeLock >= 0)
            ForgetDisk(file);
        else
            SetDisk(file, std::nullopt);
    }
}

void World::Stop() {
    for (File& file : m_files) {
        if (file.ref)
            Closed(file);
    }
    m_isRunning = false; // sinks do not use a stopped manager
    for (const File& file : m_files)
        ForEachHeld(file, [](Held& held) { held.isLost = true; });
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

void World::Restart(uint16_t days) {
    Stop();
    Start(days);
}

void World::RestartStep(const Step& step, File&) {
    if (m_depth == 0 && step.how % 4 == 0)
        Restart(step.how % 32 == 0 ? 0 : 7);
}

void World::Tick(const Step& step, File&) {
    m_clock.Advance(step.how % 2 ? TICK_MS : IDLE_MS);
    if (m_depth == 0)
        m_cache.thread.RunDue();
}

// Now or ten days later: removes files that are not open and not kept, once they have expired.
void World::KeepHouse(const Step& step, File&) {
    if (m_depth > 0)
        return;
    Settle();
    m_clock.Advance(step.how % 2 ? 0 : 10 * DAY_MS);
    FMStartHousekeeping();
    m_cache.thread.RunDue();
    Settle();
    for (File& file : m_files) {
        const bool isKept = (file.flag & FM_FILE_KEPT) || !IsExpired(file);
        if (file.ref || IsReferenced(file) || file.lock >= 0)
            continue;
        // Without a stored block there may be no data file, and housekeeping examines data files.
        const bool hasData = file.isKnown && !file.promised.empty();
        if (hasData && isKept && file.diskGeneration == file.generation)
            continue;
        if (IsFaulty() || file.diskGeneration != file.generation || !hasData || file.isDisplaced)
            ForgetDisk(file);
        else
            SetDisk(file, std::nullopt);
    }
}

// After the seven days that Start sets, and two that the rule adds.
bool World::IsExpired(const File& file) const {
    return m_clock.seconds - file.created >= 9 * DAY_MS / 1000;
}

// Housekeeping skips a path that has a live object.
bool World::IsReferenced(const File& file) const {
    const auto isOf = [&](const auto& held) { return held->block->GetFileID() == file.id; };
    return std::ranges::any_of(m_held, isOf) ||
           std::ranges::any_of(m_waits, [&](const Wait& wait) { return isOf(wait.GetHeld()); });
}

void World::Foreign(const Step& step, File& file) {
    if (step.how % 8 == 0 && !m_isThreaded)
        Harm(file, step.size);
}

// The tables of changed files are written.
void World::BeginFlush() {
    for (File& file : m_files) {
        if (file.ref && file.isChanged) {
            file.promised.clear();
            file.isKnown = false;
        }
    }
}

void World::FlushLater(const Step& step, File&) {
    ++m_questions;
    const auto answer = [this] { ++m_answers; };
    if (step.how % 2) {
        FMCallWhenIdle([answer](int) { answer(); });
        return;
    }
    BeginFlush();
    std::map<FMFileID, Saved> flushed;
    for (const File& file : m_files)
        flushed[file.id] = Versions(file);
    FMFlushAsync([this, answer, flushed](int result, const std::vector<FMUnsavedBlock>& unsaved) {
        answer();
        if (result == RT_ERROR_NOT_READY)
            return;
        BeginFlush(); // a kill while a table is written loses the blocks that it names
        if (faults::IsFrozen())
            return;
        Require(result != RT_OK || unsaved.empty(), "a flush lists what it has not written");
        for (const FMUnsavedBlock& block : unsaved)
            Require(IsFaulty() || m_faults > 0 || IsAnyLost() || !IsCurrent(block, flushed),
                    "a flush writes the earlier stores");
        for (File& file : m_files) {
            for (const auto& [id, block] : file.table)
                PromiseSurvivor(file, id, block);
            if (file.ref && file.isChanged && !IsFaulty())
                NoteTable(file);
        }
    });
}

// Whether an open file still has the version that it had then.
bool World::IsCurrent(const FMUnsavedBlock& block, const std::map<FMFileID, Saved>& then) const {
    const File& file = m_files[block.fileID.Data1 - 1];
    const Saved& earlier = then.at(file.id);
    const auto model = file.table.find(block.blockID);
    const auto version = earlier.find(block.blockID);
    return model != file.table.end() && version != earlier.end() &&
           model->second.version == version->second;
}

// True if a kill would not lose the block.
bool World::PromiseSurvivor(File& file, uint32_t id, const Block& model) {
    const BlockRef block = Cache::Block(*file.ref, id, 0);
    if (!Require(static_cast<bool>(block), "a block stays in the table"))
        return false;
    const bool survives = FMGetBlockStatus(*block).survivesKill;
    if (survives && !file.isHarmed && model.version != 0)
        file.promised[id] = model.version;
    file.table[id].isUnsaved = !survives;
    return survives;
}

void World::Flush(const Step& step, File&) {
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

void World::Flushed(File& file, int result) {
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
        SetDisk(file, Versions(file));
}

// A table of this object is on disk: it has overwritten that of a predecessor.
void World::NoteTable(File& file) {
    file.isForeign = file.isForeign && (file.isHarmed || file.generation == file.diskGeneration);
    file.diskGeneration = file.generation;
}

bool World::IsAnyHarmed() const { return std::ranges::any_of(m_files, &File::isHarmed); }

bool World::IsAnyLost() const {
    return std::ranges::any_of(m_files, [](const File& file) {
        return file.isHarmed || std::ranges::any_of(file.table, [](const auto& entry) {
                   return entry.second.isLost;
               });
    });
}

// Loads of other files: after eight events of the high lane, one of the normal lane runs.
void World::Burst(const Step&, File&) {
    for (int i = 0; i < 8; ++i)
        CFileManager::Instance()->PostToReadwrThread(new TestEvent, 0, RT_PRIORITY_HIGH);
}

// The file is idle: its buffers are released, or its streams are closed, as when too many are open.
void World::Rest(const Step& step, File& file) {
    m_clock.Advance(IDLE_MS);
    for (const auto& held : m_held)
        EvictDisplaced(*held);
    if (!file.ref)
        return;
    auto& object = static_cast<CFMFile&>(*file.ref);
    if (step.how % 4 != 0)
        object.FreeBlocksMemory();
    if (step.how % 4 > 1)
        return;
    object.GetEntry().CloseStreams();
    file.isParked = true;
}

// The buffer of a block is released only if its bytes can be loaded again, although its file is not open any more.
void World::EvictDisplaced(const Held& held) {
    const bool isSettled = CRtEventQueue::Stepped() && CRtEventQueue::Stepped()->GetCount() == 0;
    if (!isSettled || held.isOpen || !held.block->IsInMemory() || held.block->FreeMemory())
        return;
    const bool isRead = !::Read(*held.block).starts_with("error");
    Require(isRead || held.isLost || m_faults > 0 || IsFaulty(),
            NameOf(held) + " was released, but cannot be loaded");
}

void World::Look(const Step& step, File& file) { step.how % 4 == 0 ? List() : Describe(file); }

// The library has waited until the table of the closed file was written.
void World::Settled(File& file) {
    const bool wasSettled = std::exchange(file.isSettled, true);
    if (IsFaulty()) { // a fault may hide what is on disk
        if (!wasSettled)
            ForgetDisk(file);
        return;
    }
    if (!wasSettled)
        TableWritten(file);
    if (!file.retried.empty())
        file.promised = std::exchange(file.retried, {});
}

void World::List() {
    std::vector<CRtString> stems;
    std::vector<CRtString> others;
    FMListCachedFiles("", stems, others);
    for (File& file : m_files) {
        if (file.ref || IsRemovalPending(file) || file.isDisplaced)
            continue;
        const bool isListed = std::ranges::count(stems, FMFileIDToString(file.id)) > 0;
        Settled(file);
        Require(isListed || IsFaulty() || !file.isKnown || !file.disk, "the catalog lists a file");
    }
}

void World::Describe(File& file) {
    if (file.ref || IsRemovalPending(file) || IsReferenced(file) || file.isDisplaced)
        return;
    FMCachedFile found;
    const int result = FMDescribeCachedFile("", FMFileIDToString(file.id), found);
    Trace(" -> " + std::to_string(result) + (found.isLoadable ? " loads" : ""));
    Settled(file);
    if (IsFaulty() || !file.isKnown)
        return;
    Require(found.isLoadable == file.disk.has_value(),
            "the catalog knows what loads: " + std::string(found.infoFault.view()));
    Require(found.isOpenElsewhere == (file.lock >= 0), "the catalog knows who has the file");
    Require(!file.disk || file.isForeign || found.storedBlocks == file.disk->size(),
            "the catalog counts blocks");
}

} // namespace sim
