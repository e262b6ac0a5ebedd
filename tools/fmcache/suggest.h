// Suggestions for mistyped verbs and options.
#pragma once

#include <string>
#include <vector>

/// The most similar candidate; empty if none differs by at most two characters that are missing, added, replaced or
/// exchanged.
std::string FindSimilar(const std::string& word, const std::vector<std::string>& candidates);
