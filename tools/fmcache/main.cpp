// fmcache: puts files into a cache of the file manager, gets them back, and looks after the cache.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <exception>
#include <new>
#include <string>

#include "failure.h"
#include "log.h"
#include "platform.h"
#include "text.h"
#include "verbs.h"

namespace {

enum Status : int { STATUS_FAILED = 1, STATUS_USAGE = 2, STATUS_INTERRUPTED = 130 };

// One line, whatever a file is called.
int Complain(std::string text, int status) {
    std::replace(text.begin(), text.end(), '\n', ' ');
    std::fprintf(stderr, "fmcache: %s\n", Printable(text).c_str());
    return status;
}

int ReportUsage(const CLI::ParseError& error) {
    std::string text = error.what();
    // Sentences begin with a capital, names of arguments keep theirs.
    if (text.size() > 1 && !std::isupper(static_cast<unsigned char>(text[1])))
        text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
    text += "; fmcache --help tells more";
    return Complain(text, STATUS_USAGE);
}

int Run(int argc, char** argv) {
    CLI::App app{"Keeps files in a block cache on disk and gets them back.", "fmcache"};
    Action chosen;
    bool verbose = false;
    app.add_flag("--verbose", verbose, "show the library's log lines");
    app.require_subcommand(1);
    app.fallthrough();                      // --verbose may follow the verb
    app.allow_windows_style_options(false); // what begins with a slash is a path on every system
    AddPut(app, chosen);
    AddGet(app, chosen);
    AddLs(app, chosen);
    AddShow(app, chosen);
    AddVerify(app, chosen);
    AddRm(app, chosen);
    AddHousekeep(app, chosen);
    AddClear(app, chosen);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return error.get_exit_code() == 0 ? app.exit(error) : ReportUsage(error);
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
        return Complain("not enough memory", STATUS_FAILED);
    } catch (const std::exception& error) {
        return Complain(error.what(), STATUS_FAILED);
    }
}
