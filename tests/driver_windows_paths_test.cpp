// The ways to write the path of a file on Windows.
#include "testing/driver_fixture.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>

namespace {

using ::testing::ElementsAre;

class WindowsPathsTest : public DriverTest {
protected:
    WindowsPathsTest() {
        char szFull[260] = "";
        EXPECT_NE(GetFullPathNameA(folder().c_str(), sizeof szFull, szFull, nullptr), 0u);
        m_full = szFull; // "X:\...\"
        m_before = std::filesystem::current_path();
        std::filesystem::current_path(folder());
    }
    ~WindowsPathsTest() override { std::filesystem::current_path(m_before); }

    static std::string text_of(FFDGetFilePathProc slot, FFDHandle handle) {
        char szText[260] = "";
        EXPECT_EQ(slot(handle, szText, sizeof szText), 0u);
        return szText;
    }

    std::string m_full;
    std::filesystem::path m_before;
};

TEST_F(WindowsPathsTest, EveryWayToWriteOne) {
    ASSERT_EQ(m_full.substr(1, 2), ":\\");
    std::string const drive = m_full.substr(0, 2);
    std::string const rooted = m_full.substr(2);
    std::string slashes = m_full;
    std::replace(slashes.begin(), slashes.end(), '\\', '/');
    std::string const network = "\\\\localhost\\" + drive.substr(0, 1) + "$" + rooted;
    for (auto const& [directory, shown] :
         std::vector<std::pair<std::string, std::string>>{{m_full, m_full},
                                                          {slashes, slashes},
                                                          {m_full + ".\\/", m_full + ".\\/"},
                                                          {"\\\\?\\" + m_full, "\\\\?\\" + m_full},
                                                          {network, network},
                                                          {rooted, rooted},
                                                          {drive, drive},
                                                          {"./", "./"},
                                                          {"", m_full}}) {
        SCOPED_TRACE(directory);
        write_file(path("a.b.mp3"), frames(4));
        FFDHandle const handle = open(directory + "a.b.mp3");
        ASSERT_NE(handle, nullptr) << m_status;
        EXPECT_EQ(text_of(driver().GetFilePath, handle), shown);
        EXPECT_EQ(text_of(driver().GetFileName, handle), "a.b.mp3");
        EXPECT_EQ(insert(handle, 96, frames(2, 5)), 0u);
        EXPECT_THAT(listing(), ElementsAre("a.b.DIR", "a.b.mp3"));
        close(handle);
        EXPECT_EQ(read_file(path("a.b.mp3")), frames(1) + frames(2, 5) + frames(4).substr(96));
        EXPECT_THAT(listing(), ElementsAre("a.b.mp3"));
    }
}

TEST_F(WindowsPathsTest, OneFileInTwoSpellings) {
    FFDHandle const handle = open_with(path("dictation.mp3"), frames(4));
    EXPECT_EQ(open("DICTATION.MP3"), nullptr);
    EXPECT_EQ(m_status, 29u);
    EXPECT_EQ(open("Dictation.dir"), nullptr);
    close(handle);
    EXPECT_EQ(read_file(path("dictation.mp3")), frames(4));
}

// Names that the system takes for one file have one directory and one marker, and the rebuilt file
// the name that the disk has.
TEST_F(WindowsPathsTest, OneNameBesideTheFile) {
    write_file(path("Long dictation.mp3"), frames(4));
    char szShort[260] = "";
    ASSERT_NE(GetShortPathNameA(path("Long dictation.mp3").c_str(), szShort, sizeof szShort), 0u);
    std::string const shortName = std::filesystem::path(szShort).filename().string();
    ASSERT_NE(shortName, "Long dictation.mp3");
    for (std::string const name :
         {"LONG DICTATION.MP3", "long dictation.mp3. ", "Long dictation.mp3.",
          "Long dictation.mp3 ", shortName.c_str()}) {
        SCOPED_TRACE(name);
        write_file(path("Long dictation.mp3"), frames(4));
        FFDHandle const handle = open(path(name));
        ASSERT_NE(handle, nullptr) << m_status;
        EXPECT_EQ(text_of(driver().GetFileName, handle), name);
        EXPECT_EQ(insert(handle, 96, frames(2, 5)), 0u);
        EXPECT_THAT(listing(), ElementsAre("Long dictation.DIR", "Long dictation.mp3"));
        EXPECT_EQ(open(path("Long dictation.mp3")), nullptr);
        EXPECT_EQ(m_status, 29u);
        close(handle);
        EXPECT_THAT(listing(), ElementsAre("Long dictation.mp3"));
    }
    EXPECT_EQ(open(path("Long dictation.DIR.")), nullptr);
    EXPECT_EQ(m_status, 1u);
    EXPECT_THAT(listing(), ElementsAre("Long dictation.mp3"));
}

// A name that the code page lacks is used as it was passed, in its short form.
TEST_F(WindowsPathsTest, NameThatTheCodePageLacks) {
    std::filesystem::path const longName = std::filesystem::path(m_full) / L"\u53E3\u8FF0.mp3";
    write_file(path("a.mp3"), frames(4));
    std::filesystem::rename(path("a.mp3"), longName);
    wchar_t szShort[260] = L"";
    ASSERT_NE(GetShortPathNameW(longName.c_str(), szShort, 260), 0u);
    std::filesystem::path const shortName = std::filesystem::path(szShort).filename();
    FFDHandle const handle = open(path(shortName.string()));
    ASSERT_NE(handle, nullptr) << m_status;
    EXPECT_TRUE(exists(path(shortName.stem().string() + ".DIR")));
    close(handle);
}

TEST_F(WindowsPathsTest, StreamsAreRefusedForWriting) {
    write_file(path("a.mp3"), frames(4));
    for (char const* name : {"a.mp3:b", "a.mp3::$DATA", "a.mp3:b.mp3"}) {
        EXPECT_EQ(open(path(name)), nullptr) << name;
        EXPECT_EQ(m_status, 1u) << name;
    }
    EXPECT_THAT(listing(), ElementsAre("a.mp3"));
}

TEST_F(WindowsPathsTest, NoFilePartOrNoPlace) {
    for (auto const& [name, status] :
         std::vector<std::pair<std::string, FFDError>>{{m_full, 1},
                                                       {m_full.substr(0, 2), 1},
                                                       {"sub/", 1},
                                                       {"", 1},
                                                       {"\\\\localhost\\nowhere\\a.mp3", 29},
                                                       {"none\\a.mp3", 29},
                                                       {"q:\\a.mp3", 29},
                                                       {"a?.mp3", 29}}) {
        EXPECT_EQ(open(name), nullptr) << name;
        EXPECT_EQ(m_status, status) << name;
    }
    EXPECT_TRUE(listing().empty());
}

} // namespace
