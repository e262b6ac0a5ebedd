// report: one self-contained HTML page about a store.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "entry.h"
#include "failure.h"
#include "json.h"
#include "map.h"
#include "scan.h"
#include "sizes.h"
#include "text.h"
#include "verbs.h"

namespace fs = std::filesystem;

namespace {

// Bounds for the length of the page.
constexpr size_t ROWS_NEXT = 50;  // files that are removed next
constexpr size_t ROWS_MAPS = 200; // largest files, with their block maps
constexpr size_t ROWS_FAULTS = 500;
constexpr size_t MAP_CELLS = 160;

constexpr char STYLE[] = R"(
:root { color-scheme: light dark; --page: #ffffff; --card: #f5f7f9; --text: #17202a; --soft: #56616d;
  --line: #d3d9df; --stored: #1763b6; --some: #8ab4dd; --missing: #d3d9df; --damaged: #c2261b; --due: #c95c06; }
@media (prefers-color-scheme: dark) { :root { --page: #11161c; --card: #1a2129; --text: #e8edf2;
  --soft: #a2adb9; --line: #37414c; --stored: #5aa7f2; --some: #345a80; --missing: #37414c;
  --damaged: #ff7b72; --due: #f2a049; } }
* { box-sizing: border-box; }
body { margin: 0 auto; padding: 2rem 1.25rem 3rem; max-width: 68rem; background: var(--page);
  color: var(--text); font: 1rem/1.5 system-ui, "Segoe UI", "Noto Sans", "DejaVu Sans", sans-serif; }
h1 { font-size: 1.7rem; line-height: 1.2; margin: 0 0 .3rem; overflow-wrap: anywhere; }
h2 { font-size: 1.2rem; margin: 2.4rem 0 .6rem; }
.soft { color: var(--soft); }
.figures { display: flex; flex-wrap: wrap; gap: .8rem; margin: 1.2rem 0 0; }
.figures div { display: flex; flex-direction: column; flex: 1 1 9rem; padding: .7rem 1rem; border-radius: .5rem; background: var(--card); }
.figures b { margin-top: auto; font-size: 1.5rem; line-height: 1.3; font-variant-numeric: tabular-nums; }
.bars { display: grid; grid-template-columns: max-content 1fr max-content; gap: .2rem .8rem; font-size: .875rem;
  align-items: center; font-variant-numeric: tabular-nums; }
.bars i { display: block; height: .9rem; background: var(--stored); border-radius: 2px; }
.bars i.due { background: var(--due); }
table { border-collapse: collapse; width: 100%; font-size: .875rem; font-variant-numeric: tabular-nums; }
th, td { text-align: left; padding: .3rem .6rem .3rem 0; border-bottom: 1px solid var(--line);
  vertical-align: top; }
td:first-child { overflow-wrap: anywhere; }
th { color: var(--soft); font-weight: 600; }
td.n, th.n { text-align: right; white-space: nowrap; }
.map { display: flex; height: .9rem; min-width: 8rem; border-radius: 2px; overflow: hidden; }
.map i { display: block; }
.stored { background: var(--stored); } .some { background: var(--some); }
.missing { background: var(--missing); } .damaged { background: var(--damaged); }
.legend { display: flex; flex-wrap: wrap; gap: .2rem 1.2rem; font-size: .875rem; margin: 0 0 .8rem; }
.legend i { display: inline-block; width: .8rem; height: .8rem; margin-right: .4rem; border-radius: 2px; }
code { font-size: .8rem; }
)";

struct ReportOptions : StoreOptions {
    uint16_t days = KEEP_DAYS_DEFAULT;
};

struct Row {
    Entry entry;
    std::string cells; // of the block map
    std::vector<std::string> faults;
};

std::string Escape(std::string_view text) {
    std::string escaped;
    for (const char each : Printable(text)) {
        switch (each) {
        case '&':
            escaped += "&amp;";
            break;
        case '<':
            escaped += "&lt;";
            break;
        case '>':
            escaped += "&gt;";
            break;
        case '"':
            escaped += "&quot;";
            break;
        default:
            escaped += each;
        }
    }
    return escaped;
}

std::string TitleOf(const Entry& entry) {
    const std::string id = "<code>" + Escape(entry.file.stem.view()) + "</code>";
    return entry.file.isDescribed ? Escape(entry.Name()) + "<br>" + id : id;
}

class Page {
public:
    Page(std::vector<Row> rows, const ReportOptions& options, int64_t now)
        : m_rows(std::move(rows)), m_options(options), m_now(now) {}

    std::string Text(const std::string& place) const {
        return "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
               "<meta name=\"viewport\" content=\"width=device-width\"><title>Cache " +
               Escape(place) + "</title><style>" + STYLE + "</style></head><body>\n<h1>Cache " +
               Escape(place) + "</h1>\n<p class=\"soft\">" + TimeText(m_now) +
               ", by fmcache. Files " + RuleText(m_options.days) +
               ". Sizes are bytes that the file system has allocated.</p>\n" + Figures() + Ages() +
               Sizes() + Next() + Maps() + Faults() + "</body></html>\n";
    }

private:
    template <class Test>
    std::string Sum(Test test) const {
        uint64_t bytes = 0;
        uint64_t files = 0;
        for (const Row& row : m_rows) {
            if (!test(row.entry))
                continue;
            bytes += row.entry.onDisk;
            ++files;
        }
        return "<b>" + std::to_string(files) + "</b>" + FormatSize(bytes);
    }

    std::string Figures() const {
        std::string text = "<div class=\"figures\">";
        const auto add = [&](const char* what, auto test) {
            text += std::string("<div>") + what + Sum(test) + "</div>";
        };
        add("files", [](const Entry&) { return true; });
        add("removed in the next run",
            [](const Entry& entry) { return entry.expiry.when == FMExpiry::When::NextRun; });
        add("kept", [](const Entry& entry) { return entry.IsKept(); });
        add("open", [](const Entry& entry) { return entry.IsOpen(); });
        add("damaged or unreadable", [](const Entry& entry) { return entry.faults > 0; });
        return text + "</div>\n";
    }

    struct Bar {
        std::string label;
        uint64_t bytes = 0;
        uint64_t files = 0;
        bool isDue = false;
    };
    static std::string BarsText(const char* id, const std::vector<Bar>& bars) {
        uint64_t most = 1;
        for (const Bar& bar : bars)
            most = std::max(most, bar.bytes);
        std::string text = std::string("<div class=\"bars\" id=\"") + id + "\">";
        for (const Bar& bar : bars) {
            char width[32];
            std::snprintf(width, sizeof(width), "%.2f",
                          100 * static_cast<double>(bar.bytes) / static_cast<double>(most));
            text += "<span>" + bar.label + "</span><span><i" + (bar.isDue ? " class=\"due\"" : "") +
                    " style=\"width:" + width + "%\"></i></span><span>" + FormatSize(bar.bytes) +
                    ", " + Count(bar.files, "file") + "</span>";
        }
        return text + "</div>\n";
    }

    std::string Ages() const {
        const int64_t due = int64_t{m_options.days} + 2;
        const int64_t step = (due + 13) / 14; // days for each bar, about 14 bars
        std::vector<Bar> bars;
        for (int64_t first = 0; first < due; first += step) {
            const int64_t last = std::min(first + step, due) - 1;
            bars.push_back({std::to_string(first) +
                            (last > first ? " to " + std::to_string(last) : "") +
                            (last == 1 ? " day" : " days")});
        }
        bars.push_back({"from " + std::to_string(due) + " days", 0, 0, true});
        for (const Row& row : m_rows) {
            if (!row.entry.file.isDescribed)
                continue;
            const int64_t age = FMAgeInDays(row.entry.file.createTime, m_now);
            Bar& bar = age >= due ? bars.back() : bars[static_cast<size_t>(age / step)];
            bar.bytes += row.entry.onDisk;
            ++bar.files;
        }
        return "<h2>Ages</h2>\n" + BarsText("ages", bars);
    }

    std::string Sizes() const {
        constexpr std::array<uint64_t, 6> limits{uint64_t{16} << 10,  uint64_t{256} << 10,
                                                 uint64_t{4} << 20,   uint64_t{64} << 20,
                                                 uint64_t{256} << 20, UINT64_MAX};
        std::vector<Bar> bars;
        bars.reserve(limits.size());
        for (const uint64_t limit : limits)
            bars.push_back({limit == UINT64_MAX ? "larger" : "to " + FormatSize(limit)});
        for (const Row& row : m_rows) {
            const uint64_t bytes = row.entry.onDisk;
            const auto at = std::lower_bound(limits.begin(), limits.end(), bytes);
            Bar& bar = bars[static_cast<size_t>(at - limits.begin())];
            bar.bytes += bytes;
            ++bar.files;
        }
        return "<h2>Sizes</h2>\n" + BarsText("sizes", bars);
    }

    static std::string RestText(size_t shown, size_t all) {
        return shown < all ? "<p class=\"soft\">and " + std::to_string(all - shown) + " more</p>\n"
                           : "";
    }

    // The order in which housekeeping removes the files.
    std::string Next() const {
        std::vector<const Entry*> next;
        for (const Row& row : m_rows) {
            if (row.entry.expiry.when == FMExpiry::When::NextRun ||
                row.entry.expiry.when == FMExpiry::When::Later)
                next.push_back(&row.entry);
        }
        std::stable_sort(next.begin(), next.end(), [](const Entry* a, const Entry* b) {
            return a->expiry.dueTime < b->expiry.dueTime; // 0 for the next run
        });
        std::string text =
            "<h2>Removed next</h2>\n<table id=\"next\"><tr><th>file</th><th class=\"n\">size"
            "</th><th>housekeeping</th></tr>\n";
        const size_t shown = std::min(next.size(), ROWS_NEXT);
        for (size_t i = 0; i < shown; ++i)
            text += "<tr><td>" + TitleOf(*next[i]) + "</td><td class=\"n\">" +
                    FormatSize(next[i]->onDisk) + "</td><td>" +
                    Escape(ExpiryText(next[i]->expiry, m_now)) + "</td></tr>\n";
        return text + "</table>\n" + RestText(shown, next.size());
    }

    static const char* ClassOf(char cell) {
        switch (cell) {
        case '#':
            return "stored";
        case '+':
            return "some";
        case '!':
            return "damaged";
        default:
            return "missing";
        }
    }

    // Adjacent equal cells are one element.
    static std::string MapText(const std::string& cells) {
        std::string text = "<div class=\"map\">";
        for (size_t at = 0; at < cells.size();) {
            const size_t end = std::min(cells.find_first_not_of(cells[at], at), cells.size());
            text += std::string("<i class=\"") + ClassOf(cells[at]) +
                    "\" style=\"flex:" + std::to_string(end - at) + "\"></i>";
            at = end;
        }
        return text + "</div>";
    }

    std::string Maps() const {
        std::vector<const Row*> largest;
        for (const Row& row : m_rows)
            largest.push_back(&row);
        std::stable_sort(largest.begin(), largest.end(), [](const Row* a, const Row* b) {
            return a->entry.onDisk > b->entry.onDisk;
        });
        std::string text =
            "<h2>Files and their blocks</h2>\n<p class=\"legend\"><span><i "
            "class=\"stored\"></i>stored</span>"
            "<span><i class=\"some\"></i>partly stored</span><span><i "
            "class=\"missing\"></i>missing</span>"
            "<span><i class=\"damaged\"></i>damaged</span></p>\n<table "
            "id=\"maps\"><tr><th>file</th>"
            "<th class=\"n\">size</th><th class=\"n\">blocks</th><th>state</th><th>map</th></tr>\n";
        const size_t shown = std::min(largest.size(), ROWS_MAPS);
        for (size_t i = 0; i < shown; ++i) {
            const Entry& entry = largest[i]->entry;
            text += "<tr><td>" + TitleOf(entry) + "</td><td class=\"n\">" +
                    FormatSize(entry.onDisk) + "</td><td class=\"n\">" +
                    std::to_string(entry.file.storedBlocks) + "/" +
                    std::to_string(entry.file.slots) + "</td><td>" + StateText(entry.state) +
                    "</td><td>" + MapText(largest[i]->cells) + "</td></tr>\n";
        }
        return text + "</table>\n" + RestText(shown, largest.size());
    }

    std::string Faults() const {
        std::string text =
            "<h2>Faults</h2>\n<p class=\"soft\">By structure only: the format has no checksums."
            "</p>\n<table id=\"faults\">\n";
        size_t all = 0;
        for (const Row& row : m_rows) {
            for (const std::string& fault : row.faults) {
                if (++all <= ROWS_FAULTS)
                    text += "<tr><td>" + TitleOf(row.entry) + "</td><td>" + Escape(fault) +
                            "</td></tr>\n";
            }
        }
        return text + "</table>\n" + (all == 0 ? "<p>none</p>\n" : "") +
               RestText(std::min(all, ROWS_FAULTS), all);
    }

    const std::vector<Row> m_rows;
    const ReportOptions& m_options;
    const int64_t m_now;
};

Row MakeRow(const fs::path& store, FMCachedFile file, uint16_t days, int64_t now) {
    Row row;
    row.cells = MapCells(file, MAP_CELLS);
    for (const FMFinding& finding : file.findings) {
        if (finding.isFault && row.faults.size() < ROWS_FAULTS)
            row.faults.push_back(ToString(finding.what));
    }
    row.entry = MakeEntry(store, std::move(file), days, now);
    return row;
}

int MakeReport(ReportOptions& options) {
    const fs::path store = LocateStore(options);
    const StoreListing listing = ListStore(store);
    const int64_t now = CurrentTime();
    std::vector<Row> rows;
    ForEachFile(store, listing, "reading", [&](FMCachedFile&& file) {
        rows.push_back(MakeRow(store, std::move(file), options.days, now));
    });
    Print(Page(std::move(rows), options, now).Text(store.string()));
    return STATUS_DONE;
}

} // namespace

void AddReport(CLI::App& app, Action& chosen) {
    const auto options = std::make_shared<ReportOptions>();
    CLI::App* report =
        app.add_subcommand("report", "Write an HTML page about the store to standard output.");
    report->footer("The page shows sizes, ages, what is removed next, block maps and faults. It "
                   "needs no other file.");
    AddPlaceOptions(*report, *options);
    AddDaysOption(*report, options->days)->capture_default_str();
    report->callback([options, &chosen] { chosen = [options] { return MakeReport(*options); }; });
}
