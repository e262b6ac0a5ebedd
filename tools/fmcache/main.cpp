// fmcache: stores files in a cache of the file manager, reads them back, and maintains the cache.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <exception>
#include <new>
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

// The first word of the command line that is neither a verb nor an option, as an error message; empty if all of them
// are known, or if the word could be the value of an option.
std::string UnknownWord(const CLI::App& app, const std::vector<std::string>& words) {
    std::vector<std::string> verbs;
    for (const CLI::App* verb : app.get_subcommands({}))
        verbs.push_back(verb->get_name());
    const auto isIn = [](const std::vector<std::string>& names, const std::string& word) {
        return std::find(names.begin(), names.end(), word) != names.end();
    };
    const CLI::App* chosen = nullptr;
    for (const std::string& each : words) {
        const std::string word = each.substr(0, each.find('='));
        const bool isOption = word.starts_with("--") && word != "--";
        if (!isOption && (chosen || word.starts_with('-')))
            continue;
        if (!isOption && isIn(verbs, word)) {
            chosen = app.get_subcommand(word);
            continue;
        }
        const std::vector<std::string> names = isOption ? OptionsOf(chosen ? *chosen : app) : verbs;
        if (isIn(names, word))
            continue;
        const std::string similar = FindSimilar(word, names);
        return (isOption ? "unknown option '" : "unknown verb '") + word + "'" +
               (similar.empty() ? "" : "; did you mean '" + similar + "'?");
    }
    return "";
}

int ReportUsage(const CLI::App& app, const CLI::ParseError& error,
                const std::vector<std::string>& words) {
    std::string text = UnknownWord(app, words);
    if (text.empty())
        text = error.what();
    // Error lines start in lower case; argument names (FILE, ID) stay as they are.
    if (text.size() > 1 && !std::isupper(static_cast<unsigned char>(text[1])))
        text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
    return Complain(text + (text.ends_with('?') ? "" : "; see fmcache --help"), STATUS_USAGE);
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
        return error.get_exit_code() == 0
                   ? app.exit(error)
                   : ReportUsage(app, error, std::vector<std::string>(argv + 1, argv + argc));
    }
    KeepLog(verbose);
    CatchSignals();
    return chosen();
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
