// One node of the demonstration conference. It prints lines for the program that starts it:
//
//   port N             TCP port on which it listens
//   metrics URL        server: where it answers with the figures of its file manager
//   file ID            server: identifier of the file of this conference
//   block ID ORIGIN    a block is complete; ORIGIN is "peer" or "source" (the server; for the server
//                      itself the presenter)
//   progress HAVE COUNT SOURCE PEERS SENT MEMORY
//                      complete blocks and all blocks; bytes received from the source and from peers,
//                      bytes sent, bytes of resident blocks
//   turn US            the longest turn of the event loop until now, in microseconds
//   complete           client: the copy of the file is written
//   statistics TEXT    of the file manager, when the node stops
//   histogram NAME COUNT...
//                      after the node has stopped: an FMHistogram of FMStatistics, by bucket
//   event TEXT         a message for people
#include <FMStatistics.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <iostream>
#include <string_view>

#include "node.h"

namespace {

// UnInitialize logs the statistics of the file manager; the demonstration shows that line.
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
    // Files are kept for seven days on a server and with --keep; 0 clears the cache at start and end.
    Cache cache(loop, options.dir, isServer || options.keep ? 7 : 0, isServer);
    const std::unique_ptr<Node> node = make(loop, cache, options); // is destroyed before the cache
    Turns::Run(loop);
    signals.clear();
    for (const int second : {SIGINT, SIGTERM}) // a second signal must not interrupt pending stores
        std::signal(second, SIG_IGN);
    node->ShowProgress();
    RtSetLogSink(&ShowStatistics, nullptr, RT_LOG_TRACE);
}

void ShowHistogram(const char* name, const FMHistogram& histogram) {
    std::cout << "histogram " << name;
    for (const uint64_t count : histogram.counts)
        std::cout << ' ' << count;
    std::cout << std::endl;
}

// After UnInitialize, so that the stores that it has waited for are included.
void ShowHistograms() {
    FMStatistics statistics;
    FMGetStatistics(statistics);
    ShowHistogram("load_wait", statistics.loadWait);
    ShowHistogram("load_disk", statistics.loadDisk);
    ShowHistogram("store_wait", statistics.storeWait);
    ShowHistogram("store_disk", statistics.storeDisk);
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app(
        "Runs one node of a demonstration conference. The nodes exchange the blocks of one file\n"
        "over TCP on this machine. The presenter offers the file, the server stores it, and the\n"
        "clients fetch it from the server and from each other. SIGTERM or SIGINT stops a node.\n"
        "scripts/demo starts a whole conference.");
    app.add_option("role", options.role, "role of this node")
        ->required()
        ->check(CLI::IsMember({"server", "presenter", "client"}));
    app.add_option("--port", options.port, "TCP port of the server; server: 0 selects a free port")
        ->required();
    app.add_option("--dir", options.dir, "data directory of the cache")->required();
    app.add_option("--file", options.file,
                   "presenter: file to offer; client: file to write the copy to");
    app.add_option("--id", options.id, "server: identifier of a cached file to open at the start");
    app.add_option("--index", options.index, "client: number of this client, counted from 0");
    app.add_option("--clients", options.clients, "client: number of clients in the conference")
        ->check(CLI::Range(1, 100));
    app.add_option("--metrics", options.metrics,
                   "server: TCP port on which it answers GET /metrics (default: a free port)");
    app.add_flag("--keep", options.keep, "client: leave the cache on disk at the end");
    app.add_option("--rate", options.rate,
                   "maximum send rate in bytes per second (default: no limit)")
        ->check(CLI::PositiveNumber);
    CLI11_PARSE(app, argc, argv);
    try {
        Run(options);
        ShowHistograms();
    } catch (const std::exception& error) {
        std::cerr << "conference: " << error.what() << std::endl;
        return 1;
    }
    return 0;
}
