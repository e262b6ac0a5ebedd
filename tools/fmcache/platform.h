// System functions that the standard library does not have.
#pragma once

#include <cstdint>
#include <cstdio>
#include <filesystem>

/// Whether standard input, standard error is a terminal.
bool IsInputTerminal();
bool IsErrorTerminal();

/// Whether standard output is a terminal, and its width in columns; 80 if unknown.
bool IsOutputTerminal();
unsigned OutputWidth();

/// Whether this process may create files in the directory, or write the file. Set `errno` if not.
bool CanWriteInto(const std::filesystem::path& dir);
bool CanWrite(const std::filesystem::path& file);

/// The bytes that the file system has allocated for a file, which a removal frees; 0 if there is no such file.
uint64_t AllocatedBytes(const std::filesystem::path& file);

/// Creates a file for writing. Null, with `errno`, if it exists or cannot be created.
std::FILE* OpenNew(const std::filesystem::path& file);

/// Creates a file without a name for writing and reading, in the directory for temporary files (TMPDIR). Null, with
/// `errno`, on failure.
std::FILE* OpenTemporary();

/// Switches the standard streams to binary mode.
void PrepareStreams();

/// Makes stop signals set a flag for CheckStop, and a file-size limit an error of the write instead of the
/// end of the process.
void CatchSignals();

/// Throws Interrupted after a stop signal.
void CheckStop();
