#include "testing/kit.h"

#include <algorithm>
#include <fstream>
#include <random>
#include <sstream>

#include "util/filemanager/filemanager.h"
#include "util/runtime/os/RtOs.h"

namespace {

fs::path MakeTempDir() {
    std::random_device random;
    for (;;) {
        const fs::path path =
            fs::temp_directory_path() / ("filemanager-test-" + std::to_string(random()));
        if (fs::create_directory(path))
            return path;
    }
}

} // namespace

TempDir::TempDir() : path(MakeTempDir()) {}
TempDir::~TempDir() {
    std::error_code ignored; // a test may have created files that cannot be removed
    if (m_mine)
        fs::remove_all(path, ignored);
}

LogCapture::LogCapture(int level) { RtSetLogSink(&LogCapture::Take, this, level); }
LogCapture::~LogCapture() { RtSetLogSink(nullptr, nullptr, RT_LOG_WARNING); }

void LogCapture::Take(void* self, int, const char* text) {
    auto* log = static_cast<LogCapture*>(self);
    const std::lock_guard lock(log->m_mutex);
    log->m_lines.emplace_back(text);
}

size_t LogCapture::Count(const std::string& part) const {
    const std::lock_guard lock(m_mutex);
    return static_cast<size_t>(
        std::count_if(m_lines.begin(), m_lines.end(), [&](const std::string& line) {
            return line.find(part) != std::string::npos;
        }));
}

std::string LogCapture::Text() const {
    const std::lock_guard lock(m_mutex);
    std::string text;
    for (const std::string& line : m_lines)
        text += line + "\n";
    return text;
}

Cache::Cache(int server, uint16_t days) : isServer(server), clearDays(days) { Start(); }

Cache::Cache(const fs::path& existing, bool isToStart) : dir(existing), isServer(1), clearDays(7) {
    if (isToStart)
        Start();
}

Cache::~Cache() {
    Stop();
    FMWaitUntilIdle();
}

void Cache::Start() { manager->Initialize(CRtString(dir.path.string()), clearDays, isServer); }

void Cache::RunReadwrQueue() {
    for (const int priority : {RT_PRIORITY_HIGH, RT_PRIORITY_NORMAL})
        Require(CFileManager::Instance()->PostToReadwrThread(new TestEvent, 1, priority) == 0);
}

fs::path Cache::Path(const FMFileID& id, const char* extension) const {
    const fs::path base = isServer ? dir.path / "sdstore"
                                   : dir.path / "confcache" / std::to_string(RtOs::GetProcessId());
    return base / (std::string(FMFileIDToString(id).c_str()) + extension);
}

FileRef Cache::Create(const FMFileInfo& info) {
    IFMFile* file = nullptr;
    Require(manager->CreateFile(file, info) == 0, "a file cannot be created");
    return FileRef::Adopt(file);
}

FileRef Cache::Create(uint32_t blockBeg, uint32_t flag) {
    return Create(Description(blockBeg, flag));
}

FileRef Cache::Open(const FMFileID& id, int load) {
    IFMFile* file = nullptr;
    manager->OpenFile(file, id, load);
    return FileRef::Adopt(file);
}

void Cache::Close(FileRef& file) {
    Require(manager->DetachFile(file->GetFileInfo().fileID) == 0, "a file is not open");
    file.Reset();
}

BlockRef Cache::Block(IFMFile& file, uint32_t id, int create) {
    IFMBlock* block = nullptr;
    if (file.GetBlock(block, id, create) != 0)
        return {};
    return BlockRef::Adopt(block);
}

namespace {
void PostFirst(std::function<void()> work) {
    CFileManager::Instance()->PostToReadwrThread(new TestEvent(std::move(work)), 0,
                                                 RT_PRIORITY_HIGH);
}
} // namespace

Gate::Gate() {
    std::promise<void> running;
    auto opened = m_open.get_future().share();
    PostFirst([&running, opened] {
        running.set_value();
        opened.wait_for(std::chrono::seconds(10));
    });
    running.get_future().wait();
}

Gate::Gate(size_t count) {
    PostFirst([count] {
        while (CRtEventQueue::Current()->GetCount() < count)
            std::this_thread::yield();
    });
}

int Write(IFMBlock& block, const std::string& bytes, uint32_t piece) {
    const auto length = static_cast<uint32_t>(bytes.size());
    for (uint32_t at = 0; at < length; at += piece) {
        const CRtMessageChain data =
            CRtMessageBlock::Wrap(bytes.data() + at, std::min(piece, length - at));
        if (const int result = block.WriteData(length, at, data.get()); result != 0)
            return result;
    }
    return 0;
}

std::string Read(IFMBlock& block) {
    CRtMessageChain data;
    if (const int result = block.ReadData(0, block.GetTotalLen(), RtReceive(data)); result != 0)
        return "error " + std::to_string(result);
    return Bytes(data);
}

std::string ReadFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
}

void WriteFile(const fs::path& path, const std::string& bytes) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

size_t CountFiles(const fs::path& path) {
    const fs::recursive_directory_iterator all(path);
    return static_cast<size_t>(std::count_if(
        begin(all), end(all), [](const auto& entry) { return entry.is_regular_file(); }));
}

FMFileInfo Description(uint32_t blockBeg, uint32_t flag) {
    FMFileInfo info;
    CoCreateFMFileID(info.fileID);
    info.name = "a file";
    info.blockBeg = blockBeg;
    info.flag = flag;
    return info;
}

std::string Bytes(const CRtMessageChain& chain) {
    return std::string(chain->FlattenChained().view());
}

FMStatistics ReadStatistics() {
    FMStatistics figures;
    FMGetStatistics(figures);
    return figures;
}

std::string InfoFile(const FMFileInfo& info, const std::string& blockBody, int64_t createTime) {
    const auto length = [](uint64_t bytes) {
        std::string text;
        for (int bit = 0; bit < 32; bit += 8)
            text += static_cast<char>(bytes >> bit);
        return text;
    };
    CRtMessageChain body;
    Require(FMEncodeFileBody(info, static_cast<uint32_t>(createTime), body) == 0);
    return "IFSD" + length(body->GetChainedLength()) + Bytes(body) + length(blockBody.size()) +
           blockBody;
}
