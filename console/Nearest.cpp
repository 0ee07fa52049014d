#include "Nearest.h"

#include <algorithm>
#include <numeric>

namespace ffdhost {

namespace {

// Letters to put in, take out or change, from one word to the other.
size_t distance(std::string const& from, std::string const& to) {
    std::vector<size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 0; i < from.size(); ++i) {
        size_t diagonal = row[0]++;
        for (size_t j = 0; j < to.size(); ++j) {
            size_t const changed = diagonal + (from[i] == to[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({changed, row[j] + 1, row[j + 1] + 1});
        }
    }
    return row.back();
}

} // namespace

std::string did_you_mean(std::string const& word, std::vector<std::string> const& known) {
    size_t const dashes = std::min(word.find_first_not_of('-'), word.size());
    size_t least = 2 + (word.size() - dashes) / 3; // beyond that it is another word
    std::string nearest;
    for (std::string const& each : known) {
        if (size_t const far = distance(word, each); far < least) {
            least = far;
            nearest = each;
        }
    }
    return nearest.empty() ? "" : "; did you mean '" + nearest + "'?";
}

} // namespace ffdhost
