// Taking a path apart, for either platform's rules of writing one.
#pragma once

#include "platform/platform.h"

#include <cstddef>
#include <cstring>

namespace platform {

struct PathRules {
    char const* pszSeparators;
    bool bDrives; // "D:" in front
    // Whether a byte is the first of two that make one character; the second may look like a
    // separator or a dot. Null where no character is of that kind.
    bool (*pfnIsLeadByte)(char c);
};

// Copies the range [pBegin, pEnd) as a text. False if it does not fit.
template <size_t Size> bool copy_part(char (&szPart)[Size], char const* pBegin, char const* pEnd) {
    size_t const length = static_cast<size_t>(pEnd - pBegin);
    if (length >= Size) {
        return false;
    }
    memcpy(szPart, pBegin, length);
    szPart[length] = '\0';
    return true;
}

// PlatformSplitPath, with the rules as an argument.
inline bool split_path(char const* pszPath, PlatformPathParts* pParts, PathRules const& rules) {
    if (pszPath == nullptr) {
        return false;
    }
    char const* pDirectory = pszPath;
    if (rules.bDrives && pszPath[0] != '\0' && pszPath[1] == ':') {
        pDirectory += 2;
    }
    char const* pStem = pDirectory;
    char const* pExtension = nullptr;
    char const* p = pDirectory;
    for (; *p != '\0'; ++p) {
        if (rules.pfnIsLeadByte != nullptr && rules.pfnIsLeadByte(*p) && p[1] != '\0') {
            ++p;
        } else if (strchr(rules.pszSeparators, *p) != nullptr) {
            pStem = p + 1;
            pExtension = nullptr;
        } else if (*p == '.') {
            pExtension = p;
        }
    }
    if (pExtension == nullptr) {
        pExtension = p;
    }
    return copy_part(pParts->szDrive, pszPath, pDirectory) &&
           copy_part(pParts->szDirectory, pDirectory, pStem) &&
           copy_part(pParts->szStem, pStem, pExtension) &&
           copy_part(pParts->szExtension, pExtension, p);
}

} // namespace platform
