// Commands that look at any number of files.
#pragma once

#include "host/commands.h"

#include <functional>
#include <string>
#include <vector>

namespace ffdhost {

// Of the exception that is being handled; `file` if it does not tell of one itself.
Failure current_failure(std::string const& file);

// Runs `one` for each file, and for each sound file directly in a folder: those that end in .mp3,
// and those that only a .DIR file or a close marker tells of, sorted by name. A file that fails
// keeps no other from its turn. With a folder or more than one file the text ends with a summary.
// The document has the documents of the files, and the exit code is the worst of theirs.
Outcome run_each(std::string const& command, std::vector<std::string> const& names, bool json,
                 std::function<Outcome(std::string const& file)> const& one);

} // namespace ffdhost
