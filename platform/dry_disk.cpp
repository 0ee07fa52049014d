#define KIV_PLATFORM_OWN_CALLS
#include "platform/dry_disk.h"

#include <algorithm>
#include <utility>

namespace dry {
namespace {

// Whether a claim agrees with those of the handles that this layer has given out.
bool may_share(File const& file, DWORD dwAccess, DWORD dwShare) {
    auto const denied = [](DWORD dwShared) {
        return ((dwShared & FILE_SHARE_READ) != 0 ? 0 : GENERIC_READ) |
               ((dwShared & FILE_SHARE_WRITE) != 0 ? 0 : GENERIC_WRITE);
    };
    return std::none_of(state().handles.begin(), state().handles.end(), [&](auto const& each) {
        Handle const& other = each.second;
        return other.pFile.get() == &file &&
               ((dwAccess & denied(other.dwShare)) != 0 || (other.dwAccess & denied(dwShare)) != 0);
    });
}

bool is_open(File const& file) {
    return std::any_of(state().handles.begin(), state().handles.end(),
                       [&](auto const& each) { return each.second.pFile.get() == &file; });
}

// NO_ERROR in place of a missing permission that counts as given.
DWORD pardoned(DWORD dwError) {
    bool const bDenied = dwError == ERROR_ACCESS_DENIED || dwError == ERROR_WRITE_PROTECT;
    return bDenied && state().bAllPermitted ? DWORD{NO_ERROR} : dwError;
}

} // namespace

State& state() {
    static State theState;
    return theState;
}

bool over_real_disk() {
    return state().disk == Disk::Real;
}

BOOL fail(char const* pszCall, std::string const& file, DWORD dwError) {
    if (dwError != ERROR_FILE_NOT_FOUND && !file.empty() && over_real_disk()) {
        state().failures.push_back({pszCall, file, dwError});
    }
    SetLastError(dwError);
    return FALSE;
}

Name* find_name(LPCSTR pszPath) {
    for (Name& name : state().names) {
        if (PlatformSameFileName(name.path.c_str(), pszPath)) {
            return &name;
        }
    }
    return nullptr;
}

std::string absolute(LPCSTR pszPath) {
    if (find_name(pszPath) != nullptr) {
        return pszPath;
    }
    char szFull[4096];
    DWORD const dwLength = GetFullPathNameA(pszPath, sizeof szFull, szFull, nullptr);
    return dwLength > 0 && dwLength < sizeof szFull ? szFull : pszPath;
}

void note(Change::Kind kind, File const& file, std::string newName) {
    if (over_real_disk()) {
        state().changes.push_back({kind, file.name, std::move(newName), 0, 0, file.contents.size(),
                                   !file.realName.empty()});
    }
}

void note_write(File const& file, uint64_t ullFileOffset, uint64_t ullBytes) {
    if (!over_real_disk()) {
        return;
    }
    std::vector<Change>& changes = state().changes;
    if (!changes.empty()) {
        Change& last = changes.back();
        if (last.kind == Change::Kind::Written && last.file == file.name &&
            last.ullFileOffset + last.ullBytes == ullFileOffset) {
            last.ullBytes += ullBytes;
            last.ullFileBytes = file.contents.size();
            return;
        }
    }
    changes.push_back({Change::Kind::Written, file.name, "", ullFileOffset, ullBytes,
                       file.contents.size(), !file.realName.empty()});
}

DWORD look(std::string const& path, DWORD dwAccess, DWORD dwShare, HANDLE& hFile) {
    if (!over_real_disk()) {
        return ERROR_FILE_NOT_FOUND;
    }
    hFile = PlatformLookAtFile(path.c_str(), dwAccess, dwShare);
    if (hFile == INVALID_HANDLE_VALUE && pardoned(GetLastError()) == NO_ERROR) {
        hFile = PlatformLookAtFile(path.c_str(), dwAccess & ~GENERIC_WRITE, dwShare);
        if (hFile == INVALID_HANDLE_VALUE && pardoned(GetLastError()) == NO_ERROR) {
            return ERROR_FILE_NOT_FOUND; // what can't be read is passed over
        }
    }
    return hFile == INVALID_HANDLE_VALUE ? GetLastError() : NO_ERROR;
}

DWORD find_file(std::string const& path, DWORD dwAccess, DWORD dwShare,
                std::shared_ptr<File>& pFile) {
    Name* const pName = find_name(path.c_str());
    if (pName != nullptr && pName->pFile == nullptr) {
        return ERROR_FILE_NOT_FOUND;
    }
    bool const bKnown = pName != nullptr;
    if (bKnown && !may_share(*pName->pFile, dwAccess, dwShare)) {
        return ERROR_SHARING_VIOLATION;
    }
    if (bKnown && pName->pFile->realName.empty()) {
        pFile = pName->pFile;
        return NO_ERROR;
    }
    std::string const& onDisk = bKnown ? pName->pFile->realName : path;
    HANDLE hFile = INVALID_HANDLE_VALUE;
    DWORD dwError = look(onDisk, dwAccess, dwShare, hFile);
    if (dwError != NO_ERROR) {
        return dwError;
    }
    if (bKnown) {
        CloseHandle(hFile);
        pFile = pName->pFile;
        return NO_ERROR;
    }
    PlatformFileIdentity identity = {};
    dwError = PlatformGetFileIdentity(hFile, &identity) ? NO_ERROR : GetLastError();
    auto const pReal = std::make_shared<RealFile const>(hFile, path);
    if (dwError == NO_ERROR) {
        dwError = pReal->error();
    }
    if (dwError != NO_ERROR) {
        return dwError;
    }
    pFile = std::make_shared<File>();
    pFile->contents = Contents(pReal);
    pFile->name = path;
    pFile->realName = path;
    pFile->ullRealBytes = pReal->size();
    pFile->identity = identity;
    state().names.push_back({path, pFile});
    return NO_ERROR;
}

DWORD test_creation(std::string const& path) {
    Name const* const pName = find_name(path.c_str());
    if (pName != nullptr && pName->pFile != nullptr) {
        return ERROR_FILE_EXISTS;
    }
    // What was removed here is still on the disk, and whoever may remove may make.
    bool const bAsked = pName == nullptr && over_real_disk() && !state().bAllPermitted;
    return bAsked ? PlatformTestCreation(path.c_str()) : DWORD{NO_ERROR};
}

void give_name(std::string const& path, std::shared_ptr<File> const& pFile) {
    Name* const pName = find_name(path.c_str());
    if (pName != nullptr) {
        *pName = {path, pFile};
    } else {
        state().names.push_back({path, pFile});
    }
    if (pFile != nullptr) {
        pFile->name = path;
    }
}

namespace {

DWORD make_file(std::string const& path, std::shared_ptr<File>& pFile) {
    DWORD const dwError = test_creation(path);
    if (dwError != NO_ERROR) {
        return dwError;
    }
    pFile = std::make_shared<File>();
    pFile->identity = {~uint64_t{0}, ++state().ullFilesMade, 0};
    give_name(path, pFile);
    return NO_ERROR;
}

} // namespace

DWORD open_file(std::string const& path, DWORD dwDisposition, Handle& handle, bool& bMade) {
    bool const bEmpties = dwDisposition == CREATE_ALWAYS || dwDisposition == TRUNCATE_EXISTING;
    DWORD dwError = ERROR_FILE_NOT_FOUND;
    if (dwDisposition != CREATE_NEW) {
        dwError = find_file(path, handle.dwAccess | (bEmpties ? GENERIC_WRITE : 0), handle.dwShare,
                            handle.pFile);
    }
    bool const bMakes = dwDisposition == CREATE_NEW || dwDisposition == CREATE_ALWAYS ||
                        dwDisposition == OPEN_ALWAYS;
    bMade = dwError == ERROR_FILE_NOT_FOUND && bMakes;
    if (bMade) {
        dwError = make_file(path, handle.pFile);
    }
    if (dwError == NO_ERROR && bEmpties && !bMade && handle.pFile->contents.size() > 0) {
        handle.pFile->contents = Contents();
        note(Change::Kind::Resized, *handle.pFile);
    }
    return dwError;
}

DWORD find_closed_file(std::string const& path, std::shared_ptr<File>& pFile) {
    DWORD const dwError = find_file(path, 0, FILE_SHARE_READ | FILE_SHARE_WRITE, pFile);
    if (dwError != NO_ERROR) {
        return dwError;
    }
    if (is_open(*pFile)) {
        return ERROR_SHARING_VIOLATION;
    }
    return pFile->realName.empty() ? NO_ERROR
                                   : pardoned(PlatformTestRemoval(pFile->realName.c_str()));
}

void start(Disk disk) {
    uintptr_t const nHandlesGiven = state().nHandlesGiven;
    state() = {};
    state().disk = disk;
    state().nHandlesGiven = nHandlesGiven;
}

std::vector<Change> const& changes() {
    return state().changes;
}

std::vector<Failure> const& failures() {
    return state().failures;
}

void pretend_permissions(bool bAll) {
    state().bAllPermitted = bAll;
}

void pretend_free_bytes(std::optional<uint64_t> ullFreeBytes) {
    state().ullFreeBytes = ullFreeBytes;
}

Contents const* find(std::string const& path) {
    std::string const full = absolute(path.c_str());
    Name const* const pName = find_name(full.c_str());
    if (pName != nullptr) {
        return pName->pFile != nullptr ? &pName->pFile->contents : nullptr;
    }
    std::shared_ptr<File> pFile;
    DWORD const dwError = find_file(full, 0, FILE_SHARE_READ | FILE_SHARE_WRITE, pFile);
    return dwError == NO_ERROR ? &pFile->contents : nullptr;
}

std::vector<std::string> names() {
    std::vector<std::string> all;
    for (Name const& name : state().names) {
        if (name.pFile != nullptr && name.pFile->realName.empty()) {
            all.push_back(name.path);
        }
    }
    std::sort(all.begin(), all.end());
    return all;
}

unsigned open_handles() {
    return static_cast<unsigned>(state().handles.size());
}

unsigned mapped_views() {
    return static_cast<unsigned>(state().views.size());
}

} // namespace dry
