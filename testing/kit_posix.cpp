#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

#include "testing/kit.h"

IdleProcess::IdleProcess() {
    const pid_t child = fork();
    if (child < 0)
        throw std::runtime_error("no other process");
    if (child == 0) {
        pause();
        std::_Exit(EXIT_SUCCESS);
    }
    m_id = static_cast<uint32_t>(child);
}

void IdleProcess::End() {
    const auto child = static_cast<pid_t>(std::exchange(m_id, 0));
    if (child == 0)
        return;
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

const uint32_t SLOWNESS = 1;
const char NULL_DEVICE[] = "/dev/null";

void SetVariable(const char* name, const std::string& value) { setenv(name, value.c_str(), 1); }

size_t CountHandles() {
    const fs::directory_iterator all("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

bool LimitStreams(uint32_t count) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = count;
    return setrlimit(RLIMIT_NOFILE, &limit) == 0;
}
