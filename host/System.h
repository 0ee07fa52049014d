// What the host needs of the operating system beyond the C++ library. The one place of the host
// that knows which system it runs on.
#pragma once

#include <filesystem>
#include <string>

namespace ffdhost {

// The name under which the driver is built on this system.
extern char const* const kDriverFileName;

// The directory of the running program; the working directory if the system does not tell.
std::filesystem::path program_directory();

// Whether a person is watching stderr.
bool stderr_is_terminal();

// Keeps the system from translating line ends in what goes to stdout.
void make_stdout_binary();

// Ends the process on the spot, without a word to any library.
[[noreturn]] void end_process(int exitCode);

} // namespace ffdhost
