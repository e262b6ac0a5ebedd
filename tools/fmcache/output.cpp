#include "output.h"

#include <cerrno>
#include <random>
#include <string>

#include "failure.h"
#include "platform.h"

namespace fs = std::filesystem;

Output::Output(const fs::path& name, const char* option, bool replace)
    : m_target(name), m_option(option), m_replace(replace) {
    if (name == "-") {
        m_stream = stdout;
        return;
    }
    // Replace the target of a symbolic link, not the link.
    std::error_code error;
    if (fs::is_symlink(fs::symlink_status(name, error)) && fs::exists(name, error))
        m_target = fs::canonical(name, error);
    CheckTarget();
    OpenTemporary();
}

Output::~Output() {
    if (m_temporary.empty())
        return;
    if (m_stream)
        std::fclose(m_stream); // the file is removed: an error has no effect
    std::error_code ignored;
    fs::remove(m_temporary, ignored);
}

void Output::CheckTarget() const {
    std::error_code error;
    const fs::file_status status = fs::symlink_status(m_target, error);
    if (!fs::exists(status))
        return;
    if (fs::is_directory(status))
        throw Failure(Quoted(m_target.string()) + " is a directory; " + m_option + " takes a file");
    if (!fs::is_regular_file(status)) // the rename would replace a device by a file
        throw Failure(Quoted(m_target.string()) + " is not a regular file; " + m_option +
                      " takes a regular file");
    if (!m_replace)
        throw Failure(Quoted(m_target.string()) + " exists; --force overwrites it");
}

// In the target's directory, so that a rename works. The name is not derived from the target's, which may
// already have the maximum length.
void Output::OpenTemporary() {
    std::random_device source;
    errno = EEXIST;
    for (int attempt = 0; !m_stream && errno == EEXIST && attempt < 100; ++attempt) {
        m_temporary = m_target.parent_path() / (".fmcache-" + std::to_string(source()) + ".part");
        m_stream = OpenNew(m_temporary);
    }
    if (m_stream)
        return;
    const int error = errno;
    m_temporary.clear();
    Fail(error);
}

void Output::Fail(int error) const {
    CheckStop(); // a write interrupted by a stop signal is not an error
    const std::string name = m_target == "-" ? "standard output" : Quoted(m_target.string());
    throw Failure("cannot write " + name + ": " + ErrorText(error));
}

void Output::Write(std::string_view bytes) {
    if (!bytes.empty() && std::fwrite(bytes.data(), bytes.size(), 1, m_stream) != 1)
        Fail(errno);
}

void Output::Commit() {
    if (m_temporary.empty()) {
        if (std::fflush(m_stream) != 0)
            Fail(errno);
        return;
    }
    std::FILE* stream = m_stream;
    m_stream = nullptr;
    if (std::fclose(stream) != 0)
        Fail(errno);
    CheckTarget(); // the target may have been created since
    std::error_code error;
    // A rename would replace a target that appears now; a link never does.
    if (!m_replace)
        fs::create_hard_link(m_temporary, m_target, error);
    if (!m_replace && !error)
        return; // the destructor removes the temporary name
    if (error == std::errc::file_exists)
        CheckTarget();
    fs::rename(m_temporary, m_target, error); // the file system may have no links
    if (error)
        Fail(error.value());
    m_temporary.clear();
}
