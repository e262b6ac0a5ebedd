#include "workload.h"

#include <gtest/gtest.h>

#include <sys/mman.h>

#include <cstring>

#include "FMDurability.h"
#include "util/filemanager/filemanager.h"

using faults::Calm;
using faults::Hits;

namespace {

// The first bytes of a block; they determine the rest.
struct Stamp {
    uint32_t file, generation, block, version, length;
    bool operator==(const Stamp&) const = default;
};

std::string Content(const Stamp& stamp) {
    std::string bytes = Pattern(stamp.version, stamp.length);
    std::memcpy(bytes.data(), &stamp, sizeof(stamp));
    return bytes;
}

FMFileID Identifier(uint32_t file) {
    return {0x0FA17000U + file, 0x1111, 0x4222, {0x83, 3, 4, 4, 5, 5, 6, 6}};
}

// Composes log lines, as the default sink does, and discards them.
void Ignore(void*, int, const char*) {}

// The first half of this table (64 slots, half of them empty) ends between length and offset of one entry. A
// torn write over an older table would give old bytes a new length.
constexpr uint32_t LARGE_FIRST = 23;
constexpr uint32_t LARGE_MIDDLE = 31;
constexpr uint32_t LARGE_LAST = 37;

constexpr int64_t TICK_MS = 60'001;

} // namespace

std::string Workload::Name(uint32_t file) { return FMFileIDToString(Identifier(file)).c_str(); }

// --- Steps --------------------------------------------------------------------------------------

void Workload::Start(uint16_t clearDays) {
    for (uint32_t file = 0; file < FILES; ++file) {
        if (clearDays == 0)
            Forget(file);
        m_files[file].closed = false;
    }
    m_hitsBefore = Hits();
    m_cache.manager->Initialize(CRtString(m_cache.dir.path.c_str()), clearDays, 1);
}

void Workload::Stop() {
    for (uint32_t file = 0; file < FILES; ++file)
        Close(file, false);
    m_cache.manager->UnInitialize();
    m_cache.thread.RunDue();
    for (uint32_t file = 0; file < FILES; ++file) {
        // The stores and the table of a closed file may have failed without a retry.
        if (!Calm() || (m_files[file].closed && Hits() > m_hitsBefore))
            m_files[file].blocks = {};
        for (uint32_t block = 0; block < BLOCKS; ++block) {
            if (const uint32_t version = m_files[file].blocks[block].version)
                m_promises.version[file][block] = version;
        }
    }
}

void Workload::Forget(uint32_t file) {
    m_files[file].blocks = {};
    m_files[file].changed = false;
    DropPromises(file);
}

void Workload::Make(uint32_t file, std::initializer_list<uint32_t> lengths, uint32_t flag,
                    uint32_t slots) {
    Forget(file);
    FMFileInfo info;
    info.fileID = Identifier(file);
    info.flag = flag;
    info.blockBeg = 1;
    info.num = slots;
    m_files[file].generation = ++m_promises.lastGeneration;
    m_files[file].closed = false;
    const uint32_t hits = Hits();
    const int result = m_cache.manager->CreateFile(m_files[file].open.Receive(), info);
    if (result == 0 && Hits() > hits) // out of memory: the file may have no disk files
        return Close(file);
    EXPECT_TRUE(result == 0 || !Calm()) << "create " << file << ": " << result;
    uint32_t block = 0;
    for (const uint32_t length : lengths)
        Put(file, ++block, length);
}

bool Workload::Open(uint32_t number) {
    File& file = m_files[number];
    file.changed = false;
    for (Block& block : file.blocks)
        block.written = false;
    const int result = m_cache.manager->OpenFile(file.open.Receive(), Identifier(number), 1);
    if (file.closed && Hits() > m_hitsBefore)
        file.blocks = {};
    file.closed = result != 0;
    for (const uint32_t version : m_promises.version[number])
        EXPECT_TRUE(result == 0 || version == 0 || !Calm())
            << "promised " << number << " with version " << version << ", does not open";
    return result == 0;
}

// Without `detach` the file stays open; only the reference of this object is released.
void Workload::Close(uint32_t number, bool detach) {
    File& file = m_files[number];
    if (!file.open)
        return;
    if (file.changed)
        DropPromises(number);
    if (detach)
        m_cache.manager->DetachFile(Identifier(number));
    file.open.Reset();
    file.closed = detach;
}

// The table is about to be overwritten in place.
void Workload::DropPromises(uint32_t file) {
    for (uint32_t& version : m_promises.version[file])
        version = 0;
}

// What FMFlush has written must survive a kill at any moment until the next write of the table or the block.
void Workload::Flush() {
    for (uint32_t number = 0; number < FILES; ++number) {
        if (m_files[number].open && m_files[number].changed)
            DropPromises(number);
    }
    std::vector<FMUnsavedBlock> unsaved;
    const int result = FMFlush(unsaved);
    EXPECT_TRUE(result == RT_OK || !Calm()) << "flush: " << result;
    EXPECT_TRUE(result != RT_OK || unsaved.empty());
    for (uint32_t number = 0; number < FILES; ++number) {
        for (uint32_t id = 1; id < BLOCKS && m_files[number].open; ++id) {
            const BlockRef block = Cache::Block(*m_files[number].open, id, 0);
            if (block && FMGetBlockStatus(*block).survivesKill)
                m_promises.version[number][id] = m_files[number].blocks[id].version;
        }
    }
}

void Workload::Put(uint32_t number, uint32_t id, uint32_t length) {
    File& file = m_files[number];
    if (!file.open)
        return;
    constexpr uint32_t piece = 4000;
    file.changed = true;
    m_promises.version[number][id] = 0;
    file.blocks[id] = {0, true};
    const uint32_t version = ++m_promises.lastVersion;
    const std::string bytes = Content({number, file.generation, id, version, length});
    const BlockRef block = Cache::Block(*file.open, id);
    const int result = block ? Write(*block, bytes, piece) : RT_ERROR_NULL_OBJECT;
    EXPECT_TRUE(result == 0 || !Calm()) << "write " << number << "/" << id << ": " << result;
    if (result == 0)
        file.blocks[id].version = version;
    uint32_t generation = 0;
    CheckBlock(number, id, generation);
}

void Workload::Remove(uint32_t number, uint32_t id) {
    File& file = m_files[number];
    if (!file.open)
        return;
    file.changed = true;
    m_promises.version[number][id] = 0;
    file.blocks[id] = {};
    BlockRef removed;
    file.open->RemoveBlock(id, removed.Receive());
}

// The version of the block, 0 if it is absent. All blocks of a file have the same generation.
uint32_t Workload::CheckBlock(uint32_t number, uint32_t id, uint32_t& generation) {
    const Block& known = m_files[number].blocks[id];
    CRtMessageChain view;
    const BlockRef block = Cache::Block(*m_files[number].open, id, 0);
    const bool isComplete = block && block->IsComplete();
    if (isComplete)
        block->ReadData(0, block->GetTotalLen(), RtReceive(view));
    if (!view) {
        EXPECT_TRUE(!isComplete || !Calm() || m_promises.mayLackData)
            << "said to be there " << number << "/" << id;
        EXPECT_TRUE(known.version == 0 || !Calm()) << "lost " << number << "/" << id;
        return 0;
    }
    const CRtString bytes = view->FlattenChained();
    Stamp stamp{};
    std::memcpy(&stamp, bytes.data(), std::min(sizeof(stamp), bytes.size()));
    const Stamp own{number, generation ? generation : stamp.generation, id,
                    known.version ? known.version : stamp.version,
                    static_cast<uint32_t>(bytes.size())};
    EXPECT_TRUE(stamp == own && bytes.view() == Content(own))
        << "UNTRUE " << number << "/" << id << " of " << bytes.size() << " bytes says file "
        << stamp.file << "/" << stamp.block << " generation " << stamp.generation << " of "
        << generation << ", version " << stamp.version << " of " << known.version << ", length "
        << stamp.length;
    generation = stamp.generation;
    return stamp.version;
}

void Workload::Check(uint32_t number) {
    File& file = m_files[number];
    if (!file.open)
        return;
    uint32_t generation = 0;
    for (uint32_t id = 1; id < BLOCKS; ++id) {
        const uint32_t version = CheckBlock(number, id, generation);
        const uint32_t promised = m_promises.version[number][id];
        EXPECT_TRUE(promised == 0 || version == promised || !Calm())
            << "promised " << number << "/" << id << " version " << promised << ", is " << version;
        file.blocks[id].version = version;
    }
    if (generation != 0)
        file.generation = generation;
    else if (file.generation == 0)
        file.generation = ++m_promises.lastGeneration;
}

void Workload::Advance(int64_t ms) {
    m_clock.Advance(ms);
    m_cache.thread.RunDue();
}

void Workload::Load(uint32_t file, uint32_t id) {
    if (!m_files[file].open)
        return;
    CountingSink sink;
    const BlockRef block = Cache::Block(*m_files[file].open, id, 0);
    const bool asked = block && block->ReadData(&sink) == 0;
    FMWaitUntilIdle();
    EXPECT_EQ(sink.results.size(), asked ? 1U : 0U);
    uint32_t generation = 0;
    CheckBlock(file, id, generation);
}

void Workload::ExpectStoredByTick() {
    FMWaitUntilIdle(); // pending stores end, possibly with a fault
    Advance(TICK_MS);
    FMWaitUntilIdle();
    Advance(4 * TICK_MS); // stored blocks become idle; the first tick has retried all stores
    for (uint32_t number = 0; number < FILES; ++number) {
        for (uint32_t id = 1; id < BLOCKS; ++id) {
            const Block& known = m_files[number].blocks[id];
            if (!m_files[number].open || !known.written || known.version == 0)
                continue;
            const BlockRef block = Cache::Block(*m_files[number].open, id, 0);
            EXPECT_TRUE((block && !block->FreeMemory()) || !Calm())
                << "not stored " << number << "/" << id;
        }
        Check(number);
    }
}

// --- The workload -------------------------------------------------------------------------------

void Workload::EndRun() {
    FMWaitUntilIdle(); // pending stores run before the fault is lifted
    if (liftEarly && Hits() > 0)
        faults::Lift();
    ExpectStoredByTick();
    Stop();
}

void Workload::Reopen(std::initializer_list<uint32_t> files) {
    Start();
    for (const uint32_t file : files) {
        Open(file);
        Check(file);
    }
}

// Runs housekeeping after ten days: removes expired files that are not open.
void Workload::KeepHouse() {
    for (uint32_t file = 0; file < FILES; ++file) {
        if (file != KEPT && !m_files[file].open)
            Forget(file);
    }
    Advance(864'000'000);
    FMWaitUntilIdle(); // each step of housekeeping queues the next one
}

void Workload::FirstRun() {
    Start();
    Make(A, {700, 9000, 300, 2500});
    FMWaitUntilIdle();
    Put(A, 2, 9000); // in place
    Put(A, 3, 400);  // at a new offset
    Remove(A, 4);
    Make(KEPT, {1500, 150'000}, FM_FILE_KEPT); // a block that is read in parts
    Close(KEPT);
    Make(OLD, {5000});
    Close(OLD);
    Make(TEMPORARY, {1200}, FM_FILE_TEMPORARY);
    FMWaitUntilIdle();
    Forget(TEMPORARY);
    Close(TEMPORARY);
    Make(B, {800, 3000, 600});
    Close(B);
    Open(B); // before pending stores are written
    Load(B, 2);
    Put(B, 4, 5000);
    Flush(); // A and B; TEMPORARY and closed files have no changes
    Put(B, 4, 5000);
    Make(C, {900, 4000});
    Close(C);
    FMWaitUntilIdle();
    Make(C, {4000, 900}); // replaces an older cached file
    Make(LARGE, {});
    for (uint32_t id = LARGE_FIRST; id <= LARGE_LAST; id += 2)
        Put(LARGE, id, id - 1);
    EndRun();
}

void Workload::SecondRun() {
    Reopen({A, B, C, LARGE});
    KeepHouse();
    Put(LARGE, LARGE_MIDDLE, LARGE_MIDDLE - 7);
    Put(A, 1, 700); // the first range of a file is not reused
    Put(A, 2, 9000);
    Put(B, 2, 5000);
    Remove(B, 3);
    Put(C, 2, 900);
    Close(A);
    Open(A);
    Put(A, 5, 2000);
    Flush();
    Put(A, 5, 2000);
    Put(A, 6, 300);
    Flush();
    Make(OLD, {3000});
    Make(OLD, {200, 3000}); // displaces the open file
    EndRun();
}

void Workload::Run() {
    FirstRun();
    SecondRun();
    Reopen({A, B, C, KEPT, OLD, LARGE});
    Put(A, 2, 9000);
    Close(B);
    Make(B, {640});
    EndRun();
    // Clearing removes entries in directory order, here the newest first. Renaming the data files makes them
    // the newest: removing the data before the table is the worse case.
    m_promises.mayLackData = true;
    for (uint32_t file = 0; file < FILES; ++file) {
        Forget(file); // a kill between the two renames loses the data file
        const fs::path data = m_cache.dir.path / "sdstore" / (Name(file) + ".sdd");
        std::error_code ignored;
        fs::rename(data, m_cache.dir.path / "away", ignored);
        fs::rename(m_cache.dir.path / "away", data, ignored);
    }
    Start(0); // clears at start and at stop
    Make(A, {1000});
    FMWaitUntilIdle();
    Forget(A);
    Stop();
    Start();
    Make(A, {500, 6000});
    EndRun();
}

void Workload::RunShort() {
    Start();
    Make(KEPT, {1500, 150'000}, FM_FILE_KEPT); // a block that is read in parts
    Close(KEPT);
    Make(A, {700});
    EndRun();
    Reopen({A});
    KeepHouse();
    Put(A, 1, 700);
    Close(A);
    Open(A);
    Open(KEPT);
    Load(KEPT, 1);
    Put(KEPT, 2, 300);
    Flush();
    EndRun();
}

void Workload::Verify() {
    for (const bool again : {false, true}) {
        Start();
        for (uint32_t file = 0; file < FILES; ++file) {
            if (Open(file))
                Check(file);
            else
                EXPECT_FALSE(again) << "does not open: " << file;
            if (!m_files[file].open)
                Make(file, {});
            Put(file, BLOCKS - 1, 5000);
        }
        Close(A);
        EXPECT_TRUE(Open(A));
        ExpectStoredByTick();
        Stop();
    }
}

void Workload::ExpectNothingLeft() {
    Start();
    FMWaitUntilIdle();
    EXPECT_GT(g_counters.filesCreated, 0);
    EXPECT_EQ(g_counters.filesCreated, g_counters.filesDestroyed);
    EXPECT_GT(g_counters.blocksCreated, 0);
    EXPECT_EQ(g_counters.blocksCreated, g_counters.blocksDestroyed);
}

// --- Trial --------------------------------------------------------------------------------------

// One trial at a time: all use the same shared memory.
Trial::Trial() {
    static void* memory = ::mmap(nullptr, sizeof(Promises), PROT_READ | PROT_WRITE,
                                 MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    m_promises = new (memory) Promises{};
}

std::string Trial::Do(const faults::Plan& plan, const std::function<void(Workload&)>& work) {
    const auto body = [&] {
        IFileManager::Instance(); // created before the fault: a failed allocation would prevent it
        const size_t handles = CountHandles();
        RtSetLogSink(Ignore, nullptr, RT_LOG_WARNING);
        faults::Begin(dir.path, plan);
        {
            Workload workload(dir.path, *m_promises);
            work(workload);
        }
        faults::Lift();
        EXPECT_EQ(CountHandles(), handles);
    };
    return faults::InChild(body);
}

std::string Trial::Run(const faults::Plan& plan, void (Workload::*run)(), bool liftEarly) {
    const auto work = [=](Workload& workload) {
        workload.liftEarly = liftEarly;
        (workload.*run)();
        faults::Lift();
        workload.Verify();
        workload.ExpectNothingLeft();
    };
    return Do(plan, work);
}

std::string Trial::Verify() {
    return Do({}, [](Workload& workload) { workload.Verify(); });
}
