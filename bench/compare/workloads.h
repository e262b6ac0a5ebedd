// The works of the comparison. Each is done once unseen, to count and to check every byte, and then
// round after round by the clock.
#pragma once

#include <ctime>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "../memory.h"
#include "store.h"

namespace bench {

/// Sums up the timed parts of a round, or counts their allocations: both at once would disturb the time.
class Meter {
public:
    explicit Meter(bool counts) : m_counts(counts) {}
    /// Before what belongs to the round: the peak of memory begins here.
    void WarmUp(uint64_t bytes);
    void Begin();
    void End();
    double Seconds() const { return m_seconds; }
    double CpuSeconds() const { return m_cpuSeconds; }
    uint64_t Allocations() const { return m_allocations; }

private:
    const bool m_counts;
    double m_seconds = 0;
    double m_cpuSeconds = 0; // of all threads, in the process and in the system for it
    uint64_t m_allocations = 0;
    timespec m_wallBegin{};
    timespec m_cpuBegin{};
    std::optional<AllocationCount> m_count;
};

struct Stage {
    Store& store;
    std::filesystem::path dir; ///< the store's
    std::filesystem::path old; ///< where emptied files of former rounds lie until the end
};

class Workload {
public:
    explicit Workload(const Layout& layout) : m_layout(layout) {}
    virtual ~Workload() = default;
    virtual void Prepare(Stage&) {}
    /// `check` compares every byte and is not by the clock. False: this participant cannot do it.
    virtual bool Round(Stage& stage, Meter& meter, bool check) = 0;
    const Layout& GetLayout() const { return m_layout; }
    /// What one unit of the result is: bytes or operations in a round.
    virtual double Operations() const { return m_layout.AllBlocks(); }

protected:
    const Layout m_layout;
};

/// By name; null when there is none. `share` makes the work smaller by that factor.
std::unique_ptr<Workload> MakeWorkload(const std::string& name, uint32_t share);

} // namespace bench
