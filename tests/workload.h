// A fixed workload on a cache directory, in several runs of the manager, and its verification by a later
// process. The bytes of a block identify the block and the write, so that another process can distinguish the
// bytes of one complete write from torn or foreign bytes.
#pragma once

#include <array>
#include <initializer_list>
#include <string>

#include "faults.h"
#include "support.h"

// Sanitizers make process start and end slow: those builds test every STRIDE-th operation only.
#ifdef FILEMANAGER_SANITIZED
constexpr uint32_t STRIDE = 17;
#else
constexpr uint32_t STRIDE = 1;
#endif

enum : uint32_t { A, B, C, KEPT, OLD, TEMPORARY, LARGE, FILES };
constexpr uint32_t BLOCKS = 64; // identifiers start at 1

// In shared memory that outlives a process. For each block the version that must be found, 0 for none: the
// version that was stored when a run ended without a fault, if the block was not written since.
struct Promises {
    uint32_t version[FILES][BLOCKS];
    uint32_t lastVersion;
    uint32_t lastGeneration; // incremented by each creation of a file
    bool mayLackData;        // a table may exist without its data file
};

// Every step expects success while faults::Calm(), and bytes of one complete write at any time.
class Workload {
public:
    Workload(const fs::path& dir, Promises& promises) : m_promises(promises), m_cache(dir, false) {}
    ~Workload() { Stop(); }

    // The workload, and a shorter one for operations that are much more frequent.
    void Run();
    void RunShort();
    bool liftEarly = true; // lift the fault before each run of the manager ends, not after the last
    // Opens all files, checks them against the promises, changes each file, and checks again.
    void Verify();
    // Expects that every file and block object was destroyed.
    void ExpectNothingLeft();

    void Start(uint16_t clearDays = 7);
    void Stop();
    // Creates a file with blocks 1, 2, … of these lengths.
    void Make(uint32_t file, std::initializer_list<uint32_t> lengths, uint32_t flag = 0,
              uint32_t slots = 0);
    void Close(uint32_t file, bool detach = true);
    void Put(uint32_t file, uint32_t block, uint32_t length);
    // Expects the blocks of the file as promised. Blocks that are present must stay present.
    void Check(uint32_t file);
    void Advance(int64_t ms);
    // Runs a tick and expects that every written block is stored and can be loaded.
    void ExpectStoredByTick();
    // Drops all promises about the file.
    void Forget(uint32_t file);
    static std::string Name(uint32_t file);

private:
    struct Block {
        uint32_t version = 0; // that must be found; 0: any complete version, or none
        bool written = false; // since the file was opened
    };
    struct File {
        FileRef open;
        uint32_t generation = 0;
        bool changed = false;
        bool closed = false; // in this run, and not opened again
        std::array<Block, BLOCKS> blocks;
    };

    void FirstRun();
    void SecondRun();
    void EndRun();
    void Reopen(std::initializer_list<uint32_t> files);
    void KeepHouse();
    void Flush();
    void DropPromises(uint32_t file);
    bool Open(uint32_t file);
    void Remove(uint32_t file, uint32_t block);
    void Load(uint32_t file, uint32_t block);
    uint32_t CheckBlock(uint32_t file, uint32_t block, uint32_t& generation);

    Promises& m_promises;
    uint32_t m_hitsBefore = 0; // this run
    std::array<File, FILES> m_files;
    TestClock m_clock;
    Cache m_cache;
};

// Runs work in a new directory and a child process. Results as for faults::InChild.
class Trial {
public:
    Trial();
    std::string Do(const faults::Plan& plan, const std::function<void(Workload&)>& work);
    // Runs the workload with a fault, then the expectations after it.
    std::string Run(const faults::Plan& plan, void (Workload::*run)() = &Workload::Run,
                    bool liftEarly = true);
    // Verifies the files that the previous process has left.
    std::string Verify();

    TempDir dir;

private:
    Promises* m_promises = nullptr;
};
