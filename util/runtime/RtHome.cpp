#include "RtHome.h"

#include <optional>
#include <string>

namespace {
std::optional<std::string>& Home() {
    static std::optional<std::string> home;
    return home;
}
} // namespace

const char* get_quillmer_home_dir() { return Home() ? Home()->c_str() : nullptr; }

void set_quillmer_home_dir(const char* directory) {
    if (directory)
        Home() = directory;
    else
        Home().reset();
}
