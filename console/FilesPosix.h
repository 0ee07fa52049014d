// Between the sources that use POSIX calls.
#pragma once

#include <sys/types.h>

namespace ffdhost {

// The permissions of `like` as far as they let nobody else into the file than into `like`. Never a
// set-id bit, and none to execute. A `like` that is no descriptor: the owner only.
mode_t mode_as(int file, int like);

// Gives them to an open file that so far is its owner's only, whatever the folder gives to new
// ones.
void let_in(int file, mode_t mode);

} // namespace ffdhost
