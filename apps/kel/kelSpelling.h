// The nearest spelling among known names, for hints such as "did you mean `sin`?": a word that
// is one or two edits (an insertion, a deletion, a change or two swapped neighbours) from a
// name is taken for a typo of it; anything further gets no suggestion rather than a wild one.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace Zt::KelApp {

// Edits (insert, delete, change, swap two neighbours) that turn `a` into `b`.
std::size_t editDistance(const std::string& a, const std::string& b);

// The candidate closest to `word`, the first one on a tie; none when `word` is itself a
// candidate or the closest is more than a third of `word`'s length away (at least one edit).
std::optional<std::string> nearestName(const std::string& word, const std::vector<std::string>& candidates);

}  // namespace Zt::KelApp
