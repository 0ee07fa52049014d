// Where the driver is and how it is loaded.
#pragma once

#include <ffd.hpp>

#include <filesystem>

namespace ffdhost {

using ffd::Driver;

// Loads the driver; an empty path means the one beside this program, or where both were installed.
// Throws a Failure of the operation "load driver".
Driver load_driver(std::filesystem::path const& path);

} // namespace ffdhost
