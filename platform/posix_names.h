// What opening, removing and renaming have in common: a path, the file behind it, and the certainty
// that they still belong together.
#pragma once

#include "platform/posix_handles.h"

#include <sys/stat.h>

namespace posix {

// A race with another process sends an operation back to its start; so often, and no more.
constexpr int MOST_STARTS = 100;

// Whether the path still names the file with this status.
bool names_file(char const* pszPath, struct stat const& status);

// open(2) for what may turn out to be no regular file: it never waits, and nothing is inherited.
// The umask takes from the mode of a file that is made.
int open_descriptor(char const* pszPath, int iFlags, mode_t mode = 0);

// Copies the path, behind the working directory if it is relative. Null on failure, with errno set.
OwnedText absolute_path(char const* pszPath);

} // namespace posix
