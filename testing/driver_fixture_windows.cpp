#include "testing/driver_fixture.h"

unsigned process_id() {
    return GetCurrentProcessId();
}

void set_temp_directory(std::string const& path) {
    SetEnvironmentVariableA("TMP", path.c_str());
}

namespace {

void* g_abJump[5]; // of the compiler's own jump, which runs no destructor on its way

int run_to_stop(std::function<void()> const& session) {
    platform_faults::set_end_of_process([] { __builtin_longjmp(g_abJump, 1); });
    if (__builtin_setjmp(g_abJump) != 0) {
        return 86;
    }
    session();
    return ::testing::Test::HasFailure() ? 1 : 0;
}

} // namespace

// In this process: what the driver has open is closed behind its back, which is all of a crash that
// the disk sees. The driver's objects stay behind; nothing uses them again.
int DriverTest::crash_after(std::function<void()> const& session) {
    EXPECT_EQ(platform_faults::open_handles(), 0u) << "the end of a process closes these too";
    std::vector<FFDHandle> const before = m_open;
    int const nExitCode = run_to_stop(session);
    platform_faults::abandon_everything();
    platform_faults::reset();
    m_open = before;
    return nExitCode;
}
