// Takes the waiting for the disk out of the tests that run thousands of sessions: they end
// processes and not the machine, so that what was written is there for the next process anyway.
#include <unistd.h>

extern "C" int fsync(int /*fd*/) {
    return 0;
}

extern "C" int fdatasync(int /*fd*/) {
    return 0;
}
