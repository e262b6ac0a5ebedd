// The choice of the default root among drives that are made up, on every system: the linker puts these
// functions in the place of the os layer's.
#include <gtest/gtest.h>

#include <cstring>
#include <map>

#include "support.h"
#include "util/filemanager/filemanager.h"
#include "util/runtime/os/RtOs.h"

namespace {

struct Drive {
    uint32_t kind;
    uint64_t available; // UNKNOWN: the system does not tell
};
constexpr uint64_t UNKNOWN = UINT64_MAX;
constexpr uint32_t FIXED = RtOs::DRIVE_KIND_FIXED;
constexpr uint32_t NETWORK = 4;

struct Case {
    const char* name;
    uint32_t sizeAnswered;
    uint32_t lengthAnswered;
    std::string list; // each entry ended by a NUL
    std::map<std::string, Drive> drives;
    std::string chosen; // empty: the user's own folder
    std::string warning;
};

using namespace std::string_literals;
const std::string TWO = "P:\\\0Q:\\\0"s;
const std::string FOUR = TWO + "R:\\\0S:\\\0"s;

const Case CASES[] = {
    {"FirstOfEqual",
     17,
     16,
     FOUR,
     {{"P:\\", {FIXED, 5}}, {"Q:\\", {FIXED, 9}}, {"R:\\", {FIXED, 9}}, {"S:\\", {FIXED, 8}}},
     "Q:\\",
     ""},
    {"FixedThatAnswer",
     17,
     16,
     FOUR,
     {{"P:\\", {NETWORK, 99}},
      {"Q:\\", {FIXED, UNKNOWN}},
      {"R:\\", {FIXED, 0}},
      {"S:\\", {FIXED, 1}}},
     "S:\\",
     ""},
    {"InSixtyFourBits",
     9,
     8,
     TWO,
     {{"P:\\", {FIXED, 0xFFFFFFFF}}, {"Q:\\", {FIXED, 0x100000001}}},
     "Q:\\",
     ""},
    {"UpToTheLength", 9, 3, TWO, {{"P:\\", {FIXED, 1}}, {"Q:\\", {FIXED, 2}}}, "P:\\", ""},
    {"UpToAShortEntry",
     9,
     8,
     "P:\\\0Q\0R:\\\0"s,
     {{"P:\\", {FIXED, 1}}, {"R:\\", {FIXED, 2}}},
     "P:\\",
     ""},
    {"NoneWithRoom",
     9,
     8,
     TWO,
     {{"P:\\", {FIXED, 0}}, {"Q:\\", {NETWORK, 2}}},
     "",
     "lpDSMax is null"},
    {"NoSize", 0, 8, TWO, {}, "", "GetLogicalDriveStrings len fail"},
    {"NoList", 9, 0, TWO, {}, "", "GetLogicalDriveStrings real fail"},
};

const Case* g_now = nullptr;

bool FreeBytes(const char* root, uint64_t& available) {
    available = g_now->drives.at(root).available;
    return available != UNKNOWN;
}

} // namespace

// By the mangled names of the os layer's functions; those of the last differ with the type of uint64_t.
extern "C" {
uint32_t __wrap__ZN4RtOs15GetDriveStringsEjPc(uint32_t size, char* buffer) {
    if (size == 0)
        return g_now->sizeAnswered;
    std::memcpy(buffer, g_now->list.data(), std::min<size_t>(size, g_now->list.size()));
    return g_now->lengthAnswered;
}
uint32_t __wrap__ZN4RtOs12GetDriveKindEPKc(const char* root) { return g_now->drives.at(root).kind; }
bool __wrap__ZN4RtOs17GetDriveFreeBytesEPKcRm(const char* root, uint64_t& available) {
    return FreeBytes(root, available);
}
bool __wrap__ZN4RtOs17GetDriveFreeBytesEPKcRy(const char* root, uint64_t& available) {
    return FreeBytes(root, available);
}
}

class Drives : public testing::TestWithParam<Case> {};

TEST_P(Drives, DefaultRoot) {
    g_now = &GetParam();
    const TempDir dir; // where drives have no letters the root is a directory below
    fs::current_path(dir.path);
    SetVariable("XDG_CACHE_HOME", dir.path.string());
    LogCapture log;
    const CRtCallerThread three;
    IFileManager::Instance()->Initialize("", 7, 1);
    IFileManager::Instance()->UnInitialize();
    const CRtString dataDir = CFileManager::Instance()->GetDataDir();
    if (!g_now->chosen.empty()) {
        EXPECT_EQ(dataDir, CRtString(g_now->chosen + "sdstore\\"));
    } else {
        EXPECT_EQ(CFileManager::DirExists(dataDir), 1);
        EXPECT_EQ(log.Count("CFileManager::GetMaxDrive, " + g_now->warning), 1U);
    }
    EXPECT_EQ(log.Count("CFileManager::GetMaxDrive, "), g_now->chosen.empty() ? 1U : 0U);
    CFileManager::RemoveDir(dataDir);
    fs::current_path(dir.path.parent_path());
}

INSTANTIATE_TEST_SUITE_P(MadeUp, Drives, testing::ValuesIn(CASES),
                         [](const auto& made) { return std::string(made.param.name); });
