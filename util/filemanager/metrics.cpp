// The exported functions of FMStatistics.h, among them the text for monitoring systems.
#include <string>

#include "FMStatistics.h"
#include "RtResult.h"
#include "filemanager.h"
#include "mistakes.h"
#include "statistics.h"

namespace {

template <class Value>
struct Metric {
    const char* name;
    const char* help;
    Value FMStatistics::*value;
};

constexpr Metric<uint64_t> GAUGES[] = {
    {"filemanager_memory_bytes", "Block data in memory.", &FMStatistics::memoryBytes},
    {"filemanager_memory_limit_bytes", "Block data in memory above which idle blocks are released.",
     &FMStatistics::memoryLimitBytes},
    {"filemanager_open_files", "Files that are open.", &FMStatistics::openFiles},
    {"filemanager_resident_blocks", "Blocks in memory.", &FMStatistics::residentBlocks},
    {"filemanager_pending_blocks", "Complete blocks that wait to be stored.",
     &FMStatistics::pendingBlocks},
    {"filemanager_pending_bytes", "Bytes of complete blocks that wait to be stored.",
     &FMStatistics::pendingBytes},
    {"filemanager_stored_blocks", "Blocks of open files that are on disk.",
     &FMStatistics::storedBlocks},
    {"filemanager_stored_bytes", "Bytes of the blocks of open files that are on disk.",
     &FMStatistics::storedBytes},
    {"filemanager_failed_blocks", "Blocks whose store has failed and is retried.",
     &FMStatistics::failedBlocks},
    {"filemanager_failed_bytes", "Bytes of blocks whose store has failed and is retried.",
     &FMStatistics::failedBytes},
};

constexpr Metric<uint64_t> COUNTERS[] = {
    {"filemanager_read_hits_total", "Reads served from memory.", &FMStatistics::readHits},
    {"filemanager_read_misses_total", "Reads that needed a load from disk.",
     &FMStatistics::readMisses},
    {"filemanager_loads_total", "Blocks loaded from disk.", &FMStatistics::loads},
    {"filemanager_load_bytes_total", "Bytes loaded from disk.", &FMStatistics::loadBytes},
    {"filemanager_load_failures_total", "Loads that have failed.", &FMStatistics::loadFailures},
    {"filemanager_stores_total", "Blocks stored to disk.", &FMStatistics::stores},
    {"filemanager_store_bytes_total", "Bytes stored to disk.", &FMStatistics::storeBytes},
    {"filemanager_store_failures_total", "Stores that have failed.", &FMStatistics::storeFailures},
    {"filemanager_store_retries_total", "Stores that were queued again.",
     &FMStatistics::storeRetries},
    {"filemanager_store_batches_total", "Writes of several adjacent blocks with one system call.",
     &FMStatistics::storeBatches},
};

constexpr Metric<FMHistogram> HISTOGRAMS[] = {
    {"filemanager_load_wait_seconds", "Time between the posting and the start of a load.",
     &FMStatistics::loadWait},
    {"filemanager_load_disk_seconds", "Duration of a load.", &FMStatistics::loadDisk},
    {"filemanager_store_wait_seconds", "Time between the posting and the start of a store.",
     &FMStatistics::storeWait},
    {"filemanager_store_disk_seconds", "Duration of a store or of a batch of stores.",
     &FMStatistics::storeDisk},
};

void AppendHead(std::string& text, const char* name, const char* help, const char* type) {
    text = text + "# HELP " + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
}

// In seconds. The decimal point does not depend on the locale.
std::string Seconds(uint64_t us) {
    constexpr uint64_t second = 1'000'000;
    return std::to_string(us / second) + "." + std::to_string(second + us % second).substr(1);
}

void AppendHistogram(std::string& text, const std::string& name, const FMHistogram& histogram) {
    uint64_t count = 0;
    for (size_t bucket = 0; bucket < FMHistogram::BUCKETS; ++bucket) {
        const bool isLast = bucket + 1 == FMHistogram::BUCKETS;
        count += histogram.counts[bucket];
        text += name + "_bucket{le=\"" + (isLast ? "+Inf" : Seconds(uint64_t{1} << bucket)) +
                "\"} " + std::to_string(count) + "\n";
    }
    text += name + "_sum " + Seconds(histogram.sumUs) + "\n";
    text += name + "_count " + std::to_string(count) + "\n";
}

} // namespace

CRtString FMFormatStatistics(const FMStatistics& statistics) {
    std::string text;
    const auto appendValues = [&](const auto& metrics, const char* type) {
        for (const auto& metric : metrics) {
            AppendHead(text, metric.name, metric.help, type);
            text += metric.name;
            text += ' ';
            text += std::to_string(statistics.*metric.value);
            text += '\n';
        }
    };
    appendValues(GAUGES, "gauge");
    appendValues(COUNTERS, "counter");
    for (const auto& metric : HISTOGRAMS) {
        AppendHead(text, metric.name, metric.help, "histogram");
        AppendHistogram(text, metric.name, statistics.*metric.value);
    }
    return CRtString((text + "# EOF\n").c_str());
}

void FMGetStatistics(FMStatistics& statistics) {
    statistics = {};
    g_statistics.Fill(statistics);
    CFileManager* const manager = CFileManager::IfAlive();
    if (!manager)
        return;
    statistics.memoryBytes = manager->GetMemoryInUse();
    statistics.memoryLimitBytes = manager->GetMemoryLimit();
    statistics.openFiles = manager->CountOpenFiles();
}

uint64_t FMGetUnstoredBytes() { return g_statistics.GetUnstored(); }

int FMSetHighWaterMark(uint64_t bytes, std::function<void(bool)> callback) {
    CFMMistakes::CheckThread("FMSetHighWaterMark");
    if (bytes > 0 && !callback)
        return RT_ERROR_INVALID_ARG;
    CFileManager* const manager = CFileManager::Instance();
    if (!manager)
        return RT_ERROR_NULL_OBJECT;
    manager->GetHighWaterMark().Set(bytes, std::move(callback));
    return RT_OK;
}
