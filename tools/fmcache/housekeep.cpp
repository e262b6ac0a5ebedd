// housekeep: removes expired files and keeps the store within its disk budget, or shows what it would remove.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "budget.h"
#include "entry.h"
#include "failure.h"
#include "json.h"
#include "platform.h"
#include "progress.h"
#include "remove.h"
#include "scan.h"
#include "sizes.h"
#include "table.h"
#include "text.h"
#include "verbs.h"

namespace fs = std::filesystem;

namespace {

struct HousekeepOptions : StoreOptions {
    uint16_t days = 0; // 0: expired files are not removed
    uint64_t maxSize = 0;
    std::string minFree; // bytes, or a share of the disk: "10%"
    bool dryRun = false;
};

// Empty unless `text` is a number from 0 to 100 with a percent sign.
std::optional<double> ParsePercent(const std::string& text) {
    double share = 0;
    if (!text.ends_with('%') || !CLI::detail::lexical_cast(text.substr(0, text.size() - 1), share))
        return std::nullopt;
    return share >= 0 && share <= 100 ? std::optional(share) : std::nullopt;
}

std::string CheckMinFree(const std::string& text) {
    if (text.ends_with('%'))
        return ParsePercent(text) ? "" : "'" + text + "' is not a share from 0% to 100%";
    try {
        ParseSize(text);
    } catch (const CLI::ValidationError& error) {
        return error.what();
    }
    return "";
}

Budget MakeBudget(const HousekeepOptions& options, const fs::path& store) {
    Budget budget;
    budget.removeExpired = options.days > 0;
    if (options.maxSize > 0)
        budget.maxSize = options.maxSize;
    if (options.minFree.empty())
        return budget;
    std::error_code error;
    const fs::space_info space = fs::space(store, error);
    if (error)
        throw Failure("cannot read the free space of " + Quoted(store.string()) + ": " +
                      error.message());
    const std::optional<double> percent = ParsePercent(options.minFree);
    budget.minFree =
        percent ? static_cast<uint64_t>(static_cast<double>(space.capacity) * *percent / 100)
                : ParseSize(options.minFree);
    if (budget.minFree > space.capacity) // would remove all files
        throw Failure("--min-free: the disk has only " + FormatSize(space.capacity), STATUS_USAGE);
    budget.available = space.available;
    return budget;
}

struct HousekeepTotals {
    uint64_t files = 0;
    uint64_t bytes = 0;
    uint64_t left = 0; // chosen, but not removed for another reason than that they are in use
};

HousekeepTotals SumUp(const std::vector<Entry>& entries, const BudgetResult& result) {
    HousekeepTotals totals;
    for (size_t i = 0; i < entries.size(); ++i) {
        const Verdict& verdict = result.verdicts[i];
        totals.files += verdict.isRemoved ? 1 : 0;
        totals.bytes += verdict.isRemoved ? entries[i].onDisk : 0;
        totals.left += !verdict.error.empty() && verdict.error != IN_USE ? 1 : 0;
    }
    return totals;
}

class HousekeepReport {
public:
    HousekeepReport(const HousekeepOptions& options, const std::vector<Entry>& entries,
                    const BudgetResult& result)
        : m_options(options), m_entries(entries), m_result(result),
          m_totals(SumUp(entries, result)) {}

    std::string Text() const {
        using Align = Table::Align;
        Table table({{"IDENTIFIER"}, {"ON DISK", Align::Right}, {"ACTION"}, {"REASON"}, {"NAME"}});
        for (size_t i = 0; i < m_entries.size(); ++i) {
            const FMCachedFile& file = m_entries[i].file;
            table.Add({Printable(file.stem.view()), FormatSize(m_entries[i].onDisk), Action(i),
                       Printable(Reason(i)), Printable(m_entries[i].Name())});
        }
        std::string text = table.Text() + std::to_string(m_totals.files) + " of " +
                           Count(m_entries.size(), "file") +
                           (m_options.dryRun ? " would be removed, " : " removed, ") +
                           FormatSize(m_totals.bytes) + " on disk; " + FormatSize(m_result.size) +
                           (m_options.dryRun ? " would remain\n" : " remain\n");
        return m_options.days > 0 ? text + RuleText(m_options.days) + "\n" : text;
    }

    Json ToJson() const {
        Json json{{"dryRun", m_options.dryRun}, {"files", Json::array()}};
        for (size_t i = 0; i < m_entries.size(); ++i) {
            Json file = ::ToJson(m_entries[i], m_now);
            file["action"] = Action(i);
            file["reason"] = Reason(i);
            json["files"].push_back(std::move(file));
        }
        json["removed"] = m_totals.files;
        json["bytes"] = m_totals.bytes;
        json["left"] = m_totals.left;
        json["remaining"] = m_result.size;
        json["overBudget"] = m_result.over;
        return json;
    }

    const HousekeepTotals& Sums() const { return m_totals; }

private:
    std::string Action(size_t i) const {
        const Verdict& verdict = m_result.verdicts[i];
        if (m_options.dryRun)
            return verdict.isRemoved ? "remove" : "keep";
        if (verdict.isRemoved)
            return "removed";
        return verdict.error.empty() || verdict.error == IN_USE ? "kept" : "NOT REMOVED";
    }

    std::string Reason(size_t i) const {
        const Verdict& verdict = m_result.verdicts[i];
        const FMExpiry& expiry = m_entries[i].expiry;
        if (!verdict.error.empty())
            return verdict.error;
        if (m_entries[i].IsOpen())
            return StateText(FileState::Open);
        if (!verdict.reason.empty())
            return verdict.reason;
        if (expiry.when == FMExpiry::When::Later)
            return ToString(expiry.reason) + ", due " + ExpiryText(expiry, m_now);
        return ToString(expiry.reason);
    }

    const HousekeepOptions& m_options;
    const std::vector<Entry>& m_entries;
    const BudgetResult& m_result;
    const HousekeepTotals m_totals;
    const int64_t m_now = CurrentTime();
};

int Housekeep(HousekeepOptions& options) {
    if (options.days == 0 && options.maxSize == 0 && options.minFree.empty())
        throw Failure("--days, --max-size or --min-free is required", STATUS_USAGE);
    const fs::path store = LocateStore(options);
    const StoreListing listing = ListStore(store);
    const std::vector<Entry> entries = ReadEntries(store, listing, options.days, CurrentTime());
    const Budget budget = MakeBudget(options, store);
    if (!options.dryRun && !CanWriteInto(store))
        throw Failure("no write access to " + Quoted(store.string()) + ": " + ErrorText(errno));
    Progress progress("housekeeping", entries.size(), Progress::Unit::Files);
    const BudgetResult result = Reduce(entries, budget, [&](const Entry& entry) {
        CheckStop();
        progress.Add(1);
        return options.dryRun ? "" : RemoveFromStore(store, entry.file.stem, false);
    });
    const HousekeepReport report(options, entries, result);
    if (options.json)
        PrintJson(report.ToJson());
    else
        Print(report.Text());
    if (report.Sums().left > 0)
        throw Failure(Count(report.Sums().left, "file") + " could not be removed");
    if (result.over > 0)
        throw Failure(
            "the budget is exceeded by " + FormatSize(result.over) +
                ": the remaining files are kept, open or unreadable, or other data fill the disk",
            STATUS_FINDINGS);
    return STATUS_DONE;
}

} // namespace

void AddHousekeep(CLI::App& app, Action& chosen) {
    const auto options = std::make_shared<HousekeepOptions>();
    CLI::App* housekeep = app.add_subcommand(
        "housekeep",
        "Remove expired files, and the oldest files until the store is within a disk budget.");
    housekeep->footer(
        "At least one of --days, --max-size and --min-free is required. With --days, the command "
        "removes what each server of this cache removes every 24 hours. For the budget, temporary "
        "files and files without a valid description go first, then the oldest ones. A file that "
        "is flagged as kept, that a process has open, or whose information file this user cannot "
        "read stays. If such files alone exceed the budget, the exit status is 1.");
    AddCacheOptions(*housekeep, *options);
    AddDaysOption(*housekeep, options->days);
    TakeSize(housekeep->add_option(
        "--max-size", options->maxSize,
        "budget: largest space on disk that all files take, for example 20G"));
    housekeep
        ->add_option("--min-free", options->minFree,
                     "budget: smallest free space on the disk, for example 5G or 10%")
        ->type_name("SIZE|PERCENT")
        ->check(CheckMinFree);
    housekeep->add_flag("--dry-run", options->dryRun,
                        "remove nothing; show what would be removed, and why");
    housekeep->callback([options, &chosen] { chosen = [options] { return Housekeep(*options); }; });
}
