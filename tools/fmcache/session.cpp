#include "session.h"

#include <chrono>
#include <utility>

#include "failure.h"
#include "log.h"

namespace fs = std::filesystem;

namespace {

constexpr int AS_SERVER = 1;
// How late a request to stop may be noticed.
constexpr std::chrono::milliseconds WAIT_AT_MOST{50};

const char* ResultText(int result) {
    switch (result) {
    case RT_ERROR_IO:
        return "an input or output call failed";
    case RT_ERROR_NULL_OBJECT:
        return "not enough memory";
    case RT_ERROR_INVALID_ARG:
        return "not a valid request";
    case RT_ERROR_NOT_FOUND:
        return "not found";
    case RT_ERROR_NOT_READY:
        return "not ready";
    default:
        return "failed";
    }
}

// The manager trims blanks off both ends of the name and reads backslashes as separators.
CRtString DirectoryText(const fs::path& dir) {
    if (dir.empty()) // to the manager that is a place of the system's
        throw Failure("--dir names no directory");
    std::string text = fs::absolute(dir).string();
    if (fs::path::preferred_separator != '\\' && text.find('\\') != std::string::npos)
        throw Failure("a cache cannot lie in " + Quoted(dir.string()) +
                      ": the name has a backslash in it");
    while (text.size() > 1 && text.back() == fs::path::preferred_separator)
        text.pop_back();
    return CRtString(text + "\\"); // a blank at the end is not at the end any more
}

} // namespace

void Require(int result, const std::string& what) {
    if (RT_FAILED(result))
        throw Failure(what + ": " + ResultText(result) + LogCause());
}

Session::Session(const fs::path& dir, uint16_t clearDays)
    : m_thread([this] {
          const std::lock_guard lock(m_mutex);
          m_woken = true;
          m_changed.notify_one();
      }) {
    const CRtString text = DirectoryText(dir);
    IFileManager* manager = IFileManager::Instance();
    if (!m_thread.IsValid() || !manager)
        throw Failure("the file manager cannot be started");
    Require(manager->Initialize(text, clearDays, AS_SERVER), "the file manager cannot be started");
    m_manager = manager;
}

Session::~Session() {
    if (m_manager)
        m_manager->UnInitialize();
}

void Session::WaitAndPump() {
    {
        std::unique_lock lock(m_mutex);
        m_changed.wait_for(lock, WAIT_AT_MOST, [this] { return m_woken; });
        m_woken = false;
    }
    Pump();
}

void CachedFile::Create(const FMFileInfo& info) {
    IFMFile* file = nullptr;
    Require(m_session.Manager().CreateFile(file, info), "the file cannot be created");
    Attach(FileRef::Adopt(file), info.fileID);
}

void CachedFile::Load(const FMFileID& id) {
    IFMFile* file = nullptr;
    Require(m_session.Manager().OpenFile(file, id, 1),
            "the file " + ToString(FMFileIDToString(id)) + " cannot be opened");
    Attach(FileRef::Adopt(file), id);
}

void CachedFile::Attach(FileRef file, const FMFileID& id) {
    Require(m_session.Manager().AttachFile(id), "the file cannot be kept open");
    m_file = std::move(file);
    m_id = id;
}

void CachedFile::Reopen() {
    Close();
    Load(m_id); // waits for the stores that are queued
    m_session.Pump();
}

void CachedFile::Close() {
    if (!m_file)
        return;
    m_file.Reset();
    m_session.Manager().DetachFile(m_id);
}

BlockRef CachedFile::Block(uint32_t id, bool create) {
    IFMBlock* block = nullptr;
    const int result = m_file->GetBlock(block, id, create ? 1 : 0);
    if (result == RT_ERROR_NOT_FOUND)
        return {};
    Require(result, "block " + std::to_string(id) + " cannot be had");
    return BlockRef::Adopt(block);
}
