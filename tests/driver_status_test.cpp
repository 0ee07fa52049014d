// The stored status: the bytes of its file, what a restore brings back and what it leaves, and a
// store that can't be.

#include "testing/driver_folder.h"

#include <gmock/gmock.h>

#include <ctime>
#include <filesystem>

namespace fs = std::filesystem;
using platform_faults::Call;
using ::testing::ElementsAre;

namespace {

// The clock of this program: it goes only while the driver rests, and may go backwards (the linker
// puts this in the place of time and Sleep). Its seconds don't fit 32 bits.
int64_t g_nMilliseconds = 0;
int64_t g_nDirection = 1;
unsigned g_nLooks = 0;

class StatusTest : public FolderTest {
protected:
    StatusTest() {
        g_nMilliseconds = 5000000000000;
        g_nDirection = 1;
    }

    static FFDError store(FFDHandle handle) { return driver().StoreActualFileStatus(handle); }
    static FFDError restore(FFDHandle handle) { return driver().RestoreFileStatus(handle); }

    // The one .csf file in the folder, "" if there is none.
    std::string csf() const {
        std::string found;
        for (std::string const& name : listing()) {
            if (name.size() > 4 && name.substr(name.size() - 4) == ".csf" &&
                fs::file_size(path(name)) != 5) { // "taken" by somebody else
                EXPECT_EQ(found, "");
                found = path(name);
            }
        }
        return found;
    }

    std::string const m_audio = frames(10); // 240 ms
};

} // namespace

extern "C" {
time_t __wrap_time(time_t* pSeconds);
time_t __wrap_time(time_t* pSeconds) {
    ++g_nLooks;
    time_t const nSeconds = g_nMilliseconds / 1000;
    return pSeconds == nullptr ? nSeconds : *pSeconds = nSeconds;
}
void WINAPI __wrap_Sleep(DWORD dwMilliseconds);
void WINAPI __wrap_Sleep(DWORD dwMilliseconds) {
    g_nMilliseconds += g_nDirection * dwMilliseconds;
}
}

namespace {

TEST_F(StatusTest, TheFileToTheByte) {
    FFDHandle const handle = open_with(m_sound, m_audio);
    seek(handle, 500);
    ASSERT_EQ(store(handle), 0u);
    EXPECT_THAT(listing(), ElementsAre("5000000000.csf", "a.DIR", "a.mp3"));
    EXPECT_EQ(read_file(csf()), std::string("\1\0\0\0"
                                            "\1\0\0\0\0\0\0\0\xC0\3\0\0"
                                            "\0\0\0\0\0\0\0\0"
                                            "\xF4\1\0\0\0\0\0\0\xF0\0\0\0",
                                            36));
    // The next store counts alone; deleted entries and their marks are in it.
    ASSERT_EQ(erase(handle, 96, 192), 0u);
    ASSERT_EQ(store(handle), 0u);
    EXPECT_THAT(listing(), ElementsAre("5000000000.csf", "a.DIR", "a.mp3"));
    EXPECT_EQ(read_file(csf()), std::string("\3\0\0\0"
                                            "\1\0\0\0\0\0\0\0\x60\0\0\0"
                                            "\xB\0\0\0\x60\0\0\0\x20\1\0\0"
                                            "\1\0\0\0\x20\1\0\0\xC0\3\0\0"
                                            "\0\0\0\0\0\0\0\0"
                                            "\x60\0\0\0\0\0\0\0\xC0\0\0\0",
                                            60));
    // Nobody else gets at it.
    EXPECT_EQ(CreateFileA(csf().c_str(), GENERIC_READ, 3, nullptr, 3, 0, nullptr),
              INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), 32u);
    close(handle);
    EXPECT_THAT(listing(), ElementsAre("a.mp3"));
}

// What a restore brings back, the sessions beside the model know.
TEST_F(StatusTest, AReadHandleIsAsStaleAsItsPosition) {
    FFDHandle const handle = open_with(m_sound, m_audio);
    seek(handle, 96);
    ASSERT_EQ(store(handle), 0u);
    std::string buffer(96, '\0');
    auto const read_behind_restore = [&](uint32_t nPosition) {
        seek(handle, nPosition);
        FFDReadHandle* pReadHandle = nullptr;
        EXPECT_EQ(driver().GetSizeOfData(handle, 96, &pReadHandle), 0u);
        EXPECT_EQ(restore(handle), 0u);
        return driver().ReadData(handle, pReadHandle, 96,
                                 reinterpret_cast<uint8_t*>(buffer.data()));
    };
    EXPECT_EQ(read_behind_restore(192), 11u);
    EXPECT_EQ(read_behind_restore(96), 0u);
    EXPECT_EQ(buffer, m_audio.substr(96, 96));
    close(handle);
}

// A last frame that the end of the file cuts short is counted whole; behind a store new audio must
// not become the rest of it.
TEST_F(StatusTest, AStoreCutsTheEntriesToTheFile) {
    FFDHandle const handle = open_with(m_sound, m_audio.substr(0, 930));
    seek(handle, 960);
    ASSERT_EQ(store(handle), 0u);
    ASSERT_EQ(insert(handle, 0, frames(2, 3)), 0u);
    ASSERT_EQ(restore(handle), 0u);
    EXPECT_EQ(position(handle), 930u);
    EXPECT_TRUE(same_bytes(read_all(handle), m_audio.substr(0, 930)));
    // The size that the host is told follows its own writes.
    std::filesystem::resize_file(m_sound, 2000);
    ASSERT_EQ(store(handle), 0u);
    uint32_t nSize = 0;
    EXPECT_EQ(driver().GetDictationFileSize(handle, &nSize), 0u);
    EXPECT_EQ(nSize, 1122u);
}

// 29 and nothing changed; or, where the bytes still make sense, a directory that can be used.
TEST_F(StatusTest, AStoredStatusThatIsNotWholeRestoresNothing) {
    FFDHandle const handle = open_with(m_sound, m_audio);
    ASSERT_EQ(insert(handle, 480, frames(1, 3)), 0u);
    ASSERT_EQ(erase(handle, 96, 192), 0u);
    seek(handle, 100);
    ASSERT_EQ(store(handle), 0u);
    std::string const file = csf();
    std::string const whole = read_file(file);
    ASSERT_EQ(whole.size(), 84u); // five entries
    ASSERT_EQ(insert(handle, 0, frames(1, 4)), 0u);
    std::string const present = read_all(handle);

    auto const spoil = [&](std::string const& bytes) {
        std::fstream(file, std::ios::binary | std::ios::in | std::ios::out) << bytes;
        fs::resize_file(file, bytes.size());
    };
    auto const restore_from = [&](std::string const& damaged) {
        spoil(damaged);
        seek(handle, 300);
        FFDError const status = restore(handle);
        if (status == 0) {
            read(handle, 0, 2000);
            EXPECT_EQ(insert(handle, 0, frames(1, 5)), 0u);
            EXPECT_EQ(erase(handle, 0, 96), 0u);
            EXPECT_EQ(driver().UndoLast(handle), 0u);
            spoil(whole);
            EXPECT_EQ(restore(handle), 0u);
            EXPECT_EQ(insert(handle, 0, frames(1, 4)), 0u);
        } else {
            EXPECT_EQ(position(handle), 300u);
        }
        EXPECT_TRUE(same_bytes(read_all(handle), present));
        return status;
    };
    for (size_t nBytes = 0; nBytes < whole.size(); ++nBytes) {
        EXPECT_EQ(restore_from(whole.substr(0, nBytes)), 29u) << nBytes;
    }
    for (size_t nBit = 0; nBit < whole.size() * 8; ++nBit) {
        size_t const nByte = nBit / 8;
        std::string damaged = whole;
        damaged[nByte] = static_cast<char>(damaged[nByte] ^ 1 << nBit % 8);
        FFDError const status = restore_from(damaged);
        bool const bEntry = nByte >= 4 && nByte < 64;
        // The count, and in each entry the reserved bytes; the status but for a change to 1 or 3.
        bool const bWrong = nByte < 4 ||
                            (bEntry && (nByte - 4) % 12 >= 1 && (nByte - 4) % 12 <= 3) ||
                            (bEntry && (nByte - 4) % 12 == 0 && nBit % 8 != 1 && nBit % 8 != 3);
        EXPECT_TRUE(status == 29 || (status == 0 && !bWrong)) << nBit;
    }
    EXPECT_EQ(restore_from(std::string("\x56\x15\0\0", 4) + std::string(65568, '\1')), 29u); // 5462
}

TEST_F(StatusTest, StoresThatFail) {
    FFDHandle const reader = (write_file(m_sound, m_audio), open(m_sound, 1));
    EXPECT_EQ(store(reader), 34u);
    EXPECT_EQ(restore(reader), 34u);
    EXPECT_THAT(listing(), ElementsAre("a.mp3"));
    close(reader);

    FFDHandle const handle = open(m_sound);
    ASSERT_EQ(erase(handle, 96, 192), 0u);
    seek(handle, 200);
    std::string const dictation = read_all(handle);
    struct Row {
        char const* pszName;
        std::function<void()> arrange;
        FFDError status;
    };
    auto const temp = [](std::string const& directory) {
        return [directory] { set_temp_directory(directory); };
    };
    std::vector<Row> rows = {
        {"no such directory", temp(path("none")), 29},
        {"a file for a directory", temp(m_sound), 29},
        {"no temporary directory", [] { platform_faults::fail(Call::GetTempPath, 1, 3); }, 29},
        {"not allowed", [] { platform_faults::fail(Call::CreateFile, 1, 5); }, 29},
        {"directory of 260 characters", temp("/" + std::string(259, 'd')), 29},
        {"a name that does not fit", temp(folder() + std::string(250 - folder().size(), 'd')), 29},
        {"rewind", [] { platform_faults::fail(Call::SetFilePointer, 1, 1117); }, 29},
    };
    for (unsigned nWrite = 1; nWrite <= 6; ++nWrite) {
        rows.push_back({"write", [=] { platform_faults::fail(Call::WriteFile, nWrite, 112); }, 29});
        rows.push_back({"short", [=] { platform_faults::halve(Call::WriteFile, nWrite, 0); }, 29});
    }
    for (Row const& row : rows) {
        SCOPED_TRACE(row.pszName);
        ASSERT_EQ(store(handle), 0u); // whatever comes of the next one, this one is over
        row.arrange();
        EXPECT_EQ(store(handle), row.status);
        platform_faults::reset();
        set_temp_directory(folder());
        EXPECT_EQ(position(handle), 200u);
        EXPECT_TRUE(same_bytes(read_all(handle), dictation));
        EXPECT_EQ(restore(handle), row.status == 0 ? 0u : 33u);
        EXPECT_TRUE(same_bytes(read_all(handle), dictation));
        EXPECT_EQ(csf().empty(), row.status != 0);
    }
    EXPECT_EQ(driver().UndoLast(handle), 0u);
    close(handle);
    EXPECT_TRUE(same_bytes(read_file(m_sound), m_audio));
    EXPECT_THAT(listing(), ElementsAre("a.mp3"));
}

// A name made of the clock that is taken is tried anew with each second, for three seconds or ten,
// and hardly anything is done meanwhile. Nobody can block it for longer, nor a clock that stands or
// is set back.
TEST_F(StatusTest, NamesThatAreTaken) {
    struct {
        int64_t nFrom, nTo; // the seconds whose names are taken
        int64_t nDirection;
        FFDError store, close;
    } const rows[] = {
        {0, 2, 1, 0, 0},    {0, 3, 1, 29, 0},  {0, 9, 1, 29, 0},
        {0, 99, 1, 29, 29}, {0, 0, 0, 29, 29}, {-99, 0, -1, 29, 29},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(testing::Message() << row.nFrom << " " << row.nTo << " " << row.nDirection);
        FFDHandle const handle = (put({}), open_with(m_sound, m_audio));
        ASSERT_EQ(erase(handle, 96, 192), 0u);
        int64_t const nBegin = g_nMilliseconds = 6000000000000;
        g_nDirection = row.nDirection;
        Files taken;
        for (char const* pszExtension : {".csf", ".MP3"}) {
            for (int64_t nSecond = row.nFrom; nSecond <= row.nTo; ++nSecond) {
                std::string const name = std::to_string(nBegin / 1000 + nSecond) + pszExtension;
                write_file(path(name), taken[name] = "taken");
            }
        }
        auto const begin = [&] {
            g_nMilliseconds = nBegin;
            g_nLooks = 0;
            platform_faults::reset();
        };
        begin();
        EXPECT_EQ(store(handle), row.store);
        EXPECT_EQ(csf().empty(), row.store != 0);
        EXPECT_LE(platform_faults::count(Call::CreateFile), 4u);
        begin();
        close(handle, row.close);
        EXPECT_LE(platform_faults::count(Call::CreateFile), 20u);
        EXPECT_LE(g_nLooks, 130u);
        Files left = files();
        left.erase("a.mp3");
        left.erase("a.DIR");
        EXPECT_EQ(left, taken);
        EXPECT_EQ(exists(path("a.DIR")), row.close != 0);
    }
}

} // namespace
