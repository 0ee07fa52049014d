// The platform's error numbers out of those of POSIX.
#pragma once

#include "platform/platform.h"

#include <array>
#include <climits>

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

// The directory of a path: what stands in front of its last component, or "." if there is nothing.
// Empty if it is too long to be any.
class Folder {
public:
    explicit Folder(char const* pszPath);
    char const* name() const { return m_name.data(); }

private:
    std::array<char, PATH_MAX + 1> m_name;
};

} // namespace posix
