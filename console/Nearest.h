// Words that were meant where others were typed.
#pragma once

#include <string>
#include <vector>

namespace ffdhost {

// "; did you mean 'info'?" with the known word that is nearest, or nothing if none is near.
std::string did_you_mean(std::string const& word, std::vector<std::string> const& known);

} // namespace ffdhost
