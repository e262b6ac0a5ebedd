// Removal of one cached file, for all verbs that remove files.
#pragma once

#include <filesystem>
#include <string>

#include "RtString.h"

/// Removes the two files of a cached file. Without `force`, a file that another process has open is not removed.
/// Returns why the file is still there, in the words of a user; empty if it is gone.
std::string RemoveFromStore(const std::filesystem::path& store, const CRtString& stem, bool force);

constexpr char IN_USE[] = "in use by another process";
