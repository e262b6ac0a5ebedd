// get: loads the blocks of a cached file and writes their bytes in order.
#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "failure.h"
#include "json.h"
#include "output.h"
#include "platform.h"
#include "progress.h"
#include "scan.h"
#include "session.h"
#include "store.h"
#include "text.h"
#include "verbs.h"

namespace fs = std::filesystem;

namespace {

// Bounds for the loads in flight, by number and by bytes.
constexpr size_t WINDOW_BLOCKS = 8;
constexpr uint64_t WINDOW_BYTES = uint64_t{32} << 20;

struct GetOptions : StoreOptions {
    std::string id;
    std::filesystem::path output;
    bool force = false;
};

// One load in flight.
class Load final : public IFMBlockSink {
public:
    Load(CachedFile& file, const FMBlockEntry& entry)
        : m_entry(entry), m_block(file.Block(entry.blockID, false)) {
        if (!m_block || m_block->GetTotalLen() != entry.totalLen)
            throw Failure(Name() + " is missing");
        const int result = m_block->ReadData(this);
        m_done = m_done || RT_FAILED(result); // after a failure the sink is not called
        Require(result, "cannot read " + Name());
    }
    ~Load() override {
        if (!m_done)
            m_block->CancelReadData(this);
    }
    Load(const Load&) = delete;
    Load& operator=(const Load&) = delete;

    void OnBlockDataReady(IFMBlock* block, int result) override {
        m_done = true;
        m_result = result;
        if (RT_SUCCEEDED(result))
            m_result = block->ReadData(0, m_entry.totalLen, RtReceive(m_view));
    }

    bool IsDone() const { return m_done; }
    uint32_t Length() const { return m_entry.totalLen; }
    void WriteTo(Output& output) const {
        Require(m_result, "cannot read " + Name());
        for (const CRtMessageBlock* part = m_view.get(); part; part = part->GetNext())
            output.Write({part->GetTopLevelReadPtr(), part->GetTopLevelLength()});
    }

private:
    std::string Name() const { return "block " + std::to_string(m_entry.blockID); }

    const FMBlockEntry m_entry;
    const BlockRef m_block;
    bool m_done = false;
    int m_result = 0;
    CRtMessageChain m_view;
};

class Transfer {
public:
    Transfer(Session& session, const FMFileID& id, const std::vector<FMBlockEntry>& blocks,
             Output& output)
        : m_session(session), m_blocks(blocks), m_output(output), m_file(session),
          m_progress("reading", Sum(blocks)) {
        m_file.Load(id);
    }

    void Run() {
        for (;;) {
            Ask();
            if (!m_loads.empty())
                WriteFirst();
            else if (m_next < m_blocks.size())
                Release();
            else
                return;
        }
    }

private:
    static uint64_t Sum(const std::vector<FMBlockEntry>& blocks) {
        uint64_t sum = 0;
        for (const FMBlockEntry& block : blocks)
            sum += block.totalLen;
        return sum;
    }

    bool HasRoomFor(uint32_t length) const {
        if (m_loaded == 0)
            return true; // a single block may exceed the bounds
        return m_loads.size() < WINDOW_BLOCKS && m_inFlight + length <= WINDOW_BYTES &&
               m_loaded + length <= REOPEN_BYTES;
    }

    void Ask() {
        while (m_next < m_blocks.size() && HasRoomFor(m_blocks[m_next].totalLen)) {
            m_loads.push_back(std::make_unique<Load>(m_file, m_blocks[m_next]));
            m_loaded += m_blocks[m_next].totalLen;
            m_inFlight += m_blocks[m_next].totalLen;
            ++m_next;
        }
    }

    void WriteFirst() {
        const Load& first = *m_loads.front();
        CheckStop();
        while (!first.IsDone()) {
            m_session.WaitAndPump();
            CheckStop();
        }
        first.WriteTo(m_output);
        m_progress.Add(first.Length());
        m_inFlight -= first.Length();
        m_loads.pop_front();
    }

    // Loaded blocks stay resident until the file is closed.
    void Release() {
        m_file.Reopen();
        m_loaded = 0;
    }

    Session& m_session;
    const std::vector<FMBlockEntry>& m_blocks;
    Output& m_output;
    CachedFile m_file;
    Progress m_progress;
    std::deque<std::unique_ptr<Load>> m_loads; // in file order; destroyed before m_file
    size_t m_next = 0;                         // index of the next block to load
    uint64_t m_inFlight = 0;                   // bytes of m_loads
    uint64_t m_loaded = 0;                     // bytes loaded since the file was last opened
};

void RequireUnused(const FMCachedFile& file) {
    if (file.isOpenElsewhere)
        throw Failure(ToString(file.stem) +
                      " is in use by another process; get needs the file for itself");
}

// The manager would load an incomplete file, and create a missing data file. So the information file is
// checked before the manager opens anything.
std::vector<FMBlockEntry> FindBlocks(const fs::path& dir, const FMCachedFile& file) {
    const std::string name = ToString(file.stem);
    RequireUnused(file);
    RequireDescribed(dir, file);
    if (file.fileID == FMFileID_None || !(file.info.fileID == file.fileID))
        throw Failure(name + " contains the description of another file");
    if (file.info.flag & FM_FILE_TEMPORARY)
        throw Failure(name + " is temporary: reading would remove it from the cache");
    try {
        return CompleteBlocks(file);
    } catch (const Failure& failure) {
        throw Failure(name + " is not complete: " + failure.what());
    }
}

// The manager opens files for reading and writing, even to load.
void RequireAccess(const StorePaths& paths, bool withData) {
    for (const auto* path : {&paths.info, withData ? &paths.data : &paths.info}) {
        if (!CanWrite(*path))
            throw Failure("cannot open " + Quoted(path->string()) +
                          " for reading and writing: " + ErrorText(errno));
    }
}

// The last component of the stored name, which comes from a peer: it must not lead to another directory. Both
// separators end a component, because the peer may run another system.
fs::path StoredName(const FMCachedFile& file) {
    const std::string full = ToString(file.info.name);
    const std::string name = full.substr(full.find_last_of("/\\:") + 1);
    if (name.empty() || name == "." || name == ".." || Printable(name) != name)
        throw Failure("the stored name " + Quoted(full) +
                      " cannot be used for a file; -o names one");
    return fs::path(".") /
           std::u8string(name.begin(), name.end()); // "./-" is a file, "-" standard output
}

void Transmit(const GetOptions& options, const FMCachedFile& file, Output& output) {
    const std::vector<FMBlockEntry> blocks = FindBlocks(options.dir, file);
    RequireAccess(StorePaths(options.dir, file.fileID), !blocks.empty());
    try {
        Session session(options.dir);
        Transfer(session, file.fileID, blocks, output).Run();
    } catch (const Failure&) { // another process may have opened the file in the meantime
        if (const auto now = Describe(StoreDir(options.dir), file.stem))
            RequireUnused(*now);
        throw;
    }
}

int Get(GetOptions& options) {
    if (options.json && options.output == "-")
        throw Failure("--json and -o - both write to standard output", STATUS_USAGE);
    const FMCachedFile file = FindInStore(LocateStore(options), options.id);
    FindBlocks(options.dir, file); // before the output file is created
    const bool isNamed = !options.output.empty();
    const fs::path path = isNamed ? options.output : StoredName(file);
    if (std::error_code error; !isNamed && fs::exists(fs::symlink_status(path, error)))
        throw Failure(Quoted(path.filename().string()) + " exists; -o names another file");
    Output output(path, "-o", isNamed && options.force);
    Transmit(options, file, output);
    output.Commit();
    const std::string name = isNamed ? path.string() : path.filename().string();
    if (options.json) {
        Json json;
        AddName(json, "id", file.stem.view());
        AddName(json, "name", file.info.name.view());
        AddName(json, "output", name);
        json["size"] = file.blockBytes;
        PrintJson(json);
    } else if (!isNamed) {
        Print(name + "\n");
    }
    return STATUS_DONE;
}

} // namespace

void AddGet(CLI::App& app, Action& chosen) {
    const auto options = std::make_shared<GetOptions>();
    CLI::App* get = app.add_subcommand("get", "Read a file back from the cache.");
    AddCacheOptions(*get, *options);
    AddIDArgument(*get, options->id, "identifier, its first characters, or the name of the file")
        ->required();
    CLI::Option* output =
        AddPath(
            *get, "-o,--output", options->output,
            "file to write; - is standard output. Without it: the name under which the file was "
            "stored, in the current directory")
            ->type_name("FILE");
    get->add_flag("--force", options->force, "overwrite FILE if it exists")->needs(output);
    get->callback([options, &chosen] { chosen = [options] { return Get(*options); }; });
}
