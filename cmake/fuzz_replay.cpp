// Runs a fuzz target without a fuzzing engine: first the given files, then generated inputs until the time is over.
// The number of a generated input determines its bytes, so --only with the number that a failure prints repeats it.
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
// Weak, because only the sanitizer runtimes define it.
extern "C" void __sanitizer_set_death_callback(void (*callback)()) __attribute__((weak));

namespace {

using Input = std::vector<std::uint8_t>;

constexpr std::size_t kLongest = 4096;

// Describes the current input. Printed if the target crashes.
char g_current[512] = "before the first input";

void sayCurrent() {
    std::fputs("failed with ", stderr);
    std::fputs(g_current, stderr);
    std::fputs("\n", stderr);
}

extern "C" void onAbort(int number) {
    sayCurrent();
    std::signal(number, SIG_DFL);
    std::raise(number);
}

void feed(const Input& input, const std::string& name) {
    std::snprintf(g_current, sizeof(g_current), "%s", name.c_str());
    // A copy of the exact size, so that the address sanitizer detects a read past its end.
    const Input exact(input);
    LLVMFuzzerTestOneInput(exact.data(), exact.size());
}

Input makeInput(std::uint64_t number, const std::vector<Input>& seeds) {
    std::mt19937_64 random(number);
    const auto below = [&random](std::size_t limit) {
        return static_cast<std::size_t>(random() % limit);
    };
    Input input;
    if (!seeds.empty() && below(4) != 0) {
        input = seeds[below(seeds.size())];
    } else {
        input.resize(below(std::size_t{1} << (1 + below(10))));
        for (auto& byte : input) {
            byte = static_cast<std::uint8_t>(random());
        }
    }
    constexpr std::uint8_t kEdges[] = {0x00, 0x01, 0x7f, 0x80, 0xfe, 0xff};
    for (std::size_t change = below(8); change > 0 && !input.empty(); --change) {
        const auto at = below(input.size());
        switch (below(5)) {
        case 0:
            input[at] = kEdges[below(std::size(kEdges))];
            break;
        case 1:
            input[at] = static_cast<std::uint8_t>(input[at] ^ (1U << below(8)));
            break;
        case 2:
            input.resize(at);
            break;
        case 3:
            input.insert(input.begin() + static_cast<std::ptrdiff_t>(at), below(16),
                         static_cast<std::uint8_t>(random()));
            break;
        default:
            input.insert(input.end(), input.begin(),
                         input.begin() + static_cast<std::ptrdiff_t>(at));
            break;
        }
    }
    if (input.size() > kLongest) {
        input.resize(kLongest);
    }
    return input;
}

Input readFile(const std::filesystem::path& path) {
    std::ifstream stream(path, std::ios::binary);
    if (!stream) {
        std::fprintf(stderr, "cannot read %s\n", path.string().c_str());
        std::exit(2);
    }
    return Input(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
}

} // namespace

int main(int argc, char** argv) {
    long seconds = 3;
    bool single = false;
    std::uint64_t only = 0;
    std::vector<std::filesystem::path> files;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--seconds") == 0 && i + 1 < argc) {
            seconds = std::atol(argv[++i]);
        } else if (std::strcmp(argv[i], "--only") == 0 && i + 1 < argc) {
            single = true;
            only = std::strtoull(argv[++i], nullptr, 10);
        } else if (std::filesystem::is_directory(argv[i])) {
            for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
                files.push_back(entry.path());
            }
        } else {
            files.emplace_back(argv[i]);
        }
    }

    // Sorted, because the number of a generated input selects one of the files.
    std::sort(files.begin(), files.end());
    if (&__sanitizer_set_death_callback != nullptr) {
        __sanitizer_set_death_callback(sayCurrent);
    }
    std::signal(SIGABRT, onAbort);

    std::vector<Input> seeds;
    for (const auto& path : files) {
        seeds.push_back(readFile(path));
    }
    if (single) {
        feed(makeInput(only, seeds), "--only " + std::to_string(only));
        return 0;
    }
    for (std::size_t i = 0; i < files.size(); ++i) {
        feed(seeds[i], files[i].string());
    }
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    std::uint64_t number = 0;
    // The time is checked after an input, so that at least one runs.
    do {
        feed(makeInput(number, seeds), "--only " + std::to_string(number));
        ++number;
    } while (std::chrono::steady_clock::now() < end);
    std::printf("%zu files and %llu made up inputs passed\n", files.size(),
                static_cast<unsigned long long>(number));
    return 0;
}
