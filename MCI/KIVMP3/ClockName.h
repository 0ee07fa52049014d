#pragma once

#include "platform/platform.h"

#include <cstdint>

constexpr char REBUILT_FILE_EXTENSION[] = ".MP3";

// The name of a new file, made of the clock: a directory, the seconds since 1970 as a decimal
// number, an extension. A name that is taken is free again a second later, as a rule:
//
//     CClockName oName(pszDirectory, REBUILT_FILE_EXTENSION, 10, true);
//     DWORD dwError = NO_ERROR;
//     do {
//         oName.form(szPath), and try to make the file, with its error in dwError
//     } while (oName.wait_if_taken(dwError));
class CClockName {
public:
    // Whether form() gives such a file name: a number and the extension. If the path may have been
    // too long, digits may be missing.
    static bool is_name(LPCSTR pszName_p, LPCSTR pszExtension_p, bool bShorten_p);

    // The two texts are the caller's and live as long as the object. A name is waited for at most
    // so many seconds in all, by the pauses made and not by the clock, which somebody may set
    // meanwhile. bShorten_p lets the number lose digits at its front where the path is too long.
    CClockName(LPCSTR pszDirectory_p, LPCSTR pszExtension_p, DWORD dwMostSeconds_p, bool bShorten_p)
        : m_pszDirectory(pszDirectory_p), m_pszExtension(pszExtension_p),
          m_dwPausesLeft(dwMostSeconds_p * PAUSES_PER_SECOND), m_bShorten(bShorten_p) {}

    // Puts together the path for the present second. False, with the path empty, if it does not
    // fit.
    bool form(char (&szPath_p)[MAX_PATH]);

    // Whether another name is to be tried after a creation of this path that gave this error: the
    // error says that the name is taken, if only by a file that was deleted, the clock shows
    // another second by now, and the time was not over before it did. Rests meanwhile, and leaves
    // no line in the log.
    bool wait_if_taken(LPCSTR pszPath_p, DWORD dwError_p);

private:
    static constexpr DWORD PAUSES_PER_SECOND = 10;

    LPCSTR m_pszDirectory;
    LPCSTR m_pszExtension;
    DWORD m_dwPausesLeft;
    bool m_bShorten;
    int64_t m_llTried = 0; // the time of the last name
};
