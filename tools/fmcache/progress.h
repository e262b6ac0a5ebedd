// A progress line on standard error. Nothing is written if standard error is not a terminal.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

class Progress {
public:
    enum class Unit { Bytes, Files };

    /// `verb`: the first word of the line, "storing" for example.
    Progress(std::string verb, uint64_t total, Unit unit = Unit::Bytes);
    /// Erases the line.
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void Add(uint64_t amount);

private:
    using Clock = std::chrono::steady_clock;

    void Draw(Clock::time_point now);
    std::string Amounts(double seconds) const;

    const std::string m_verb;
    const uint64_t m_total;
    const Unit m_unit;
    const bool m_enabled;
    const Clock::time_point m_start = Clock::now();
    Clock::time_point m_drawn = m_start; // so a short transfer shows no line
    uint64_t m_done = 0;
    size_t m_width = 0; // of the line on the screen
};
