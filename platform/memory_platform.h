// The platform layer once more, in memory: the same calls and outcomes for one process, without a
// disk underneath, for tests and fuzz targets that run millions of sessions. Linked in place of the
// layer that ships; memory_platform.cpp says what it leaves out.
#pragma once

#include "platform/platform.h"

#include <cstdint>
#include <string>
#include <vector>

namespace memory_platform {

// Forgets all files; every handle must be closed.
void reset();

// Files by their absolute path, without "." and "..". Each directory is there.
void put_file(std::string const& path, std::string contents);
std::string const& get_file(std::string const& path); // it must be there
bool has_file(std::string const& path);
std::vector<std::string> names(); // sorted

// What is open at this moment.
unsigned open_handles();
unsigned heap_blocks();
unsigned mapped_views();

} // namespace memory_platform
