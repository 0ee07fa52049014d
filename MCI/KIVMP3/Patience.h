#pragma once

#include "platform/platform.h"

// Repeats a call on a file as long as what is in its way may pass, for at most 3 seconds in all,
// counted by the pauses made:
//
//     CPatience oPatience;
//     DWORD dwError = NO_ERROR;
//     do {
//         dwError = DeleteFileA(pszPath) ? NO_ERROR : GetLastError();
//     } while (oPatience.wait_for(pszPath, dwError));
class CPatience {
public:
    // Whether a call on this path that gave this error is to be made again. Rests then, and leaves
    // no line in the log.
    bool wait_for(LPCSTR pszPath_p, DWORD dwError_p) {
        if (dwError_p == NO_ERROR || m_nPausesLeft == 0) {
            return false;
        }
        if (!PlatformMayPass(pszPath_p, dwError_p)) {
            // What was waited for may have gone between the call and the question.
            bool const bOnceMore = m_bWaited;
            m_bWaited = false;
            return bOnceMore;
        }
        m_bWaited = true;
        --m_nPausesLeft;
        Sleep(PAUSE_MS);
        return true;
    }

private:
    static constexpr DWORD PAUSE_MS = 30;
    bool m_bWaited = false;
    int m_nPausesLeft = 3000 / PAUSE_MS;
};
