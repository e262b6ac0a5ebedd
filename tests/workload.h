// One fixed piece of work with a cache directory, in several runs of the manager, and a later look at
// what it left. The bytes of a block tell for which block and by which write they were handed over, so
// that a process that knows nothing else can tell a true block from torn or foreign bytes.
#pragma once

#include <array>
#include <initializer_list>
#include <string>

#include "faults.h"
#include "support.h"

// Sanitizers make processes slow to begin and to end: there every so many operations are visited, and
// every single one in the other builds.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr uint32_t STRIDE = 11;
#else
constexpr uint32_t STRIDE = 1;
#endif

enum : uint32_t { A, B, C, KEPT, OLD, TEMPORARY, LARGE, FILES };
constexpr uint32_t BLOCKS = 64; // identifiers from 1 on

// In memory that outlives a process. For each block the write whose bytes must be found, 0 for none:
// those that were there when an orderly run ended and were not touched since.
struct Promises {
    uint32_t version[FILES][BLOCKS];
    uint32_t lastVersion;
    uint32_t lastGeneration; // each creation of a file has its own
    bool mayLackData;        // a table: its data was moved aside, or cleared before it
};

// Every step expects success as long as there is calm, and true bytes at any time.
class Workload {
public:
    Workload(const fs::path& dir, Promises& promises) : m_promises(promises), m_cache(dir, false) {}
    ~Workload() { Stop(); }

    // The fixed work, and the same in small for what is asked for much more often.
    void Run();
    void RunShort();
    bool liftEarly = true; // a fault passes before each run ends, and not after the last
    // Opens everything, expects it true and as promised, changes each file, and looks again.
    void Verify();
    // Every file and every block that was ever made is gone.
    void ExpectNothingLeft();

    void Start(uint16_t clearDays = 7);
    void Stop();
    // A new file with blocks of these lengths from 1 on.
    void Make(uint32_t file, std::initializer_list<uint32_t> lengths, uint32_t flag = 0,
              uint32_t slots = 0);
    void Close(uint32_t file, bool detach = true);
    void Put(uint32_t file, uint32_t block, uint32_t length);
    // What is there is true and as promised, and must stay from now on.
    void Check(uint32_t file);
    void Advance(int64_t ms);
    // A tick, after which every block that was written is on disk and can be loaded again.
    void ExpectStoredByTick();
    // Nothing is known of it any more.
    void Forget(uint32_t file);
    static std::string Name(uint32_t file);

private:
    struct Block {
        uint32_t version = 0; // of the bytes that it must have; 0 when anything true may be there
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

// Work in a fresh directory and a process of its own; how the process ended, see faults::InChild.
class Trial {
public:
    Trial();
    std::string Do(const faults::Plan& plan, const std::function<void(Workload&)>& work,
                   uint32_t killAfterUs = 0);
    // Some of the fixed work, then all that is expected after it.
    std::string Run(const faults::Plan& plan, void (Workload::*run)() = &Workload::Run,
                    bool liftEarly = true, uint32_t killAfterUs = 0);
    // What a process that has ended since has left.
    std::string Verify();

    TempDir dir;

private:
    Promises* m_promises = nullptr;
};
