// The second thread of the plain-calls baseline: writes each range of memory with one pwrite.
#pragma once

#include <unistd.h>

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include "../common.h"

namespace bench {

class SecondThread {
public:
    struct Job {
        int fd;
        const char* bytes;
        size_t length;
        off_t at;
    };

    SecondThread() : m_thread([this] { Run(); }) {}
    ~SecondThread() {
        {
            const std::lock_guard lock(m_mutex);
            m_ends = true;
        }
        m_posted.notify_one();
        m_thread.join();
    }
    SecondThread(const SecondThread&) = delete;
    SecondThread& operator=(const SecondThread&) = delete;

    void Post(const Job& job) {
        bool wake = false;
        {
            const std::lock_guard lock(m_mutex);
            m_jobs.push_back(job);
            ++m_left;
            wake = m_waits;
        }
        if (wake)
            m_posted.notify_one();
    }
    /// Returns when at most `left` jobs are pending.
    void WaitFor(size_t left) {
        std::unique_lock lock(m_mutex);
        m_written.wait(lock, [&] { return m_left <= left; });
    }

private:
    void Run() {
        std::vector<Job> taken;
        while (Take(taken)) {
            for (const Job& job : taken)
                Require(pwrite(job.fd, job.bytes, job.length, job.at) ==
                            static_cast<ssize_t>(job.length),
                        "pwrite failed");
            const std::lock_guard lock(m_mutex);
            m_left -= taken.size();
            taken.clear();
            m_written.notify_one();
        }
    }
    bool Take(std::vector<Job>& taken) {
        std::unique_lock lock(m_mutex);
        m_waits = true;
        m_posted.wait(lock, [this] { return !m_jobs.empty() || m_ends; });
        m_waits = false;
        taken.swap(m_jobs);
        return !taken.empty();
    }

    std::mutex m_mutex;
    std::condition_variable m_posted, m_written;
    std::vector<Job> m_jobs;
    size_t m_left = 0;
    bool m_waits = false;
    bool m_ends = false;
    std::thread m_thread; // last: it uses all of the above
};

} // namespace bench
