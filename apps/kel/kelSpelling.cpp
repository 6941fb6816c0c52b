#include "kelSpelling.h"

#include <algorithm>

namespace Zt::KelApp {

std::size_t editDistance(const std::string& a, const std::string& b) {
    // Three rows of the table suffice: a swap looks two rows back.
    std::vector<std::size_t> before(b.size() + 1), previous(b.size() + 1), current(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j) previous[j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i) {
        current[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t change = a[i - 1] == b[j - 1] ? 0 : 1;
            current[j] = std::min({previous[j] + 1, current[j - 1] + 1, previous[j - 1] + change});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                current[j] = std::min(current[j], before[j - 2] + 1);
        }
        std::swap(before, previous);
        std::swap(previous, current);
    }
    return previous[b.size()];
}

std::optional<std::string> nearestName(const std::string& word, const std::vector<std::string>& candidates) {
    if (std::find(candidates.begin(), candidates.end(), word) != candidates.end()) return std::nullopt;
    const std::size_t allowed = std::max<std::size_t>(1, word.size() / 3);
    std::optional<std::string> best;
    std::size_t bestDistance = allowed + 1;
    for (const std::string& candidate : candidates) {
        const std::size_t distance = editDistance(word, candidate);
        if (distance < bestDistance) {
            best = candidate;
            bestDistance = distance;
        }
    }
    return best;
}

}  // namespace Zt::KelApp
