#include "Driver.h"

#include "console/Status.h"
#include "console/System.h"

#include <stdexcept>

namespace ffdhost {

namespace {

[[noreturn]] void load_failed(std::filesystem::path const& path, FFDError status,
                              std::string const& words) {
    throw Failure("load driver", path.string(), status, words,
                  std::string("Put ") + kDriverFileName +
                      " and its trace library beside ffdhost, or name it with --driver.");
}

// Absolute, so that the system does not go looking for a bare name in its own places. Without a
// path the driver is beside the program, or where both were installed.
std::filesystem::path resolved(std::filesystem::path const& path) {
    if (!path.empty()) {
        return std::filesystem::absolute(path);
    }
    std::filesystem::path const own = program_directory();
    if (own.empty()) {
        load_failed(kDriverFileName, FFD_FILE_NOT_FOUND, "where this program lies can't be found");
    }
    std::filesystem::path const beside = own / kDriverFileName;
    std::filesystem::path const installed = own / FFDHOST_INSTALLED_DRIVER;
    std::error_code error;
    return !exists(beside, error) && exists(installed, error) ? installed : beside;
}

} // namespace

Driver load_driver(std::filesystem::path const& path) {
    std::filesystem::path const library = resolved(path);
    std::error_code error;
    if (!exists(library, error)) {
        load_failed(library, FFD_FILE_NOT_FOUND, "the driver does not exist");
    }
    try {
        return Driver(library);
    } catch (std::runtime_error const& reason) {
        load_failed(library, FFD_FILE_IO_ERROR, reason.what());
    }
}

} // namespace ffdhost
