// The copy of a dictation that is kept before it is recovered.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace ffdhost {

// Copies files of the sound file's folder, the sound file and what lies beside it, into a new
// folder there: in it the copy can be checked and recovered as the original can. The folder has the
// stem of the sound file and ".kept", or ".kept1" and so on. Names that do not exist are passed
// over. Gives the copies, which are as private as the originals. Throws a Failure if
// anything is no regular file or can't be copied; then no copy is left.
std::vector<std::filesystem::path> keep_copy(std::string const& soundFile,
                                             std::vector<std::string> const& names);

// The folder that the next copy will have.
std::filesystem::path next_kept_folder(std::string const& soundFile);

} // namespace ffdhost
