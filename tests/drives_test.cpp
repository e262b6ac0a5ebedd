// The choice of the default root among simulated drives, on every system: the linker replaces the functions of
// RtOs.h by those of this file.
#include <gtest/gtest.h>

#include <cstring>

#include "RtHome.h"
#include "testing/kit.h"
#include "util/filemanager/filemanager.h"
#include "util/runtime/os/RtOs.h"

namespace {

struct Drive {
    uint32_t kind;
    uint64_t available; // UNKNOWN: the system call fails
};
constexpr uint64_t UNKNOWN = UINT64_MAX;
constexpr uint32_t FIXED = RtOs::DRIVE_KIND_FIXED;
constexpr uint32_t NETWORK = 4;

struct Case {
    const char* name;
    std::string list;          // each entry terminated by a NUL
    std::vector<Drive> drives; // from P on
    std::string chosen;        // or the warning, if it is the folder of the user's application data
    uint32_t lengthAnswered = static_cast<uint32_t>(list.size());
    const char* home = nullptr; // there is no folder of the user, but this one was set
};

using namespace std::string_literals;
const std::string TWO = "P:\\\0Q:\\\0"s;
const std::string FOUR = TWO + "R:\\\0S:\\\0"s;

const Case CASES[] = {
    {"FirstOfEqual", FOUR, {{FIXED, 5}, {FIXED, 9}, {FIXED, 9}, {FIXED, 8}}, "Q:\\"},
    {"FixedThatAnswer", FOUR, {{NETWORK, 9}, {FIXED, UNKNOWN}, {FIXED, 0}, {FIXED, 1}}, "S:\\"},
    {"InSixtyFourBits", TWO, {{FIXED, 0xFFFFFFFF}, {FIXED, 0x100000001}}, "Q:\\"},
    {"UpToTheLength", TWO, {{FIXED, 1}, {FIXED, 2}}, "P:\\", 3},
    {"UpToAShortEntry", "P:\\\0Q\0R:\\\0"s, {{FIXED, 1}, {}, {FIXED, 2}}, "P:\\"},
    {"NoneWithRoom", TWO, {{FIXED, 0}, {NETWORK, 2}}, "lpDSMax is null"},
    {"NoSize", "", {}, "GetLogicalDriveStrings len fail"},
    {"NoList", TWO, {}, "GetLogicalDriveStrings real fail", 0},
    {"HomeThatWasSet", "", {}, "home\\", 0, " home "},
};

const Case* g_now = nullptr;

const Drive& At(const char* root) { return g_now->drives.at(static_cast<size_t>(root[0] - 'P')); }

} // namespace

// The mangled names of the functions in RtOs.h; the last one has two, because the type of uint64_t differs.
extern "C" {
uint32_t __wrap__ZN4RtOs15GetDriveStringsEjPc(uint32_t size, char* buffer) {
    const std::string& list = g_now->list;
    if (size == 0)
        return list.empty() ? 0 : static_cast<uint32_t>(list.size() + 1);
    std::memcpy(buffer, list.data(), std::min<size_t>(size, list.size()));
    return g_now->lengthAnswered;
}
bool __real__ZN4RtOs14GetUserDataDirER9CRtString(CRtString& directory);
bool __wrap__ZN4RtOs14GetUserDataDirER9CRtString(CRtString& directory) {
    return !g_now->home && __real__ZN4RtOs14GetUserDataDirER9CRtString(directory);
}
uint32_t __wrap__ZN4RtOs12GetDriveKindEPKc(const char* root) { return At(root).kind; }
bool __wrap__ZN4RtOs17GetDriveFreeBytesEPKcRm(const char* root, uint64_t& available) {
    available = At(root).available;
    return available != UNKNOWN;
}
bool __wrap__ZN4RtOs17GetDriveFreeBytesEPKcRy(const char* root, uint64_t& available) {
    return __wrap__ZN4RtOs17GetDriveFreeBytesEPKcRm(root, available);
}
}

class Drives : public testing::TestWithParam<Case> {};

TEST_P(Drives, DefaultRootIsTheFixedDriveWithTheMostFreeSpace) {
    g_now = &GetParam();
    const TempDir dir; // POSIX has no drive letters: each root is a directory below this one
    fs::current_path(dir.path);
    SetVariable("XDG_CACHE_HOME", dir.path.string());
    set_quillmer_home_dir(g_now->home);
    const LogCapture log;
    const CRtCallerThread callerThread;
    IFileManager::Instance()->Initialize("", 7, 1);
    IFileManager::Instance()->UnInitialize();
    const CRtString dataDir = CFileManager::Instance()->GetDataDir();
    if (g_now->chosen.ends_with('\\')) {
        EXPECT_EQ(dataDir, CRtString(g_now->chosen + "sdstore\\"));
        EXPECT_EQ(log.Count("CFileManager::GetMaxDrive, "), g_now->home ? 1U : 0U);
    } else {
        EXPECT_EQ(CFileManager::DirExists(dataDir), 1);
        EXPECT_EQ(log.Count("CFileManager::GetMaxDrive, " + g_now->chosen), 1U);
    }
    CFileManager::RemoveDir(dataDir);
    fs::current_path(dir.path.parent_path());
}

INSTANTIATE_TEST_SUITE_P(MadeUp, Drives, testing::ValuesIn(CASES),
                         [](const auto& made) { return std::string(made.param.name); });
