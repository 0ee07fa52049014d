#include "testing/fault_calls.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <mutex>

namespace platform_faults {
namespace {

constexpr int EXIT_CODE_OF_A_STOP = 86;
constexpr size_t KINDS = static_cast<size_t>(Call::Any);

struct Rule {
    enum class Effect { Fail, Halve } effect;
    Call call;
    unsigned nth;
    unsigned times;
    DWORD dwError;
    unsigned seen;
};

struct State {
    std::array<Rule, 64> rules{};
    size_t ruleCount = 0;
    std::array<unsigned, KINDS> counts{};
    void (*watcher)(Call) = nullptr;
    unsigned changes = 0;
    unsigned changesUntilStop = 0; // 0: no stop is set
    std::optional<uint64_t> pretendedFreeBytes;
    std::optional<bool> encryptionWorks; // nothing: nothing is pretended
    unsigned lingers = 0;
};

std::mutex g_mutex;
State g_state;

// Files and mappings. Without memory of its own, which a test can make run out.
std::array<HANDLE, 4096> g_open{};
std::atomic<int> g_nHeapBlocks = 0;
std::atomic<int> g_nViews = 0;

void (*g_end)() = [] { std::_Exit(EXIT_CODE_OF_A_STOP); };

thread_local bool t_bInside = false; // in a call of the layer below

void add_rule(Rule const& rule) {
    std::lock_guard const lock(g_mutex);
    // A forgotten rule would make a test pass that tests nothing.
    if (g_state.ruleCount == g_state.rules.size() || rule.nth == 0) {
        std::abort();
    }
    g_state.rules[g_state.ruleCount++] = rule;
}

// Counts the call for the rule and tells whether the rule bites.
bool applies(Rule& rule, Call call) {
    return rule.call == call && ++rule.seen >= rule.nth && rule.seen - rule.nth < rule.times;
}

// Counts a change of the disk that is about to be made, or ends the process in front of it.
void before_change() {
    std::unique_lock lock(g_mutex);
    if (g_state.changesUntilStop == 1) {
        g_state.changesUntilStop = 0;
        lock.unlock();
        g_end();
    }
    if (g_state.changesUntilStop != 0) {
        --g_state.changesUntilStop;
    }
    ++g_state.changes;
}

void replace_handle(HANDLE hOld, HANDLE hNew) {
    std::lock_guard const lock(g_mutex);
    HANDLE* const phFound = std::find(g_open.begin(), g_open.end(), hOld);
    if (phFound != g_open.end()) {
        *phFound = hNew;
    } else if (hOld == nullptr) {
        std::abort();
    }
}

// One call on its way to the layer below.
class Passage {
public:
    explicit Passage(Call call, bool bChangesDisk = false) {
        if (!m_bNested) {
            enter(call);
            if (bChangesDisk && !m_bFails) {
                before_change();
            }
        }
        t_bInside = true;
    }
    ~Passage() {
        DWORD const dwError = GetLastError();
        t_bInside = m_bNested;
        SetLastError(dwError);
    }
    Passage(Passage const&) = delete;
    Passage& operator=(Passage const&) = delete;

    // Whether a rule makes the call fail; the last error is set then.
    bool fails() const { return m_bFails; }

    // The number of bytes that it is to move.
    DWORD bytes(DWORD dwBytesAsked) const { return m_bHalves ? dwBytesAsked / 2 : dwBytesAsked; }

    // The error of the rule that halved it, else NO_ERROR.
    DWORD halves_error() const { return m_dwHalvesError; }

    HANDLE opened(HANDLE hObject) const {
        if (!m_bNested && hObject != nullptr && hObject != INVALID_HANDLE_VALUE) {
            replace_handle(nullptr, hObject);
        }
        return hObject;
    }
    void count(std::atomic<int>& nTally, int nDifference, bool bDone) const {
        if (!m_bNested && bDone) {
            nTally += nDifference;
        }
    }

private:
    void enter(Call call);

    bool const m_bNested = t_bInside;
    bool m_bFails = false;
    bool m_bHalves = false;
    DWORD m_dwHalvesError = NO_ERROR;
};

void Passage::enter(Call call) {
    if (g_state.watcher != nullptr) {
        g_state.watcher(call);
    }
    std::lock_guard const lock(g_mutex);
    ++g_state.counts[static_cast<size_t>(call)];
    for (size_t i = 0; i < g_state.ruleCount; ++i) {
        Rule const& rule = g_state.rules[i];
        if (!applies(g_state.rules[i], call)) {
            continue;
        }
        if (rule.effect == Rule::Effect::Fail) {
            m_bFails = true;
            SetLastError(rule.dwError);
        } else {
            m_bHalves = true;
            m_dwHalvesError = rule.dwError;
        }
    }
}

} // namespace

void reset() {
    std::lock_guard const lock(g_mutex);
    g_state = State{};
}

unsigned count(Call call) {
    std::lock_guard const lock(g_mutex);
    if (call != Call::Any) {
        return g_state.counts[static_cast<size_t>(call)];
    }
    unsigned sum = 0;
    for (unsigned const one : g_state.counts) {
        sum += one;
    }
    return sum;
}

void watch(void (*watcher)(Call)) {
    g_state.watcher = watcher;
}

void fail(Call call, unsigned nth, DWORD dwError, unsigned times) {
    add_rule({Rule::Effect::Fail, call, nth, times, dwError, 0});
}

void halve(Call call, unsigned nth, DWORD dwError) {
    add_rule({Rule::Effect::Halve, call, nth, 1, dwError, 0});
}

void stop_before_change(unsigned nth) {
    std::lock_guard const lock(g_mutex);
    g_state.changesUntilStop = nth;
}

void set_end_of_process(void (*end)()) {
    g_end = end;
}

unsigned changes() {
    std::lock_guard const lock(g_mutex);
    return g_state.changes;
}

void pretend_free_bytes(uint64_t ullFreeBytes) {
    std::lock_guard const lock(g_mutex);
    g_state.pretendedFreeBytes = ullFreeBytes;
}

unsigned open_handles() {
    std::lock_guard const lock(g_mutex);
    return static_cast<unsigned>(g_open.size()) -
           static_cast<unsigned>(std::count(g_open.begin(), g_open.end(), nullptr));
}

unsigned heap_blocks() {
    return static_cast<unsigned>(g_nHeapBlocks.load());
}

unsigned mapped_views() {
    return static_cast<unsigned>(g_nViews.load());
}

void abandon_everything() {
    std::lock_guard const lock(g_mutex);
    for (HANDLE& rhObject : g_open) {
        if (rhObject != nullptr) {
            REAL(CloseHandle)(rhObject);
        }
        rhObject = nullptr;
    }
    g_nHeapBlocks = 0;
    g_nViews = 0;
}

void pretend_encryption(bool bWorks) {
    std::lock_guard const lock(g_mutex);
    g_state.encryptionWorks = bWorks;
}

std::optional<bool> encryption_works() {
    std::lock_guard const lock(g_mutex);
    return g_state.encryptionWorks;
}

void linger_after_removal(unsigned nMeetings) {
    std::lock_guard const lock(g_mutex);
    g_state.lingers = nMeetings;
}

unsigned lingers() {
    std::lock_guard const lock(g_mutex);
    return g_state.lingers;
}

} // namespace platform_faults

using platform_faults::Call;
using platform_faults::Passage;

HANDLE WINAPI WRAP(CreateFileA)(LPCSTR lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                                LPSECURITY_ATTRIBUTES lpSecurityAttributes,
                                DWORD dwCreationDisposition, DWORD dwFlagsAndAttributes,
                                HANDLE hTemplateFile) {
    Passage const passage(Call::CreateFile, dwCreationDisposition != OPEN_EXISTING);
    if (passage.fails()) {
        return INVALID_HANDLE_VALUE;
    }
    return passage.opened(REAL(CreateFileA)(lpFileName, dwDesiredAccess, dwShareMode,
                                            lpSecurityAttributes, dwCreationDisposition,
                                            dwFlagsAndAttributes, hTemplateFile));
}

HANDLE WRAP(PlatformCreatePrivateFile)(LPCSTR lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                                       HANDLE hLike) {
    Passage const passage(Call::CreateFile, true);
    if (passage.fails()) {
        return INVALID_HANDLE_VALUE;
    }
    return passage.opened(
        REAL(PlatformCreatePrivateFile)(lpFileName, dwDesiredAccess, dwShareMode, hLike));
}

BOOL WINAPI WRAP(CloseHandle)(HANDLE hObject) {
    Passage const passage(Call::CloseHandle);
    if (passage.fails()) {
        return FALSE;
    }
    platform_faults::replace_handle(hObject, nullptr); // first: then the value is another file's
    return REAL(CloseHandle)(hObject);
}

BOOL WINAPI WRAP(ReadFile)(HANDLE hFile, LPVOID lpBuffer, DWORD nNumberOfBytesToRead,
                           LPDWORD lpNumberOfBytesRead, LPOVERLAPPED lpOverlapped) {
    Passage const passage(Call::ReadFile);
    return passage.fails() ? FALSE
                           : REAL(ReadFile)(hFile, lpBuffer, passage.bytes(nNumberOfBytesToRead),
                                            lpNumberOfBytesRead, lpOverlapped);
}

BOOL WINAPI WRAP(WriteFile)(HANDLE hFile, LPCVOID lpBuffer, DWORD nNumberOfBytesToWrite,
                            LPDWORD lpNumberOfBytesWritten, LPOVERLAPPED lpOverlapped) {
    Passage const passage(Call::WriteFile, nNumberOfBytesToWrite != 0);
    if (passage.fails() || !REAL(WriteFile)(hFile, lpBuffer, passage.bytes(nNumberOfBytesToWrite),
                                            lpNumberOfBytesWritten, lpOverlapped)) {
        return FALSE;
    }
    if (passage.halves_error() != NO_ERROR) {
        SetLastError(passage.halves_error());
    }
    return passage.halves_error() == NO_ERROR;
}

DWORD WINAPI WRAP(SetFilePointer)(HANDLE hFile, LONG lDistanceToMove, PLONG lpDistanceToMoveHigh,
                                  DWORD dwMoveMethod) {
    Passage const passage(Call::SetFilePointer);
    return passage.fails()
               ? INVALID_SET_FILE_POINTER
               : REAL(SetFilePointer)(hFile, lDistanceToMove, lpDistanceToMoveHigh, dwMoveMethod);
}

BOOL WINAPI WRAP(SetEndOfFile)(HANDLE hFile) {
    Passage const passage(Call::SetEndOfFile, true);
    return passage.fails() ? FALSE : REAL(SetEndOfFile)(hFile);
}

DWORD WINAPI WRAP(GetFileSize)(HANDLE hFile, LPDWORD lpFileSizeHigh) {
    Passage const passage(Call::GetFileSize);
    return passage.fails() ? INVALID_FILE_SIZE : REAL(GetFileSize)(hFile, lpFileSizeHigh);
}

// A write of nothing finds out whether the handle could be flushed.
BOOL WINAPI WRAP(FlushFileBuffers)(HANDLE hFile) {
    Passage const passage(Call::FlushFileBuffers);
    DWORD dwNone = 0;
    return passage.fails() ? FALSE : REAL(WriteFile)(hFile, "", 0, &dwNone, nullptr);
}

BOOL WINAPI WRAP(DeleteFileA)(LPCSTR lpFileName) {
    Passage const passage(Call::DeleteFile, true);
    return passage.fails() ? FALSE : REAL(DeleteFileA)(lpFileName);
}

BOOL WINAPI WRAP(MoveFileA)(LPCSTR lpExistingFileName, LPCSTR lpNewFileName) {
    Passage const passage(Call::MoveFile, true);
    return passage.fails() ? FALSE : REAL(MoveFileA)(lpExistingFileName, lpNewFileName);
}

DWORD WINAPI WRAP(GetFullPathNameA)(LPCSTR lpFileName, DWORD nBufferLength, LPSTR lpBuffer,
                                    LPSTR* lpFilePart) {
    Passage const passage(Call::GetFullPathName);
    return passage.fails()
               ? 0
               : REAL(GetFullPathNameA)(lpFileName, nBufferLength, lpBuffer, lpFilePart);
}

LPVOID WINAPI WRAP(HeapAlloc)(HANDLE hHeap, DWORD dwFlags, SIZE_T dwBytes) {
    Passage const passage(Call::HeapAlloc);
    LPVOID const lpMem = passage.fails() ? nullptr : REAL(HeapAlloc)(hHeap, dwFlags, dwBytes);
    passage.count(platform_faults::g_nHeapBlocks, 1, lpMem != nullptr);
    return lpMem;
}

BOOL WINAPI WRAP(HeapFree)(HANDLE hHeap, DWORD dwFlags, LPVOID lpMem) {
    Passage const passage(Call::HeapFree);
    BOOL const bFreed = passage.fails() ? FALSE : REAL(HeapFree)(hHeap, dwFlags, lpMem);
    passage.count(platform_faults::g_nHeapBlocks, -1, bFreed && lpMem != nullptr);
    return bFreed;
}

HANDLE WINAPI WRAP(CreateFileMappingA)(HANDLE hFile, LPSECURITY_ATTRIBUTES lpAttributes,
                                       DWORD flProtect, DWORD dwMaximumSizeHigh,
                                       DWORD dwMaximumSizeLow, LPCSTR lpName) {
    Passage const passage(Call::CreateFileMapping);
    if (passage.fails()) {
        return nullptr;
    }
    return passage.opened(REAL(CreateFileMappingA)(hFile, lpAttributes, flProtect,
                                                   dwMaximumSizeHigh, dwMaximumSizeLow, lpName));
}

LPVOID WINAPI WRAP(MapViewOfFile)(HANDLE hFileMappingObject, DWORD dwDesiredAccess,
                                  DWORD dwFileOffsetHigh, DWORD dwFileOffsetLow,
                                  SIZE_T dwNumberOfBytesToMap) {
    Passage const passage(Call::MapViewOfFile);
    LPVOID const lpView =
        passage.fails() ? nullptr
                        : REAL(MapViewOfFile)(hFileMappingObject, dwDesiredAccess, dwFileOffsetHigh,
                                              dwFileOffsetLow, dwNumberOfBytesToMap);
    passage.count(platform_faults::g_nViews, 1, lpView != nullptr);
    return lpView;
}

BOOL WINAPI WRAP(UnmapViewOfFile)(LPCVOID lpBaseAddress) {
    Passage const passage(Call::UnmapViewOfFile);
    BOOL const bUnmapped = passage.fails() ? FALSE : REAL(UnmapViewOfFile)(lpBaseAddress);
    passage.count(platform_faults::g_nViews, -1, bUnmapped);
    return bUnmapped;
}

UINT WINAPI WRAP(GetSystemDirectoryA)(LPSTR lpBuffer, UINT uSize) {
    Passage const passage(Call::GetSystemDirectory);
    return passage.fails() ? 0 : REAL(GetSystemDirectoryA)(lpBuffer, uSize);
}

DWORD WINAPI WRAP(GetTempPathA)(DWORD nBufferLength, LPSTR lpBuffer) {
    Passage const passage(Call::GetTempPath);
    return passage.fails() ? 0 : REAL(GetTempPathA)(nBufferLength, lpBuffer);
}

BOOL WINAPI WRAP(GetDiskFreeSpaceExA)(LPCSTR lpDirectoryName, ULARGE_INTEGER* lpFreeBytesAvailable,
                                      ULARGE_INTEGER* lpTotalNumberOfBytes,
                                      ULARGE_INTEGER* lpTotalNumberOfFreeBytes) {
    Passage const passage(Call::GetDiskFreeSpaceEx);
    if (passage.fails() ||
        !REAL(GetDiskFreeSpaceExA)(lpDirectoryName, lpFreeBytesAvailable, lpTotalNumberOfBytes,
                                   lpTotalNumberOfFreeBytes)) {
        return FALSE;
    }
    for (ULARGE_INTEGER* const pFree : {lpFreeBytesAvailable, lpTotalNumberOfFreeBytes}) {
        if (pFree != nullptr) {
            pFree->QuadPart = platform_faults::g_state.pretendedFreeBytes.value_or(pFree->QuadPart);
        }
    }
    return TRUE;
}

BOOL WINAPI WRAP(DriverCallback)(DWORD_PTR dwCallback, DWORD dwFlags, HDRVR hDevice, DWORD dwMsg,
                                 DWORD_PTR dwUser, DWORD_PTR dwParam1, DWORD_PTR dwParam2) {
    bool const bFails = Passage(Call::DriverCallback).fails(); // the host may call the driver again
    return bFails ? FALSE
                  : REAL(DriverCallback)(dwCallback, dwFlags, hDevice, dwMsg, dwUser, dwParam1,
                                         dwParam2);
}

BOOL WRAP(PlatformCopyPermissions)(HANDLE hFrom, HANDLE hTo, bool bCompanion) {
    Passage const passage(Call::CopyPermissions, true);
    return passage.fails() ? FALSE : REAL(PlatformCopyPermissions)(hFrom, hTo, bCompanion);
}

BOOL WRAP(PlatformGetFileIdentity)(HANDLE hFile, PlatformFileIdentity* pIdentity) {
    Passage const passage(Call::GetFileIdentity);
    return passage.fails() ? FALSE : REAL(PlatformGetFileIdentity)(hFile, pIdentity);
}

BOOL WRAP(PlatformGetNameIdentity)(LPCSTR pszPath, PlatformFileIdentity* pIdentity) {
    Passage const passage(Call::GetNameIdentity);
    return passage.fails() ? FALSE : REAL(PlatformGetNameIdentity)(pszPath, pIdentity);
}

BOOL WRAP(PlatformTestCompanion)(HANDLE hFile, LPCSTR pszPath, LPCSTR pszSoundPath) {
    Passage const passage(Call::TestCompanion);
    return passage.fails() ? FALSE : REAL(PlatformTestCompanion)(hFile, pszPath, pszSoundPath);
}

DWORD WRAP(PlatformCopyBytes)(HANDLE hFrom, HANDLE hTo, DWORD dwBytes) {
    Passage const passage(Call::CopyBytes, true);
    return passage.fails() ? 0 : REAL(PlatformCopyBytes)(hFrom, hTo, passage.bytes(dwBytes));
}
