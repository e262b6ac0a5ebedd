// Writing a fresh file in pieces until every block is stored, beside the least that could do it: a copy
// into one buffer per block, and a second thread with one pwrite for each.
#include <fcntl.h>

#include <condition_variable>
#include <cstring>
#include <deque>
#include <fstream>
#include <memory>
#include <mutex>
#include <thread>

#include "compare.h"
#include "support.h"

namespace {

using namespace bench;
using Clock = std::chrono::steady_clock;

constexpr uint32_t BLOCKS = 1024;
constexpr uint64_t BYTES = uint64_t{BLOCKS} * BLOCK_LEN;

void RequireContents(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::vector<char> bytes(BLOCK_LEN);
    for (uint32_t i = 0; i < BLOCKS; ++i) {
        in.read(bytes.data(), BLOCK_LEN);
        Require(in && std::memcmp(bytes.data(), BytesOf(i), BLOCK_LEN) == 0,
                "not what was written");
    }
}

// The second thread of the plain side. Like the library's it lives on between files.
class PlainWriter {
public:
    PlainWriter() : m_thread([this] { Run(); }) {}
    ~PlainWriter() {
        Post({nullptr, -1, 0});
        m_thread.join();
    }

    struct Job {
        const char* bytes;
        int fd;
        off_t at;
    };
    void Post(Job job) {
        const std::lock_guard lock(m_mutex);
        m_jobs.push_back(job);
        ++m_left;
        m_posted.notify_one();
    }
    void Drain() {
        std::unique_lock lock(m_mutex);
        m_drained.wait(lock, [this] { return m_left == 0; });
    }

private:
    void Run() {
        for (Job job = Take(); job.bytes; job = Take()) {
            Require(pwrite(job.fd, job.bytes, BLOCK_LEN, job.at) == BLOCK_LEN, "pwrite failed");
            const std::lock_guard lock(m_mutex);
            if (--m_left == 0)
                m_drained.notify_one();
        }
    }
    Job Take() {
        std::unique_lock lock(m_mutex);
        m_posted.wait(lock, [this] { return !m_jobs.empty(); });
        const Job job = m_jobs.front();
        m_jobs.pop_front();
        return job;
    }

    std::mutex m_mutex;
    std::condition_variable m_posted, m_drained;
    std::deque<Job> m_jobs;
    size_t m_left = 0;
    std::thread m_thread; // last: it uses all of the above
};

double WriteOurs(Cache& cache, bool check) {
    const auto start = Clock::now();
    FileRef file = cache.Create(BLOCKS);
    for (uint32_t i = 0; i < BLOCKS; ++i)
        WriteInPieces(*BlockAt(*file, i), BytesOf(i));
    cache.Drain();
    const double seconds = SecondsSince(start);
    if (check)
        RequireContents(Cache::DataPath(*file));
    cache.Close(file); // removes it, and frees the blocks
    return seconds;
}

double WritePlain(PlainWriter& writer, bool check) {
    const std::filesystem::path path = TempDir::Path() / "plain";
    std::vector<std::unique_ptr<char[]>> blocks(BLOCKS);
    const auto start = Clock::now();
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    for (uint32_t i = 0; i < BLOCKS; ++i) {
        blocks[i].reset(new char[BLOCK_LEN]); // not cleared, as the cache's
        for (uint32_t at = 0; at < BLOCK_LEN; at += PIECE_LEN)
            std::memcpy(blocks[i].get() + at, BytesOf(i) + at, PIECE_LEN);
        writer.Post({blocks[i].get(), fd, off_t{i} * BLOCK_LEN});
    }
    writer.Drain();
    const double seconds = SecondsSince(start);
    close(fd);
    if (check)
        RequireContents(path);
    std::filesystem::remove(path);
    return seconds;
}

// Neither side syncs; both begin without a file and keep all blocks in memory until the end.
void WriteBlocks(benchmark::State& state) {
    Cache cache;
    PlainWriter writer;
    WriteOurs(cache, true);
    WritePlain(writer, true);
    Compare(
        state, BYTES, [&] { return WriteOurs(cache, false); },
        [&] { return WritePlain(writer, false); });
}
BENCHMARK(WriteBlocks)->Apply(AsComparison);

} // namespace
