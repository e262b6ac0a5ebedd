// Power loss: records the changes that one run makes on disk, builds the states that a power loss can leave, and opens
// the cache in each of them.
#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <iostream>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <span>

#include "FMDurability.h"
#include "testing/faults.h"
#include "testing/kit.h"

using faults::Change;

namespace {

#ifdef FILEMANAGER_SANITIZED
constexpr uint32_t LOSSES = 1;
#else
constexpr uint32_t LOSSES = 4;
#endif
constexpr size_t SECTOR = 512;
constexpr uint32_t BLOCK_MAX = 150;

// The description names the version of a file, whose last digit is the number of the file: 12 is created over 2.
using Key = std::pair<uint32_t, uint32_t>; // version of the file, block
using Blocks = std::map<Key, std::string>;
using Files = std::map<std::string, std::string>; // bytes by path

FMFileID FileOf(uint32_t version) {
    FMFileID id = FMFileID_None;
    id.Data1 = version % 10;
    return id;
}

Files ReadFiles(const fs::path& root) {
    Files files;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        if (entry.is_regular_file())
            files[entry.path().string()] = ReadFile(entry.path());
    }
    return files;
}

// Records the changes below a directory until the end of the scope.
class Observation {
public:
    explicit Observation(const fs::path& root, std::vector<Change>& changes,
                         const faults::Plan& plan = {}) {
        faults::Begin(root, plan);
        faults::Observe([&changes](Change change) { changes.push_back(std::move(change)); });
    }
    ~Observation() {
        faults::Observe({});
        faults::Lift();
    }
    Observation(const Observation&) = delete;
    Observation& operator=(const Observation&) = delete;
};

// --- States of the disk -------------------------------------------------------------------------

// What a power loss leaves of one change: nothing, or of a write the sectors whose bit is set, by their number in the
// file modulo 64, and zeros in the others.
using Rest = std::optional<uint64_t>;
constexpr uint64_t WHOLE = ~uint64_t{0};

class Disk {
public:
    explicit Disk(const fs::path& root) : m_root(root) {}
    void Apply(const Change& change, const Rest& rest = WHOLE) {
        if (change.kind == faults::OPEN) {
            m_written[change.path] = m_files.size();
            m_files.emplace_back();
        }
        if (!rest)
            return;
        if (change.kind == faults::OPEN)
            m_names[change.path] = m_written[change.path];
        else if (change.kind == faults::WRITE)
            Put(m_files[m_written.at(change.path)], change, *rest);
        else if (change.kind == faults::REMOVE)
            m_names.erase(change.path);
        else if (change.kind == faults::MAKE_DIR)
            m_directories.insert(change.path);
        else
            Require(change.kind == faults::SYNC, "the run makes another change than expected");
    }

    Files GetFiles() const {
        Files files;
        for (const auto& [path, number] : m_names) {
            if (HasDirectories(path))
                files[path] = m_files[number];
        }
        return files;
    }

private:
    static void Put(std::string& file, const Change& change, uint64_t sectors) {
        file.resize(std::max<size_t>(file.size(), change.offset + change.bytes.size()));
        for (size_t i = 0; i < change.bytes.size(); ++i) {
            if (sectors >> (change.offset + i) / SECTOR % 64 & 1)
                file[change.offset + i] = change.bytes[i];
        }
    }
    bool HasDirectories(const fs::path& path) const {
        const fs::path parent = path.parent_path();
        return parent == m_root || (m_directories.contains(parent) && HasDirectories(parent));
    }

    fs::path m_root;
    std::map<std::string, size_t> m_written; // the file that the path named in the run
    std::map<std::string, size_t> m_names;   // the file that the path names after the loss
    std::vector<std::string> m_files;
    std::set<fs::path> m_directories;
};

// --- The recorded run, and what the cache finds afterwards ---------------------------------------

// What becomes of the blocks that are readable without a loss, and blocks with wrong bytes.
enum Figure { STATES, BLOCKS, KEPT, OTHER_VERSION, ABSENT, WRONG, FIGURES };
using Figures = std::array<uint64_t, FIGURES>;

class Recording {
public:
    Recording() {
        const Observation observation(root, changes);
        m_cache.Start();
        Run();
        m_cache.Stop();
    }

    // Opens the cache on a disk.
    Blocks Open(const Disk& disk) {
        for (const auto& entry : fs::directory_iterator(root))
            fs::remove_all(entry);
        for (const auto& [path, bytes] : disk.GetFiles())
            WriteFile(path, bytes);
        Blocks found;
        m_cache.Start();
        for (uint32_t number = 1; number <= 4; ++number) {
            FileRef file = m_cache.Open(FileOf(number));
            if (!file)
                continue;
            for (uint32_t i = 1; i <= BLOCK_MAX; ++i) {
                const BlockRef block = Cache::Block(*file, i, 0);
                const std::string bytes = block && block->IsComplete() ? Read(*block) : "error";
                if (!bytes.starts_with("error"))
                    found[{file->GetFileInfo().userValue, i}] = bytes;
            }
            m_cache.Close(file);
        }
        m_cache.Stop();
        return found;
    }

    bool IsAnyVersion(const Key& key, const std::string& bytes) {
        return m_versions[key].contains(bytes);
    }

    // `whole`: found without the loss.
    void Add(Figures& figures, const Blocks& whole, const Blocks& found) {
        ++figures[STATES];
        figures[BLOCKS] += whole.size();
        for (const auto& [key, bytes] : whole) {
            const auto it = found.find(key);
            if (it == found.end())
                ++figures[ABSENT];
            else if (IsAnyVersion(key, it->second))
                ++figures[it->second == bytes ? KEPT : OTHER_VERSION];
        }
        for (const auto& [key, bytes] : found)
            figures[WRONG] += IsAnyVersion(key, bytes) ? 0 : 1;
    }

    // The first block that a close or a flush has written with the first `done` changes and that is not found, although
    // no change up to `end` has touched the table of its file since.
    std::string FindBroken(size_t done, size_t end, const Blocks& found, bool isSyncedOnly) const {
        for (const Mark& mark : m_marks) {
            if (mark.at > done || (isSyncedOnly && !mark.isSynced))
                continue;
            for (const auto& [key, bytes] : mark.blocks) {
                const auto it = found.find(key);
                if ((it == found.end() || it->second != bytes) &&
                    !IsTableTouched(key, mark.at, end))
                    return "file " + std::to_string(key.first) + " block " +
                           std::to_string(key.second);
            }
        }
        return {};
    }

    // Whether a sync before `end` has made the change durable.
    bool IsDurable(size_t change, size_t end) const {
        const fs::path path = changes[change].path;
        const fs::path synced = changes[change].kind == faults::WRITE ? path : path.parent_path();
        return std::ranges::any_of(Between(change, end), [&](const Change& each) {
            return each.kind == faults::SYNC && each.path == synced;
        });
    }

    const TempDir base;
    const fs::path root = fs::canonical(base.path); // the path of a descriptor
    std::vector<Change> changes;

private:
    // Blocks that were written to the operating system, or to the device, when `at` changes had been made.
    struct Mark {
        size_t at;
        bool isSynced;
        Blocks blocks;
    };

    FileRef Create(uint32_t version, size_t nameLength = 5, uint32_t flag = 0) {
        FMFileInfo info = Description(1, flag);
        info.fileID = FileOf(version);
        info.userValue = version;
        info.name = CRtString(std::string(nameLength, 'n'));
        std::erase_if(m_now, [&](const auto& each) { return each.first.first == version % 10; });
        return m_cache.Create(info);
    }
    // Adjacent ranges are one batch.
    void Store(FileRef& file, const std::vector<uint32_t>& blocks, uint32_t length) {
        {
            const Gate gate;
            for (const uint32_t block : blocks) {
                const Key key{file->GetFileInfo().userValue, block};
                const std::string bytes = Pattern(++m_seed, length);
                m_versions[key].insert(bytes);
                if (!(file->GetFileInfo().flag & FM_FILE_TEMPORARY))
                    m_now[key] = bytes;
                Require(Write(*Cache::Block(*file, block), bytes) == RT_OK);
            }
        }
        FMWaitUntilIdle();
    }
    void Close(FileRef& file) {
        const uint32_t version = file->GetFileInfo().userValue;
        m_cache.Close(file);
        FMWaitUntilIdle();
        m_marks.push_back({changes.size(), false, m_now});
        std::erase_if(m_marks.back().blocks,
                      [&](const auto& each) { return each.first.first != version; });
    }
    void Flush(int (*flush)(std::vector<FMUnsavedBlock>&)) {
        std::vector<FMUnsavedBlock> unsaved;
        Require(flush(unsaved) == RT_OK && unsaved.empty());
        m_marks.push_back({changes.size(), flush == &FMSync, m_now});
    }
    std::span<const Change> Between(size_t begin, size_t end) const {
        return std::span(changes).subspan(begin, end - begin);
    }
    bool IsTableTouched(const Key& key, size_t begin, size_t end) const {
        const std::string table = FMFileIDToString(FileOf(key.first)).c_str() + std::string(".sdi");
        return std::ranges::any_of(Between(begin, end), [&](const Change& change) {
            return change.kind != faults::SYNC && change.path.ends_with(table);
        });
    }

    void Run() {
        FileRef first = Create(1);
        Store(first, {1, 2, 3, 5, 9}, 700);
        Store(first, {12}, 5000);
        Flush(&FMFlush);
        Store(first, {3}, 700); // in its range
        Store(first, {2}, 300);
        Close(first);
        FileRef second = Create(2, 464); // the length L2 of its table lies across two sectors
        std::vector<uint32_t> even(40);
        std::ranges::generate(even, [next = 0U]() mutable { return next += 2; });
        Store(second, even, 100);
        FileRef temporary = Create(3, 5, FM_FILE_TEMPORARY);
        Store(temporary, {1, 2}, 900);
        Flush(&FMSync);
        Close(temporary);
        Store(second, {150}, 2000);      // the table grows
        Store(second, {8, 10}, 100);     // in their ranges
        Store(second, {7, 9, 33}, 1000); // the entries behind these slots move
        Flush(&FMFlush);
        Store(second, {48}, 60); // shorter; length and offset are in two sectors of the table
        Close(second);
        first = m_cache.Open(FileOf(1));
        Store(first, {3, 5}, 700);      // in their ranges
        Store(first, {4, 6, 10}, 1500); // empty slots of the table
        Close(first);
        FileRef third = Create(12);
        Store(third, {1, 2, 3}, 1200);
        Close(third);
        first = m_cache.Open(FileOf(1));
        Flush(&FMSync);
        Store(first, {12}, 5000); // in its range
        third = m_cache.Open(FileOf(2));
        Store(third, {2}, 1200); // in its range
        FileRef fourth = Create(4);
        Store(fourth, {1, 2}, 2500);
        Flush(&FMFlush);
    }

    const LogCapture m_quiet{RT_LOG_SILENT};
    const TestClock m_clock;
    Cache m_cache{root / "made" / "here", false};
    std::vector<Mark> m_marks;
    std::map<Key, std::set<std::string>> m_versions;
    Blocks m_now;
    uint32_t m_seed = 0;
};

// --- Losses -------------------------------------------------------------------------------------

const char* const LOSS_NAMES[] = {"bytes of data files", "bytes of tables", "creations, removals",
                                  "any"};
enum Loss { DATA, TABLES, NAMES, ANY, LOSS_KINDS };

bool CanLose(Loss loss, const Change& change) {
    const Loss kind = change.kind != faults::WRITE    ? NAMES
                      : change.path.ends_with(".sdd") ? DATA
                                                      : TABLES;
    return change.kind != faults::SYNC && (loss == ANY || loss == kind);
}

Disk Lose(const Recording& run, size_t end, Loss loss, uint64_t seed) {
    std::mt19937_64 random(seed);
    const uint64_t eighths = std::array<uint64_t, 3>{1, 4, 7}[random() % 3];
    Disk disk(run.root);
    for (size_t i = 0; i < end; ++i) {
        const Change& change = run.changes[i];
        Rest rest = WHOLE;
        if (CanLose(loss, change) && random() % 8 < eighths && !run.IsDurable(i, end))
            // Nothing is left, or of a write the length of the file, or some sectors.
            rest = std::array<Rest, 3>{
                Rest(), Rest(0), Rest(random())}[change.kind == faults::WRITE ? random() % 3 : 0];
        disk.Apply(change, rest);
    }
    return disk;
}

} // namespace

TEST(Power, EveryPrefixOfTheChangesSatisfiesPromise1) {
    Recording run;
    const Files files = ReadFiles(run.root);
    Disk disk(run.root);
    size_t states = 0;
    for (size_t i = 0; i < run.changes.size(); ++i) {
        Change part = run.changes[i];
        const uint64_t end = part.offset + part.bytes.size();
        Disk torn = disk;
        bool isWhole = false;
        for (uint64_t cut = part.offset / SECTOR * SECTOR; !isWhole;) {
            cut += SECTOR;
            isWhole = cut >= end;
            part.bytes = run.changes[i].bytes.substr(0, cut - part.offset);
            torn = disk;
            torn.Apply(part);
            const Blocks found = run.Open(torn);
            EXPECT_EQ(run.FindBroken(i + isWhole, i + 1, found, false), "") << i;
            for (const auto& [key, bytes] : found)
                EXPECT_TRUE(run.IsAnyVersion(key, bytes))
                    << key.first << " " << key.second << " after " << i << " changes";
            ++states;
        }
        disk = torn;
    }
    EXPECT_EQ(disk.GetFiles(), files); // no change is missing in the recording
    std::cout << run.changes.size() << " changes and syncs, " << states << " states\n";
}

// FILEMANAGER_LOSSES: how many losses of each kind after each change, for the figures in docs/reliability.md.
TEST(Power, WhatWasSyncedSurvivesLostAndTornWrites) {
    const char* const wanted = std::getenv("FILEMANAGER_LOSSES");
    const uint32_t losses = wanted ? static_cast<uint32_t>(std::atoi(wanted)) : LOSSES;
    Recording run;
    std::array<Figures, LOSS_KINDS> figures{};
    std::array<uint32_t, LOSS_KINDS> broken{};
    Disk disk(run.root);
    for (size_t end = 1; end <= run.changes.size(); ++end) {
        disk.Apply(run.changes[end - 1]);
        const Blocks whole = run.Open(disk);
        for (uint32_t i = 0; i < LOSS_KINDS * losses; ++i) {
            const auto loss = static_cast<Loss>(i % LOSS_KINDS);
            const Blocks found = run.Open(Lose(run, end, loss, end * 1'000'000 + i));
            ASSERT_EQ(run.FindBroken(end, end, found, true), "")
                << "changes " << end << " loss " << i;
            broken[loss] += run.FindBroken(end, end, found, false).empty() ? 0 : 1;
            run.Add(figures[loss], whole, found);
        }
    }
    std::cout << "lost | states | blocks | kept | other version | absent | wrong\n";
    for (size_t loss = 0; loss < LOSS_KINDS; ++loss) {
        std::cout << LOSS_NAMES[loss];
        for (const uint64_t figure : figures[loss])
            std::cout << " | " << figure;
        std::cout << "\n";
        EXPECT_GT(broken[loss], 0U)
            << LOSS_NAMES[loss]; // a flush without sync does not survive them
    }
    EXPECT_GT(figures[DATA][WRONG], 0U);
}

class Sync : public testing::Test {
protected:
    FileRef Store(const FMFileInfo& info) {
        FileRef file = cache.Create(info);
        Write(*Cache::Block(*file, 1), "bytes");
        return file;
    }
    void Close(FileRef& file) {
        cache.Close(file);
        FMWaitUntilIdle();
    }
    int Call() {
        std::vector<FMUnsavedBlock> unsaved;
        const int result = FMSync(unsaved);
        EXPECT_TRUE(unsaved.empty());
        return result;
    }
    // The extensions of what was synced.
    std::vector<std::string> Synced() const {
        std::vector<std::string> synced;
        for (const Change& change : changes) {
            if (change.kind == faults::SYNC)
                synced.push_back(fs::path(change.path).extension().string());
        }
        return synced;
    }
    const TempDir base;
    std::vector<Change> changes;
    const Observation observation{base.path, changes};
    Cache cache{base.path / "made"};
};

TEST_F(Sync, ReportsWhatFailsAndTheNextOneRepeatsIt) {
    const FileRef open = Store(Description());
    FileRef closed = Store(Description());
    FileRef temporary = Store(Description(1, FM_FILE_TEMPORARY));
    Close(closed);
    const LogCapture log(RT_LOG_ERROR);
    faults::Begin(base.path, {faults::FAIL, faults::SYNC, 1, true, EIO, 0});
    EXPECT_EQ(Call(), RT_ERROR_IO);
    // Four files, the store and the two directories above it.
    EXPECT_EQ(log.Count("system error EIO"), 7U);
    faults::Begin(base.path, {faults::FAIL, faults::SYNC | faults::LOOK, 1, true, EIO, 0});
    EXPECT_EQ(Call(), RT_ERROR_IO); // a file that cannot be examined is not gone
    faults::Lift();
    EXPECT_EQ(Call(), RT_OK);
    std::vector<std::string> expected{".sdd", ".sdd", ".sdi", ".sdi", "", "", ""};
    EXPECT_EQ(Synced(), expected);
    EXPECT_EQ(Call(), RT_OK);
    expected.emplace_back(); // the store
    EXPECT_EQ(Synced(), expected);
    Close(temporary);
    const size_t before = changes.size();
    cache.Stop();
    EXPECT_EQ(changes.size(), before); // nothing is left to be written
    EXPECT_EQ(Call(), RT_ERROR_NOT_READY);
}

TEST_F(Sync, IncludesFilesWhoseNumberExceedsTheList) {
    constexpr size_t count = 4'200;
    const FileRef open = Store(Description());
    for (size_t i = 0; i < count; ++i) {
        FileRef file = Store(Description());
        cache.Close(file);
    }
    FMWaitUntilIdle();
    fs::create_symlink("/", cache.Path(Description().fileID, ".sdd")); // not a file of the cache
    faults::Begin(base.path, {faults::FAIL, faults::SYNC, 9, false, EIO, 0});
    EXPECT_EQ(Call(), RT_ERROR_IO);
    changes.clear();
    EXPECT_EQ(Call(), RT_OK); // of all files again
    // The open file through its own handles, and as one of the store.
    EXPECT_EQ(Synced().size(), 2 * count + 2 + 2 + 3);
}

TEST_F(Sync, IncludesWhatAPredecessorHasWritten) {
    for (const bool isCreated : {false, true}) {
        changes.clear();
        faults::Begin(base.path, {faults::FAIL, faults::SYNC, 1, false, EINTR, 0});
        const FMFileInfo info = Description();
        FileRef file = Store(info);
        const BlockRef block = Cache::Block(*file, 1); // keeps the predecessor alive
        Close(file);
        file = isCreated ? cache.Create(info) : cache.Open(info.fileID);
        FMWaitUntilIdle();
        EXPECT_EQ(Call(), RT_OK);
        EXPECT_THAT(Synced(), testing::IsSupersetOf({".sdd", ".sdi"})) << isCreated;
    }
}
