#include "System.h"

#include <cstdlib>
#include <system_error>

#if defined(_WIN32)

#include <windows.h>

#include <cstdio>
#include <fcntl.h>
#include <io.h>

namespace ffdhost {

char const* const kDriverFileName = "XKIVMP3.dll";

std::filesystem::path program_directory() {
    wchar_t name[MAX_PATH];
    DWORD const length = GetModuleFileNameW(nullptr, name, MAX_PATH);
    if (length == 0 || length == MAX_PATH) {
        return std::filesystem::current_path();
    }
    return std::filesystem::path(name).parent_path();
}

bool stderr_is_terminal() {
    return _isatty(_fileno(stderr)) != 0;
}

void make_stdout_binary() {
    _setmode(_fileno(stdout), _O_BINARY);
}

void end_process(int exitCode) {
    // Leaving by the C library would still let the driver know.
    TerminateProcess(GetCurrentProcess(), static_cast<UINT>(exitCode));
    std::abort();
}

} // namespace ffdhost

#else

#include <unistd.h>

namespace ffdhost {

char const* const kDriverFileName = "libxkivmp3.so";

std::filesystem::path program_directory() {
    std::error_code error;
    std::filesystem::path const program = std::filesystem::read_symlink("/proc/self/exe", error);
    return error ? std::filesystem::current_path() : program.parent_path();
}

bool stderr_is_terminal() {
    return isatty(STDERR_FILENO) != 0;
}

void make_stdout_binary() {}

void end_process(int exitCode) {
    _exit(exitCode);
}

} // namespace ffdhost

#endif
