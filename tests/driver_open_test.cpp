// Opening: what the driver sees in a file, what it refuses with which status, what a failed open
// leaves behind, and the answers about format, length and position.
#include "testing/driver_fixture.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>

using platform_faults::Call;
using ::testing::ElementsAre;

namespace {

constexpr FFDDesiredAccess BOTH[] = {1, 2};

template <size_t Size> std::string bytes(char const (&text)[Size]) {
    return {text, Size - 1};
}

// One frame: a header and a payload without 0xFF.
std::string frame(std::string const& header, size_t nBytes, unsigned nSeed = 0) {
    return header + noise(nBytes - 4, nSeed);
}

// 72 bytes at 24 kbit/s; else like the fixture's frames.
std::string other_bitrate() {
    return frame(bytes("\xFF\xF3\x34\xC0"), 72);
}

// An ID3v2 tag: version, revision, flags and four size bytes, and what stands behind them.
std::string tag(std::string const& header, std::string const& body) {
    return "ID3" + header + body;
}

class OpenTest : public DriverTest {
protected:
    std::string const m_file = path("a.mp3");

    FFDHandle open_to_read(std::string const& contents) {
        write_file(m_file, contents);
        return open(m_file, 1);
    }

    FFDError status_of(std::string const& contents, FFDDesiredAccess access = 1) {
        write_file(m_file, contents);
        if (FFDHandle const handle = open(m_file, access)) {
            close(handle);
        }
        return m_status;
    }

    std::string dictation(std::string const& contents) {
        FFDHandle const handle = open_to_read(contents);
        std::string all = read_all(handle);
        close(handle);
        return all;
    }

    uint32_t length_of(std::string const& contents) {
        FFDHandle const handle = open_to_read(contents);
        uint32_t const nLength = length(handle);
        close(handle);
        return nLength;
    }

    uint32_t file_size(FFDHandle handle) {
        uint32_t nSize = 0;
        EXPECT_EQ(driver().GetDictationFileSize(handle, &nSize), 0u);
        return nSize;
    }
};

} // namespace

// ---- Frames ----

TEST_F(OpenTest, EveryBitrateAndSamplingRateHasItsFrameLength) {
    static constexpr uint16_t anRate[9] = {44100, 48000, 32000, 22050, 24000,
                                           16000, 11025, 12000, 8000};
    // Bytes per second: of MPEG 1, of MPEG 2 and 2.5.
    static constexpr uint16_t aanSpeed[2][14] = {
        {4000, 5000, 6000, 7000, 8000, 10000, 12000, 14000, 16000, 20000, 24000, 28000, 32000,
         40000},
        {1000, 2000, 3000, 4000, 5000, 6000, 7000, 8000, 10000, 12000, 14000, 16000, 18000, 20000}};
    for (unsigned n = 0; n < 14 * 9; ++n) {
        unsigned const nVersion = n % 9 / 3;
        uint16_t const nRate = anRate[n % 9];
        uint16_t const nSpeed = aanSpeed[nVersion == 0 ? 0 : 1][n / 9];
        unsigned const nFrame = (nVersion == 0 ? 1152u : 576u) * nSpeed / nRate;
        unsigned const nMode = n % 4;
        std::string header = {'\xFF', "\xFB\xF3\xE3"[nVersion],
                              static_cast<char>((n / 9 + 1) << 4 | n % 3 << 2),
                              static_cast<char>(nMode << 6)};
        std::string contents = frame(header, nFrame);
        header[2] |= 2; // padding
        contents += frame(header, nFrame + 1) + contents;
        SCOPED_TRACE(testing::Message() << nSpeed << " at " << nRate);
        FFDHandle const handle = open_to_read(contents);
        EXPECT_EQ(length(handle), 3 * nFrame + 1);
        uint16_t format[15] = {};
        EXPECT_EQ(driver().GetWfx(handle, format, 30), 0u);
        EXPECT_THAT(format, ElementsAre(85, nMode == 3 ? 1 : 2, nRate, 0, nSpeed, 0, 1, 0, 12, 1, 0,
                                        0, nFrame, 1, 1393));
        close(handle);
    }
}

TEST_F(OpenTest, HeadersThatAreNoFramesArePassedOver) {
    for (std::string const& header : {bytes("\xFF\xEB\x44\xC0"),    // reserved version
                                      bytes("\xFF\xF1\x44\xC0"),    // reserved layer
                                      bytes("\xFF\xF3\x04\xC0"),    // free format
                                      bytes("\xFF\xF3\xF4\xC0"),    // bitrate index 15
                                      bytes("\xFF\xF3\x4C\xC0"),    // reserved sampling rate
                                      bytes("\xFF\xD3\x44\xC0")}) { // no sync
        std::string const block = frame(header, 96, 1) + frame(header, 96, 2);
        EXPECT_EQ(status_of(block), 9u);
        EXPECT_EQ(dictation(block + frames(2)), frames(2));
        EXPECT_EQ(length_of(frames(2) + block), 192u);
    }
    // Refused at the first of two 0xFF bytes, found at the second.
    std::string const late = frame(bytes("\xFF\xFB\x90\x00"), 417);
    EXPECT_EQ(dictation("\xFF" + late), late);
    // All layers are taken, with the frame length of Layer III.
    for (char const layer : {'\xF3', '\xF5', '\xF7'}) {
        EXPECT_EQ(length_of(frame({'\xFF', layer, '\x44', '\xC0'}, 96) + noise(500)), 96u);
    }
}

TEST_F(OpenTest, LaterFramesMustBeLikeTheFirst) {
    struct {
        std::string header;
        uint32_t nCounted; // bytes; 0 for a frame that is passed over
    } const rows[] = {
        {bytes("\xFF\xF2\x44\xC0"), 96}, // with a CRC
        {bytes("\xFF\xF3\x46\xC0"), 97}, // with padding
        {bytes("\xFF\xF3\x45\xC0"), 96}, // private bit
        {bytes("\xFF\xF3\x44\x3F"), 96}, // two channels, mode extension and flags
        {bytes("\xFF\xFB\x44\xC0"), 0},  // MPEG 1
        {bytes("\xFF\xE3\x44\xC0"), 0},  // MPEG 2.5
        {bytes("\xFF\xF5\x44\xC0"), 0},  // Layer II
        {bytes("\xFF\xF3\x40\xC0"), 0},  // 22050 Hz
    };
    for (auto const& row : rows) {
        EXPECT_EQ(length_of(frames(2) + frame(row.header, 97)), 192 + row.nCounted);
        // What is passed over between two frames counts as audio all the same.
        EXPECT_EQ(length_of(frames(2) + frame(row.header, 97) + frames(1)), 192u + 97 + 96);
    }
    EXPECT_EQ(length_of(frame(bytes("\xFF\xFB\x90\x00"), 417) + frames(9)), 417u);
}

TEST_F(OpenTest, AnyOtherBitrateIsRefused) {
    for (FFDDesiredAccess const access : BOTH) {
        EXPECT_EQ(status_of(frames(5) + other_bitrate(), access), 19u);
        EXPECT_EQ(status_of(other_bitrate() + frames(5), access), 19u);
        EXPECT_EQ(status_of(frames(5) + noise(3000) + other_bitrate() + frames(1), access), 19u);
        // Where a frame ends, nothing needs to follow it.
        for (std::string const& behind : {id3v1_tag(), noise(500) + frames(5), std::string()}) {
            EXPECT_EQ(status_of(frames(5) + other_bitrate() + behind, access), 19u);
        }
        EXPECT_EQ(status_of(frames(5) + other_bitrate().substr(0, 60), access), 19u);
        EXPECT_EQ(status_of(read_file(KIV_SAMPLES_DIR "/speech-vbr.mp3"), access), 19u);
    }
}

// Where audio was cut inside its frames, bytes that look like a header of another bitrate are
// noise.
TEST_F(OpenTest, AHeaderOfAnotherBitrateThatNothingFollowsIsPassedOver) {
    std::string const chance = other_bitrate().substr(0, 60);
    for (std::string const& behind : {frames(2, 5), noise(30), noise(30) + frames(1, 5),
                                      noise(500) + frames(2, 5), id3v1_tag(), std::string()}) {
        std::string const audio = frames(3) + noise(20) + chance + behind;
        size_t const nFrame = behind.find("\xFF\xF3");
        EXPECT_EQ(length_of(audio), nFrame == std::string::npos ? 288 : audio.size());
    }
}

TEST_F(OpenTest, HeaderIsFoundWhereverBlocksEnd) {
    // Around the ends of the blocks that are searched and of those that are read.
    for (unsigned const nBorder : {12u, 1024u, 2048u, 131072u}) {
        for (unsigned n = nBorder - 12; n < nBorder + 6; ++n) {
            SCOPED_TRACE(n);
            EXPECT_EQ(dictation(noise(n) + frames(1)), frames(1));
            EXPECT_EQ(length_of(frames(1) + noise(n) + frames(1, 3)), 192 + n);
        }
    }
    // Frames that end around the end of what was read.
    std::string const padded = frame(bytes("\xFF\xF3\x46\xC0"), 97);
    std::string many_padded;
    for (unsigned n = 1; n < 40; ++n) {
        many_padded += padded;
        EXPECT_EQ(length_of(frames(1365 - n) + many_padded + frames(3)), 131040 + n + 288);
    }
}

TEST_F(OpenTest, EndOfTheFile) {
    std::string const header = bytes("\xFF\xF3\x44\xC0");
    EXPECT_EQ(dictation(frames(1)), frames(1));
    // A last frame that the end cuts short counts whole; the last four bytes are never looked at.
    EXPECT_EQ(length_of(frames(4).substr(0, 338)), 384u);
    EXPECT_EQ(length_of(frames(1) + header), 96u);
    EXPECT_EQ(length_of(frames(1) + header + "x"), 192u);
    // Neither are the four in front of a last block of one to three bytes.
    EXPECT_EQ(status_of(noise(1020) + header + "xx"), 9u);
    EXPECT_EQ(status_of(noise(1020) + header + "xxx"), 9u);
    EXPECT_EQ(status_of(noise(1020) + header + "xxxx"), 0u);
    // What trails the last frame is no audio; between frames it is.
    for (std::string const& trailer :
         {id3v1_tag(), std::string("APETAGEX") + noise(3000), noise(1)}) {
        EXPECT_EQ(dictation(frames(3) + trailer), frames(3));
        std::string const between = frames(3) + trailer + frames(1, 4);
        EXPECT_EQ(dictation(between), between);
    }
}

// ---- Tags ----

TEST_F(OpenTest, TagsInFrontAreSkippedByTheirSize) {
    std::string const hidden = frames(2, 5); // 192 bytes, sized as \1\x40
    struct {
        std::string head;
        size_t nFirstFrame;
    } const rows[] = {
        {tag(bytes("\3\0\0\0\0\2\1"), noise(257)), 267},
        {tag(bytes("\2\0\0\0\0\1\x40"), hidden), 202},
        {tag(bytes("\4\xFF\0\0\0\1\x40"), hidden), 202},
        {tag(bytes("\4\0\x10\0\0\0\0"), hidden.substr(0, 10)), 20}, // a footer alone
        {tag(bytes("\3\0\xE0\0\0\1\x40"), hidden), 202},
        {tag(bytes("\3\0\0\0\1\0\0"), noise(16384)), 16394},
        {tag(bytes("\3\0\0\1\0\0\0"), noise(2097152)), 2097162},
        {id3v2_tag(30) + id3v2_tag(10) + id3v2_tag(4000), 4040},
        {id3v2_tag(50) + noise(1500), 1550},
        // A tag that can't be sized counts as noise, and a frame in it as the first.
        {tag(bytes("\5\0\0\0\0\1\x40"), hidden), 10},
        {tag(bytes("\3\0\1\0\0\1\x40"), hidden), 10},
        {tag(bytes("\3\0\0\0\0\1\x80"), hidden), 10},
        {id3v2_tag(30) + tag(bytes("\5\0\0\0\0\1\x40"), hidden), 40},
        {tag(bytes("\5\0\0\0\0\1\x40"), noise(192)), 202},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(&row - rows);
        std::string const contents = row.head + frames(3, 9);
        EXPECT_TRUE(dictation(contents) == contents.substr(row.nFirstFrame));
    }
}

// ---- Refused files and what they leave behind ----

TEST_F(OpenTest, FailedOpenLeavesTheFilesAsTheyWere) {
    struct {
        std::string contents;
        FFDError status;
    } const rows[] = {
        {"", 9},
        {"\xFF\xF3\x44", 9},
        {std::string(5000, '\xFF'), 9},
        {noise(200000), 9},
        {id3v2_tag(300) + "TAG", 9},
        {id3v2_tag(300), 26}, // nothing behind it: met again, and longer than the file then
        {id3v2_tag(300).substr(0, 299), 26},
        {id3v2_tag(40) + id3v2_tag(300).substr(0, 200), 26},
        {tag(bytes("\3\0\0\x7F\x7F\x7F\x7F"), frames(3)), 26},
        {frames(2) + other_bitrate(), 19},
    };
    std::string const image = dir_image({{1, 0, 96}, {3, 96, 192}, {1, 192, 1000}});
    for (auto const& row : rows) {
        SCOPED_TRACE(&row - rows);
        EXPECT_EQ(status_of(row.contents, 1), row.status);
        EXPECT_THAT(listing(), ElementsAre("a.mp3"));
        for (std::string const& dir : {std::string(), image}) {
            write_file(path("a.DIR"), dir);
            EXPECT_EQ(status_of(row.contents, 2), row.status);
            EXPECT_TRUE(read_file(m_file) == row.contents);
            EXPECT_TRUE(read_file(path("a.DIR")) == dir);
            std::filesystem::remove(path("a.DIR"));
        }
        EXPECT_EQ(status_of(row.contents, 2), row.status);
        EXPECT_EQ(read_file(path("a.DIR")), "");
        EXPECT_EQ(status_of(frames(3), 2), 0u);
        EXPECT_THAT(listing(), ElementsAre("a.mp3"));
    }
}

TEST_F(OpenTest, WhatIsNoFileIsAFileError) {
    std::filesystem::create_directory(path("folder.mp3"));
    for (char const* const name : {"a.mp3", "folder.mp3", "none/a.mp3", "folder.mp3/a.mp3"}) {
        for (FFDDesiredAccess const access : BOTH) {
            EXPECT_EQ(open(path(name), access), nullptr);
            EXPECT_EQ(m_status, 29u) << name;
        }
    }
    // The empty directory file that a missing file leaves counts as none.
    EXPECT_EQ(read_file(path("a.DIR")), "");
    EXPECT_EQ(status_of(frames(3), 2), 0u);
    EXPECT_THAT(listing(), ElementsAre("a.mp3", "folder.DIR", "folder.mp3"));
}

TEST_F(OpenTest, ReaderNeitherMakesNorHeedsADirectory) {
    EXPECT_EQ(dictation(frames(4)), frames(4));
    EXPECT_FALSE(exists(path("a.DIR")));
    for (std::string const& dir : {dir_image({{1, 0, 96}}), std::string("damage")}) {
        write_file(path("a.DIR"), dir);
        EXPECT_EQ(dictation(frames(4)), frames(4));
        EXPECT_TRUE(read_file(path("a.DIR")) == dir);
    }
}

TEST_F(OpenTest, OnlyReadersShareAFile) {
    write_file(m_file, frames(3));
    for (FFDDesiredAccess const first : BOTH) {
        for (FFDDesiredAccess const second : BOTH) {
            FFDHandle const handle = open(m_file, first);
            FFDHandle const other = open(m_file, second);
            EXPECT_EQ(m_status, first == 1 && second == 1 ? 0u : 29u);
            EXPECT_EQ(read_all(handle), frames(3));
            close(handle);
            close(other == nullptr ? open(m_file, second) : other);
        }
    }
}

TEST_F(OpenTest, FilesUpTo4GiB) {
    for (FFDDesiredAccess const access : BOTH) {
        write_file(m_file, frames(3));
        std::filesystem::resize_file(m_file, 4294967296);
        EXPECT_EQ(open(m_file, access), nullptr);
        EXPECT_EQ(m_status, 19u);
    }
    // Sixteen tags up to the last 288 bytes, so that only the end has to be searched. The second
    // time the end cuts the last frame by 40 bytes.
    for (size_t const nNoise : {0u, 40u}) {
        std::string const audio = frames(3).substr(0, 288 - nNoise);
        std::filesystem::resize_file(m_file, 4294967295);
        std::fstream out(m_file, std::ios::binary | std::ios::in | std::ios::out);
        for (std::streamoff n = 0; n < 15; ++n) {
            out.seekp(n * 268435465) << tag(bytes("\3\0\0\x7F\x7F\x7F\x7F"), "");
        }
        out.seekp(4026531975) << tag(bytes("\3\0\0\x7F\x7F\x7C\x4E"), "");
        out.seekp(4294967007) << noise(nNoise) << audio;
        ASSERT_TRUE(out.flush().good());
        FFDHandle const handle = open(m_file);
        EXPECT_EQ(file_size(handle), 4294967295u);
        EXPECT_EQ(read(handle, 0, 288), audio);
        EXPECT_EQ(insert(handle, 96, "x"), 29u);
        close(handle);
        EXPECT_EQ(std::filesystem::file_size(m_file), 4294967295u);
        EXPECT_THAT(listing(), ElementsAre("a.mp3"));
    }
}

TEST_F(OpenTest, ABlockThatCannotBeReadIsNotTheEndOfTheAudio) {
    platform_faults::reset();
    EXPECT_EQ(length_of(frames(20000)), 1920000u);
    platform_faults::fail(Call::ReadFile, platform_faults::count(Call::ReadFile), 1117);
    EXPECT_EQ(open(m_file, 1), nullptr);
    EXPECT_EQ(m_status, 29u);
}

// ---- Position and info ----

TEST_F(OpenTest, LengthComesFromWholeMilliseconds) {
    std::string const fast = frame(bytes("\xFF\xFB\x90\x00"), 417); // 16000 bytes per second
    std::string const slow = frame(bytes("\xFF\xE3\x18\xC0"), 72);  // 1000 bytes per second
    struct {
        std::string contents;
        uint32_t nLength, nFromMilliseconds;
    } const rows[] = {
        {fast + noise(166) + fast, 1000, 992},
        {fast + noise(999166) + fast, 1000000, 1000000},
        {slow + noise(857) + slow, 1001, 1000}, // 1000.9999999999999 ms
        {frames(1), 96, 96},
        {frames(1) + noise(1) + frames(1), 193, 192},
    };
    for (auto const& row : rows) {
        FFDHandle const handle = open_to_read(row.contents);
        EXPECT_EQ(length(handle), row.nLength);
        uint32_t nLength = 0;
        EXPECT_EQ(driver().GetSoundDataLength(handle, &nLength), 0u);
        EXPECT_EQ(nLength, row.nFromMilliseconds);
        close(handle);
    }
}

TEST_F(OpenTest, PositionStaysInsideTheDictation) {
    using Row = std::array<uint32_t, 3>;
    for (FFDDesiredAccess const access : BOTH) {
        write_file(m_file, id3v2_tag(500) + thousand_bytes() + id3v1_tag());
        FFDHandle const handle = open(m_file, access);
        EXPECT_EQ(position(handle), 0u);
        EXPECT_EQ(file_size(handle), 1628u);
        FFDReadHandle* pFirst = nullptr;
        EXPECT_EQ(driver().GetSizeOfData(handle, 1, &pFirst), 0u);
        // Where to, and how many bytes are wanted there; how many are given.
        for (auto const& [nPosition, nWanted, nGiven] :
             {Row{900, 500, 100}, Row{900, 100, 100}, Row{900, 0, 0}, Row{0, 0xFFFFFFFF, 1000},
              Row{1, 0xFFFFFFFF, 999}, Row{1000, 500, 0}, Row{1001, 500, 0},
              Row{0xFFFFFFFF, 500, 0}}) {
            uint32_t const nReached = std::min(nPosition, 1000u);
            EXPECT_EQ(seek(handle, nPosition), nReached);
            FFDReadHandle* pRead = nullptr;
            EXPECT_EQ(driver().GetSizeOfData(handle, nWanted, &pRead), 0u);
            EXPECT_EQ(pRead, pFirst);
            EXPECT_EQ(pRead->RealSizeInBytes, nGiven);
            EXPECT_EQ(pRead->ValidSizeInBytes, nGiven);
            EXPECT_EQ(pRead->RealStartPos, nReached);
            EXPECT_EQ(pRead->RealEndPos, nReached + nGiven);
            EXPECT_EQ(position(handle), nReached);
        }
        EXPECT_EQ(read_all(handle), thousand_bytes());
        close(handle);
    }
}
