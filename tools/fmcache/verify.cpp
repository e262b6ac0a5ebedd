// verify: checks information files against data files by the rules of the library's loader.
#include <CLI/CLI.hpp>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "check.h"
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

    void Add(const StoreEntry& entry, const Check& check) {
        ++m_files;
        m_faulty += check.Faults() > 0 ? 1 : 0;
        if (m_asJson)
            AddJson(entry, check);
        else
            AddText(entry, check);
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
    void AddText(const StoreEntry& entry, const Check& check) {
        m_text += Printable(entry.stem) + "  " + (check.Faults() > 0 ? "damaged" : "sound");
        if (check.loads)
            m_text += ", " + std::to_string(check.present) + " of " + Count(check.slots, "block") +
                      ", " + FormatSize(check.bytes);
        m_text += "\n";
        for (size_t i = 0; i < check.findings.size() && i < FINDINGS_SHOWN; ++i) {
            const Finding& finding = check.findings[i];
            m_text += (finding.fault ? "  fault: " : "  note: ") + Printable(finding.what);
            m_text += finding.effect.empty() ? "\n" : "; " + finding.effect + "\n";
        }
        if (check.findings.size() > FINDINGS_SHOWN)
            m_text += "  and " + std::to_string(check.findings.size() - FINDINGS_SHOWN) +
                      " more; --json lists all\n";
    }

    void AddJson(const StoreEntry& entry, const Check& check) {
        m_json.BeginObject().Name("id", entry.stem).Member("sound", check.Faults() == 0);
        m_json.Member("loads", check.loads).Member("present", check.present);
        m_json.Member("slots", check.slots).Member("size", check.bytes);
        m_json.Key("findings").BeginArray();
        for (const Finding& finding : check.findings)
            m_json.BeginObject()
                .Member("fault", finding.fault)
                .Member("what", finding.what)
                .Member("effect", finding.effect)
                .EndObject();
        m_json.EndArray().EndObject();
    }

    const bool m_asJson;
    Json m_json;
    std::string m_text;
    uint64_t m_files = 0;
    uint64_t m_faulty = 0;
};

StoreListing ListWanted(const VerifyOptions& options) {
    const std::filesystem::path store = LocateStore(options);
    if (!options.id.empty())
        return {{FindInStore(store, options.id)}, {}};
    StoreListing listing = ListStore(store);
    if (listing.entries.empty() && listing.foreign.empty())
        throw Failure("no cached files in " + Quoted(store.string()));
    return listing;
}

int Verify(const VerifyOptions& options) {
    StoreListing listing;
    try {
        listing = ListWanted(options);
    } catch (
        const Failure& failure) { // a status of its own, so that scripts can tell it from damage
        throw Failure(failure.what(), STATUS_NOTHING_TO_VERIFY);
    }
    Report report(options.json);
    {
        Progress progress("verifying", listing.entries.size(), Progress::Unit::Files);
        for (const StoreEntry& entry : listing.entries) {
            CheckStop();
            const InfoFile file = entry.HasInfo() ? InfoFile::Look(entry.info) : InfoFile();
            report.Add(entry, CheckFile(entry, file));
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
