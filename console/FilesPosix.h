// Between the sources that use POSIX calls.
#pragma once

#include <sys/types.h>

namespace ffdhost {

// Gives an open file, new and empty for all but its owner so far, the permissions of `like`, less
// `mask`, as far as they let nobody else in than those of `like` do. Never a set-id bit, and none
// to execute. A `like` that is no descriptor: the owner only.
void restrict_as(int file, int like, mode_t mask);

} // namespace ffdhost
