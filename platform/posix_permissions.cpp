// Who may read and write a file: the mode, the group, the owner, and the access list.
#include "platform/platform.h"
#include "platform/posix_errors.h"
#include "platform/posix_handles.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace posix {
namespace {

constexpr char ACCESS_LIST[] = "system.posix_acl_access";

// An access list is handed out by the system as a version and then entries.
struct ListEntry {
    uint16_t tag;
    uint16_t permissions;
    uint32_t id;
};
constexpr size_t LIST_HEADER_BYTES = 4;
constexpr uint16_t OWNER = 0x01;
constexpr uint16_t OWNING_GROUP = 0x04;
constexpr uint16_t OTHERS = 0x20;
constexpr unsigned EXECUTE = 1;
constexpr unsigned READ_AND_WRITE = 6;

struct List {
    std::array<char, 8192> bytes;
    ssize_t length = 0; // 0: the file has none

    template <typename Function> void for_each(Function function) {
        for (size_t at = LIST_HEADER_BYTES; at + sizeof(ListEntry) <= static_cast<size_t>(length);
             at += sizeof(ListEntry)) {
            ListEntry entry;
            memcpy(&entry, bytes.data() + at, sizeof entry);
            function(entry);
            memcpy(bytes.data() + at, &entry, sizeof entry);
        }
    }
};

bool tells_of_none(int iErrno) {
    return iErrno == ENODATA || iErrno == EOPNOTSUPP || iErrno == ENOSYS;
}

// NO_ERROR, or the error number.
DWORD read_list(int fd, List& list) {
    list.length = fgetxattr(fd, ACCESS_LIST, list.bytes.data(), list.bytes.size());
    if (list.length >= 0) {
        return NO_ERROR;
    }
    list.length = 0;
    return tells_of_none(errno) ? NO_ERROR : error_of(errno);
}

// Where there is no list to copy, the new file may still have one from its folder, whose entries a
// change of the mode would bring to life.
DWORD write_list(int fd, List const& list) {
    int const result = list.length > 0 ? fsetxattr(fd, ACCESS_LIST, list.bytes.data(),
                                                   static_cast<size_t>(list.length), 0)
                                       : fremovexattr(fd, ACCESS_LIST);
    return result == 0 || tells_of_none(errno) ? NO_ERROR : error_of(errno);
}

struct Kept {
    bool bOwner;
    bool bGroup;
};

// The process may be allowed to set only the group.
Kept give_owner(int fd, struct stat const& from) {
    constexpr uid_t SAME_OWNER = static_cast<uid_t>(-1);
    if (fchown(fd, from.st_uid, from.st_gid) == 0) {
        return {true, true};
    }
    bool const bGroup = fchown(fd, SAME_OWNER, from.st_gid) == 0;
    struct stat to {};
    if (fstat(fd, &to) != 0) {
        return {false, bGroup};
    }
    return {to.st_uid == from.st_uid, bGroup || to.st_gid == from.st_gid};
}

// Members of a group that could not be kept are others by now, and others are members of the new
// one: both get what both had.
void level_group_and_others(List& list, mode_t& mode) {
    unsigned common = mode >> 3 & mode & 7;
    list.for_each([&](ListEntry const& entry) {
        if (entry.tag == OWNING_GROUP) {
            common &= entry.permissions;
        }
    });
    list.for_each([&](ListEntry& entry) {
        if (entry.tag == OWNING_GROUP || entry.tag == OTHERS) {
            entry.permissions = static_cast<uint16_t>(common);
        }
    });
    // Beside a list these bits of the mode are the most that it grants.
    mode_t const group = list.length > 0 ? mode & 0070 : common << 3;
    mode = (mode & ~mode_t{0077}) | group | common;
}

// What can be read and written, and by its owner in any case, without whom nobody could go on.
void make_companion(List& list, mode_t& mode) {
    mode = (mode & 0666) | S_IRUSR | S_IWUSR;
    list.for_each([](ListEntry& entry) {
        unsigned const added = entry.tag == OWNER ? READ_AND_WRITE : 0;
        entry.permissions = static_cast<uint16_t>((entry.permissions & ~EXECUTE) | added);
    });
}

DWORD copy_permissions(int fdFrom, int fdTo, bool bCompanion) {
    struct stat status {};
    if (fstat(fdFrom, &status) != 0) {
        return error_of(errno);
    }
    List list;
    DWORD dwError = read_list(fdFrom, list);
    if (dwError != NO_ERROR) {
        return dwError;
    }
    mode_t mode = status.st_mode & 07777;
    // The owner goes first: a change of it clears the set-id bits, which only the same owner may
    // keep.
    Kept const kept = give_owner(fdTo, status);
    if (!kept.bOwner || !kept.bGroup) {
        mode &= ~mode_t{S_ISUID | S_ISGID};
    }
    if (!kept.bGroup) {
        level_group_and_others(list, mode);
    }
    if (bCompanion) {
        make_companion(list, mode);
    }
    dwError = write_list(fdTo, list);
    if (dwError != NO_ERROR) {
        return dwError;
    }
    return fchmod(fdTo, mode) == 0 ? NO_ERROR : error_of(errno);
}

} // namespace
} // namespace posix

BOOL PlatformCopyPermissions(HANDLE hFrom, HANDLE hTo, bool bCompanion) {
    posix::ObjectUse const from(hFrom, posix::Kind::File);
    posix::ObjectUse const to(hTo, posix::Kind::File);
    if (!from || !to) {
        return posix::fail(ERROR_INVALID_HANDLE);
    }
    if ((to->dwAccess & GENERIC_WRITE) == 0) {
        return posix::fail(ERROR_ACCESS_DENIED);
    }
    DWORD const dwError = posix::copy_permissions(from->fd, to->fd, bCompanion);
    // A file's maker may change its mode, wherever the file system has such a thing.
    bool const bNoPermissions =
        dwError == ERROR_ACCESS_DENIED || dwError == ERROR_INVALID_PARAMETER;
    return dwError == NO_ERROR || bNoPermissions ? TRUE : posix::fail(dwError);
}
