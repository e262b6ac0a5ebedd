// put: splits a file into blocks, writes each in pieces, and verifies on disk that all of them were stored
// before it prints the identifier.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "FMInfoCodec.h"
#include "failure.h"
#include "json.h"
#include "log.h"
#include "platform.h"
#include "progress.h"
#include "putplan.h"
#include "scan.h"
#include "session.h"
#include "sizes.h"
#include "store.h"
#include "text.h"
#include "verbs.h"

namespace fs = std::filesystem;

namespace {

// --- The two ends -------------------------------------------------------------------------------

using Stream = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

class Source {
public:
    Source(std::string name, Stream stream)
        : m_name(std::move(name)), m_stream(std::move(stream)) {}
    static Source OfFile(const fs::path& file) {
        Stream stream(std::fopen(file.string().c_str(), "rb"), &std::fclose);
        if (!stream)
            throw Failure("cannot read " + Quoted(file.string()) + ": " + ErrorText(errno));
        return {Quoted(file.string()), std::move(stream)};
    }
    // Copies standard input to a temporary file, because the length has to be known before the first block.
    static Source OfInput(uint64_t& length);

    void Read(char* bytes, uint32_t length) {
        errno = 0;
        if (std::fread(bytes, length, 1, m_stream.get()) == 1)
            return;
        CheckStop();
        throw Failure(std::ferror(m_stream.get())
                          ? "cannot read " + m_name + ": " + ErrorText(errno)
                          : m_name + " became shorter while it was being read");
    }

private:
    std::string m_name;
    Stream m_stream;
};

Source Source::OfInput(uint64_t& length) {
    Stream copy(OpenTemporary(), &std::fclose);
    if (!copy)
        throw Failure("cannot create a temporary file: " + ErrorText(errno));
    std::vector<char> bytes(size_t{1} << 20);
    for (size_t count = 0; (count = std::fread(bytes.data(), 1, bytes.size(), stdin)) > 0;) {
        CheckStop();
        CheckLength("standard input", length += count);
        if (std::fwrite(bytes.data(), count, 1, copy.get()) != 1)
            throw Failure("cannot copy standard input to a temporary file: " + ErrorText(errno));
    }
    CheckStop();
    if (std::ferror(stdin) || std::fflush(copy.get()) != 0)
        throw Failure("cannot read standard input: " + ErrorText(errno));
    std::rewind(copy.get());
    return {"standard input", std::move(copy)};
}

// Removes both files of the new entry on every path that does not call Keep.
class NewEntry {
public:
    explicit NewEntry(StorePaths paths) : m_paths(std::move(paths)) {}
    ~NewEntry() {
        if (m_kept)
            return;
        std::error_code ignored;
        fs::remove(m_paths.info, ignored);
        fs::remove(m_paths.data, ignored);
    }
    NewEntry(const NewEntry&) = delete;
    NewEntry& operator=(const NewEntry&) = delete;

    const StorePaths& Paths() const { return m_paths; }
    void Keep() { m_kept = true; }

private:
    const StorePaths m_paths;
    bool m_kept = false;
};

[[noreturn]] void ThrowNotStored(const PutPlan& plan, const StorePaths& paths,
                                 const std::string& what) {
    const uint64_t there = LengthOf(paths.data);
    const uint64_t missing = plan.length > there ? plan.length - there : 0;
    std::error_code error;
    const fs::path store = paths.data.parent_path();
    const fs::space_info space = fs::space(store, error);
    if (!error && (space.available < missing || space.available < plan.block))
        throw Failure("not enough space in " + Quoted(store.string()) + " for " + plan.Title() +
                      ": it needs " + FormatSize(plan.length) + ", and the disk has room for " +
                      FormatSize(there + space.available));
    throw Failure("cannot store " + plan.Title() + ": " + what + LogCause() +
                  "; check the disk, quotas and file-size limits");
}

// --- The transfer -------------------------------------------------------------------------------

class Storing {
public:
    Storing(Session& session, const PutPlan& plan, const StorePaths& paths, Source& source)
        : m_session(session), m_plan(plan), m_paths(paths), m_source(source), m_file(session),
          m_progress("storing", plan.length), m_piece(plan.piece) {}

    void Run() {
        m_file.Create(m_plan.info);
        if (m_plan.length == 0)
            return MarkChanged();
        // Creating the last block, without bytes, first records the number of blocks: the file of a put
        // that was killed then shows as incomplete.
        m_file.Block(FIRST_BLOCK + m_plan.Count() - 1, true);
        // The first block is settled alone: an unwritable disk fails at once, and from then on the data file
        // has an information file, so that housekeeping of other servers does not remove it.
        uint64_t most = 0;
        for (uint32_t index = 0; index < m_plan.Count(); ++index) {
            PutBlock(index);
            m_pending += m_plan.LengthOfBlock(index);
            if (m_pending < most)
                continue;
            Settle(index + 1);
            most = REOPEN_BYTES;
        }
    }

private:
    // An empty file needs an information file, but the manager writes one only after a change. Removing a
    // block without bytes is a change, and creates no data file.
    void MarkChanged() {
        m_file.Block(FIRST_BLOCK, true);
        IFMBlock* removed = nullptr;
        Require(m_file.Get().RemoveBlock(FIRST_BLOCK, removed), "cannot create the cached file");
        BlockRef::Adopt(removed);
    }

    void PutBlock(uint32_t index) {
        const uint32_t length = m_plan.LengthOfBlock(index);
        const BlockRef block = m_file.Block(FIRST_BLOCK + index, true);
        for (uint32_t at = 0; at < length;) {
            CheckStop();
            const uint32_t size = std::min(m_plan.piece, length - at);
            m_source.Read(m_piece.data(), size);
            const CRtMessageChain piece = CRtMessageBlock::Wrap(m_piece.data(), size);
            Require(block->WriteData(length, at, piece.get()),
                    "cannot write block " + std::to_string(FIRST_BLOCK + index));
            at += size;
            m_progress.Add(size);
        }
        m_session.Pump();
    }

    // Closes and reopens the file, then checks the blocks up to `end`. A block whose store failed has no
    // bytes then; if even the table could not be written, reopening fails.
    void Settle(uint32_t end) {
        try {
            m_file.Reopen();
        } catch (const Failure& failure) {
            ThrowNotStored(m_plan, m_paths, failure.what());
        }
        for (; m_settled < end; ++m_settled) {
            const BlockRef block = m_file.Block(FIRST_BLOCK + m_settled, false);
            if (!block || block->GetTotalLen() != m_plan.LengthOfBlock(m_settled))
                ThrowNotStored(m_plan, m_paths,
                               "block " + std::to_string(FIRST_BLOCK + m_settled) +
                                   " was not stored");
        }
        m_pending = 0;
    }

    Session& m_session;
    const PutPlan& m_plan;
    const StorePaths& m_paths;
    Source& m_source;
    CachedFile m_file;
    Progress m_progress;
    std::vector<char> m_piece;
    uint64_t m_pending = 0; // bytes written since the file was last opened
    uint32_t m_settled = 0; // blocks known to be stored
};

// Housekeeping examines data files only: it would never remove an empty file without one.
void CreateDataFile(const fs::path& file) {
    if (!Stream(OpenNew(file), &std::fclose))
        throw Failure("cannot create " + Quoted(file.string()) + ": " + ErrorText(errno));
    std::error_code ignored; // the library's own mode; without it the file is usable, too
    fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write, ignored);
}

void RequireWritable(const fs::path& store) {
    std::error_code error;
    if (!fs::is_directory(store, error))
        throw Failure("cannot create the directory " + Quoted(store.string()) + "; check --dir");
    if (!CanWriteInto(store))
        throw Failure("no write access to " + Quoted(store.string()) + ": " + ErrorText(errno));
}

// The manager reports a failed store only in the log, so the result is read back from disk.
void RequireStored(const fs::path& dir, const PutPlan& plan, const StorePaths& paths) {
    try {
        const auto stored = Describe(StoreDir(dir), FMFileIDToString(plan.info.fileID));
        RequireDescribed(dir, stored);
        const std::vector<FMBlockEntry> blocks = CompleteBlocks(*stored);
        if (!(stored->info.fileID == plan.info.fileID))
            throw Failure("the information file describes another file");
        if (blocks.size() != plan.Count())
            throw Failure("the information file names " + Count(blocks.size(), "block") +
                          " instead of " + std::to_string(plan.Count()));
        for (uint32_t index = 0; index < blocks.size(); ++index) {
            if (blocks[index].totalLen != plan.LengthOfBlock(index))
                throw Failure("block " + std::to_string(FIRST_BLOCK + index) + " is incomplete");
        }
    } catch (const Failure& failure) {
        ThrowNotStored(plan, paths, failure.what());
    }
}

void PrintStored(const PutOptions& options, const PutPlan& plan) {
    const CRtString id = FMFileIDToString(plan.info.fileID);
    if (!options.json)
        return Print(ToString(id) + "\n");
    Json json;
    AddName(json, "id", id.view());
    AddName(json, "name", plan.info.name.view());
    json["size"] = plan.length;
    json["slots"] = plan.Count();
    PrintJson(json);
}

int Put(PutOptions& options) {
    FillDir(options);
    uint64_t length = 0;
    const bool isInput = options.file == "-";
    if (!isInput)
        length = CheckedLength(options.file);
    Source source = isInput ? Source::OfInput(length) : Source::OfFile(options.file);
    const PutPlan plan = MakePlan(options, length);
    NewEntry entry(StorePaths(options.dir, plan.info.fileID));
    {
        Session session(options.dir);
        RequireWritable(StoreDir(options.dir));
        Storing(session, plan, entry.Paths(), source).Run();
    }
    if (length == 0)
        CreateDataFile(entry.Paths().data);
    RequireStored(options.dir, plan, entry.Paths());
    CheckStop();
    PrintStored(options, plan);
    entry.Keep();
    return STATUS_DONE;
}

} // namespace

void AddPut(CLI::App& app, Action& chosen) {
    const auto options = std::make_shared<PutOptions>();
    CLI::App* put =
        app.add_subcommand("put", "Store a file in the cache and print its identifier.");
    AddCacheOptions(*put, *options);
    AddPath(*put, "FILE", options->file, "file to store, at most 1 GiB; - is standard input")
        ->type_name("")
        ->required();
    TakeSize(put->add_option("--block", options->block,
                             "block size in bytes, or in KiB or MiB with K or M; at most 16M"),
             FM_BLOCK_BYTES_MAX)
        ->default_str("256K");
    TakeSize(
        put->add_option("--piece", options->piece,
                        "size of the pieces in which the library receives a block; as --block"))
        ->default_str("16K");
    put->add_option("--name", options->name, "name to store instead of the name of FILE")
        ->type_name("NAME");
    put->callback([options, &chosen] { chosen = [options] { return Put(*options); }; });
}
