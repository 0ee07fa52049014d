// The close marker: what tells the next open for writing of a close that was interrupted.
// docs/formats.md shows its bytes.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace ffdhost {

struct Marker {
    std::filesystem::path path;
    uint64_t size = 0; // bytes
    // Not whole, or of another file: the next open sets it aside and believes nothing of it. All
    // below is of a whole one only.
    bool whole = false;
    uint32_t oldSize = 0; // bytes of the sound file before the close
    uint32_t newSize = 0; // bytes of the rebuilt file
    uint64_t newFingerprint = 0;
    std::filesystem::path soundFile;
    std::filesystem::path rebuiltFile;

    // Whether a file of this size is the rebuilt one, which is asked only of the sound file's
    // place.
    bool is_rebuilt(std::filesystem::path const& file, uint64_t fileSize) const;
};

// The marker beside a sound file; nothing if there is none. Throws a Failure with FFD_FILE_IO_ERROR
// if it can't be read.
std::optional<Marker> read_marker(std::string const& soundFile);

// The size of a regular file; nothing if there is no such name. A name that is something else, or
// can't be looked at, throws a Failure with FFD_FILE_IO_ERROR, as the driver fails then.
std::optional<uint64_t> size_of_file(std::filesystem::path const& path);

} // namespace ffdhost
