#include "testing/driver_fixture.h"

#include <cstdlib>
#include <sys/wait.h>
#include <unistd.h>

unsigned process_id() {
    return static_cast<unsigned>(getpid());
}

void set_temp_directory(std::string const& path) {
    setenv("TMPDIR", path.c_str(), 1);
}

int DriverTest::crash_after(std::function<void()> const& session) {
    pid_t const child = fork();
    if (child == 0) {
        session();
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int nStatus = -1;
    waitpid(child, &nStatus, 0);
    return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
}
