// The services underneath the driver: the answers of the base class, its open probe and mapping of
// error numbers, and the file helpers as far as their callers rely on how they fail.
#include "MCI/KIVMP3/INTERNAL.h"
#include "MCI/KIVMP3/Kivmp3.h"
#include "testing/driver_fixture.h"

#include <filesystem>

using platform_faults::Call;

namespace {

// A driver that overrides nothing that it need not, and maps error numbers in its own way.
class EmptyDriver final : public FFDBaseClass {
public:
    FFDError FFDSaveAs(FFDHandle /*ffdHandle*/, char const* /*lpInputString*/) override {
        return 0;
    }
    FFDError FFDClose() override { return 0; }
    FFDError FFDCreateFile(char const*, FFDDesiredAccess, FFDCreation, void*,
                           FFDCallbackParams const*, FFDError*, void*) override {
        return 0;
    }
    FFDError map_last_error_to_FFDError(DWORD dwLastError_p) override {
        return 1000 + dwLastError_p;
    }
};

class ServicesTest : public DriverTest {
protected:
    std::string const m_file = path("a.mp3");
    CKivmp3 m_driver;

    // Opens or makes a file for a helper to work on.
    static HANDLE open_file(std::string const& file) {
        DWORD dwError = 1;
        HANDLE const hFile = KIVMP3_create_file(file.c_str(), &dwError, 0xC0000000, 3, 4, 0);
        EXPECT_EQ(dwError, 0u);
        return hFile;
    }
};

} // namespace

TEST_F(ServicesTest, BaseClassAnswersForWhatAFormatLacks) {
    EmptyDriver empty;
    uint32_t nLength = 1;
    EXPECT_EQ(empty.FFDGetDSSEncrypted(nullptr), 19u);
    EXPECT_EQ(empty.FFDGetCurrentPos(nullptr), 19u);
    EXPECT_EQ(empty.FFDGetDictationFileSize(nullptr), 19u);
    EXPECT_EQ(empty.FFDGetGranularitySize(nullptr), 19u);
    EXPECT_EQ(empty.FFDGetAudioInfo(nullptr, 28), 19u);
    EXPECT_EQ(empty.FFDGetSizeOfData(1, nullptr), 19u);
    EXPECT_EQ(empty.FFDAudioSeek(1, nullptr), 19u);
    EXPECT_EQ(empty.FFDReadData(nullptr, 1, nullptr), 19u);
    EXPECT_EQ(empty.FFDWriteData(1, 1, nullptr), 19u);
    EXPECT_EQ(empty.FFDDeleteData(1), 19u);
    EXPECT_EQ(empty.FFDUndoLast(), 19u);
    EXPECT_EQ(empty.FFDStoreActualFileStatus(), 19u);
    EXPECT_EQ(empty.FFDRestoreFileStatus(), 19u);
    EXPECT_EQ(empty.FFDGetDownloadLength(nullptr), 19u);
    EXPECT_EQ(empty.FFDGetWfx(nullptr, 30), 32u);
    EXPECT_EQ(empty.FFDGetFileName(nullptr, 0), 15u);
    EXPECT_EQ(empty.FFDSetCallbackAddress(1), 0u);
    EXPECT_EQ(empty.FFDSetDiskspaceWarningTime(1), 0u);
    EXPECT_EQ(empty.FFDGetSoundDataLength(&nLength), 0u);
    EXPECT_EQ(nLength, 0u);
}

TEST_F(ServicesTest, ErrorNumbersBecomeStatuses) {
    for (auto const& [nError, nStatus] : std::vector<std::pair<DWORD, FFDError>>{
             {0, 0},   {2, 23},  {3, 1},    {5, 5},    {15, 1},   {19, 4},         {32, 5},
             {53, 1},  {65, 5},  {80, 7},   {161, 1},  {1, 29},   {4, 29},         {6, 29},
             {31, 29}, {87, 29}, {112, 29}, {183, 29}, {206, 29}, {4294967295, 29}}) {
        EXPECT_EQ(m_driver.map_last_error_to_FFDError(nError), nStatus) << nError;
    }
}

TEST_F(ServicesTest, ProbeAnswersAndHarmsNothing) {
    write_file(m_file, frames(3));
    write_file(path("taken.mp3"), "x");
    std::filesystem::create_directory(path("folder"));
    HANDLE hTaken = CreateFileA(path("taken.mp3").c_str(), 0x80000000, 0, nullptr, 3, 0, nullptr);
    std::vector<std::string> const before = listing();
    struct {
        char const* pszName;
        DWORD dwDisposition, dwFlags, dwError;
        FFDError status;
    } const rows[] = {{"a.mp3", 1, 0x04000000, 80, 7}, {"a.mp3", 2, 0x04000000, 0, 0},
                      {"a.mp3", 3, 0x04000000, 0, 0},  {"a.mp3", 4, 0x04000000, 0, 0},
                      {"a.mp3", 5, 0, 0, 0},           {"new.mp3", 1, 0, 0, 0},
                      {"new.mp3", 2, 0x80, 0, 0},      {"new.mp3", 3, 0, 2, 23},
                      {"new.mp3", 5, 0, 2, 23},        {"none/new.mp3", 1, 0, 3, 1},
                      {"none/new.mp3", 2, 0, 3, 1},    {"folder", 2, 0, 5, 5},
                      {"folder", 3, 0, 5, 5},          {"taken.mp3", 2, 0, 32, 5},
                      {"taken.mp3", 3, 0, 32, 5}};
    UINT const nOldMode = SetErrorMode(0x8002);
    for (auto const& row : rows) {
        SCOPED_TRACE(testing::Message() << row.pszName << ", disposition " << row.dwDisposition);
        DWORD dwError = 0xDEADBEEF;
        EXPECT_EQ(m_driver.test_create_file(path(row.pszName).c_str(), &dwError, 0xC0000000, 3,
                                            row.dwDisposition, row.dwFlags),
                  row.status);
        EXPECT_EQ(dwError, row.dwError);
        EXPECT_EQ(platform_faults::open_handles(), 1u);
        EXPECT_EQ(listing(), before);
        EXPECT_EQ(read_file(m_file), frames(3));
        EXPECT_EQ(SetErrorMode(0x8002), 0x8002u);
    }
    SetErrorMode(nOldMode);
    EXPECT_EQ(KIVMP3_close_file(&hTaken), 0u);

    DWORD dwError = 0;
    EmptyDriver empty;
    EXPECT_EQ(empty.test_create_file(path("new.mp3").c_str(), &dwError, 0x80000000, 3, 3, 0),
              1002u);
    // An open that succeeded is the answer, whatever the close says.
    EXPECT_EQ(crash_after([&] {
                  platform_faults::fail(Call::CloseHandle, 1, 6);
                  EXPECT_EQ(
                      m_driver.test_create_file(m_file.c_str(), &dwError, 0x80000000, 3, 3, 0), 0u);
                  EXPECT_EQ(dwError, 0u);
              }),
              0);
}

TEST_F(ServicesTest, TransferMakesItsPassesByTheCountAlone) {
    struct {
        LONG lCount;
        unsigned nSource, nCopied; // bytes
        unsigned nPasses;
    } const rows[] = {
        {0, 100, 0, 0},           {-1, 100, 0, 0},          {-2147483647 - 1, 9, 0, 0},
        {1, 100, 1, 1},           {40960, 90000, 40960, 1}, {40961, 90000, 40961, 2},
        {81920, 40970, 40970, 2}, {500000, 0, 0, 13}};
    std::vector<BYTE> buffer(40960);
    for (auto const& row : rows) {
        SCOPED_TRACE(row.lCount);
        // Both ends are where the files happen to stand.
        write_file(path("from"), std::string("head") + noise(row.nSource));
        write_file(path("to"), "kept");
        HANDLE hFrom = open_file(path("from"));
        HANDLE hTo = open_file(path("to"));
        EXPECT_EQ(KIVMP3_set_file_pointer(hFrom, 4) + KIVMP3_set_file_pointer(hTo, 4), 2);
        platform_faults::reset();
        platform_faults::fail(Call::CopyBytes, 1, 5); // as where the system can't copy by itself
        EXPECT_EQ(KIVMP3_transfer_mp3_data(hFrom, hTo, row.lCount, buffer.data(), 40960), 0u);
        EXPECT_EQ(platform_faults::count(Call::ReadFile), row.nPasses);
        EXPECT_EQ(platform_faults::count(Call::WriteFile), row.nPasses);
        EXPECT_TRUE(read_file(path("to")) ==
                    std::string("kept") + noise(row.nSource).substr(0, row.nCopied));
        EXPECT_EQ(KIVMP3_close_file(&hFrom) + KIVMP3_close_file(&hTo), 0u);
    }
}

TEST_F(ServicesTest, FreeSpaceSaturates) {
    DWORD dwFree = 1;
    for (uint64_t const nFree : {0ull, 4294967294ull, 4294967295ull, 4294967296ull}) {
        platform_faults::pretend_free_bytes(nFree);
        // The file name is dropped; no such file need be there.
        EXPECT_EQ(KIVMP3_get_disk_free_space_ex(path("none.mp3").c_str(), &dwFree), 0u);
        EXPECT_EQ(dwFree, nFree == 4294967296 ? 4294967295 : nFree);
    }
    UINT const nOldMode = SetErrorMode(0x8002);
    platform_faults::fail(Call::GetDiskFreeSpaceEx, 1, 21);
    EXPECT_EQ(KIVMP3_get_disk_free_space_ex(folder().c_str(), &dwFree), 21u);
    EXPECT_EQ(dwFree, 0u);
    for (auto const& [name, nError] : std::vector<std::pair<std::string, DWORD>>{
             {path("none/a.mp3"), 3},
             {std::string("/") + std::string(254, 'n') + "/", 206},
             {std::string(100000, '/'), 206},
             {std::string("/") + std::string(253, '/') + "n", 0}}) {
        dwFree = 1;
        EXPECT_EQ(KIVMP3_get_disk_free_space_ex(name.c_str(), &dwFree), nError);
        EXPECT_EQ(dwFree == 0, nError != 0);
    }
    EXPECT_EQ(SetErrorMode(nOldMode), 0x8002u);
}

TEST_F(ServicesTest, FileHelpersTellFailureInTheirOwnWays) {
    DWORD dwError = 0;
    EXPECT_EQ(KIVMP3_create_file(m_file.c_str(), &dwError, 0x80000000, 3, 3, 0), nullptr);
    EXPECT_EQ(dwError, 2u);
    // A close that fails keeps the handle; one that works leaves null, which is no handle.
    HANDLE hFile = open_file(m_file);
    HANDLE const hOpen = hFile;
    platform_faults::fail(Call::CloseHandle, 1, 1117);
    EXPECT_EQ(KIVMP3_close_file(&hFile), 1117u);
    EXPECT_EQ(hFile, hOpen);
    EXPECT_EQ(KIVMP3_close_file(&hFile), 0u);
    EXPECT_EQ(hFile, nullptr);
    EXPECT_EQ(KIVMP3_close_file(&hFile), 6u);

    char szTemp[260] = "";
    EXPECT_NE(KIVMP3_get_system_temp_path(szTemp, 260), 0u);
    EXPECT_EQ(std::string(szTemp).back(), std::filesystem::path::preferred_separator);
    EXPECT_EQ(KIVMP3_get_system_temp_path(szTemp, 2), 0u);
}
