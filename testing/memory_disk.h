// The disk of tests and fuzz targets that run millions of sessions: the layer that only pretends,
// over an empty disk. One process, no permissions, every directory is there, and every look at the
// clock finds a later second.
#pragma once

#include "platform/dry_platform.h"

#include <map>
#include <string>

namespace memory_disk {

// Contents by absolute path.
using Files = std::map<std::string, std::string>;

// The disk with these files and no other; every handle must be closed.
void begin(Files const& files = {});

void put(std::string const& path, std::string const& bytes);
std::string get(std::string const& path); // it must be there
bool has(std::string const& path);

Files all();

// What a process that dies now leaves to the next: all but the stored statuses, which are gone with
// their handles.
Files left_by_crash();

} // namespace memory_disk
