// The workloads of the comparison. The first round of each is not timed: it counts allocations and compares
// every byte. The following rounds are timed.
#pragma once

#include <ctime>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "../memory.h"
#include "store.h"

namespace bench {

/// Adds up the time of the measured parts of a round, or counts their allocations. Not both in one round,
/// because counting costs time.
class Meter {
public:
    explicit Meter(bool counts) : m_counts(counts) {}
    /// Touches free memory, so that the measured part does not wait for the host of a virtual machine, and
    /// restarts the peak of resident memory.
    void WarmUp(uint64_t bytes);
    void Begin();
    void End();
    double Seconds() const { return m_seconds; }
    double CpuSeconds() const { return m_cpuSeconds; }
    uint64_t Allocations() const { return m_allocations; }

private:
    const bool m_counts;
    double m_seconds = 0;
    double m_cpuSeconds = 0; // user and system time of all threads
    uint64_t m_allocations = 0;
    timespec m_wallBegin{};
    timespec m_cpuBegin{};
    std::optional<AllocationCount> m_count;
};

struct Stage {
    Store& store;
    std::filesystem::path dir; ///< where the participant keeps its files
    std::filesystem::path old; ///< emptied files of earlier rounds, until the process ends
};

class Workload {
public:
    explicit Workload(const Layout& layout) : m_layout(layout) {}
    virtual ~Workload() = default;
    virtual void Prepare(Stage&) {}
    /// With `check`, compares every byte; the time of such a round is not used. Returns false if the
    /// participant does not support the workload.
    virtual bool Round(Stage& stage, Meter& meter, bool check) = 0;
    const Layout& GetLayout() const { return m_layout; }
    /// Number of operations in one round.
    virtual double Operations() const { return m_layout.AllBlocks(); }
    /// Number of bytes written and read in one round.
    virtual uint64_t Bytes() const { return m_layout.Bytes(); }
    /// The latencies of one round in us, by kind.
    using Latencies = std::map<std::string, std::vector<double>>;
    const Latencies& GetLatencies() const { return m_latencies; }

protected:
    const Layout m_layout;
    Latencies m_latencies;
};

/// Returns null if there is no workload of that name. `share` divides the amount of work.
std::unique_ptr<Workload> MakeWorkload(const std::string& name, uint32_t share);
std::unique_ptr<Workload> MakeLatencyWorkload(const std::string& name, uint32_t share);

void RequireBytes(const Layout& layout, Place place, const char* bytes, uint32_t at,
                  uint32_t length);
/// Reads one byte of each cache line. Without it, a participant that returns a pointer into a memory map would
/// have read nothing.
void Touch(const char* bytes, uint32_t length);
void WritePiece(Store& store, const Layout& layout, Place place, uint32_t at);
void WriteBlock(Store& store, const Layout& layout, Place place);

} // namespace bench
