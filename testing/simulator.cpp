// Programs: their generation, their runs in child processes, and the search for a shorter one.
#include "testing/simulator.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <iostream>
#include <random>

#include "RtEventQueue.h"
#include "RtLog.h"
#include "testing/world.h"

namespace sim {

// Each program uses few kinds of calls and mostly one block of one file: calls that interact are then frequent.
Program Generate(uint64_t seed) {
    std::mt19937_64 random(seed);
    Program program(10 + random() % (STEPS_MAX - 10));
    const bool isFaulty = random() % 4 != 0;
    // One bit for each call: a quarter or half of them, and always the first, a write.
    uint64_t calls = random();
    if (random() % 2)
        calls &= random();
    calls |= 1;
    const uint64_t hot = random();
    for (Step& step : program) {
        const uint64_t value = random();
        const uint64_t order = random();
        do
            step.call = static_cast<uint8_t>(random());
        while (!(calls >> step.call % CALLS & 1));
        const uint64_t target = value >> 48 & 1 ? hot : value;
        step.file = static_cast<uint8_t>(target >> 8);
        step.block = static_cast<uint8_t>(target >> 16);
        step.how = static_cast<uint8_t>(value >> 24);
        step.size = static_cast<uint16_t>(value >> 32);
        step.down = static_cast<uint8_t>(order % 4);
        step.up = order % 16 == 0 ? 255 : static_cast<uint8_t>(order >> 8) % 3;
        step.fault = isFaulty && order >> 16 & 1 ? static_cast<uint8_t>(order >> 24) : 0;
        step.at = static_cast<uint8_t>((order >> 32) % 256);
    }
    return program;
}

Program FromBytes(const uint8_t* data, size_t size) {
    Program program(std::min(size / sizeof(Step), STEPS_MAX));
    if (!program.empty())
        std::memcpy(program.data(), data, program.size() * sizeof(Step));
    return program;
}

std::string Run(const Program& program, std::string* trace, bool withLog) {
    CRtEventQueue::SetStepping(true);
    return RunInWorld(program, false, trace, withLog);
}

std::string RunThreaded(const Program& program) {
    CRtEventQueue::SetStepping(false);
    RtSetLogSink(nullptr, nullptr, RT_LOG_SILENT);
    return RunInWorld(program, true, nullptr, false);
}

std::string InChild(const std::function<std::string()>& work) {
    constexpr unsigned timeoutSeconds = 20;
    int ends[2];
    if (::pipe(ends) != 0)
        return "no pipe";
    std::cout.flush();
    const pid_t child = ::fork();
    if (child < 0)
        return "no child process";
    if (child == 0) {
        ::alarm(timeoutSeconds);
        const std::string result = work();
        [[maybe_unused]] const auto written = ::write(ends[1], result.data(), result.size());
        ::_exit(0);
    }
    ::close(ends[1]);
    std::string text;
    char buffer[256];
    for (ssize_t length = 0; (length = ::read(ends[0], buffer, sizeof(buffer))) > 0;)
        text.append(buffer, static_cast<size_t>(length));
    ::close(ends[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    if (WIFSIGNALED(status))
        return WTERMSIG(status) == SIGALRM ? "does not end"
                                           : "ends by signal " + std::to_string(WTERMSIG(status));
    return WEXITSTATUS(status) == 0
               ? text
               : "ends with exit status " + std::to_string(WEXITSTATUS(status));
}

std::string RunInChild(const Program& program, bool withTrace) {
    return InChild([&program, withTrace] {
        std::string trace;
        const std::string violation = Run(program, withTrace ? &trace : nullptr, withTrace);
        return violation.empty() ? violation : violation + "\n" + trace;
    });
}

Program Shrink(Program program) {
    const auto fails = [](const Program& candidate) {
        return !RunInChild(candidate, false).empty();
    };
    for (size_t length = program.size(); length > 0; length /= 2) {
        for (size_t at = 0; at + length <= program.size();) {
            Program shorter = program;
            shorter.erase(shorter.begin() + static_cast<std::ptrdiff_t>(at),
                          shorter.begin() + static_cast<std::ptrdiff_t>(at + length));
            if (fails(shorter))
                program = shorter;
            else
                at += length;
        }
    }
    for (size_t byte = 0; byte < program.size() * sizeof(Step); ++byte) {
        Program simpler = program;
        reinterpret_cast<uint8_t*>(simpler.data())[byte] = 0;
        if (fails(simpler))
            program = simpler;
    }
    return program;
}

std::string Print(const Program& program) {
    std::string text = "sim::Run({";
    for (const Step& step : program) {
        text += "{";
        for (const unsigned value : {unsigned{step.call}, unsigned{step.file}, unsigned{step.block},
                                     unsigned{step.how}, unsigned{step.size}, unsigned{step.down},
                                     unsigned{step.up}, unsigned{step.fault}, unsigned{step.at}})
            text += std::to_string(value) + ",";
        text.back() = '}';
        text += ", ";
    }
    return text + "})";
}

} // namespace sim
