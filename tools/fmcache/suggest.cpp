#include "suggest.h"

#include <algorithm>

namespace {

// The Damerau-Levenshtein distance without overlapping exchanges.
size_t Distance(const std::string& a, const std::string& b) {
    std::vector<std::vector<size_t>> cost(a.size() + 1, std::vector<size_t>(b.size() + 1));
    for (size_t i = 0; i <= a.size(); ++i) {
        for (size_t j = 0; j <= b.size(); ++j) {
            if (i == 0 || j == 0) {
                cost[i][j] = i + j;
                continue;
            }
            cost[i][j] = std::min({cost[i - 1][j] + 1, cost[i][j - 1] + 1,
                                   cost[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                cost[i][j] = std::min(cost[i][j], cost[i - 2][j - 2] + 1);
        }
    }
    return cost[a.size()][b.size()];
}

} // namespace

std::string FindSimilar(const std::string& word, const std::vector<std::string>& candidates) {
    std::string best;
    size_t least = 3;
    for (const std::string& each : candidates) {
        const size_t distance = Distance(word, each);
        if (distance < least && distance < each.size() / 2 + 1) {
            least = distance;
            best = each;
        }
    }
    return best;
}
