// Paths and the places of the system.
#include "platform/platform.h"
#include "platform/posix_errors.h"
#include "platform/split_path.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <unistd.h>

namespace posix {
namespace {

// A text built in a buffer on the stack. What does not fit is remembered and not written.
class PathText {
public:
    void append(std::string_view text) {
        if (text.size() > m_text.size() - m_length) {
            m_bTooLong = true;
            return;
        }
        memcpy(m_text.data() + m_length, text.data(), text.size());
        m_length += text.size();
    }

    // Appends the components of a path, without "." and without empty ones. ".." stays: behind a
    // symbolic link it leads elsewhere than the text in front of it says.
    void append_components(std::string_view path) {
        while (!path.empty()) {
            size_t const length = path.find('/');
            std::string_view const component = path.substr(0, length);
            if (!component.empty() && component != ".") {
                append("/");
                append(component);
            }
            path.remove_prefix(length == std::string_view::npos ? path.size() : length + 1);
        }
    }

    bool empty() const { return m_length == 0; }
    bool too_long() const { return m_bTooLong; }
    std::string_view view() const { return {m_text.data(), m_length}; }

private:
    // A working directory and a path behind it.
    std::array<char, size_t{2} * PATH_MAX> m_text;
    size_t m_length = 0;
    bool m_bTooLong = false;
};

// Gives a text to a caller in the way of the platform: the length, or the size that is needed.
DWORD give(std::string_view text, char* pBuffer, DWORD dwBufferBytes) {
    DWORD const dwLength = static_cast<DWORD>(text.size());
    if (dwLength >= dwBufferBytes || pBuffer == nullptr) {
        return dwLength + 1;
    }
    memcpy(pBuffer, text.data(), text.size());
    pBuffer[dwLength] = '\0';
    return dwLength;
}

DWORD make_full_path(std::string_view path, PathText& fullPath) {
    if (path.front() != '/') {
        std::array<char, PATH_MAX> directory;
        if (getcwd(directory.data(), directory.size()) == nullptr) {
            return errno == ENOENT ? ERROR_PATH_NOT_FOUND : error_of(errno);
        }
        fullPath.append_components(directory.data());
    }
    fullPath.append_components(path);
    if (fullPath.empty() || path.back() == '/') {
        fullPath.append("/");
    }
    return fullPath.too_long() ? ERROR_FILENAME_EXCED_RANGE : NO_ERROR;
}

} // namespace
} // namespace posix

DWORD WINAPI GetFullPathNameA(LPCSTR lpFileName, DWORD nBufferLength, LPSTR lpBuffer,
                              LPSTR* lpFilePart) {
    posix::PathText fullPath;
    DWORD dwError = ERROR_INVALID_NAME;
    if (lpFileName != nullptr && *lpFileName != '\0') {
        dwError = posix::make_full_path(lpFileName, fullPath);
    }
    if (dwError != NO_ERROR) {
        posix::fail(dwError);
        return 0;
    }
    DWORD const dwResult = posix::give(fullPath.view(), lpBuffer, nBufferLength);
    if (lpFilePart != nullptr) {
        size_t const directoryLength = fullPath.view().rfind('/') + 1;
        bool const bHasPart =
            dwResult == fullPath.view().size() && directoryLength < fullPath.view().size();
        *lpFilePart = bHasPart ? lpBuffer + directoryLength : nullptr;
    }
    return dwResult;
}

UINT WINAPI GetSystemDirectoryA(LPSTR lpBuffer, UINT uSize) {
    return posix::give("/etc", lpBuffer, uSize);
}

DWORD WINAPI GetTempPathA(DWORD nBufferLength, LPSTR lpBuffer) {
    char const* pszDirectory = getenv("TMPDIR");
    if (pszDirectory == nullptr || *pszDirectory == '\0') {
        pszDirectory = "/tmp";
    }
    posix::PathText path;
    path.append(pszDirectory);
    if (!path.too_long() && path.view().back() != '/') {
        path.append("/");
    }
    if (path.too_long()) {
        posix::fail(ERROR_FILENAME_EXCED_RANGE);
        return 0;
    }
    return posix::give(path.view(), lpBuffer, nBufferLength);
}

bool PlatformSplitPath(LPCSTR pszPath, PlatformPathParts* pParts) {
    return platform::split_path(pszPath, pParts, {"/", false, nullptr});
}

bool PlatformNameOnDisk(LPCSTR pszPath, char (*pszName)[MAX_PATH]) {
    PlatformPathParts parts;
    if (!PlatformSplitPath(pszPath, &parts)) {
        return false;
    }
    int const nLength =
        snprintf(*pszName, sizeof *pszName, "%s%s", parts.szStem, parts.szExtension);
    return nLength >= 0 && nLength < MAX_PATH;
}

bool PlatformSameFileName(LPCSTR pszName1, LPCSTR pszName2) {
    return strcmp(pszName1, pszName2) == 0;
}
