// Measures the turns of the event loop.
#pragma once

#include <algorithm>
#include <asio.hpp>
#include <chrono>

using Clock = std::chrono::steady_clock;

/// A turn begins with the first handler that runs after the loop has waited, and ends when all handlers that
/// were ready behind it have run. An event that arrives in between waits for the end of the turn.
class Turns {
public:
    /// Each handler calls it first, because asio does not report the end of a wait.
    static void Begin() {
        if (!s_isRunning)
            s_begin = Clock::now();
        s_isRunning = true;
    }

    /// Runs the loop until it is stopped.
    static void Run(asio::io_context& loop) {
        while (loop.run_one() > 0) {
            bool isOver = false; // set behind the handlers that are ready
            asio::post(loop, [&isOver] { isOver = true; });
            while (!isOver && loop.run_one() > 0) {
            }
            End();
        }
    }

    static std::chrono::microseconds GetLongest() {
        return std::chrono::duration_cast<std::chrono::microseconds>(s_longest);
    }

private:
    static void End() {
        if (s_isRunning)
            s_longest = std::max(s_longest, Clock::now() - s_begin);
        s_isRunning = false;
    }

    inline static bool s_isRunning = false;
    inline static Clock::time_point s_begin;
    inline static Clock::duration s_longest{};
};
