// Share modes between handles of one process and between processes.
//
// What a handle has and what it denies stands as shared locks on bytes far behind any data, owned
// by the open file description: two handles of one process see each other, nothing is left behind
// when a process dies, and closing one handle takes no lock from another.
//
// Whoever asks first sets its own locks and then looks for those of others. So two that do not
// agree are never both let in, even where there is no gate; the gate keeps them from turning each
// other away.
#pragma once

#include "platform/platform.h"

#include <sys/stat.h>

namespace posix {

// What a handle has of a file, and what it denies others.
struct Claim {
    DWORD dwAccess;       // GENERIC_READ, GENERIC_WRITE
    DWORD dwShare;        // FILE_SHARE_...
    bool bRemoves;        // delete on close
    bool bEmpties;        // empties the file at its opening: nobody may deny writing at that moment
    bool bWholeFileAlone; // for a removal or a renaming: no other handle at all
};

// Lets one at a time through, for the file behind a descriptor.
class Gate {
public:
    // Waits at most about two seconds.
    Gate(int fd, struct stat const& status);
    ~Gate();
    Gate(Gate const&) = delete;
    Gate& operator=(Gate const&) = delete;

    // False if another did not leave it in time.
    bool passed() const { return m_bPassed; }

private:
    int m_fd;
    bool m_bHeld = false;
    bool m_bPassed = false;
};

// Sets the locks of the claim on the descriptor, which must be readable. NO_ERROR, or
// ERROR_SHARING_VIOLATION if another handle is in the way: the locks go with the descriptor, which
// the caller then closes. A file system without such locks guards nothing, and every claim is
// granted.
DWORD claim(int fd, Claim const& wanted);

// Whether the claim meets one of another handle, in the same way. Sets nothing.
DWORD test_claim(int fd, Claim const& wanted);

// Gives up all locks of claims on the descriptor. They would go with its last copy by themselves,
// but that may be in another process.
void take_back_claim(int fd);

} // namespace posix
