// The largest files, the longest paths, the most open files, and a directory filled by edits.

#include "testing/driver_fixture.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include <sys/resource.h>

namespace fs = std::filesystem;
using ::testing::ElementsAre;

namespace {

class LimitsTest : public DriverTest {
protected:
    std::string const m_sound = path("a.mp3");

    // An existing directory whose path, with the separator behind it, has so many characters.
    std::string directory_of(size_t nLength) const {
        std::string directory = folder();
        while (directory.size() < nLength) {
            size_t const nLeft = nLength - directory.size();
            directory += std::string(nLeft > 100 ? 50 : nLeft - 1, 'd') + "/";
        }
        fs::create_directories(directory);
        return directory;
    }
};

// ---- Size ----

// Each open walks over 4 GiB: one session that ends in a crash, and the next open, show it all.
TEST_F(LimitsTest, AFileJustUnderFourGigabytes) {
    constexpr uint32_t nHead = 1000;
    constexpr uint32_t nLength = 0xFFFFFFFFu - nHead - 128 - 96; // room for one frame more
    constexpr uint32_t nMiddle = 0x80000000u;
    write_file(m_sound, id3v2_tag(nHead) + frames(11));
    fs::resize_file(m_sound, nHead + nLength);
    std::fstream out(m_sound, std::ios::binary | std::ios::in | std::ios::out);
    out.seekp(nHead + nMiddle - 50) << noise(100, 2);
    out.seekp(nHead + nLength - 288) << frames(3, 5) << id3v1_tag();
    ASSERT_TRUE(out.flush().good());

    std::string const last = frames(3, 5).substr(0, 96) + frames(3, 5).substr(192);
    std::string const dictation = frames(1, 7) + frames(10) + last;
    ASSERT_EQ(crash_after([&] {
                  FFDHandle const h = open(m_sound);
                  EXPECT_EQ(length(h), nLength);
                  std::string const zeros(10, '\0');
                  EXPECT_EQ(read(h, nMiddle - 60, 120), zeros + noise(100, 2) + zeros);
                  EXPECT_EQ(insert(h, 0, noise(97)), 29u);
                  EXPECT_EQ(overwrite(h, nLength - 97, noise(97)), 29u);
                  EXPECT_EQ(fs::file_size(m_sound), 0xFFFFFFFFu - 96);
                  EXPECT_EQ(erase(h, nLength - 192, 96), 0u);
                  EXPECT_EQ(insert(h, 0, frames(1, 7)), 0u);
                  EXPECT_EQ(insert(h, 0, noise(1)), 29u);
                  EXPECT_EQ(length(h), nLength);
                  EXPECT_EQ(read(h, nLength - 192, 0xFFFFFFFF), last);
                  EXPECT_EQ(erase(h, 0, nMiddle + 96), 0u);
                  EXPECT_EQ(read(h, 0, 50), noise(100, 2).substr(50));
                  EXPECT_EQ(driver().UndoLast(h), 0u);
                  EXPECT_EQ(read(h, nMiddle + 96 - 50, 100), noise(100, 2));
                  EXPECT_EQ(erase(h, 96 + 960, nLength - 96 - 960 - 192), 0u);
              }),
              0);
    FFDHandle const handle = open(m_sound);
    ASSERT_EQ(m_status, 0u);
    EXPECT_TRUE(same_bytes(read_all(handle), dictation));
    platform_faults::pretend_free_bytes(0xFFFFFFFF);
    close(handle);
    EXPECT_TRUE(same_bytes(read_file(m_sound), id3v2_tag(nHead) + dictation + id3v1_tag()));
    EXPECT_THAT(listing(), ElementsAre("a.mp3"));
}

// ---- Paths ----

TEST_F(LimitsTest, TheLongestPathsThroughCrashesAndDamage) {
    std::string const audio = frames(20);
    std::string const dictation = frames(2, 4) + audio.substr(96);
    std::string const stem = directory_of(200) + std::string(55, 'n');
    std::string const sound = stem + ".mp3"; // 259 characters
    int nExitCode = 86;
    for (unsigned nChange = 1; nExitCode == 86; ++nChange) {
        SCOPED_TRACE(nChange);
        write_file(sound, audio);
        nExitCode = crash_after([&] {
            FFDHandle const h = open(sound);
            EXPECT_EQ(insert(h, 0, frames(2, 4)), 0u);
            EXPECT_EQ(erase(h, 192, 96), 0u);
            platform_faults::stop_before_change(nChange);
            close(h);
        });
        FFDHandle const handle = open(sound);
        ASSERT_EQ(m_status, 0u);
        EXPECT_TRUE(same_bytes(read_all(handle), dictation));
        close(handle);
        EXPECT_TRUE(same_bytes(read_file(sound), dictation));
    }

    write_file(stem + ".DIR", "damage");
    FFDHandle const handle = open(sound);
    EXPECT_EQ(read_file(stem + ".DIR.bad"), "damage");
    EXPECT_TRUE(same_bytes(read_all(handle), dictation));
    close(handle);
    EXPECT_EQ(open(sound + "4"), nullptr); // 260 characters
    EXPECT_EQ(m_status, 1u);
}

TEST_F(LimitsTest, DirectoriesAtTheirLimit) {
    std::string const audio = frames(3);
    struct Row {
        size_t nDirectory;
        char const* pszName;
        FFDDesiredAccess access;
        FFDError open;
    };
    std::vector<Row> rows = {
        {255, "n.m", 1, 0},
        {255, "n.m", 2, 1}, // its .DIR file would have 260 characters
        {256, "n.m", 1, 1}, // the directory itself
        {245, "long name.m3", 2, 0},
    };
    for (size_t nDirectory = 200; nDirectory <= 254; ++nDirectory) {
        rows.push_back({nDirectory, "n.m", 2, 0});
    }
    for (Row const& row : rows) {
        SCOPED_TRACE(testing::Message() << row.nDirectory << " " << row.access);
        std::string const sound = directory_of(row.nDirectory) + row.pszName;
        write_file(sound, audio);
        FFDHandle handle = open(sound, row.access);
        ASSERT_EQ(m_status, row.open);
        if (handle != nullptr && row.access == 1) {
            EXPECT_EQ(read_all(handle), audio);
            close(handle);
        } else if (handle != nullptr) {
            EXPECT_EQ(erase(handle, 0, 96), 0u); // asks for a rebuild
            close(handle);
            EXPECT_EQ(read_file(sound), audio.substr(96));
        }
    }
}

// ---- Counts ----

TEST_F(LimitsTest, AThousandFilesAtOnce) {
    struct rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    unsigned const nFiles =
        static_cast<unsigned>(std::min<uint64_t>(1000, (limit.rlim_cur - 100) / 2));
    auto const name = [&](unsigned n) { return path(std::to_string(n) + ".mp3"); };
    auto const edited = [](unsigned n) {
        return frames(2, n).substr(0, 96) + frames(1, n + 5000) + frames(2, n).substr(96);
    };
    std::vector<FFDHandle> handles;
    for (unsigned n = 0; n < nFiles; ++n) {
        handles.push_back(open_with(name(n), frames(2, n)));
        ASSERT_NE(handles.back(), nullptr) << n;
    }
    for (unsigned n = 0; n < nFiles; ++n) {
        unsigned const nOther = n * 7 % nFiles; // each once: 7 divides no 1000
        EXPECT_EQ(insert(handles[nOther], 96, frames(1, nOther + 5000)), 0u);
    }
    for (unsigned const nFirst : {0u, 1u}) { // every other one
        for (unsigned n = nFirst; n < nFiles; n += 2) {
            ASSERT_EQ(read_all(handles[n]), edited(n)) << n;
            close(handles[n]);
            EXPECT_EQ(driver().Close(handles[n]), 2u);
            ASSERT_TRUE(same_bytes(read_file(name(n)), edited(n))) << n;
        }
    }
    EXPECT_EQ(listing().size(), nFiles);
}

} // namespace
