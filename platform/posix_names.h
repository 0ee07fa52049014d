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

// Copies the path, behind the working directory if it is relative. Null on failure, with errno set.
OwnedText absolute_path(char const* pszPath);

} // namespace posix
