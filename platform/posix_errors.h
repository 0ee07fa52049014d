// The platform's error numbers out of those of POSIX.
#pragma once

#include "platform/platform.h"

namespace posix {

// Numbers that the layer reports and the driver does not name.
constexpr DWORD ERROR_NUMBER_NOT_SAME_DEVICE = 17;

// The error number for a failure in which no path plays a part.
DWORD error_of(int iErrno);

// The error number for a failed call on a path; distinguishes a missing file from a missing
// directory.
DWORD error_of_path(int iErrno, char const* pszPath);

// Sets the last error; always false, for `return fail(...)`.
BOOL fail(DWORD dwError);

// The length of the part in front of the last component, the separator included; 0 if there is
// none.
size_t directory_length(char const* pszPath);

} // namespace posix
