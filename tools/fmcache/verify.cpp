// verify: checks information files against data files by the rules of the library's loader, and contents against
// sums.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "entry.h"
#include "failure.h"
#include "json.h"
#include "output.h"
#include "scan.h"
#include "sizes.h"
#include "sums.h"
#include "text.h"
#include "verbs.h"

namespace fs = std::filesystem;

namespace {

// A damaged table can have one fault for each block; the text report shows the first ones.
constexpr size_t FINDINGS_SHOWN = 20;

struct VerifyOptions : StoreOptions {
    std::string id;
    fs::path sums;      // to compare with
    fs::path writeSums; // to create
    bool force = false;

    bool WithContents() const { return !sums.empty() || !writeSums.empty(); }
};

struct VerifyTotals {
    uint64_t files = 0;
    uint64_t faulty = 0;
    uint64_t open = 0;
    uint64_t read = 0;     // blocks
    uint64_t compared = 0; // blocks that were read and have an earlier sum
    uint64_t gone = 0;     // files with sums that are no longer in the store
};

// What verify has checked, for its last line and for JSON.
std::string CheckedText(const VerifyOptions& options) {
    if (!options.sums.empty())
        return "structure and contents";
    return options.writeSums.empty() ? "structure only" : "structure; sums written";
}

class VerifyReport {
public:
    VerifyReport(const VerifyOptions& options, fs::path store)
        : m_options(options), m_store(std::move(store)) {}

    void Add(const FMCachedFile& file) {
        const FileState state = StateOf(file);
        ++m_totals.files;
        m_totals.faulty += CountFaults(file) > 0 ? 1 : 0;
        m_totals.open += state == FileState::Open ? 1 : 0;
        if (m_options.json)
            AddJson(file);
        else
            AddText(file, state);
    }

    VerifyTotals& Sum() { return m_totals; }

    int End(const StoreListing& listing) {
        const bool isSound = m_totals.faulty == 0 && listing.foreign.empty();
        if (m_options.json) {
            AddOthers(m_json, listing);
            m_json["checked"] = CheckedText(m_options);
            m_json["blocksRead"] = m_totals.read;
            m_json["blocksCompared"] = m_totals.compared;
            m_json["filesGone"] = m_totals.gone;
            m_json["sound"] = isSound;
            PrintJson(m_json);
        } else {
            for (const std::string& name : listing.foreign)
                m_text += Printable(name) +
                          "\n  fault: not the name of a cached file; clear --force removes it\n";
            Print(m_text + EndText(listing));
        }
        return isSound ? STATUS_DONE : STATUS_FINDINGS;
    }

private:
    std::string EndText(const StoreListing& listing) const {
        std::string text = Count(m_totals.files, "file") + " verified, " +
                           std::to_string(m_totals.files - m_totals.faulty - m_totals.open) +
                           " sound, " + std::to_string(m_totals.faulty) + " damaged";
        if (m_totals.open > 0)
            text += ", " + std::to_string(m_totals.open) + " open (by another process)";
        if (!listing.foreign.empty())
            text += ", " + Count(listing.foreign.size(), "other entry");
        text += "\nchecked: " + CheckedText(m_options);
        if (!m_options.WithContents())
            return text + "; the format has no checksums\n";
        text += ", " + Count(m_totals.read, "block") + " read";
        if (!m_options.sums.empty())
            text += ", " + std::to_string(m_totals.compared) + " compared with their sums";
        if (m_totals.gone > 0)
            text += "; " + Count(m_totals.gone, "file") + " with sums no longer in the store";
        return text + "\n";
    }

    void AddText(const FMCachedFile& file, FileState state) {
        m_text += Printable(file.stem.view()) + "  " + StateText(state);
        if (file.isLoadable)
            m_text += ", " + std::to_string(file.storedBlocks) + " of " +
                      Count(file.slots, "block") + ", " + FormatSize(file.blockBytes);
        m_text += "\n";
        for (size_t i = 0; i < file.findings.size() && i < FINDINGS_SHOWN; ++i) {
            const FMFinding& finding = file.findings[i];
            m_text += (finding.isFault ? "  fault: " : "  note: ") + Printable(finding.what.view());
            m_text += finding.effect.empty() ? "\n" : "; " + ToString(finding.effect) + "\n";
        }
        if (file.findings.size() > FINDINGS_SHOWN)
            m_text += "  and " + std::to_string(file.findings.size() - FINDINGS_SHOWN) +
                      " more; --json lists all\n";
    }

    void AddJson(const FMCachedFile& file) {
        Json json = ToJson(MakeEntry(m_store, file, KEEP_DAYS_DEFAULT, m_now), m_now);
        json["findings"] = Json::array();
        for (const FMFinding& finding : file.findings)
            json["findings"].push_back({{"fault", finding.isFault},
                                        {"what", finding.what.view()},
                                        {"effect", finding.effect.view()}});
        m_json["files"].push_back(std::move(json));
    }

    const VerifyOptions& m_options;
    const fs::path m_store;
    const int64_t m_now = CurrentTime();
    Json m_json{{"files", Json::array()}};
    std::string m_text;
    VerifyTotals m_totals;
};

#ifdef FMCACHE_WITH_SUMS
// Follows links, because Output replaces their targets.
bool IsInside(const fs::path& file, const fs::path& dir) {
    std::error_code error;
    fs::path parent = fs::weakly_canonical(fs::absolute(file), error);
    while (parent.has_relative_path()) {
        parent = parent.parent_path();
        if (fs::equivalent(parent, dir, error))
            return true;
    }
    return false;
}

// The contents of the files: compares them with earlier sums, and collects their sums.
class ContentsCheck {
public:
    ContentsCheck(const VerifyOptions& options, const fs::path& store) : m_store(store) {
        for (const auto& [option, path] :
             {std::pair("--sums", options.sums), std::pair("--write-sums", options.writeSums)}) {
            if (path == "-")
                throw Failure(std::string(option) + " takes a file, not a standard stream",
                              STATUS_USAGE);
        }
        if (!options.sums.empty())
            m_earlier = ReadSumsFile(options.sums);
        if (options.writeSums.empty())
            return;
        if (IsInside(options.writeSums, store))
            throw Failure("--write-sums: the file must be outside the store " +
                              Quoted(store.string()),
                          STATUS_USAGE);
        m_output = std::make_unique<Output>(options.writeSums, "--write-sums", options.force);
    }

    // A process that has the file open may be writing the blocks.
    void Check(FMCachedFile& file, VerifyTotals& totals) {
        const std::string stem = ToString(file.stem);
        if (file.isOpenElsewhere || file.fileID == FMFileID_None)
            return Skip(file);
        std::vector<BlockSum> sums;
        std::string error;
        try {
            sums = SumBlocks(m_store, file);
        } catch (const Failure& failure) {
            error = failure.what();
        }
        if (HasChanged(file))
            return Skip(file);
        if (!error.empty()) {
            file.findings.push_back({CRtString(error), "", true});
            return;
        }
        totals.read += sums.size();
        if (const auto earlier = m_earlier.find(stem); earlier != m_earlier.end())
            totals.compared += CompareSums(earlier->second, sums, file);
        if (m_output)
            m_new[stem] = std::move(sums);
    }

    // Removed files are no damage: housekeeping removes them.
    uint64_t CountGone(const StoreListing& listing) const {
        return static_cast<uint64_t>(std::ranges::count_if(m_earlier, [&listing](const auto& each) {
            return !std::ranges::binary_search(listing.stems, std::string_view(each.first), {},
                                               &CRtString::view);
        }));
    }

    void Write() {
        if (!m_output)
            return;
        m_output->Write(SumsText(m_new));
        m_output->Commit();
    }

private:
    static void Skip(FMCachedFile& file) {
        file.findings.push_back({"the contents are not checked", "", false});
    }

    // Reading takes long enough for another process to open, change or remove the file. Then its bytes prove nothing.
    bool HasChanged(FMCachedFile& file) const {
        std::optional<FMCachedFile> now = Describe(m_store, file.stem);
        if (!now)
            return true;
        const bool isSame = !now->isOpenElsewhere && now->entries == file.entries &&
                            now->dataLength == file.dataLength;
        file = std::move(*now);
        return !isSame;
    }

    const fs::path m_store;
    Sums m_earlier;
    Sums m_new;
    std::unique_ptr<Output> m_output;
};
#else
class ContentsCheck {
public:
    ContentsCheck(const VerifyOptions&, const fs::path&) {}
    void Check(FMCachedFile&, VerifyTotals&) {}
    uint64_t CountGone(const StoreListing&) const { return 0; }
    void Write() {}
};
#endif

int Verify(VerifyOptions& options) {
    const fs::path store = LocateStore(options);
    StoreListing listing;
    if (options.id.empty())
        listing = ListStore(store);
    else
        listing.stems = {FindInStore(store, options.id).stem};
    ContentsCheck contents(options, store);
    VerifyReport report(options, store);
    ForEachFile(store, listing, "verifying", [&](FMCachedFile&& file) {
        if (options.WithContents())
            contents.Check(file, report.Sum());
        report.Add(file);
    });
    contents.Write();
    if (options.id.empty())
        report.Sum().gone = contents.CountGone(listing);
    return report.End(listing);
}

} // namespace

void AddVerify(CLI::App& app, Action& chosen) {
    const auto options = std::make_shared<VerifyOptions>();
    CLI::App* verify =
        app.add_subcommand("verify", "Check the structure of one or all files, or their contents.");
    verify->footer("Without --sums, verify checks the structure only: whether the information file "
                   "is valid, and "
                   "whether the data file contains all blocks that it lists. The format has no "
                   "checksums, so that "
                   "changed bytes inside a block are found with --sums only. Exit status: 0 sound, "
                   "1 damaged.");
    AddLookOptions(*verify, *options);
    AddIDArgument(
        *verify, options->id,
        "identifier, its first characters, or the name of the file; without ID all files");
#ifdef FMCACHE_WITH_SUMS
    AddPath(*verify, "--sums", options->sums,
            "also compare each stored block with the sums in FILE, from an earlier --write-sums")
        ->type_name("FILE");
    CLI::Option* write = AddPath(*verify, "--write-sums", options->writeSums,
                                 "write a sum of each stored block to FILE, outside the store")
                             ->type_name("FILE");
    verify->add_flag("--force", options->force, "overwrite FILE if it exists")->needs(write);
#endif
    verify->callback([options, &chosen] { chosen = [options] { return Verify(*options); }; });
}
