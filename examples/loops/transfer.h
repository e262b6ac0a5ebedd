// What the programs of this directory share: the command line, a file on its way into the cache (FileWriter),
// and a cached file on its way out (FileReader). Each program adds the integration with its event loop.
//
// All functions run on the caller thread. They report failures on standard error and throw nothing, because
// the library and libuv call some of them.
#pragma once

#include <FMManagerGuard.h>
#include <FMStatistics.h>
#include <IFileManager.h>
#include <RtRuntime.h>
#include <fcntl.h>
#include <unistd.h>

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

constexpr uint32_t FIRST_BLOCK = 1;
constexpr uint32_t BLOCK_BYTES = 1 << 20;
constexpr uint64_t CACHED_FILE_MAX = 1 << 30;
/// Standard input is paused while more bytes wait to be stored.
constexpr uint64_t UNSTORED_MAX = 8 << 20;
/// Written blocks stay in memory until they are idle for minutes, loaded ones until the file is closed. So a
/// transfer closes and reopens its file after this number of bytes.
constexpr uint64_t REOPEN_BYTES = 64 << 20;

constexpr uint16_t CLEAR_DAYS = 7;
constexpr int SERVER = 1; // a later run finds the files of a server only

inline bool Succeeded(int result, const char* what) {
    if (RT_FAILED(result)) // RtResult.h lists the codes
        std::fprintf(stderr, "%s: %s\n", what, RtResultText(result));
    return RT_SUCCEEDED(result);
}

struct Options {
    bool isStore = false;
    CRtString dir;
    FMFileID id = FMFileID_None;
    uint16_t port = 0;
};

inline bool ParseOptions(int argc, char** argv, Options& options) {
    const std::string_view verb = argc > 1 ? argv[1] : "";
    options.isStore = verb == "store";
    if (argc > 2)
        options.dir = argv[2];
    if (options.isStore && argc == 3)
        return true;
    if (verb == "serve" && argc == 5) {
        const std::string_view port = argv[4];
        const auto [end, error] = std::from_chars(port.begin(), port.end(), options.port);
        FMFileIDFromString(argv[3], options.id);
        if (error == std::errc() && end == port.end() && !(options.id == FMFileID_None))
            return true;
    }
    std::fprintf(
        stderr,
        "usage: %s store DIR <FILE\n"
        "       %s serve DIR ID PORT\n"
        "store writes FILE to the cache DIR and prints its identifier. serve sends the file to\n"
        "each TCP client of this machine, one after another. If PORT is 0, the system chooses\n"
        "the port, and the program prints it.\n",
        argv[0], argv[0]);
    return false;
}

/// A descriptor that the program opens later would get the number of a closed stream: a pipe of the loop would be
/// read as standard input, or a message written into the cache.
inline bool AreStreamsOpen() {
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(stream, F_GETFD) < 0) {
            std::fputs("standard input, output or error is closed\n", stderr);
            return false;
        }
    }
    return true;
}

inline void PrintPort(unsigned port) {
    std::printf("port %u\n", port);
    std::fflush(stdout); // if standard output is a pipe, a line end does not flush it
}

/// Cuts bytes into blocks and writes the blocks to a new cached file. The event loop reads its input into
/// Space() and calls Add, unless IsPaused.
class FileWriter {
public:
    /// `onResume` is called when IsPaused becomes false.
    FileWriter(IFileManager& manager, std::function<void()> onResume)
        : m_manager(manager), m_onResume(std::move(onResume)), m_buffer(BLOCK_BYTES) {}
    ~FileWriter() { FMSetHighWaterMark(0, {}); } // removing the mark cannot fail
    FileWriter(const FileWriter&) = delete;
    FileWriter& operator=(const FileWriter&) = delete;

    bool Create() {
        CoCreateFMFileID(m_info.fileID);
        m_info.name = "standard input";
        m_info.blockBeg = FIRST_BLOCK;
        const auto onMark = [this](bool isAbove) {
            m_isPaused = isAbove;
            if (!isAbove)
                m_onResume();
        };
        return Succeeded(m_manager.CreateFile(m_file.Receive(), m_info),
                         "cannot create the file") &&
               Succeeded(FMSetHighWaterMark(UNSTORED_MAX, onMark), "cannot set the mark");
    }

    /// True while the disk is slower than the input. If the disk is full, the input stays paused: the library
    /// retries the stores every 60 s, and writes the cause to standard error.
    bool IsPaused() const { return m_isPaused; }
    /// Never empty.
    std::span<char> Space() { return std::span(m_buffer).subspan(m_length); }
    /// Takes the first `length` bytes of Space().
    bool Add(size_t length) {
        m_length += static_cast<uint32_t>(length);
        return m_length < BLOCK_BYTES || WriteBlock();
    }
    /// Call it at the end of the input. True: all bytes are on disk, and the identifier has been printed.
    bool Finish() {
        if (m_length > 0 && !WriteBlock())
            return false;
        if ((m_count == 0 && !MarkChanged()) || !Reopen())
            return false;
        if (std::puts(FMFileIDToString(m_info.fileID).c_str()) < 0 || std::fflush(stdout) != 0) {
            std::fputs("cannot write the identifier to standard output\n", stderr);
            return false;
        }
        return true;
    }

private:
    bool WriteBlock() {
        if (uint64_t{m_count} * BLOCK_BYTES + m_length > CACHED_FILE_MAX) {
            std::fputs("the input is longer than 1 GiB\n", stderr);
            return false;
        }
        CRtComAutoPtr<IFMBlock> block;
        const CRtMessageChain piece = CRtMessageBlock::Wrap(m_buffer.data(), m_length);
        if (!Succeeded(m_file->GetBlock(block.Receive(), FIRST_BLOCK + m_count, 1), "no block") ||
            !Succeeded(block->WriteData(m_length, 0, piece.get()), "cannot write a block"))
            return false;
        ++m_count;
        m_length = 0;
        return (m_count - m_checked) * uint64_t{BLOCK_BYTES} < REOPEN_BYTES || Reopen();
    }

    // An empty file needs an information file, which the library writes after a change only. Removing an
    // empty block is a change. Housekeeping never removes the file, because it has no data file.
    bool MarkChanged() {
        CRtComAutoPtr<IFMBlock> block;
        return Succeeded(m_file->GetBlock(block.Receive(), FIRST_BLOCK, 1), "no block") &&
               Succeeded(m_file->RemoveBlock(FIRST_BLOCK, block.Receive()),
                         "cannot remove a block");
    }

    // Releases the memory of the blocks and tests that they are on disk: the table of the closed file does
    // not contain a block whose store has failed. OpenFile blocks the event loop until the queued stores have
    // run: about UNSTORED_MAX bytes.
    bool Reopen() {
        m_file.Reset();
        if (!Succeeded(m_manager.DetachFile(m_info.fileID), "cannot close the file") ||
            !Succeeded(m_manager.OpenFile(m_file.Receive(), m_info.fileID, 1),
                       "cannot store the file"))
            return false;
        for (; m_checked < m_count; ++m_checked) {
            CRtComAutoPtr<IFMBlock> block;
            const uint32_t id = FIRST_BLOCK + m_checked;
            if (RT_FAILED(m_file->GetBlock(block.Receive(), id, 0)) || !block->IsComplete()) {
                std::fprintf(stderr, "block %u is not stored\n", static_cast<unsigned>(id));
                return false;
            }
        }
        return true;
    }

    IFileManager& m_manager;
    const std::function<void()> m_onResume;
    FMFileInfo m_info;
    CRtComAutoPtr<IFMFile> m_file;
    std::vector<char> m_buffer; // the next block
    uint32_t m_length = 0;      // bytes in m_buffer
    uint32_t m_count = 0;       // blocks that were written
    uint32_t m_checked = 0;     // blocks that are known to be on disk
    bool m_isPaused = false;
};

/// Loads the blocks of a cached file one after another. The event loop sends Bytes() and calls Consume.
class FileReader final : private IFMBlockSink {
public:
    /// `onReady` is called when Bytes(), IsEnd() or HasFailed() has changed outside Start and Consume.
    FileReader(IFileManager& manager, const FMFileID& id, std::function<void()> onReady)
        : m_manager(manager), m_id(id), m_onReady(std::move(onReady)) {}
    ~FileReader() override { Stop(); }
    FileReader(const FileReader&) = delete;
    FileReader& operator=(const FileReader&) = delete;

    /// Opens the file, which then stays open: blocks in memory need not be loaded again for the next client.
    bool Open() {
        if (m_file && !Succeeded(m_manager.DetachFile(m_id), "cannot close the file"))
            return false;
        m_resident = 0;
        if (!Succeeded(m_manager.OpenFile(m_file.Receive(), m_id, 1), "cannot open the file"))
            return false;
        const FMBlockTable& blocks = m_file->GetBlocks();
        m_end = static_cast<uint32_t>(blocks.size());
        while (m_end > 0 && !blocks[m_end - 1])
            --m_end;
        return true;
    }
    /// Begins with the first block.
    void Start() {
        Stop();
        m_next = 0;
        Advance();
    }
    /// Cancels the load in flight: afterwards `onReady` is not called.
    void Stop() {
        if (m_block)
            m_block->CancelReadData(this); // it fails for a null sink only
        m_block.Reset();
        m_view.reset();
        m_bytes = {};
    }

    /// The next bytes of the file. Empty while a block is being loaded, at the end, and after a failure.
    std::span<const char> Bytes() const { return m_bytes; }
    bool IsEnd() const { return m_isEnd; }
    bool HasFailed() const { return m_hasFailed; }
    /// Drops the first `length` bytes of Bytes(). After the last byte of a block it requests the next block.
    void Consume(size_t length) {
        m_bytes = m_bytes.subspan(length);
        if (m_bytes.empty())
            Advance();
    }

private:
    void Advance() {
        Stop();
        m_isEnd = m_next == m_end;
        if (!m_isEnd && !Request(FIRST_BLOCK + m_next++))
            m_hasFailed = true;
    }

    // If the block is in memory, ReadData calls the sink before it returns. If the sink requested the next
    // block, each block in memory would add a level of recursion. So the sink only keeps the bytes. The loop
    // that sends them requests the next block through Consume, and m_onReady enters that loop only if it is
    // not running.
    bool Request(uint32_t id) {
        if (m_resident >= REOPEN_BYTES && !Open())
            return false;
        if (!Succeeded(m_file->GetBlock(m_block.Receive(), id, 0), "a block is missing"))
            return false;
        if (!m_block->IsInMemory())
            m_resident += m_block->GetTotalLen();
        m_isRequesting = true;
        const int result = m_block->ReadData(this);
        m_isRequesting = false;
        return Succeeded(result, "cannot read a block");
    }

    void OnBlockDataReady(IFMBlock* block, int result) override {
        if (RT_SUCCEEDED(result))
            result = block->ReadData(0, block->GetTotalLen(), RtReceive(m_view));
        if (Succeeded(result, "cannot load a block"))
            m_bytes = {m_view->GetTopLevelReadPtr(), m_view->GetTopLevelLength()};
        else
            m_hasFailed = true;
        if (!m_isRequesting)
            m_onReady();
    }

    IFileManager& m_manager;
    const FMFileID m_id;
    const std::function<void()> m_onReady;
    CRtComAutoPtr<IFMFile> m_file;
    CRtComAutoPtr<IFMBlock> m_block;
    CRtMessageChain m_view; // shares the buffer of m_block
    std::span<const char> m_bytes;
    uint32_t m_next = 0;     // slot of the next block
    uint32_t m_end = 0;      // slot after the last block
    uint64_t m_resident = 0; // bytes that were loaded since the file was opened
    bool m_isRequesting = false;
    bool m_isEnd = false;
    bool m_hasFailed = false;
};
