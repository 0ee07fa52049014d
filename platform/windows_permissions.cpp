// What a new file takes over from another one: its access list, its encryption, its attributes.
#include "platform/platform.h"

#include <memory>

namespace {

struct FreeLocal {
    void operator()(void* pv) const { LocalFree(pv); }
};
using SecurityDescriptor = std::unique_ptr<void, FreeLocal>;

// A handle that stayed open would keep its file from everybody: what is refused is tried once more.
void close(HANDLE hFile) {
    if (!CloseHandle(hFile)) {
        CloseHandle(hFile);
    }
}

// The access list of a file; null if its file system has none, or there's no memory for it.
SecurityDescriptor access_list_of(HANDLE hFile) {
    DWORD dwBytes = 0;
    GetKernelObjectSecurity(hFile, DACL_SECURITY_INFORMATION, nullptr, 0, &dwBytes);
    SecurityDescriptor list(dwBytes > 0 ? LocalAlloc(LMEM_FIXED, dwBytes) : nullptr);
    if (list != nullptr &&
        !GetKernelObjectSecurity(hFile, DACL_SECURITY_INFORMATION, list.get(), dwBytes, &dwBytes)) {
        list.reset();
    }
    return list;
}

bool get_attributes(HANDLE hFile, DWORD* pdwAttributes) {
    FILE_BASIC_INFO info = {};
    if (!GetFileInformationByHandleEx(hFile, FileBasicInfo, &info, sizeof info)) {
        return false;
    }
    *pdwAttributes = info.FileAttributes;
    return true;
}

// As it stands, with the marks of what was inherited: a list that is only handed to a new file gets
// the folder's entries besides. This needs a right that the handle of the file itself lacks.
bool set_access_list(HANDLE hFile, PSECURITY_DESCRIPTOR pList) {
    SECURITY_DESCRIPTOR_CONTROL control = 0;
    DWORD dwRevision = 0;
    if (GetSecurityDescriptorControl(pList, &control, &dwRevision) &&
        (control & SE_DACL_AUTO_INHERITED) != 0) {
        SetSecurityDescriptorControl(pList, SE_DACL_AUTO_INHERIT_REQ, SE_DACL_AUTO_INHERIT_REQ);
    }
    HANDLE const hOwner = ReOpenFile(hFile, READ_CONTROL | WRITE_DAC,
                                     FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, 0);
    if (hOwner == INVALID_HANDLE_VALUE) {
        return false;
    }
    bool const bSet = SetKernelObjectSecurity(hOwner, DACL_SECURITY_INFORMATION, pList) != FALSE;
    DWORD const dwError = GetLastError();
    close(hOwner);
    SetLastError(dwError);
    return bSet;
}

} // namespace

HANDLE PlatformCreatePrivateFile(LPCSTR lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                                 HANDLE hLike) {
    SecurityDescriptor list;
    DWORD dwAttributes = 0;
    if (hLike != nullptr) {
        list = access_list_of(hLike);
        if (!get_attributes(hLike, &dwAttributes)) {
            return INVALID_HANDLE_VALUE;
        }
    }
    SECURITY_ATTRIBUTES security = {sizeof security, list.get(), FALSE};
    if (list != nullptr) { // nothing from the folder besides
        SetSecurityDescriptorControl(list.get(), SE_DACL_PROTECTED, SE_DACL_PROTECTED);
    }
    DWORD const dwEncrypted = dwAttributes & FILE_ATTRIBUTE_ENCRYPTED;
    HANDLE const hFile =
        CreateFileA(lpFileName, dwDesiredAccess, dwShareMode, list != nullptr ? &security : nullptr,
                    CREATE_NEW, dwEncrypted != 0 ? dwEncrypted : FILE_ATTRIBUTE_NORMAL, nullptr);
    if (hFile == INVALID_HANDLE_VALUE || dwEncrypted == 0 ||
        (get_attributes(hFile, &dwAttributes) && (dwAttributes & FILE_ATTRIBUTE_ENCRYPTED) != 0)) {
        return hFile;
    }
    // Nothing may be written into it: the medium does not encrypt.
    close(hFile);
    DeleteFileA(lpFileName);
    SetLastError(ERROR_ENCRYPTION_FAILED);
    return INVALID_HANDLE_VALUE;
}

BOOL PlatformCopyPermissions(HANDLE hFrom, HANDLE hTo, bool bCompanion) {
    // Not FILE_ATTRIBUTE_READONLY: such a file can't be removed, see PlatformSetReadOnly.
    constexpr DWORD COPIED_ATTRIBUTES = FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM |
                                        FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_NOT_CONTENT_INDEXED;
    FILE_BASIC_INFO to = {}; // a time of 0 stays as it is, and so do attributes of 0
    if (!get_attributes(hFrom, &to.FileAttributes)) {
        return FALSE;
    }
    // What is kept beside a file is an ordinary one, which can be removed.
    to.FileAttributes &= bCompanion ? 0 : COPIED_ATTRIBUTES;
    if (to.FileAttributes == 0) {
        to.FileAttributes = FILE_ATTRIBUTE_NORMAL;
    }
    SecurityDescriptor const list = access_list_of(hFrom);
    bool const bListed = list == nullptr || set_access_list(hTo, list.get());
    DWORD const dwError = GetLastError();
    if (!SetFileInformationByHandle(hTo, FileBasicInfo, &to, sizeof to)) {
        return FALSE;
    }
    SetLastError(dwError);
    return bListed;
}

bool PlatformIsReadOnly(LPCSTR pszPath) {
    DWORD const dwAttributes = GetFileAttributesA(pszPath);
    return dwAttributes != INVALID_FILE_ATTRIBUTES && (dwAttributes & FILE_ATTRIBUTE_READONLY) != 0;
}

BOOL PlatformSetReadOnly(LPCSTR pszPath) {
    DWORD const dwAttributes = GetFileAttributesA(pszPath);
    return dwAttributes != INVALID_FILE_ATTRIBUTES &&
           SetFileAttributesA(pszPath, dwAttributes | FILE_ATTRIBUTE_READONLY);
}
