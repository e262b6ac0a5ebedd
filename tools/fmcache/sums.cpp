#include "sums.h"

#define XXH_INLINE_ALL // the header is the whole library: the tool needs no other package at run time
#include <xxhash.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>

#include "failure.h"
#include "platform.h"
#include "progress.h"

namespace fs = std::filesystem;

namespace {

constexpr char FIRST_LINE[] = "fmcache sums 1 XXH3-64";
constexpr size_t SUM_DIGITS = 16;

struct FreeState {
    void operator()(XXH3_state_t* state) const { XXH3_freeState(state); }
};

// Reads the blocks in the order of their offsets, so that the disk reads sequentially.
class BlockReader {
public:
    /// `total`: bytes of the blocks, for the progress line.
    BlockReader(const fs::path& path, uint64_t total)
        : m_name(Quoted(path.string())), m_file(path, std::ios::binary), m_bytes(size_t{1} << 20),
          m_progress("reading", total) {
        if (!m_file || !m_state)
            Fail();
    }

    uint64_t Sum(const FMBlockEntry& entry) {
        if (m_position != entry.posInFile && !m_file.seekg(entry.posInFile))
            Fail();
        XXH3_64bits_reset(m_state.get());
        for (uint32_t left = entry.totalLen; left > 0;) {
            CheckStop();
            const auto part = std::min(left, static_cast<uint32_t>(m_bytes.size()));
            if (!m_file.read(m_bytes.data(), part))
                Fail();
            XXH3_64bits_update(m_state.get(), m_bytes.data(), part);
            left -= part;
            m_progress.Add(part);
        }
        m_position = entry.posInFile + entry.totalLen;
        return XXH3_64bits_digest(m_state.get());
    }

private:
    [[noreturn]] void Fail() const {
        throw Failure("cannot read " + m_name + ": " + ErrorText(errno != 0 ? errno : EIO));
    }

    const std::string m_name;
    std::ifstream m_file;
    std::vector<char> m_bytes;
    std::unique_ptr<XXH3_state_t, FreeState> m_state{XXH3_createState()};
    int64_t m_position = 0;
    Progress m_progress;
};

} // namespace

std::vector<BlockSum> SumBlocks(const fs::path& store, const FMCachedFile& file) {
    std::vector<FMBlockEntry> stored;
    for (size_t i = 0; i < file.states.size(); ++i) {
        if (file.states[i] == FMSlotState::Stored)
            stored.push_back(file.entries[i]);
    }
    if (stored.empty())
        return {};
    std::sort(stored.begin(), stored.end(), [](const FMBlockEntry& a, const FMBlockEntry& b) {
        return a.posInFile < b.posInFile;
    });
    uint64_t total = 0;
    for (const FMBlockEntry& entry : stored)
        total += entry.totalLen;
    BlockReader reader(store / (ToString(file.stem) + FM_DATA_EXTENSION), total);
    std::vector<BlockSum> sums;
    sums.reserve(stored.size());
    for (const FMBlockEntry& entry : stored)
        sums.push_back({entry.blockID, entry.totalLen, reader.Sum(entry)});
    return sums;
}

size_t CompareSums(const std::vector<BlockSum>& earlier, const std::vector<BlockSum>& now,
                   FMCachedFile& file) {
    std::map<uint32_t, const BlockSum*> found;
    for (const BlockSum& each : now)
        found[each.block] = &each;
    const auto add = [&file](const BlockSum& sum, const char* what) {
        file.findings.push_back({CRtString("block " + std::to_string(sum.block) + what), "", true});
    };
    size_t compared = 0;
    for (const BlockSum& sum : earlier) {
        const auto at = found.find(sum.block);
        if (at == found.end()) {
            add(sum, " has a sum, but is no longer stored");
            continue;
        }
        ++compared;
        if (at->second->length != sum.length || at->second->sum != sum.sum)
            add(sum, " has other bytes than when the sums were written");
    }
    return compared;
}

Sums ReadSumsFile(const fs::path& path) {
    const auto fail = [&path] {
        throw Failure("cannot read " + Quoted(path.string()) + ": " + ErrorText(errno));
    };
    std::ifstream file(path, std::ios::binary);
    if (!file)
        fail();
    std::string line;
    std::getline(file, line);
    if (file.bad()) // a directory can be opened, but not read
        fail();
    if (line != FIRST_LINE)
        throw Failure(Quoted(path.string()) + " is not a file of verify --write-sums");
    Sums sums;
    for (uint64_t number = 2; std::getline(file, line); ++number) {
        std::istringstream fields(line);
        std::string stem;
        std::string digits;
        BlockSum sum;
        fields >> stem >> sum.block >> sum.length >> digits;
        // A truncated sum would look like a changed block.
        if (digits.size() != SUM_DIGITS || !(std::istringstream(digits) >> std::hex >> sum.sum))
            throw Failure(Quoted(path.string()) + ": line " + std::to_string(number) +
                          " is damaged");
        sums[stem].push_back(sum);
    }
    if (file.bad())
        fail();
    return sums;
}

std::string SumsText(const Sums& sums) {
    std::string text = std::string(FIRST_LINE) + "\n";
    for (const auto& [stem, blocks] : sums) {
        for (const BlockSum& each : blocks) {
            char line[64];
            std::snprintf(line, sizeof(line), " %" PRIu32 " %" PRIu32 " %016" PRIx64 "\n",
                          each.block, each.length, each.sum);
            text += stem + line;
        }
    }
    return text;
}
