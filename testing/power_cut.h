// Cutting the power of the disk in memory: all that a session changes is recorded in order, and
// what a cut in front of any change leaves on the disk can be had afterwards, as often as wanted.
//
// Names and sizes reach the disk in the order in which they change, as on a journalling file
// system, and with the flush of any file; bytes reach it with the flush of their file, before that
// each 512-byte sector by itself or in part, of this write or of an earlier one, or not at all.
//
// The disk can run full, too.
#pragma once

#include "testing/memory_disk.h"

#include <memory>
#include <optional>
#include <vector>

namespace power_cut {

// All that a file holds at one time.
using Bytes = std::shared_ptr<std::string const>;

struct Change {
    enum { Made, Written, Flushed, Renamed, Removed } kind;
    size_t nFile;
    std::string name; // that the file has then
    Bytes pBytes;     // of a file that was written
};

struct Record {
    std::vector<Change> before; // the files at the beginning, which count as flushed
    std::vector<Change> changes;
    std::map<std::string, size_t> names; // as they are now
    std::map<HANDLE, size_t> handles;    // no number is given twice
    size_t nFiles = 0;

    // What a cut in front of this change leaves on the disk. Which of all that is possible, the
    // seed says: 0 everything, as when only the process ends; 1 nothing that was not flushed.
    memory_disk::Files left(size_t nChange, unsigned nSeed) const;
};

// Begins a record with what is on the disk in memory now.
void record();

// Ends it. The number of changes so far can be had without.
Record take();
size_t changes();
bool is_recording();

// From now on there is room for so many bytes more; without a number, for any. A write that makes a
// file grow beyond that moves what fits and fails with ERROR_DISK_FULL. What is removed gives no
// room back.
void set_room(std::optional<uint64_t> ullBytes);

} // namespace power_cut
