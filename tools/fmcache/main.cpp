// fmcache: puts files into a cache of the file manager and gets them back.
#include <CLI/CLI.hpp>
#include <cctype>
#include <cstdio>
#include <exception>
#include <new>
#include <string>

#include "failure.h"
#include "log.h"
#include "platform.h"
#include "verbs.h"

namespace {

enum Status : int { STATUS_OK = 0, STATUS_FAILED = 1, STATUS_USAGE = 2, STATUS_INTERRUPTED = 130 };

// One line, whatever a file is called.
int Report(const char* text, int status) {
    std::fputs("fmcache: ", stderr);
    for (; *text; ++text)
        std::fputc(*text == '\n' ? ' ' : *text, stderr);
    std::fputc('\n', stderr);
    return status;
}

int ReportUsage(const CLI::ParseError& error) {
    std::string text = error.what();
    // Sentences begin with a capital, names of arguments keep theirs.
    if (text.size() > 1 && !std::isupper(static_cast<unsigned char>(text[1])))
        text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
    text += "; fmcache --help tells more";
    return Report(text.c_str(), STATUS_USAGE);
}

int Run(int argc, char** argv) {
    CLI::App app{"Keeps files in a block cache on disk and gets them back.", "fmcache"};
    Action chosen;
    bool verbose = false;
    app.add_flag("--verbose", verbose, "show the library's log lines");
    app.require_subcommand(1);
    app.fallthrough(); // --verbose may follow the verb
    AddPut(app, chosen);
    AddGet(app, chosen);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return error.get_exit_code() == 0 ? app.exit(error) : ReportUsage(error);
    }
    KeepLog(verbose);
    CatchSignals();
    chosen();
    return STATUS_OK;
}

} // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const Interrupted&) {
        return Report("interrupted", STATUS_INTERRUPTED);
    } catch (const std::bad_alloc&) {
        return Report("not enough memory", STATUS_FAILED);
    } catch (const std::exception& error) {
        return Report(error.what(), STATUS_FAILED);
    }
}
