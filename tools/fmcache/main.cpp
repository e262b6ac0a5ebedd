// fmcache: stores files in a cache of the file manager, reads them back, and maintains the cache.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include "FMVersion.h"
#include "failure.h"
#include "log.h"
#include "platform.h"
#include "suggest.h"
#include "text.h"
#include "verbs.h"

namespace {

// Exactly one line: a file name in the text may contain line ends.
int Complain(std::string text, int status) {
    std::replace(text.begin(), text.end(), '\n', ' ');
    std::fprintf(stderr, "fmcache: %s\n", Printable(text).c_str());
    return status;
}

std::vector<std::string> OptionsOf(const CLI::App& verb) {
    std::vector<std::string> names;
    for (const CLI::App* app = &verb; app; app = app->get_parent()) {
        for (const CLI::Option* option : app->get_options()) {
            for (const std::string& name : option->get_lnames())
                names.push_back("--" + name);
        }
    }
    return names;
}

bool IsIn(const std::vector<std::string>& names, const std::string& word) {
    return std::ranges::find(names, word) != names.end();
}

std::string UnknownText(const char* kind, const std::string& word,
                        const std::vector<std::string>& names) {
    const std::string similar = FindSimilar(word, names);
    return std::string("unknown ") + kind + " " + Quoted(word) +
           (similar.empty() ? "" : "; did you mean " + Quoted(similar) + "?");
}

// The first word of the command line that is neither a verb nor an option, as an error message; empty if all of them
// are known, or if the word could be the value of an option.
std::string UnknownWord(const CLI::App& app, const std::vector<std::string>& words) {
    const std::vector<const CLI::App*> verbs = app.get_subcommands({});
    std::vector<std::string> names;
    names.reserve(verbs.size());
    for (const CLI::App* verb : verbs)
        names.push_back(verb->get_name());
    const CLI::App* chosen = nullptr;
    for (const std::string& each : words) {
        const std::string word = each.substr(0, each.find('='));
        if (word.starts_with("--") && word != "--") {
            const std::vector<std::string> options = OptionsOf(chosen ? *chosen : app);
            if (IsIn(options, word))
                continue;
            const bool isOfVerb = std::ranges::any_of(
                verbs, [&word](const CLI::App* verb) { return IsIn(OptionsOf(*verb), word); });
            if (!chosen && isOfVerb)
                return Quoted(word) + " has to follow the verb";
            return UnknownText("option", word, options);
        }
        if (chosen || word.starts_with('-'))
            continue;
        if (!IsIn(names, word))
            return UnknownText("verb", word, names);
        chosen = app.get_subcommand(word);
    }
    return "";
}

// The messages of CLI11 that name its own terms, in those of the user.
std::string UsageText(const CLI::App& app, const CLI::ParseError& error) {
    std::string text = error.what();
    const auto option = [&text](const char* end) { return text.substr(0, text.find(end)); };
    switch (static_cast<CLI::ExitCodes>(error.get_exit_code())) {
    case CLI::ExitCodes::RequiredError:
        return app.get_subcommands().empty() ? "a verb is required" : text;
    case CLI::ExitCodes::ArgumentMismatch:
        return option(":") + (text.ends_with("missing") ? " needs a value" : " is given twice");
    case CLI::ExitCodes::ConversionError: // of a flag; the other values have checks
        return option(" = ").substr(text.find("--")) + " takes no value";
    case CLI::ExitCodes::ExtrasError:
        return "unexpected argument " + Quoted(app.remaining(true).front());
    default:
        return text;
    }
}

// "see fmcache ls --help"
std::string HelpHint(const CLI::App& app) {
    const std::vector<CLI::App*> chosen = app.get_subcommands();
    return "; see fmcache " + (chosen.empty() ? "" : chosen.front()->get_name() + " ") + "--help";
}

int ReportUsage(const CLI::App& app, const CLI::ParseError& error,
                const std::vector<std::string>& words) {
    std::string text = UnknownWord(app, words);
    if (text.empty())
        text = UsageText(app, error);
    return Complain(text + (text.ends_with('?') ? "" : HelpHint(app)), STATUS_USAGE);
}

int Run(int argc, char** argv) {
    CLI::App app{"Store files in a block cache on disk, read them back, and maintain the cache.",
                 "fmcache"};
    app.set_help_flag("-h,--help", "print this help and exit");
    Action chosen;
    bool verbose = false;
    app.add_flag("--verbose", verbose, "write the library's log lines to standard error");
    app.set_version_flag("--version", "fmcache " FILEMANAGER_VERSION, "print the version and exit");
    app.require_subcommand(1);
    app.fallthrough();                      // allows --verbose after the verb
    app.allow_windows_style_options(false); // an argument with a leading slash is a path
    AddPut(app, chosen);
    AddGet(app, chosen);
    AddLs(app, chosen);
    AddShow(app, chosen);
    AddVerify(app, chosen);
    AddReport(app, chosen);
    AddRm(app, chosen);
    AddHousekeep(app, chosen);
    AddClear(app, chosen);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() != 0)
            return ReportUsage(app, error, std::vector<std::string>(argv + 1, argv + argc));
        std::ostringstream text; // help or version
        app.exit(error, text, text);
        Print(text.str());
        return STATUS_DONE;
    }
    KeepLog(verbose);
    CatchSignals();
    try {
        return chosen();
    } catch (const Failure& failure) {
        if (failure.Status() != STATUS_USAGE)
            throw;
        return Complain(failure.what() + HelpHint(app), STATUS_USAGE);
    }
}

} // namespace

int main(int argc, char** argv) {
    PrepareStreams();
    try {
        return Run(argc, argv);
    } catch (const Interrupted&) {
        return Complain("interrupted", STATUS_INTERRUPTED);
    } catch (const Failure& failure) {
        return Complain(failure.what(), failure.Status());
    } catch (const std::bad_alloc&) {
        return Complain("out of memory", STATUS_FAILED);
    } catch (const std::exception& error) {
        return Complain(error.what(), STATUS_FAILED);
    }
}
