// The names of the driver's files beside a sound file.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace ffdhost {

// The file beside a sound file with its stem and another extension (dot included).
std::filesystem::path beside(std::string const& soundFile, std::string const& extension);

// Whether a name has that extension (in small letters, dot included), in letters of either case:
// some file systems take no heed of it.
bool ends_in(std::filesystem::path const& path, std::string const& extension);

// The .DIR file that belongs to a sound file. Files that differ in their extension share one.
std::filesystem::path dir_file_of(std::string const& soundFile);

// The marker of an interrupted close beside it.
std::filesystem::path marker_file_of(std::string const& soundFile);

// The size of the .DIR file beside a sound file; nothing if there is none. It is 0 as long as an
// open for writing has seen no edit. Throws a Failure with FFD_FILE_IO_ERROR if something else
// has the name.
std::optional<uint64_t> leftover_size(std::string const& soundFile);

} // namespace ffdhost
