// A folder with one sound file that is put together and taken apart many times in a test.
#pragma once

#include "testing/driver_fixture.h"

#include <filesystem>
#include <fstream>
#include <map>

class FolderTest : public DriverTest {
protected:
    using Files = std::map<std::string, std::string>; // name and bytes

    FolderTest() { set_temp_directory(folder()); }

    Files files() const {
        Files all;
        for (std::string const& name : listing()) {
            // Windows lets nobody else read a stored status that is open.
            bool const bReadable = std::ifstream(path(name)).good();
            all[name] = bReadable ? read_file(path(name)) : "held";
        }
        return all;
    }

    // Replaces all there is.
    void put(Files const& all) const {
        for (std::string const& name : listing()) {
            std::filesystem::remove(path(name));
        }
        for (auto const& [name, bytes] : all) {
            write_file(path(name), bytes);
        }
    }

    // Whether the name is made of the time: that of a rebuilt file or of a stored status. A file
    // that stays under such a name can make the next one of the same second wait.
    static bool is_of_the_clock(std::string const& name) {
        return name.find(".MP3") == 10 || name.find(".csf") == 10;
    }

    void remove_files_of_the_clock() const {
        for (std::string const& name : listing()) {
            if (is_of_the_clock(name)) {
                std::filesystem::remove(path(name));
            }
        }
    }

    // Opens the sound file, expects the dictation, closes, and expects the closed file alone.
    void expect_dictation(std::string const& dictation, std::string const& closed) {
        FFDHandle const handle = open(m_sound);
        ASSERT_NE(handle, nullptr) << m_status;
        EXPECT_TRUE(same_bytes(read_all(handle), dictation));
        remove_files_of_the_clock();
        close(handle);
        EXPECT_TRUE(same_bytes(read_file(m_sound), closed));
        EXPECT_EQ(listing(), std::vector<std::string>{"a.mp3"});
    }

    std::string const m_sound = path("a.mp3");
};
