// An output file that appears under its name when it is complete, or not at all.
#pragma once

#include <cstdio>
#include <filesystem>
#include <string>
#include <string_view>

class Output {
public:
    /// `name` "-" is standard output. `option`: that names the file, for messages. Throws Failure, also if the file
    /// exists and `replace` is false.
    Output(const std::filesystem::path& name, const char* option, bool replace);
    /// Removes the temporary file, unless it was committed.
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
    std::filesystem::path m_temporary; // empty for standard output and after the rename
    const std::string m_option;
    const bool m_replace;
    std::FILE* m_stream = nullptr;
};
