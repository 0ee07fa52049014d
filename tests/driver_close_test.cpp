// The close: when the file is rebuilt, what the rebuilt file holds to the byte, and what is found
// again after a close that failed or was cut off.

#include "testing/driver_fixture.h"

#include <gmock/gmock.h>

#include <filesystem>

namespace fs = std::filesystem;
using platform_faults::Call;
using ::testing::ElementsAre;

namespace {

class CloseTest : public DriverTest {
protected:
    std::string const m_sound = path("a.mp3");

    // Whether another file has come under the name by the close.
    bool is_rebuilt_by(std::string const& contents, std::function<void(FFDHandle)> const& session) {
        FFDHandle const handle = open_with(m_sound, contents);
        session(handle);
        platform_faults::reset();
        close(handle);
        EXPECT_THAT(listing(), ElementsAre("a.mp3"));
        return platform_faults::count(Call::MoveFile) == 1;
    }

    // The one name in the folder that is made of digits and ".MP3", or "".
    std::string temp_file() const {
        for (std::string const& name : listing()) {
            if (name.size() > 4 && name.find_first_not_of("0123456789") == name.size() - 4 &&
                name.substr(name.size() - 4) == ".MP3") {
                return path(name);
            }
        }
        return "";
    }
};

TEST_F(CloseTest, TheFileStaysWhereItAlreadyIsTheDictation) {
    std::string const audio = id3v2_tag(300) + frames(10);
    EXPECT_FALSE(is_rebuilt_by(audio, [](FFDHandle) {}));
    EXPECT_TRUE(same_bytes(read_file(m_sound), audio));

    // Appended audio, though it ends inside a frame.
    EXPECT_FALSE(is_rebuilt_by(audio, [](FFDHandle h) {
        EXPECT_EQ(insert(h, 960, frames(2).substr(0, 150)), 0u);
        EXPECT_EQ(overwrite(h, 1110, noise(7)), 0u);
    }));
    EXPECT_TRUE(same_bytes(read_file(m_sound), audio + frames(2).substr(0, 150) + noise(7)));

    EXPECT_FALSE(is_rebuilt_by(audio, [](FFDHandle h) {
        EXPECT_EQ(erase(h, 100, 200), 0u);
        EXPECT_EQ(driver().UndoLast(h), 0u);
    }));
    EXPECT_TRUE(same_bytes(read_file(m_sound), audio));
}

TEST_F(CloseTest, WhatARebuiltFileHolds) {
    std::string const head = id3v2_tag(267);
    std::string const audio = frames(10);
    std::string const tag = id3v1_tag();
    struct {
        char const* pszName;
        std::string trailing;
        std::function<void(FFDHandle)> session;
        std::string expected; // between the head and the trailing bytes
    } const rows[] = {
        {"no edit, but a tag behind", tag, [](FFDHandle) {}, audio},
        {"delete inside frames", "", [](FFDHandle h) { EXPECT_EQ(erase(h, 100, 300), 0u); },
         // The front block ends with the frame that its end has cut; the other begins with the
         // first whole frame and, as it ends with the file's last frame, loses nothing.
         audio.substr(0, 192) + audio.substr(480)},
        {"a block that is moved forward takes nothing of the tag", tag,
         [](FFDHandle h) { EXPECT_EQ(erase(h, 0, 50), 0u); }, audio.substr(96)},
        {"a block that is moved forward takes nothing of appended audio", "",
         [](FFDHandle h) {
             EXPECT_EQ(erase(h, 0, 50), 0u);
             EXPECT_EQ(insert(h, 0, frames(2, 3)), 0u);
         },
         frames(2, 3) + audio.substr(96)},
        {"a block that an append has widened", "",
         [](FFDHandle h) {
             EXPECT_EQ(insert(h, 960, frames(5, 3)), 0u);
             EXPECT_EQ(erase(h, 0, 50), 0u);
             EXPECT_EQ(erase(h, 910 + 110, 100), 0u); // inside the frames appended
         },
         audio.substr(96) + frames(5, 3).substr(0, 192) + frames(5, 3).substr(288)},
        {"a block whose copy ends inside the last frame of the file", tag,
         [](FFDHandle h) {
             EXPECT_EQ(insert(h, 480, frames(3, 3)), 0u);
             EXPECT_EQ(erase(h, 480, 50), 0u);
             EXPECT_EQ(erase(h, 480 + 178, 60), 0u);
         },
         audio.substr(0, 480) + frames(3, 3).substr(96) + audio.substr(480)},
        {"everything deleted", tag, [](FFDHandle h) { EXPECT_EQ(erase(h, 0, 960), 0u); }, ""},
        {"a block of less than a frame", "",
         [](FFDHandle h) { EXPECT_EQ(insert(h, 480, frames(1, 3).substr(0, 95)), 0u); }, audio},
        {"a block without a frame", "",
         [](FFDHandle h) { EXPECT_EQ(insert(h, 480, noise(500)), 0u); }, audio},
        {"a block whose first header lies behind the audio", tag,
         [](FFDHandle h) {
             EXPECT_EQ(erase(h, 0, 860), 0u); // leaves 100 bytes: 4 of a frame and a whole one
             EXPECT_EQ(insert(h, 100, noise(2)), 0u);
             EXPECT_EQ(insert(h, 0, frames(1, 3)), 0u);
         },
         frames(1, 3) + audio.substr(864)},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.pszName);
        EXPECT_TRUE(is_rebuilt_by(head + audio + row.trailing, row.session));
        EXPECT_TRUE(same_bytes(read_file(m_sound), head + row.expected + row.trailing));
    }
}

#if !defined(_WIN32) // where an open file keeps its name
// A tag behind the audio asks for a rebuild without any edit; nothing is to be rescued then.
TEST_F(CloseTest, AFileThatLostItsNameWithoutAnEditLeavesNothing) {
    for (bool const bReplaced : {false, true}) {
        FFDHandle const handle = open_with(m_sound, frames(10) + id3v1_tag());
        fs::remove(m_sound);
        if (bReplaced) {
            write_file(m_sound, frames(7, 5));
        }
        close(handle);
        EXPECT_EQ(listing(), std::vector<std::string>(bReplaced ? 1 : 0, "a.mp3"));
        EXPECT_TRUE(!bReplaced || same_bytes(read_file(m_sound), frames(7, 5)));
    }
}
#endif

// Frames of 417 bytes, and a block from 500 to 1300: it is moved forward to the frame at 834 and
// widened to the end of the frame at 1251.
TEST_F(CloseTest, ABlockIsBroughtBackToWholeFrames) {
    std::string audio;
    for (unsigned nFrame = 0; nFrame < 5; ++nFrame) {
        audio += std::string("\xFF\xFB\x90\xC0", 4) + noise(413, nFrame);
    }
    write_file(path("a.DIR"), dir_image({{3, 0, 500}, {1, 500, 1300}, {3, 1300, 2085}}));
    FFDHandle const handle = open_with(m_sound, audio);
    EXPECT_EQ(length(handle), 800u);
    close(handle);
    EXPECT_TRUE(same_bytes(read_file(m_sound), audio.substr(834, 834)));
}

TEST_F(CloseTest, AppendedAudioAndTagsAfterACrash) {
    using Session = std::function<void(FFDHandle)>;
    std::string const head = id3v2_tag(100);
    std::string const audio = frames(10);
    Session const nothing = [](FFDHandle) {};
    struct {
        Session before, after; // the crash
        std::string expected;  // between the head and what trails it
    } const rows[] = {
        {[](FFDHandle h) {
             EXPECT_EQ(insert(h, 0, frames(1, 1)), 0u);
             EXPECT_EQ(driver().StoreActualFileStatus(h), 0u);
             EXPECT_EQ(insert(h, 0, frames(1, 2)), 0u); // dropped
             EXPECT_EQ(driver().RestoreFileStatus(h), 0u);
             EXPECT_EQ(insert(h, 96, frames(1, 3)), 0u);
         },
         nothing, frames(1, 1) + frames(1, 3) + audio},
        {[](FFDHandle h) { EXPECT_EQ(insert(h, 960, frames(2, 1)), 0u); },
         [](FFDHandle h) { EXPECT_EQ(insert(h, 1152, frames(2, 2)), 0u); },
         audio + frames(2, 1) + frames(2, 2)},
        // Where a block is moved forward, the frame behind its end comes along to fill its length.
        {[](FFDHandle h) {
             EXPECT_EQ(insert(h, 480, frames(2, 1)), 0u);
             EXPECT_EQ(erase(h, 0, 50), 0u);
         },
         nothing, audio.substr(96, 480) + frames(2, 1) + audio.substr(480)},
        {[](FFDHandle h) { EXPECT_EQ(erase(h, 0, 96), 0u); }, nothing, audio.substr(96)},
    };
    for (std::string const& trailing :
         {id3v1_tag(), std::string("APETAGEX") + noise(300), std::string()}) {
        for (auto const& row : rows) {
            SCOPED_TRACE(testing::Message() << &row - rows << " " << trailing.size());
            write_file(m_sound, head + audio + trailing);
            EXPECT_EQ(crash_after([&] { row.before(open(m_sound)); }), 0);
            FFDHandle const handle = open(m_sound);
            row.after(handle);
            close(handle);
            EXPECT_TRUE(same_bytes(read_file(m_sound), head + row.expected + trailing));
        }
    }
}

TEST_F(CloseTest, TooLittleSpaceKeepsTheEditsForTheNextOpen) {
    std::string const audio = frames(10);
    FFDHandle handle = open_with(m_sound, audio);
    ASSERT_EQ(insert(handle, 480, frames(1, 3)), 0u);
    platform_faults::pretend_free_bytes(1055);
    close(handle, 6);
    EXPECT_THAT(listing(), ElementsAre("a.DIR", "a.mp3"));
    EXPECT_TRUE(same_bytes(read_file(m_sound), audio + frames(1, 3)));

    platform_faults::pretend_free_bytes(1056);
    handle = open(m_sound);
    close(handle);
    EXPECT_THAT(listing(), ElementsAre("a.mp3"));
    EXPECT_TRUE(
        same_bytes(read_file(m_sound), audio.substr(0, 480) + frames(1, 3) + audio.substr(480)));
}

// Each failure of a rebuild: its status, the files it leaves, and the next close, which works.
TEST_F(CloseTest, ARebuildThatFailsLosesNothing) {
    std::string const audio = frames(10);
    std::string const dictation = audio.substr(0, 480) + frames(1, 3) + audio.substr(480);
    struct {
        char const* pszName;
        std::function<void()> fault;
        FFDError status;
        bool bTempFile;
    } const rows[] = {
        {"free space", [] { platform_faults::fail(Call::GetDiskFreeSpaceEx, 1, 21); }, 6, false},
        {"temporary file", [] { platform_faults::fail(Call::CreateFile, 1, 5); }, 29, false},
        {"memory", [] { platform_faults::fail(Call::HeapAlloc, 1, 8); }, 27, true},
        {"read", [] { platform_faults::fail(Call::ReadFile, 2, 1117); }, 29, true},
        {"short read", [] { platform_faults::halve(Call::ReadFile, 2, 0); }, 29, true},
        {"write", [] { platform_faults::fail(Call::WriteFile, 2, 112); }, 29, true},
        {"short write", [] { platform_faults::halve(Call::WriteFile, 2, 0); }, 29, true},
        {"flush", [] { platform_faults::fail(Call::FlushFileBuffers, 1, 1117); }, 29, true},
        {"marker", [] { platform_faults::fail(Call::FlushFileBuffers, 2, 1117); }, 29, false},
        {"no room for the marker", [] { platform_faults::fail(Call::FlushFileBuffers, 2, 112); }, 6,
         false},
        {"removal of the old file", [] { platform_faults::fail(Call::DeleteFile, 1, 5); }, 29,
         true},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.pszName);
        FFDHandle handle = open_with(m_sound, audio);
        ASSERT_EQ(insert(handle, 480, frames(1, 3)), 0u);
        row.fault();
        close(handle, row.status);
        platform_faults::reset();
        EXPECT_EQ(!temp_file().empty(), row.bTempFile);
        EXPECT_EQ(listing().size(), row.bTempFile ? 3u : 2u);
        EXPECT_TRUE(same_bytes(read_file(m_sound), audio + frames(1, 3)));
        if (row.bTempFile) {
            fs::remove(temp_file());
        }
        handle = open(m_sound);
        EXPECT_TRUE(same_bytes(read_all(handle), dictation));
        close(handle);
        EXPECT_TRUE(same_bytes(read_file(m_sound), dictation));
        EXPECT_THAT(listing(), ElementsAre("a.mp3"));
    }
}

// Somebody takes the name between the removal of the old file and the rename.
TEST_F(CloseTest, ANameThatIsTakenMeanwhileStaysWithItsFile) {
    static std::string s_sound;
    s_sound = m_sound;
    FFDHandle const handle = open_with(m_sound, frames(10));
    ASSERT_EQ(insert(handle, 0, frames(1, 3)), 0u);
    platform_faults::watch([](Call call) {
        if (call == Call::MoveFile) {
            write_file(s_sound, frames(7, 5));
        }
    });
    close(handle, 29);
    platform_faults::reset();
    EXPECT_THAT(listing(), ElementsAre(testing::EndsWith(".MP3"), "a.DIR.bad", "a.mp3"));
    EXPECT_TRUE(same_bytes(read_file(m_sound), frames(7, 5)));
    EXPECT_TRUE(same_bytes(read_file(temp_file()), frames(1, 3) + frames(10)));
}

class MarkerTest : public CloseTest {
protected:
    // A close whose rename fails, behind an insert and, for a rebuilt file of another size, a
    // delete. Its marker, directory and temporary file are kept to be put beside other files.
    void interrupt_close(bool bOneSize) {
        FFDHandle const handle = open_with(m_sound, frames(10));
        ASSERT_EQ(insert(handle, 0, frames(1, 3)), 0u);
        ASSERT_EQ(bOneSize ? 0u : erase(handle, 96, 96), 0u);
        platform_faults::fail(Call::MoveFile, 1, 5);
        close(handle, 29);
        platform_faults::reset();
        m_marker = read_file(path("a.CLM"));
        m_dir = read_file(path("a.DIR"));
        m_temp = temp_file();
        m_rebuilt = read_file(m_temp);
        EXPECT_TRUE(same_bytes(m_rebuilt, frames(1, 3) + frames(10).substr(bOneSize ? 0 : 96)));
    }
    void put(std::string const& file, std::string const& contents) {
        fs::remove(file);
        if (!contents.empty()) {
            write_file(file, contents);
        }
    }
    std::string m_marker, m_dir, m_temp, m_rebuilt;
};

TEST_F(MarkerTest, TheMarkerToTheByte) {
    interrupt_close(true);
    std::string const temp = fs::path(m_temp).filename().string();
    ASSERT_EQ(m_marker.size(), 552u);
    EXPECT_EQ(m_marker.substr(0, 8), "XKIVCLM1");
    EXPECT_EQ(m_marker.substr(12, 8), std::string("\x20\4\0\0\x20\4\0\0", 8)); // 1056 twice
    EXPECT_EQ(m_marker.substr(32, 260), "a.mp3" + std::string(255, '\0'));
    EXPECT_EQ(m_marker.substr(292, 260), temp + std::string(260 - temp.size(), '\0'));
    fs::remove(m_temp);
}

// A marker that is another sound file's stays where it is; one that names the file as a file system
// spells it that takes letters of either case for the same (here: hard links) is the file's own.
TEST_F(MarkerTest, WhoseMarkerItIs) {
    interrupt_close(false);
    for (std::string const& file : {m_sound, path("a.CLM"), path("a.DIR"), m_temp}) {
        fs::remove(file);
    }
    FFDHandle handle = open_with(path("a.mpg"), frames(10));
    ASSERT_EQ(insert(handle, 0, frames(1, 3)), 0u);
    put(path("a.CLM"), m_marker);
    close(handle, 29);
    EXPECT_EQ(read_file(path("a.CLM")), m_marker);
    EXPECT_THAT(listing(), ElementsAre("a.CLM", "a.DIR", "a.mpg"));

#if !defined(_WIN32) // where no two names differ in case
    fs::rename(path("a.CLM"), path("A.CLM"));
    fs::remove(path("a.mpg"));
    write_file(m_sound, m_rebuilt);
    fs::create_hard_link(m_sound, path("A.mp3"));
    handle = open(path("A.mp3")); // the directory is of the old file
    EXPECT_THAT(listing(), ElementsAre("A.DIR", "A.mp3", "a.mp3"));
    EXPECT_TRUE(same_bytes(read_all(handle), m_rebuilt));
    close(handle);
#endif
}

// The process that settles an interrupted close ends in front of each change of the disk, and the
// open behind it must come to the same dictation. Where old and rebuilt file have one size, their
// contents tell whether the rename took place.
TEST_F(MarkerTest, MarkersThatAreMetAtAnOpen) {
    for (bool const bOneSize : {false, true}) {
        interrupt_close(bOneSize);
        std::string const old = frames(10) + frames(1, 3);
        std::string const torn = m_marker.substr(0, 300);
        std::string const other = frames(4, 9);
        struct {
            char const* pszName;
            std::string sound; // "" for none
            std::string temp;
            std::string marker;
            std::string dictation;     // "" for a failed open
            char const* pszAside = ""; // what is set aside
            bool bTempStays = false;
        } const rows[] = {
            {"nothing removed yet", old, m_rebuilt, m_marker, m_rebuilt},
            {"the rebuilt file removed by hand", old, "", m_marker, m_rebuilt},
            {"old file removed", "", m_rebuilt, m_marker, m_rebuilt},
            {"renamed", m_rebuilt, "", m_marker, m_rebuilt},
            {"torn", old, "", torn, m_rebuilt, "a.CLM.bad"},
            {"with bytes behind", old, "", m_marker + "x", m_rebuilt, "a.CLM.bad"},
            {"another file under the name", other, "", m_marker, other, "a.DIR.bad"},
            {"another file beside the rebuilt one", other, m_rebuilt, m_marker, other, "a.DIR.bad",
             true},
            {"no file at all", "", "", m_marker, ""},
            {"a temporary file of another size", "", m_rebuilt + "x", m_marker, ""},
        };
        for (auto const& row : rows) {
            SCOPED_TRACE(row.pszName);
            int nExitCode = 86;
            for (unsigned nChange = 1; nExitCode == 86; ++nChange) {
                put(m_sound, row.sound);
                put(m_temp, row.temp);
                put(path("a.CLM"), row.marker);
                put(path("a.DIR"), m_dir);
                std::vector<std::string> const before = listing();
                FFDHandle const reader = open(m_sound, 1);
                EXPECT_EQ(reader == nullptr, row.sound.empty());
                if (reader != nullptr) {
                    close(reader);
                }
                EXPECT_EQ(listing(), before); // an open for reading touches nothing
                nExitCode = crash_after([&] {
                    platform_faults::stop_before_change(nChange);
                    open(m_sound);
                });
                FFDHandle const handle = open(m_sound);
                if (row.dictation.empty()) {
                    EXPECT_EQ(handle, nullptr);
                    EXPECT_EQ(listing(), before);
                    continue;
                }
                EXPECT_TRUE(same_bytes(read_all(handle), row.dictation)) << nChange;
                close(handle);
                EXPECT_TRUE(same_bytes(read_file(m_sound), row.dictation)) << nChange;
                EXPECT_EQ(exists(m_temp), row.bTempStays);
                EXPECT_EQ(listing().size(),
                          1u + (row.pszAside[0] == '\0' ? 0 : 1) + (row.bTempStays ? 1 : 0));
                fs::remove(path(*row.pszAside == '\0' ? "none" : row.pszAside));
            }
            EXPECT_EQ(nExitCode, 0);
        }
        put(m_sound, "");
        put(m_temp, "");
        put(path("a.CLM"), "");
        put(path("a.DIR"), "");
    }
}

TEST_F(CloseTest, AnHourOfSpeech) {
    std::string frame = std::string("\xFF\xFB\x90\xC0", 4) + noise(413);
    std::string audio;
    audio.reserve(size_t{137000} * 417);
    for (unsigned nFrame = 0; nFrame < 137000; ++nFrame) {
        audio += frame;
    }
    FFDHandle const handle = open_with(m_sound, audio);
    EXPECT_EQ(length(handle), 57129000u);
    std::string const piece = std::string("\xFF\xFB\x90\xC0", 4) + noise(413, 2);
    ASSERT_EQ(overwrite(handle, 28564500, piece), 0u); // 68500 frames
    ASSERT_EQ(erase(handle, 28564917, 417 * 1000), 0u);
    close(handle);
    audio.replace(28564500, 417, piece);
    audio.erase(28564917, 417000);
    EXPECT_TRUE(same_bytes(read_file(m_sound), audio));
}

} // namespace
