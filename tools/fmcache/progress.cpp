#include "progress.h"

#include <algorithm>
#include <cstdio>

#include "log.h"
#include "platform.h"
#include "sizes.h"
#include "text.h"

namespace {
constexpr std::chrono::milliseconds DRAW_INTERVAL{100};
constexpr size_t BAR_WIDTH = 16; // keeps the line below 80 columns
} // namespace

// Disabled with --verbose: log lines would break up the progress line.
Progress::Progress(std::string verb, uint64_t total, Unit unit)
    : m_verb(std::move(verb)), m_total(total), m_unit(unit),
      m_enabled(IsErrorTerminal() && !IsLogShown()) {}

Progress::~Progress() {
    if (m_width > 0)
        std::fprintf(stderr, "\r%*s\r", static_cast<int>(m_width), "");
}

void Progress::Add(uint64_t amount) {
    m_done += amount;
    if (!m_enabled)
        return;
    if (const Clock::time_point now = Clock::now(); now - m_drawn >= DRAW_INTERVAL)
        Draw(now);
}

void Progress::Draw(Clock::time_point now) {
    m_drawn = now;
    const double share =
        m_total > 0 ? static_cast<double>(m_done) / static_cast<double>(m_total) : 1.0;
    const auto filled = static_cast<size_t>(share * BAR_WIDTH);
    const double seconds = std::chrono::duration<double>(now - m_start).count();

    std::string line = m_verb + " [" + std::string(filled, '#') +
                       std::string(BAR_WIDTH - std::min(filled, BAR_WIDTH), ' ') + "] " +
                       std::to_string(static_cast<int>(share * 100)) + "%  " + Amounts(seconds);
    const size_t width = line.size();
    line.resize(std::max(width, m_width), ' '); // overwrites the rest of a longer line
    m_width = width;
    std::fprintf(stderr, "\r%s", line.c_str());
    std::fflush(stderr);
}

std::string Progress::Amounts(double seconds) const {
    if (m_unit == Unit::Files)
        return std::to_string(m_done) + " of " + Count(m_total, "file");
    const auto speed = static_cast<uint64_t>(static_cast<double>(m_done) / seconds);
    return FormatSize(m_done) + " of " + FormatSize(m_total) + ", " + FormatSize(speed) + "/s";
}
