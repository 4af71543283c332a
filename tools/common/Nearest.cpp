#include "tools/common/Nearest.h"

#include <algorithm>
#include <cstddef>
#include <utility>

namespace quorvane::tools {

namespace {

constexpr std::size_t kMostMistakes = 2;

/// The optimal string alignment distance, by dynamic programming over three rows.
std::size_t mistakes(std::string_view word, std::string_view meant) {
    std::vector<std::size_t> before, above, row(meant.size() + 1);
    for (std::size_t at = 0; at <= meant.size(); ++at) row[at] = at;
    for (std::size_t i = 1; i <= word.size(); ++i) {
        before = std::move(above);
        above = row;
        row[0] = i;
        for (std::size_t j = 1; j <= meant.size(); ++j) {
            const std::size_t changed = above[j - 1] + (word[i - 1] == meant[j - 1] ? 0 : 1);
            row[j] = std::min({above[j] + 1, row[j - 1] + 1, changed});
            if (i > 1 && j > 1 && word[i - 1] == meant[j - 2] && word[i - 2] == meant[j - 1])
                row[j] = std::min(row[j], before[j - 2] + 1);
        }
    }
    return row.back();
}

}  // namespace

std::optional<std::string> nearest(std::string_view word, const std::vector<std::string>& known) {
    std::optional<std::string> found;
    std::size_t fewest = kMostMistakes + 1;
    for (const std::string& candidate : known) {
        const std::size_t count = mistakes(word, candidate);
        if (count >= fewest) continue;
        fewest = count;
        found = candidate;
    }
    return found;
}

}  // namespace quorvane::tools
