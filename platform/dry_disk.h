// What the calls of the layer that only pretends work on: names, files, handles, and the changes
// that the disk would have seen. For dry_platform.cpp alone.
#pragma once

#include "platform/dry_platform.h"

#include <ctime>
#include <map>
#include <memory>
#include <set>

namespace dry {

struct File {
    Contents contents;
    std::string name;          // absolute; the one it has, or had last
    std::string realName;      // on the disk; empty for one that was made here
    uint64_t ullRealBytes = 0; // on the disk
    PlatformFileIdentity identity = {};
};

struct Name {
    std::string path;            // absolute
    std::shared_ptr<File> pFile; // null if it is gone
};

struct Handle {
    std::shared_ptr<File> pFile; // null in a mapping
    DWORD dwAccess = 0;
    DWORD dwShare = 0;
    bool bDeleteOnClose = false;
    uint64_t ullFileOffset = 0;
    size_t nMappingBytes = 0;
};

// What the reads before have put into the caller's memory, as long as each went on where the one in
// front had ended, there and in the file.
struct LastRead {
    std::shared_ptr<File> pFile;
    char const* pBuffer = nullptr;
    DWORD dwBytes = 0;
    uint64_t ullFileOffset = 0;
};

struct State {
    Disk disk = Disk::Real;
    std::vector<Name> names; // few: all that was asked for
    std::map<uintptr_t, Handle> handles;
    uintptr_t nHandlesGiven = 0;
    std::set<void const*> views;
    LastRead lastRead;
    std::vector<Change> changes;
    std::vector<Failure> failures;
    std::optional<uint64_t> ullFreeBytes;
    bool bAllPermitted = false;
    uint64_t ullSleptMs = 0;
    uint64_t ullFilesMade = 0;
    time_t emptyDiskNow = 1700000000;
};

State& state();
bool over_real_disk();

// Sets the error of a call, and keeps it for failures(). FALSE.
BOOL fail(char const* pszCall, std::string const& file, DWORD dwError);

// The absolute form of a path. One that has none stays as it is, and meets its error later.
std::string absolute(LPCSTR pszPath);

// The entry of a name that was asked for before; null if it was not.
Name* find_name(LPCSTR pszPath);

// Gives a name to a file; without a file, the name is gone from now on.
void give_name(std::string const& path, std::shared_ptr<File> const& pFile);

// Looks at a file of the disk, subject to the claims of those who have it open.
DWORD look(std::string const& path, DWORD dwAccess, DWORD dwShare, HANDLE& hFile);

// The file of a name, which may be asked for with such a claim. NO_ERROR; 2 if there is none; else
// why not.
DWORD find_file(std::string const& path, DWORD dwAccess, DWORD dwShare,
                std::shared_ptr<File>& pFile);

// A file to be removed or renamed. NO_ERROR, or why it cannot be.
DWORD find_closed_file(std::string const& path, std::shared_ptr<File>& pFile);

// Whether a name is free to be made: NO_ERROR, 80, or why nothing can be made there.
DWORD test_creation(std::string const& path);

// Finds, empties or makes the file of a handle whose claim is set, as CreateFileA with this
// disposition does. NO_ERROR, or why not.
DWORD open_file(std::string const& path, DWORD dwDisposition, Handle& handle, bool& bMade);

// Changes that the disk would have seen.
void note(Change::Kind kind, File const& file, std::string newName = "");
void note_write(File const& file, uint64_t ullFileOffset, uint64_t ullBytes);

} // namespace dry
