// Other programs that use the cache of the simulated process: one that changes files, and one that opens them.
#pragma once

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "FMInfoCodec.h"
#include "testing/kit.h"

namespace sim {

enum class Harm : uint32_t {
    Truncation,
    Removal,
    Replacement, // of the data file, by one of the same length
    RemovalOfBoth,
    Magic,          // one that would control a terminal
    AnnouncedSlots, // more of them than the table has
    FarTime,        // in the year 2318
    LongName,       // it cannot be saved again; in a description without creation time
    RemovalOfStore,
    COUNT,
};

inline bool IsRemoval(Harm harm) {
    return harm == Harm::Removal || harm == Harm::RemovalOfBoth || harm == Harm::RemovalOfStore;
}

inline void Overwrite(const fs::path& path, size_t at, const std::string& bytes) {
    std::string content = ReadFile(path);
    if (content.size() >= at + bytes.size())
        WriteFile(path, content.replace(at, bytes.size(), bytes));
}

inline void WriteLongName(const fs::path& info, const FMFileID& id) {
    constexpr size_t createTime = 4;
    constexpr size_t length = FM_INFO_FILE_BODY_MAX + 1 - createTime;
    FMFileInfo named;
    named.fileID = id;
    named.name = CRtString(std::string(FM_INFO_NAME_MAX + 1, 'n'));
    std::string bytes = InfoFile(named, std::string(FM_INFO_COUNT_SIZE, '\0'));
    bytes.erase(FM_INFO_BODY_OFFSET + length, createTime);
    bytes[FM_INFO_LENGTH_OFFSET] = static_cast<char>(length % 256);
    bytes[FM_INFO_LENGTH_OFFSET + 1] = static_cast<char>(length / 256);
    WriteFile(info, bytes);
}

/// The entries of the block table in an information file; none if the file has no valid table.
inline std::vector<FMBlockEntry> ReadTable(const fs::path& info) {
    const std::string bytes = ReadFile(info);
    std::vector<FMBlockEntry> entries;
    size_t at = FM_INFO_LENGTH_OFFSET;
    size_t length = 0; // of the description, then of the table
    for (int i = 0; i < 2; ++i) {
        at += length;
        if (bytes.size() < at + FM_INFO_LENGTH_SIZE)
            return entries;
        uint8_t prefix[FM_INFO_LENGTH_SIZE];
        std::memcpy(prefix, bytes.data() + at, sizeof(prefix));
        length = FMGetLength(prefix);
        at += sizeof(prefix);
    }
    if (length <= bytes.size() - at)
        FMDecodeBlockBody(*CRtMessageBlock::Wrap(bytes.data() + at, static_cast<uint32_t>(length)),
                          entries);
    return entries;
}

/// Changes a pair of files as another program could. `length`: of the data file.
inline void ChangeFiles(Harm harm, const fs::path& data, const fs::path& info, const FMFileID& id,
                        uint64_t length) {
    std::error_code ignored;
    switch (harm) {
    case Harm::Truncation:
        fs::resize_file(data, length / 2, ignored);
        break;
    case Harm::Replacement:
        fs::remove(data, ignored);
        WriteFile(data, Pattern(2, length));
        break;
    case Harm::RemovalOfBoth:
        fs::remove(info, ignored);
        [[fallthrough]];
    case Harm::Removal:
        fs::remove(data, ignored);
        break;
    case Harm::Magic:
        Overwrite(info, 0, "\x1b[2J");
        break;
    case Harm::AnnouncedSlots: {
        const std::string bytes = ReadFile(info);
        if (bytes.size() > FM_INFO_BODY_OFFSET)
            Overwrite(info,
                      FM_INFO_BODY_OFFSET + FM_INFO_LENGTH_SIZE +
                          static_cast<uint8_t>(bytes[FM_INFO_LENGTH_OFFSET]),
                      "\xff\xff");
        break;
    }
    case Harm::FarTime: {
        const timespec far[] = {{11'000'000'000, 5}, {11'000'000'000, 5}};
        ::utimensat(AT_FDCWD, data.c_str(), far, 0);
        break;
    }
    case Harm::LongName:
        WriteLongName(info, id);
        break;
    default:
        fs::remove_all(data.parent_path(), ignored);
    }
}

// The calls of another server are not counted and do not fail.
inline int OpenElsewhere(const fs::path& path, int flags) {
    return static_cast<int>(::syscall(SYS_openat, AT_FDCWD, path.c_str(), flags | O_CLOEXEC, 0));
}
inline bool LockElsewhere(int fd, int operation) {
    return ::syscall(SYS_flock, fd, operation | LOCK_NB) == 0;
}
inline void CloseElsewhere(int& fd) {
    if (fd >= 0)
        ::syscall(SYS_close, std::exchange(fd, -1));
}

} // namespace sim
