#include "session.h"

#include <chrono>
#include <utility>

#include "RtResult.h"
#include "failure.h"
#include "log.h"
#include "scan.h"

namespace fs = std::filesystem;

namespace {

constexpr int AS_SERVER = 1;
// Upper bound for the delay between a stop signal and CheckStop.
constexpr std::chrono::milliseconds WAIT_AT_MOST{50};

// The manager removes spaces at both ends of the path and treats backslashes as separators.
CRtString DirectoryText(const fs::path& dir) {
    if (dir.empty()) // the manager would use its default directory
        throw Failure("--dir: the path is empty");
    std::string text = ToString(LibraryPath(fs::absolute(dir)));
    while (text.size() > 1 && text.back() == fs::path::preferred_separator)
        text.pop_back();
    return CRtString(text + "\\"); // protects a space at the end of the name
}

} // namespace

void Require(int result, const std::string& what) {
    if (RT_FAILED(result)) {
        const std::string cause = LogCause();
        throw Failure(what + (cause.empty() ? ": " + std::string(RtResultText(result)) : cause));
    }
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
        throw Failure("cannot start the file manager");
    Require(manager->Initialize(text, clearDays, AS_SERVER), "cannot start the file manager");
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
    Require(m_session.Manager().CreateFile(file, info), "cannot create the cached file");
    Attach(FileRef::Adopt(file), info.fileID);
}

void CachedFile::Load(const FMFileID& id) {
    IFMFile* file = nullptr;
    Require(m_session.Manager().OpenFile(file, id, 1),
            "cannot open " + ToString(FMFileIDToString(id)));
    Attach(FileRef::Adopt(file), id);
}

void CachedFile::Attach(FileRef file, const FMFileID& id) {
    Require(m_session.Manager().AttachFile(id), "cannot attach to the cached file");
    m_file = std::move(file);
    m_id = id;
}

void CachedFile::Reopen() {
    Close();
    Load(m_id); // waits for the queued stores
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
    Require(result, "cannot open block " + std::to_string(id));
    return BlockRef::Adopt(block);
}
