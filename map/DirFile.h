// The .DIR file as it lies on the disk. No operation of the driver gives its entries, so its own
// code judges them here.
#pragma once

#include "host/DirMap.h"

namespace ffdhost {

// The blocks of a .DIR file; nothing if there is none or it names no block, as before the first
// edit. Throws a Failure with FFD_DIRECTORY_MISMATCH if the file is damaged, and with
// FFD_FILE_IO_ERROR if it can't be read or the name is that of a link or no regular file.
std::optional<DirMap> read_dir_file(std::filesystem::path const& path);

// The same with the bytes of the file.
std::optional<DirMap> parse_dir_file(std::filesystem::path const& path,
                                     std::vector<uint8_t> const& bytes);

} // namespace ffdhost
