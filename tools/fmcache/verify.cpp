// verify: checks information files against data files by the rules of the library's loader.
#include <CLI/CLI.hpp>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "failure.h"
#include "json.h"
#include "platform.h"
#include "progress.h"
#include "scan.h"
#include "sizes.h"
#include "text.h"
#include "verbs.h"

namespace {

enum Outcome : int { STATUS_SOUND = 0, STATUS_FOUND = 1, STATUS_NOTHING_TO_VERIFY = 2 };

// A damaged table can have one fault for each block; the text report shows the first ones.
constexpr size_t FINDINGS_SHOWN = 20;

struct VerifyOptions : StoreOptions {
    std::string id;
};

class Report {
public:
    explicit Report(bool asJson) : m_asJson(asJson) {
        m_json.BeginObject().Key("files").BeginArray();
    }

    void Add(const FMCachedFile& file) {
        ++m_files;
        m_faulty += CountFaults(file) > 0 ? 1 : 0;
        if (m_asJson)
            AddJson(file);
        else
            AddText(file);
    }

    int End(const std::vector<std::string>& foreign) {
        m_json.EndArray().Key("others").BeginArray();
        for (const std::string& name : foreign) {
            m_json.BeginObject().Name("name", name).EndObject();
            m_text += Printable(name) +
                      "\n  fault: not the name of a cached file; clear --force removes it\n";
        }
        m_text += Count(m_files, "file") + " verified, " + std::to_string(m_files - m_faulty) +
                  " sound, " + std::to_string(m_faulty) + " damaged";
        if (!foreign.empty())
            m_text += ", " + std::to_string(foreign.size()) + " other entries";
        const bool sound = m_faulty == 0 && foreign.empty();
        m_json.EndArray().Member("sound", sound).EndObject();
        Print(m_asJson ? m_json.Text() : m_text + "\n");
        return sound ? STATUS_SOUND : STATUS_FOUND;
    }

private:
    static const char* StateOf(const FMCachedFile& file) {
        if (CountFaults(file) > 0)
            return "damaged";
        return IsOpenElsewhere(file) ? OPEN_ELSEWHERE : "sound";
    }

    void AddText(const FMCachedFile& file) {
        m_text += Printable(file.stem.view()) + "  " + StateOf(file);
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
        m_json.BeginObject().Name("id", file.stem.view()).Member("sound", CountFaults(file) == 0);
        m_json.Member("loads", file.isLoadable).Member("present", file.storedBlocks);
        m_json.Member("slots", file.slots).Member("size", file.blockBytes);
        m_json.Key("findings").BeginArray();
        for (const FMFinding& finding : file.findings)
            m_json.BeginObject()
                .Member("fault", finding.isFault)
                .Member("what", finding.what.view())
                .Member("effect", finding.effect.view())
                .EndObject();
        m_json.EndArray().EndObject();
    }

    const bool m_asJson;
    Json m_json;
    std::string m_text;
    uint64_t m_files = 0;
    uint64_t m_faulty = 0;
};

StoreListing ListWanted(const std::filesystem::path& store, const std::string& id) {
    if (!id.empty())
        return {{FindInStore(store, id).stem}, {}};
    StoreListing listing = ListStore(store);
    if (listing.stems.empty() && listing.foreign.empty())
        throw Failure("no cached files in " + Quoted(store.string()));
    return listing;
}

int Verify(const VerifyOptions& options) {
    std::filesystem::path store;
    StoreListing listing;
    try {
        store = LocateStore(options);
        listing = ListWanted(store, options.id);
    } catch (
        const Failure& failure) { // a status of its own, so that scripts can tell it from damage
        throw Failure(failure.what(), STATUS_NOTHING_TO_VERIFY);
    }
    Report report(options.json);
    {
        Progress progress("verifying", listing.stems.size(), Progress::Unit::Files);
        for (const CRtString& stem : listing.stems) {
            CheckStop();
            if (const std::optional<FMCachedFile> file = Describe(store, stem))
                report.Add(*file);
            progress.Add(1);
        }
    }
    return report.End(listing.foreign);
}

} // namespace

void AddVerify(CLI::App& app, Action& chosen) {
    const auto options = std::make_shared<VerifyOptions>();
    CLI::App* verify = app.add_subcommand(
        "verify",
        "Check one or all files for damage. Exit status: 0 sound, 1 damaged, 2 no files.");
    AddLookOptions(*verify, *options);
    verify
        ->add_option("ID", options->id,
                     "identifier of the file to check; without ID all files are checked")
        ->type_name("");
    verify->callback([options, &chosen] { chosen = [options] { return Verify(*options); }; });
}
