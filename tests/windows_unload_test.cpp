// The shipped DLLs, loaded and unloaded.
#include "ffd.h"
#include "platform/platform.h"

#include <gtest/gtest.h>

#include <array>
#include <thread>

namespace {

// Takes what is left of a kind of index, and gives it back.
template <typename Take, typename Free> unsigned indices_left(Take take, Free free) {
    std::array<DWORD, 8192> taken;
    unsigned nTaken = 0;
    while (nTaken < taken.size() && (taken[nTaken] = take()) != TLS_OUT_OF_INDEXES) {
        ++nTaken;
    }
    for (unsigned i = 0; i < nTaken; ++i) {
        free(taken[i]);
    }
    return nTaken;
}

struct Used {
    unsigned nTlsLeft = indices_left(TlsAlloc, TlsFree);
    unsigned nFlsLeft = indices_left([] { return FlsAlloc(nullptr); }, FlsFree);
    DWORD dwHandles = 0;
    size_t nBytes = 0; // of all heaps

    Used() {
        GetProcessHandleCount(GetCurrentProcess(), &dwHandles);
        std::array<HANDLE, 64> heaps;
        DWORD const dwHeaps = GetProcessHeaps(heaps.size(), heaps.data());
        for (DWORD i = 0; i < dwHeaps; ++i) {
            PROCESS_HEAP_ENTRY entry = {};
            while (HeapWalk(heaps[i], &entry)) {
                nBytes += (entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0 ? entry.cbData : 0;
            }
        }
    }
};

void refuse_an_open() {
    HMODULE const hDriver = LoadLibraryA(KIV_BUILD_DIR "/XKIVMP3.dll");
    ASSERT_NE(hDriver, nullptr) << GetLastError();
    void* table[FFD_SLOT_COUNT];
    memcpy(table, reinterpret_cast<void*>(GetProcAddress(hDriver, FFD_TABLE_SYMBOL)), sizeof table);
    FFDCallbackParams callback = {};
    callback.hDriver = &callback;
    FFDError status = 0;
    auto const open = reinterpret_cast<FFDCreateFileProc>(table[FFD_SLOT_CREATE_FILE]);
    EXPECT_EQ(
        open("none.mp3", FFD_ACCESS_READ, FFD_OPEN_EXISTING, nullptr, callback, &status, nullptr),
        nullptr);
    EXPECT_EQ(status, 29u);
    FreeLibrary(hDriver);
}

TEST(UnloadTest, LeavesNothing) {
    std::thread(refuse_an_open).join(); // what the first load and the first thread take for good
    refuse_an_open();
    Used const before;
    for (unsigned n = 0; n < 500 && !HasFailure(); ++n) {
        n % 10 == 0 ? std::thread(refuse_an_open).join() : refuse_an_open();
    }
    Used const after;
    EXPECT_EQ(after.nTlsLeft, before.nTlsLeft);
    EXPECT_EQ(after.nFlsLeft, before.nFlsLeft);
    EXPECT_EQ(after.dwHandles, before.dwHandles);
    EXPECT_EQ(after.nBytes, before.nBytes);
}

// A pipe that nobody reads must not stop the host: the log stays out of it, with its complaint too.
TEST(UnloadTest, TakesNoPipe) {
    HANDLE hRead = nullptr;
    HANDLE hWrite = nullptr;
    ASSERT_TRUE(CreatePipe(&hRead, &hWrite, nullptr, 1 << 20));
    HANDLE const hBefore = GetStdHandle(STD_ERROR_HANDLE);
    SetStdHandle(STD_ERROR_HANDLE, hWrite);
    for (char const* level : {"all", "nonsense"}) {
        SetEnvironmentVariableA("XKIVLOG", level);
        refuse_an_open();
    }
    SetEnvironmentVariableA("XKIVLOG", nullptr);
    SetStdHandle(STD_ERROR_HANDLE, hBefore);
    DWORD dwWaiting = 0;
    EXPECT_TRUE(PeekNamedPipe(hRead, nullptr, 0, nullptr, &dwWaiting, nullptr));
    EXPECT_EQ(dwWaiting, 0u);
    CloseHandle(hRead);
    CloseHandle(hWrite);
}

} // namespace
