// fmcache: stores files in a cache of the file manager, reads them back, and maintains the cache.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <exception>
#include <new>
#include <string>

#include "FMVersion.h"
#include "failure.h"
#include "log.h"
#include "platform.h"
#include "text.h"
#include "verbs.h"

namespace {

enum Status : int { STATUS_FAILED = 1, STATUS_USAGE = 2, STATUS_INTERRUPTED = 130 };

// Exactly one line: a file name in the text may contain line ends.
int Complain(std::string text, int status) {
    std::replace(text.begin(), text.end(), '\n', ' ');
    std::fprintf(stderr, "fmcache: %s\n", Printable(text).c_str());
    return status;
}

int ReportUsage(const CLI::ParseError& error) {
    std::string text = error.what();
    // Error lines start in lower case; argument names (FILE, ID) stay as they are.
    if (text.size() > 1 && !std::isupper(static_cast<unsigned char>(text[1])))
        text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
    text += "; see fmcache --help";
    return Complain(text, STATUS_USAGE);
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
        return Complain("out of memory", STATUS_FAILED);
    } catch (const std::exception& error) {
        return Complain(error.what(), STATUS_FAILED);
    }
}
