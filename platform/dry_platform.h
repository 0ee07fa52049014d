// The platform layer that only pretends: a third sibling of those of Linux and Windows, over either
// of them. It reads the real files and keeps every change in memory, so that a driver above it
// opens, edits and closes as ever, and nothing on the disk has changed when it is done.
//
// It tests what other programs claim, and claims nothing itself. What is made, written, renamed or
// removed is there for every later call, but only of this layer. Copies are kept as references to
// the file that they come from, and so is what is written just as it was read; other bytes are held
// in memory.
//
// One process, one thread, one state. For tests the disk underneath can be an empty one.
#pragma once

#include "platform/dry_contents.h"
#include "platform/platform.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace dry {

// A change that the disk would have seen.
struct Change {
    enum class Kind { Made, Written, Resized, Permissions, Renamed, Removed };

    Kind kind;
    std::string file;    // absolute
    std::string newName; // of a rename, absolute
    uint64_t ullFileOffset = 0;
    uint64_t ullBytes = 0;     // of a write; writes that go on where one has ended are one change
    uint64_t ullFileBytes = 0; // the size of the file then
    bool bReal = false;        // the file is one of the disk, not one that was made here
};

// A call that failed, to be able to say why.
struct Failure {
    char const* pszCall; // its name in platform.h
    std::string file;    // absolute
    DWORD dwError;
};

enum class Disk { Real, Empty };

// Forgets everything, and begins over this disk. Every handle must be closed.
void start(Disk disk);

// What has changed since the start, in order, without files that were made to vanish with their
// handle.
std::vector<Change> const& changes();

// The calls on a path, or on a handle, that failed since the start for another reason than that a
// file is missing; in order.
std::vector<Failure> const& failures();

// The free space that the layer reports from now on; nothing: that of the disk.
void pretend_free_bytes(std::optional<uint64_t> ullFreeBytes);

// Whether this user counts as one who may write, make and remove everything from now on. What can't
// be read counts as missing then.
void pretend_permissions(bool bAll);

// The bytes that a file would have now; null if there would be none. What cannot be looked at
// counts as none.
Contents const* find(std::string const& path);

// All names that were made here and are there, sorted.
std::vector<std::string> names();

// What is open at this moment; mappings count as handles.
unsigned open_handles();
unsigned mapped_views();

} // namespace dry
