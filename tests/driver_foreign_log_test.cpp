// A log library of somebody else's that changes errno and the thread's last error in every call:
// whatever fails, files, statuses and the error numbers that are logged are the same.
#include "testing/driver_folder.h"

#include "log/xkivlog.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <set>
#include <tuple>

using platform_faults::Call;

namespace {

bool g_bSpoils = false;
std::vector<std::pair<uint32_t, std::string>> g_errors;
std::set<std::string> g_entered;
time_t g_nSeconds = 0; // passes with each look, so that both runs find the same names

void spoil() {
    if (g_bSpoils) {
        errno = EXDEV;
        SetLastError(54321);
    }
}

} // namespace

extern "C" {
time_t __wrap_time(time_t* pSeconds);
time_t __wrap_time(time_t* pSeconds) {
    ++g_nSeconds;
    return pSeconds == nullptr ? g_nSeconds : *pSeconds = g_nSeconds;
}
void WINAPI __wrap_Sleep(DWORD dwMilliseconds);
void WINAPI __wrap_Sleep(DWORD /*dwMilliseconds*/) {}

// In front of those of the library.
void LogInit(char const*, char const*, int, char const*) {
    spoil();
}
void LogEntry(char const*, char const*, int, char const* text) {
    g_entered.insert(text + strspn(text, "-"));
    spoil();
}
void LogParam(char const*, char const*, int, char const*, char const*, ...) {
    spoil();
}
void LogWarning(char const*, char const*, int, char const*, char const*) {
    spoil();
}
void LogInfo(char const*, char const*, int, char const*) {
    spoil();
}
void LogValue(char const*, char const*, int, char const*, char const*, ...) {
    spoil();
}
void LogError(char const*, char const*, int, uint32_t code, char const* text) {
    g_errors.emplace_back(code, text);
    spoil();
}
}

namespace {

class ForeignLogTest : public FolderTest {
protected:
    using Outcome = std::tuple<std::vector<FFDError>, decltype(g_errors), Files>;

    // A session from a leftover directory to a rebuild, with faults from its begin on.
    // Whether one was met is in *pbMet.
    Outcome session(bool bSpoils, std::function<void()> const& arm, Call call, unsigned nCall,
                    bool* pbMet) {
        put({{"a.mp3", id3v2_tag(20) + frames(20) + id3v1_tag()},
             {"a.DIR", dir_image({{1, 96, 1920}, {3, 0, 96}})}});
        g_nSeconds = 5000000000;
        g_errors.clear();
        g_bSpoils = bSpoils;
        platform_faults::reset();
        arm();
        std::vector<FFDError> statuses;
        FFDHandle const handle = open(m_sound);
        statuses.push_back(m_status);
        if (handle != nullptr) {
            statuses.push_back(insert(handle, 150, frames(2, 3)));
            statuses.push_back(driver().StoreActualFileStatus(handle));
            statuses.push_back(overwrite(handle, 300, frames(1, 5)));
            statuses.push_back(erase(handle, 500, 96));
            statuses.push_back(driver().UndoLast(handle));
            statuses.push_back(driver().RestoreFileStatus(handle));
            statuses.push_back(driver().StoreActualFileStatus(handle));
            std::string buffer(300, '\0');
            FFDReadHandle* pReadHandle = nullptr;
            driver().GetSizeOfData(handle, 300, &pReadHandle);
            statuses.push_back(driver().ReadData(handle, pReadHandle, 300,
                                                 reinterpret_cast<uint8_t*>(buffer.data())));
            statuses.push_back(driver().Close(handle));
        }
        *pbMet = platform_faults::count(call) >= nCall;
        platform_faults::reset();
        g_bSpoils = false;
        return {statuses, g_errors, files()};
    }
};

// What goes well leaves no error behind it, but for the two that a search meets at its end.
TEST_F(ForeignLogTest, HearsOfNoErrorWhereThereIsNone) {
    m_callback.dwCallback =
        reinterpret_cast<uintptr_t>(+[](HDRVR, UINT, DWORD_PTR, DWORD_PTR, DWORD_PTR) {});
    bool bMet = false;
    auto const [statuses, errors, left] = session(
        false, [] {}, Call::Any, 0, &bMet);
    EXPECT_EQ(statuses, std::vector<FFDError>(statuses.size(), 0));
    for (auto const& [nCode, text] : errors) {
        EXPECT_TRUE(text == "tag found" || text == "at end of file and no frame header found")
            << nCode << " " << text;
    }
    // The smallest functions tell of themselves, too.
    for (char const* pszName : {"CKivDirFile::get_dir_header()", "CKivDirFile::is_read_only()",
                                "CKivDirFile::get_data_length()", "PtrdiffTToDWord(.)"}) {
        EXPECT_TRUE(g_entered.contains(pszName)) << pszName;
    }
}

TEST_F(ForeignLogTest, DecidesNothing) {
    unsigned nFaults = 0;
    for (int nKind = 0; nKind <= static_cast<int>(Call::Any); ++nKind) {
        Call const call = static_cast<Call>(nKind);
        bool bMet = true;
        for (unsigned nCall = 1; bMet && call != Call::Any; ++nCall) {
            // Once, and for as long as the session lasts where that leaves nothing open.
            bool const bOnce = call == Call::CloseHandle || call == Call::HeapFree ||
                               call == Call::UnmapViewOfFile;
            for (unsigned const nTimes : {1u, bOnce ? 1u : 1000u}) {
                for (DWORD const dwError : {32u, 5u}) {
                    SCOPED_TRACE(testing::Message()
                                 << nKind << " " << nCall << " " << nTimes << " " << dwError);
                    auto const arm = [=] { platform_faults::fail(call, nCall, dwError, nTimes); };
                    Outcome const own = session(false, arm, call, nCall, &bMet);
                    Outcome const other = session(true, arm, call, nCall, &bMet);
                    EXPECT_EQ(std::get<0>(other), std::get<0>(own));
                    EXPECT_EQ(std::get<1>(other), std::get<1>(own));
                    EXPECT_TRUE(std::get<2>(other) == std::get<2>(own)) << "files";
                    ++nFaults;
                }
            }
        }
    }
    EXPECT_GT(nFaults, 500u);
}

} // namespace
