// What the tool needs of the system beyond the standard library.
#pragma once

#include <cstdio>
#include <filesystem>

/// Whether standard error is a terminal, where a line can be drawn over.
bool IsErrorTerminal();

/// Whether standard output is a terminal, and how many columns it has; 80 when nobody knows.
bool IsOutputTerminal();
unsigned OutputWidth();

/// Whether this process may make files in the directory, or change the file. Both set `errno` when it
/// may not.
bool CanWriteInto(const std::filesystem::path& dir);
bool CanWrite(const std::filesystem::path& file);

/// A new file to write to; null with `errno` when there is one of that name, or it cannot be made.
std::FILE* OpenNew(const std::filesystem::path& file);

/// From now on standard output and standard error take bytes as they are.
void PrepareStreams();

/// From now on the signals that ask a program to stop set a mark, and reaching a limit on the size of
/// files is an error of the write and not the end of the process.
void CatchSignals();

/// Throws Interrupted once the user has asked to stop.
void CheckStop();
