// The edit directory as it lies on the disk after each edit, its repair, and what becomes of .DIR
// files that can't be trusted.

#include "testing/driver_fixture.h"

#include <gmock/gmock.h>

using ::testing::ElementsAre;

namespace {

class DirectoryTest : public DriverTest {
protected:
    std::string const m_sound = path("a.mp3");
    std::string const m_dir = path("a.DIR");

    void expect_entries(std::vector<Entry> const& entries) {
        EXPECT_TRUE(same_bytes(read_file(m_dir), dir_image(entries)));
    }
};

// What any session leaves here, session_test knows to the byte; here it is in letters, once.
TEST_F(DirectoryTest, TheFileToTheByte) {
    FFDHandle const handle = open_with(m_sound, thousand_bytes());
    EXPECT_EQ(read_file(m_dir), "");
    ASSERT_EQ(insert(handle, 300, noise(100)), 0u);
    ASSERT_EQ(erase(handle, 250, 120), 0u);
    ASSERT_EQ(erase(handle, 250, 30), 0u);
    std::string const bytes("\1\0\0\0\0\0\0\0\xFA\0\0\0"
                            "\3\0\0\0\xFA\0\0\0\x2C\1\0\0"
                            "\3\0\0\0\xE8\3\0\0\x2E\4\0\0"
                            "\xB\0\0\0\x2E\4\0\0\x4C\4\0\0"
                            "\1\0\0\0\x2C\1\0\0\xE8\3\0\0",
                            60);
    EXPECT_EQ(read_file(m_dir), bytes + std::string(65476, '\0'));
}

TEST_F(DirectoryTest, AFullDirectoryRefusesAndKeepsAll) {
    std::string const audio = frames(600);
    // 5460 entries: 5459 blocks of 10 bytes and the rest, all live and in order.
    std::vector<Entry> entries;
    for (uint32_t nEntry = 0; nEntry < 5459; ++nEntry) {
        entries.push_back({1, nEntry * 10, nEntry * 10 + 10});
    }
    entries.push_back({1, 54590, 57600});
    write_file(m_dir, dir_image(entries));
    FFDHandle const handle = open_with(m_sound, audio);
    ASSERT_EQ(erase(handle, 20, 10), 0u); // on borders: no new entry
    entries[2].nStatus = 11;

    struct {
        char const* pszName;
        FFDError status;
    } refused[] = {
        {"insert inside a block", insert(handle, 105, noise(10))},
        {"overwrite inside blocks", overwrite(handle, 105, noise(13))},
        {"delete inside a block", erase(handle, 105, 3)},
    };
    for (auto const& row : refused) {
        EXPECT_EQ(row.status, 27u) << row.pszName;
    }
    EXPECT_EQ(position(handle), 105u);
    EXPECT_EQ(read_file(m_sound), audio);
    expect_entries(entries);

    ASSERT_EQ(insert(handle, 100, noise(10, 5)), 0u); // one entry more: now it is full
    entries.insert(entries.begin() + 11, {1, 57600, 57610});
    expect_entries(entries);
    EXPECT_EQ(insert(handle, 200, noise(1)), 27u);
    ASSERT_EQ(insert(handle, 110, noise(10, 6)), 0u); // widens the block just written
    ASSERT_EQ(erase(handle, 130, 50), 0u);            // from border to border
    EXPECT_EQ(overwrite(handle, 130, noise(20)), 27u);
    ASSERT_EQ(driver().UndoLast(handle), 0u);
    EXPECT_EQ(length(handle), 57610u);
    EXPECT_EQ(read(handle, 95, 30),
              audio.substr(105, 5) + noise(10, 5) + noise(10, 6) + audio.substr(110, 5));
    close(handle);
    EXPECT_THAT(listing(), ElementsAre("a.mp3"));
}

struct Recovery {
    uint32_t nHeld; // bytes of audio in the file, whole frames of 96
    Entry highest;  // of the directory, which is 0 to 288, the highest, 288 to 960
    Entry repaired;
    uint32_t nLength;
};

TEST_F(DirectoryTest, RecoveryFitsTheHighestBlockToTheFile) {
    std::vector<Recovery> const rows = {
        {1056, {1, 960, 1056}, {1, 960, 1056}, 1056}, // file and directory agree
        {1152, {1, 960, 1056}, {1, 960, 1152}, 1152}, // an append that no flush followed
        {1152, {1, 960, 1248}, {1, 960, 1152}, 1152}, // part of the block is missing
        {960, {1, 960, 1056}, {3, 0, 0}, 960},        // all of it
        {864, {1, 960, 1056}, {1, 960, 1056}, 1056},  // more than all of it: nothing is repaired
        {1152, {3, 960, 1056}, {3, 960, 1056}, 960},  // the highest block is deleted
        {1152, {11, 960, 1056}, {11, 960, 1056}, 960},
    };
    for (Recovery const& row : rows) {
        SCOPED_TRACE(row.nHeld);
        write_file(m_dir, dir_image({{1, 0, 288}, row.highest, {1, 288, 960}}));
        FFDHandle const handle = open_with(m_sound, frames(row.nHeld / 96));
        EXPECT_EQ(length(handle), row.nLength);
        // The repair is in memory until an edit; an undo-able delete of all shows the entries.
        EXPECT_EQ(read_file(m_dir), dir_image({{1, 0, 288}, row.highest, {1, 288, 960}}));
        EXPECT_EQ(erase(handle, 0, 288), 0u);
        expect_entries({{11, 0, 288},
                        {row.repaired.nStatus == 11 ? 3 : row.repaired.nStatus,
                         row.repaired.nStartpos, row.repaired.nEndpos},
                        {1, 288, 960}});
        close(handle);
    }
}

TEST_F(DirectoryTest, AnAppendBehindATagIsFoundAgain) {
    // The appended block ends at 960 + 128 + 96; an end that equals the sum of all sizes by chance
    // (the 96 bytes in front of it) must not grow into it.
    std::string const audio = frames(10);
    for (std::vector<uint32_t> const& cuts : {std::vector<uint32_t>{}, {96}, {96, 192}}) {
        write_file(m_sound, audio + id3v1_tag());
        std::string expected = audio;
        ASSERT_EQ(crash_after([&] {
                      FFDHandle const handle = open(m_sound);
                      EXPECT_EQ(insert(handle, 480, frames(1, 40)), 0u);
                      for (uint32_t nCut : cuts) {
                          EXPECT_EQ(insert(handle, nCut, frames(2, nCut)), 0u);
                      }
                  }),
                  0);
        expected.insert(480, frames(1, 40));
        for (uint32_t nCut : cuts) {
            expected.insert(nCut, frames(2, nCut));
        }
        FFDHandle const handle = open(m_sound);
        EXPECT_EQ(read_all(handle), expected);
        close(handle);
        EXPECT_EQ(read_file(m_sound), expected + id3v1_tag());
    }
}

TEST_F(DirectoryTest, DirectoriesThatAreTakenOver) {
    std::string const audio = frames(10);
    struct {
        char const* pszName;
        std::string image;
        uint32_t nLength;
        size_t nFlushed; // size after the next flush
    } const rows[] = {
        {"one with a deletion", dir_image({{1, 0, 480}, {11, 480, 960}}), 480, 65536},
        {"shorter than a new one", dir_image({{1, 0, 480}, {3, 480, 960}}, 24), 480, 65536},
        {"longer than a new one", dir_image({{1, 0, 480}, {3, 480, 960}}, 131072), 480, 131072},
        {"of an odd length", dir_image({{1, 0, 480}, {3, 480, 960}}, 65543), 480, 65543},
        {"with bytes behind the end", dir_image({{1, 0, 480}, {3, 480, 960}, {0, 0, 0}, {1, 0, 9}}),
         480, 65536},
        {"empty", "", 960, 65536},
        {"all zero", dir_image({}), 960, 65536},
        {"ended at once, with bytes behind", dir_image({{0, 0, 7}, {1, 0, 9}}), 960, 65536},
        {"one entry without audio", dir_image({{3, 0, 0}}), 960, 65536},
        {"a first entry without audio, and more",
         dir_image({{3, 0, 0}, {1, 0, 480}, {3, 480, 960}}), 480, 65536},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.pszName);
        write_file(m_dir, row.image);
        FFDHandle const handle = open_with(m_sound, audio);
        EXPECT_EQ(length(handle), row.nLength);
        EXPECT_EQ(erase(handle, 0, 96), 0u);
        EXPECT_EQ(read_file(m_dir).size(), row.nFlushed);
        for (uint32_t nInsert = 1; nInsert < 4; ++nInsert) { // moves the end of the directory
            EXPECT_EQ(insert(handle, 10 * nInsert, noise(5)), 0u);
        }
        EXPECT_EQ(length(handle), row.nLength - 96 + 15);
        close(handle);
        EXPECT_THAT(listing(), ElementsAre("a.mp3"));
    }
}

TEST_F(DirectoryTest, DamagedDirectoriesAreSetAside) {
    std::string const audio = frames(10);
    std::string reserved = dir_image({{1, 0, 960}});
    reserved[2] = 1;
    std::string const full = dir_image(std::vector<Entry>(5461, {1, 0, 0}));
    struct {
        char const* pszName;
        std::string image;
    } const rows[] = {
        {"no end, 65536 bytes", full.substr(0, 65532) + std::string("\1\0\0\0", 4)},
        {"no end, more bytes", dir_image(std::vector<Entry>(6000, {1, 0, 0}), 72000)},
        {"entry cut by the end of the file", dir_image({{1, 0, 480}, {1, 480, 960}}, 23)},
        {"status 2", dir_image({{2, 0, 960}})},
        {"status 9", dir_image({{1, 0, 480}, {9, 480, 960}})},
        {"status 255", dir_image({{255, 0, 960}})},
        {"start behind end", dir_image({{1, 480, 0}, {1, 480, 960}})},
        {"reserved byte", reserved},
        {"overlap", dir_image({{1, 0, 481}, {3, 480, 960}})},
        {"overlap far apart", dir_image({{1, 480, 960}, {1, 0, 96}, {3, 96, 500}})},
        {"larger than 16 MiB", std::string(16 * 1024 * 1024 + 1, '\0')},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.pszName);
        write_file(path("a.DIR.bad"), "taken");
        write_file(m_dir, row.image);
        FFDHandle const handle = open_with(m_sound, audio);
        EXPECT_EQ(read_all(handle), audio);
        EXPECT_EQ(read_file(path("a.DIR.bad")), "taken");
        EXPECT_EQ(read_file(path("a.DIR.bad1")), row.image);
        EXPECT_EQ(insert(handle, 480, noise(5)), 0u);
        close(handle);
        EXPECT_THAT(listing(), ElementsAre("a.DIR.bad", "a.DIR.bad1", "a.mp3"));
        std::remove(path("a.DIR.bad1").c_str());
    }
}

TEST_F(DirectoryTest, FlushesThatFailLoseNothing) {
    using platform_faults::Call;
    std::string const audio = frames(10);
    struct {
        char const* pszName;
        Call call;
        unsigned nth; // among the calls of the insert and its flush
    } const rows[] = {
        {"write of the directory", Call::WriteFile, 2},
        {"close of the directory", Call::CloseHandle, 1},
        {"open of the directory", Call::CreateFile, 1},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.pszName);
        FFDHandle const handle = open_with(m_sound, audio);
        platform_faults::fail(row.call, row.nth, 5);
        EXPECT_EQ(insert(handle, 480, noise(10)), 0u);
        EXPECT_EQ(length(handle), 970u);
        ASSERT_EQ(erase(handle, 0, 96), 0u); // the next flush gets it all to the disk
        expect_entries({{11, 0, 96}, {1, 96, 480}, {1, 960, 970}, {1, 480, 960}});
        platform_faults::reset();

        platform_faults::fail(row.call, row.call == Call::WriteFile ? 1 : row.nth, 5);
        EXPECT_EQ(driver().UndoLast(handle), 22u);
        EXPECT_EQ(length(handle), 874u);
        EXPECT_EQ(driver().UndoLast(handle), 24u);
        platform_faults::reset();
        close(handle);
        EXPECT_THAT(listing(), ElementsAre("a.mp3"));
    }
}

} // namespace
