// Power loss: records the changes that one run makes on disk, builds the states that a power loss can leave, and opens
// the cache in each of them.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <iostream>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <tuple>

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
constexpr uint32_t BLOCK_MAX = 200;

// One block: the name of its file, which tells a file from its predecessor, the file and the block identifier.
using Key = std::tuple<std::string, FMFileID, uint32_t>;
using Blocks = std::map<Key, std::string>;

// Blocks that were written to the operating system, or to the device, when `at` changes had been made.
struct Mark {
    size_t at;
    bool isSynced;
    Blocks blocks;
};

std::vector<FMFileID> FILES;

// --- The recorded run ---------------------------------------------------------------------------

class Recording {
public:
    Recording() : root(base.path.string()), cache(base.path / "made" / "here", false) {
        faults::Begin(base.path, {});
        faults::Observe([this](Change change) {
            change.path.erase(0, std::min(root.size() + 1, change.path.size()));
            while (change.path.ends_with('/'))
                change.path.pop_back();
            changes.push_back(std::move(change));
        });
        for (uint32_t i = 1; i <= 4; ++i) {
            FILES.push_back(FMFileID_None);
            FILES.back().Data1 = i;
        }
        cache.Start();
        Run();
        cache.Stop();
        faults::Observe({});
        Require(!changes.empty());
    }

    const TempDir base;
    const std::string root;
    TestClock clock;
    Cache cache;
    std::vector<Change> changes;
    std::vector<Mark> marks;
    std::map<Key, std::set<std::string>> versions;

private:
    FileRef Create(size_t number, const std::string& name, uint32_t flag = 0) {
        FMFileInfo info = Description(1, flag);
        info.fileID = FILES[number];
        info.name = CRtString(name);
        std::erase_if(m_now,
                      [&](const auto& block) { return std::get<1>(block.first) == info.fileID; });
        return cache.Create(info);
    }
    // Adjacent ranges are one batch.
    void Store(FileRef& file, const std::vector<uint32_t>& blocks, uint32_t length) {
        {
            const Gate gate;
            for (const uint32_t block : blocks) {
                const FMFileInfo& info = file->GetFileInfo();
                const Key key{info.name.c_str(), info.fileID, block};
                const std::string bytes = Pattern(++m_seed, length);
                versions[key].insert(bytes);
                if (!(info.flag & FM_FILE_TEMPORARY))
                    m_now[key] = bytes;
                Require(Write(*Cache::Block(*file, block), bytes) == RT_OK);
            }
        }
        FMWaitUntilIdle();
    }
    void Note(bool isSynced, const FMFileID* id = nullptr) {
        Mark mark{changes.size(), isSynced, m_now};
        std::erase_if(mark.blocks,
                      [&](const auto& block) { return id && std::get<1>(block.first) != *id; });
        marks.push_back(std::move(mark));
    }
    void Close(FileRef& file) {
        const FMFileID id = file->GetFileInfo().fileID;
        cache.Close(file);
        FMWaitUntilIdle();
        Note(false, &id);
    }
    void Flush(int (*flush)(std::vector<FMUnsavedBlock>&)) {
        std::vector<FMUnsavedBlock> unsaved;
        Require(flush(unsaved) == RT_OK && unsaved.empty());
        Note(flush == &FMSync);
    }
    void Run() {
        FileRef first = Create(0, "first");
        Store(first, {1, 2, 3, 5, 9}, 700);
        Store(first, {12}, 5000);
        Flush(&FMFlush);
        Store(first, {3}, 700); // in its range
        Store(first, {2}, 300);
        Close(first);
        FileRef second =
            Create(1, std::string(464, 's')); // the length L2 of its table lies across two sectors
        std::vector<uint32_t> even(40);
        std::ranges::generate(even, [next = 0U]() mutable { return next += 2; });
        Store(second, even, 100);
        FileRef temporary = Create(2, "temporary", FM_FILE_TEMPORARY);
        Store(temporary, {1, 2}, 900);
        Flush(&FMSync);
        Close(temporary);
        Store(second, {150}, 2000);      // the table grows
        Store(second, {8, 10}, 100);     // in their ranges
        Store(second, {7, 9, 33}, 1000); // the entries behind these slots move
        Flush(&FMFlush);
        Store(second, {48}, 60); // shorter; length and offset are in two sectors of the table
        Close(second);
        first = cache.Open(FILES[0]);
        Require(Read(*Cache::Block(*first, 2)).size() == 300);
        Store(first, {3, 5}, 700);      // in their ranges
        Store(first, {4, 6, 10}, 1500); // empty slots of the table
        Close(first);
        FileRef third = Create(1, "third"); // over the second one
        Store(third, {1, 2, 3}, 1200);
        Close(third);
        first = cache.Open(FILES[0]);
        Flush(&FMSync);
        Store(first, {12}, 5000); // in its range
        third = cache.Open(FILES[1]);
        Store(third, {2}, 1200); // in its range
        FileRef fourth = Create(3, "fourth");
        Store(fourth, {1, 2}, 2500);
        Flush(&FMFlush);
    }

    Blocks m_now;
    uint32_t m_seed = 0;
};

// --- States of the disk -------------------------------------------------------------------------

using Files = std::map<std::string, std::string>; // bytes by path

// What a power loss leaves of one change: nothing, or of a write the sectors whose bit is set, by their number in the
// file modulo 64, and zeros in the others.
using Rest = std::optional<uint64_t>;
constexpr uint64_t WHOLE = ~uint64_t{0};

class Disk {
public:
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
        const fs::path directory = path.parent_path();
        return directory.empty() ||
               (m_directories.contains(directory.string()) && HasDirectories(directory));
    }

    std::map<std::string, size_t> m_written; // the file that the path named in the run
    std::map<std::string, size_t> m_names;   // the file that the path names after the loss
    std::vector<std::string> m_files;
    std::set<std::string> m_directories;
};

Files ReadFiles(const fs::path& root) {
    Files files;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        if (entry.is_regular_file())
            files[fs::relative(entry.path(), root).string()] = ReadFile(entry.path());
    }
    return files;
}

// --- What the cache finds in a state ------------------------------------------------------------

enum Verdict { RIGHT, ZEROS, MIXED, FOREIGN };

class Checker {
public:
    size_t Count() const { return m_run.changes.size(); }
    const Change& At(size_t i) const { return m_run.changes[i]; }

    // Opens the cache on a disk. `loaded`: the files that load.
    Blocks Open(const Disk& disk, std::set<FMFileID>& loaded) {
        Replace(disk.GetFiles());
        Blocks found;
        m_run.cache.Start();
        for (const FMFileID& id : FILES) {
            FileRef file = m_run.cache.Open(id);
            if (!file)
                continue;
            loaded.insert(id);
            for (uint32_t i = 1; i <= BLOCK_MAX; ++i) {
                const BlockRef block = Cache::Block(*file, i, 0);
                const std::string bytes = block && block->IsComplete() ? Read(*block) : "error";
                if (!bytes.starts_with("error"))
                    found[{file->GetFileInfo().name.c_str(), id, i}] = bytes;
            }
            m_run.cache.Close(file);
        }
        m_run.cache.Stop();
        return found;
    }

    Verdict Judge(const Key& key, const std::string& bytes) const {
        const auto known = m_run.versions.find(key);
        if (known == m_run.versions.end())
            return FOREIGN;
        const auto& versions = known->second;
        if (versions.contains(bytes))
            return RIGHT;
        const auto isPart = [&](size_t i, const std::string& of) {
            return of.size() == bytes.size() && of[i] == bytes[i];
        };
        Verdict verdict = MIXED;
        for (size_t i = 0; i < bytes.size(); ++i) {
            if (std::ranges::any_of(versions, [&](const auto& each) { return isPart(i, each); }))
                continue;
            if (bytes[i] != 0)
                return FOREIGN;
            verdict = ZEROS;
        }
        return verdict;
    }

    // The first block that a close or a flush has written with the first `done` changes and that is not there, although
    // no change up to `end` has touched the table of its file since.
    std::string FindBroken(size_t done, size_t end, const Blocks& found, bool isSyncedOnly) const {
        for (const Mark& mark : m_run.marks) {
            if (mark.at > done || (isSyncedOnly && !mark.isSynced))
                continue;
            for (const auto& [key, bytes] : mark.blocks) {
                const auto it = found.find(key);
                if (!IsTableTouched(std::get<1>(key), mark.at, end) &&
                    (it == found.end() || it->second != bytes))
                    return "block " + std::to_string(std::get<2>(key)) + " of " + std::get<0>(key);
            }
        }
        return {};
    }

    // Whether a sync before `end` has made the change durable.
    bool IsDurable(size_t change, size_t end) const {
        const fs::path path = At(change).path;
        const std::string synced =
            At(change).kind == faults::WRITE ? path.string() : path.parent_path().string();
        for (size_t i = change + 1; i < end; ++i) {
            if (At(i).kind == faults::SYNC && At(i).path == synced)
                return true;
        }
        return false;
    }

    const fs::path& Root() const { return m_run.base.path; }

private:
    bool IsTableTouched(const FMFileID& id, size_t begin, size_t end) const {
        const std::string table = FMFileIDToString(id).c_str() + std::string(".sdi");
        return std::any_of(m_run.changes.begin() + static_cast<std::ptrdiff_t>(begin),
                           m_run.changes.begin() + static_cast<std::ptrdiff_t>(end),
                           [&](const Change& change) {
                               return change.kind != faults::SYNC && change.path.ends_with(table);
                           });
    }

    void Replace(const Files& files) const {
        const Files present = ReadFiles(Root());
        for (const auto& [path, bytes] : present) {
            if (!files.contains(path))
                fs::remove(Root() / path);
        }
        for (const auto& [path, bytes] : files) {
            const auto it = present.find(path);
            if (it == present.end() || it->second != bytes)
                WriteFile(Root() / path, bytes);
        }
    }

    LogCapture m_quiet{RT_LOG_SILENT};
    Recording m_run;
};

// --- Losses -------------------------------------------------------------------------------------

enum Loss { DATA, TABLES, NAMES, ANY };
const char* const LOSS_NAMES[] = {"bytes of data files", "bytes of tables",
                                  "creations and removals", "any of them"};

bool CanLose(Loss loss, const Change& change) {
    const Loss kind = change.kind != faults::WRITE    ? NAMES
                      : change.path.ends_with(".sdd") ? DATA
                                                      : TABLES;
    return change.kind != faults::SYNC && (loss == ANY || loss == kind);
}

Rest Lose(const Change& change, std::mt19937_64& random) {
    const uint64_t value = random();
    if (change.kind != faults::WRITE || value % 3 == 0)
        return {};
    return value % 3 == 1 ? 0 : random(); // only the length of the file, or some of the sectors
}

// Blocks that are readable without the loss, and what becomes of them; blocks that are wrong only with it.
struct Figures {
    uint64_t states = 0, blocks = 0, kept = 0, otherVersion = 0, absent = 0, notLoaded = 0,
             broken = 0;
    uint64_t wrong[4] = {};
};

void Add(Figures& figures, const Checker& checker, const Blocks& whole, const Blocks& found,
         const std::set<FMFileID>& loaded) {
    ++figures.states;
    for (const auto& [key, bytes] : found)
        ++figures.wrong[checker.Judge(key, bytes)];
    for (const auto& [key, bytes] : whole) {
        const auto it = found.find(key);
        ++figures.blocks;
        if (it == found.end())
            ++(loaded.contains(std::get<1>(key)) ? figures.absent : figures.notLoaded);
        else if (it->second == bytes)
            ++figures.kept;
        else if (checker.Judge(key, it->second) == RIGHT)
            ++figures.otherVersion;
    }
}

void Print(const Figures (&figures)[4]) {
    std::cout << "| lost | states | blocks | kept | other version | absent | file does not load | "
                 "zeros | mixed | foreign |\n";
    for (const Loss loss : {DATA, TABLES, NAMES, ANY}) {
        const Figures& each = figures[loss];
        std::cout << "| " << LOSS_NAMES[loss];
        for (const uint64_t figure :
             {each.states, each.blocks, each.kept, each.otherVersion, each.absent, each.notLoaded,
              each.wrong[ZEROS], each.wrong[MIXED], each.wrong[FOREIGN]})
            std::cout << " | " << figure;
        std::cout << " |\n";
    }
}

} // namespace

TEST(Power, EveryPrefixOfTheChangesSatisfiesPromise1) {
    Checker checker;
    Disk disk;
    for (size_t i = 0; i < checker.Count(); ++i)
        disk.Apply(checker.At(i));
    ASSERT_EQ(disk.GetFiles(), ReadFiles(checker.Root())); // no change is missing in the recording
    disk = {};
    size_t states = 0;
    const auto check = [&](const Disk& state, size_t done, size_t end) {
        std::set<FMFileID> loaded;
        const Blocks found = checker.Open(state, loaded);
        EXPECT_EQ(checker.FindBroken(done, end, found, false), "") << "after " << end << " changes";
        for (const auto& [key, bytes] : found)
            EXPECT_EQ(checker.Judge(key, bytes), RIGHT)
                << std::get<0>(key) << " " << std::get<2>(key) << " after " << end;
        ++states;
    };
    check(disk, 0, 0);
    for (size_t i = 0; i < checker.Count(); ++i) {
        Change change = checker.At(i);
        const bool isWrite = change.kind == faults::WRITE;
        const uint64_t end = change.offset + change.bytes.size();
        for (uint64_t cut = (change.offset / SECTOR + 1) * SECTOR; isWrite && cut < end;
             cut += SECTOR) {
            Disk torn = disk;
            change.bytes.resize(cut - change.offset);
            torn.Apply(change);
            change.bytes = checker.At(i).bytes;
            check(torn, i, i + 1);
        }
        disk.Apply(change);
        if (change.kind != faults::SYNC)
            check(disk, i + 1, i + 1);
    }
    std::cout << checker.Count() << " changes and syncs, " << states << " states\n";
}

// FILEMANAGER_LOSSES: how many losses of each kind after each change, for the figures in docs/reliability.md.
TEST(Power, WhatWasSyncedSurvivesLostAndTornWrites) {
    const char* const wanted = std::getenv("FILEMANAGER_LOSSES");
    const uint32_t losses = wanted ? static_cast<uint32_t>(std::atoi(wanted)) : LOSSES;
    Checker checker;
    Figures figures[4];
    Disk disk;
    for (size_t end = 1; end <= checker.Count(); ++end) {
        disk.Apply(checker.At(end - 1));
        std::set<FMFileID> loaded;
        const Blocks whole = checker.Open(disk, loaded);
        for (uint32_t i = 0; i < 4 * losses; ++i) {
            std::mt19937_64 random(end * 1'000'000 + i);
            const auto loss = static_cast<Loss>(i % 4);
            const uint64_t eighths = std::array<uint64_t, 3>{1, 4, 7}[random() % 3];
            Disk state;
            for (size_t each = 0; each < end; ++each) {
                const Change& change = checker.At(each);
                const bool isLost = CanLose(loss, change) && random() % 8 < eighths &&
                                    !checker.IsDurable(each, end);
                state.Apply(change, isLost ? Lose(change, random) : WHOLE);
            }
            loaded.clear();
            const Blocks found = checker.Open(state, loaded);
            ASSERT_EQ(checker.FindBroken(end, end, found, true), "")
                << "after " << end << " changes, loss " << i;
            figures[loss].broken += checker.FindBroken(end, end, found, false).empty() ? 0 : 1;
            Add(figures[loss], checker, whole, found, loaded);
        }
    }
    Print(figures);
    // What only a flush has written is not safe: the losses are real ones.
    for (const Loss loss : {DATA, TABLES, NAMES, ANY})
        EXPECT_GT(figures[loss].broken, 0U) << LOSS_NAMES[loss];
    EXPECT_GT(figures[DATA].wrong[ZEROS], 0U);
}

TEST(Power, ASyncReportsWhatFailsAndTheNextOneRepeatsIt) {
    const TempDir base;
    Cache cache(base.path / "made", false);
    std::vector<std::string> synced;
    size_t changes = 0;
    faults::Begin(base.path, {});
    faults::Observe([&](const Change& change) {
        ++changes;
        if (change.kind == faults::SYNC)
            synced.push_back(fs::path(change.path).extension().string());
    });
    cache.Start();
    FileRef open = cache.Create();
    FileRef closed = cache.Create();
    FileRef temporary = cache.Create(1, FM_FILE_TEMPORARY);
    for (FileRef* file : {&open, &closed, &temporary})
        Write(*Cache::Block(**file, 1), "bytes");
    cache.Close(closed);
    FMWaitUntilIdle();
    const LogCapture log(RT_LOG_ERROR);
    std::vector<FMUnsavedBlock> unsaved;
    faults::Begin(base.path, {faults::FAIL, faults::SYNC, 1, true, EIO, 0});
    EXPECT_EQ(FMSync(unsaved), RT_ERROR_IO);
    EXPECT_TRUE(unsaved.empty());
    // Four files, the store and the two directories above it.
    EXPECT_EQ(log.Count("system error EIO"), 7U);
    faults::Lift();
    EXPECT_EQ(FMSync(unsaved), RT_OK);
    EXPECT_EQ(synced, (std::vector<std::string>{".sdd", ".sdd", ".sdi", ".sdi", "", "", ""}));
    EXPECT_EQ(FMSync(unsaved), RT_OK);
    EXPECT_EQ(synced.size(), 8U); // the store
    cache.Close(temporary);
    FMWaitUntilIdle();
    const size_t before = changes;
    cache.Stop();
    EXPECT_EQ(changes, before); // nothing is left to be written
    EXPECT_EQ(FMSync(unsaved), RT_ERROR_NOT_READY);
    faults::Observe({});
}

TEST(Power, ASyncIncludesFilesWhoseNumberExceedsTheList) {
    constexpr size_t count = 4'200;
    Cache cache;
    std::set<std::string> synced;
    faults::Begin(cache.dir.path, {});
    faults::Observe([&](const Change& change) {
        if (change.kind == faults::SYNC)
            synced.insert(change.path);
    });
    for (size_t i = 0; i < count; ++i) {
        FileRef file = cache.Create();
        Write(*Cache::Block(*file, 1), "bytes");
        cache.Close(file);
    }
    FMWaitUntilIdle();
    fs::create_symlink("/", cache.Path(Description().fileID, ".sdd")); // not a file of the cache
    std::vector<FMUnsavedBlock> unsaved;
    EXPECT_EQ(FMSync(unsaved), RT_OK);
    EXPECT_EQ(synced.size(), 2 * count + 2);
    faults::Observe({});
}
