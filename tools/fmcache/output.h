// The file that a verb writes: it appears under its name when it is whole, or not at all.
#pragma once

#include <cstdio>
#include <filesystem>
#include <string_view>

class Output {
public:
    /// `name` "-" stands for standard output. Throws Failure, also when the file exists and `replace` is
    /// not wanted.
    Output(const std::filesystem::path& name, bool replace);
    /// Removes what was written, unless it was committed.
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    /// Both throw Failure.
    void Write(std::string_view bytes);
    void Commit();

private:
    void CheckTarget() const;
    void OpenTemporary();
    [[noreturn]] void Fail(int error) const;

    std::filesystem::path m_target;
    std::filesystem::path m_temporary; // empty for standard output, and once there is none any more
    const bool m_replace;
    std::FILE* m_stream = nullptr;
};
