// One node of the demonstration conference. What it prints is for the program that starts it:
//
//   port N             where it listens
//   file ID            server: the file of this conference
//   progress HAVE COUNT OTHERS PEERS SENT MEMORY
//                      blocks; bytes from the server (server: from the presenter), from peers, sent,
//                      and of the cache in memory
//   complete           client: the file is written
//   statistics TEXT    the file manager's, at the stop
//   event TEXT         for people
#include <CLI/CLI.hpp>
#include <csignal>
#include <iostream>
#include <string_view>

#include "node.h"

namespace {

// The file manager logs how it went when it stops; the demonstration shows that line.
void ShowStatistics(void*, int level, const char* text) {
    constexpr std::string_view wanted = "CFileManager::UnInitialize, statistics ";
    if (const std::string_view line(text); line.starts_with(wanted))
        std::cout << "statistics " << line.substr(wanted.size()) << std::endl;
    else if (level <= RT_LOG_WARNING)
        std::cerr << line << std::endl;
}

void Run(const Options& options) {
    const bool isServer = options.role == "server";
    const auto make = isServer                      ? MakeServer
                      : options.role == "presenter" ? MakePresenter
                                                    : MakeClient;
    asio::io_context loop;
    asio::signal_set signals(loop, SIGINT, SIGTERM);
    signals.async_wait([&loop](std::error_code, int) { loop.stop(); });
    // A client begins with an empty cache and leaves none; a server keeps its files for a week.
    Cache cache(loop, options.dir, isServer ? 7 : 0, isServer);
    const std::unique_ptr<Node> node = make(loop, cache, options); // goes first, then the cache
    loop.run();
    signals.clear();
    for (const int second : {SIGINT, SIGTERM}) // must not cut short what is still to be stored
        std::signal(second, SIG_IGN);
    node->ShowProgress();
    RtSetLogSink(&ShowStatistics, nullptr, RT_LOG_TRACE);
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app("One node of a conference: keeps and passes on the blocks of one file.");
    app.add_option("role", options.role)
        ->required()
        ->check(CLI::IsMember({"server", "presenter", "client"}));
    app.add_option("--port", options.port, "the server's port")->required();
    app.add_option("--dir", options.dir, "the directory of the cache")->required();
    app.add_option("--file", options.file, "presenter: the file; client: where it goes in the end");
    app.add_option("--id", options.id, "server: the file to open from its store");
    app.add_option("--index", options.index, "client: its number, from 0");
    app.add_option("--clients", options.clients, "client: how many there are")
        ->check(CLI::Range(1, 100));
    app.add_option("--rate", options.rate, "bytes per second that it sends at most, on average");
    CLI11_PARSE(app, argc, argv);
    try {
        Run(options);
    } catch (const std::exception& error) {
        std::cerr << "conference: " << error.what() << std::endl;
        return 1;
    }
    return 0;
}
