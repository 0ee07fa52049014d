#include "MCI/KIVMP3/ClockName.h"

#include <cstdio>
#include <cstring>
#include <ctime>

bool CClockName::is_name(LPCSTR pszName_p, LPCSTR pszExtension_p, bool bShorten_p) {
    constexpr size_t DIGITS = 10; // of all seconds from 2001 to 2286
    size_t const nDigits = strspn(pszName_p, "0123456789");
    return (bShorten_p ? nDigits > 0 : nDigits == DIGITS) &&
           strcmp(pszName_p + nDigits, pszExtension_p) == 0;
}

bool CClockName::form(char (&szPath_p)[MAX_PATH]) {
    m_llTried = time(nullptr);
    char szNumber[24];
    snprintf(szNumber, sizeof szNumber, "%lld", static_cast<long long>(m_llTried));
    for (char const* pszDigits = szNumber; *pszDigits != '\0'; ++pszDigits) {
        int const nLength = snprintf(szPath_p, sizeof szPath_p, "%s%s%s", m_pszDirectory, pszDigits,
                                     m_pszExtension);
        if (nLength > 0 && nLength < MAX_PATH) {
            return true;
        }
        if (!m_bShorten) {
            break;
        }
    }
    szPath_p[0] = '\0';
    return false;
}

bool CClockName::wait_if_taken(LPCSTR pszPath_p, DWORD dwError_p) {
    if (dwError_p != ERROR_FILE_EXISTS && dwError_p != ERROR_ALREADY_EXISTS &&
        !PlatformIsNameLingering(pszPath_p)) {
        return false;
    }
    while (m_dwPausesLeft > 0) {
        --m_dwPausesLeft;
        Sleep(1000 / PAUSES_PER_SECOND);
        if (time(nullptr) != m_llTried) {
            return true;
        }
    }
    return false;
}
