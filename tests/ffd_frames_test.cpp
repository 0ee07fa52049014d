// Frames out of streams that come in pieces, with all that is no frame in between, and the borders
// of frames. What is expected is cut out of the samples by their constant frame length.
#include "ffd_frames.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

namespace {

std::string sample(std::string const& name, size_t front, size_t behind) {
    std::ifstream file(std::string(KIV_SAMPLES_DIR "/") + name, std::ios::binary);
    std::string const bytes{std::istreambuf_iterator<char>(file), {}};
    return bytes.substr(front, bytes.size() - front - behind);
}

// 64 kbit/s, 22050 Hz: 208 bytes and the padding. The tags of 202 and 128 bytes are left out.
std::string const SPEECH = sample("speech-22k-mono-tagged.mp3", 202, 128);

std::vector<std::string> frames_of(std::string const& audio, size_t length) {
    std::vector<std::string> frames;
    for (size_t place = 0; place < audio.size(); place += frames.back().size()) {
        frames.push_back(audio.substr(place, length + (audio[place + 2] >> 1 & 1)));
    }
    return frames;
}

std::string joined(std::vector<std::string> const& frames, size_t first, size_t last) {
    std::string bytes;
    for (size_t i = first; i < last; ++i) {
        bytes += frames[i];
    }
    return bytes;
}

struct Result {
    std::string audio;
    uint64_t frames = 0;
    uint64_t infos = 0;
    FFDFrames state{};
};

Result take(std::string const& stream, size_t piece, int end = FFD_STREAM_ENDS) {
    Result result;
    FFDFrame frame;
    ffd_frames_begin(&result.state);
    auto const next = [&](int how, uint8_t const** bytes, size_t* count) {
        while (ffd_frames_next(&result.state, how, bytes, count, &frame) != 0) {
            EXPECT_EQ(std::string(frame.pBytes, frame.pBytes + frame.dwLength),
                      stream.substr(frame.ullOffset, frame.dwLength));
            ++result.frames;
            if (frame.bInfo != 0) {
                ++result.infos;
            } else {
                result.audio.append(frame.pBytes, frame.pBytes + frame.dwLength);
            }
        }
    };
    for (size_t place = 0; place < stream.size(); place += piece) {
        auto const* bytes = reinterpret_cast<uint8_t const*>(stream.data()) + place;
        size_t count = std::min(piece, stream.size() - place);
        next(FFD_STREAM_GOES_ON, &bytes, &count);
        EXPECT_EQ(count, 0U);
    }
    next(end, nullptr, nullptr);
    return result;
}

std::string noise(size_t size, unsigned seed) {
    std::mt19937 random(seed);
    std::string bytes(size, '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(random());
    }
    return bytes;
}

std::string id3v2(std::string const& content) {
    return std::string("ID3\3\0\0\0\0", 8) + static_cast<char>(content.size() >> 7) +
           static_cast<char>(content.size() & 127) + content;
}

std::string info_frame(std::string const& model, size_t offset, std::string const& name) {
    return model.substr(0, 4) + std::string(offset - 4, '\0') + name +
           std::string(model.size() - offset - name.size(), '\1');
}

TEST(FramesTest, WhateverStandsBetweenFramesIsLeftOut) {
    auto const frames = frames_of(SPEECH, 208);
    std::string const front = joined(frames, 0, 20);
    std::string const back = joined(frames, 20, 40);
    std::string const blank = frames[0].substr(0, 4) + std::string(frames[0].size() - 4, '\0');
    std::string const ape("APETAGEX\xD0\7\0\0\x28\0\0\0\1\0\0\0\0\0\0\xA0\0\0\0\0\0\0\0\0", 32);
    std::string const apeFooter("APETAGEX\xD0\7\0\0\x28\0\0\0\1\0\0\0\0\0\0\x80\0\0\0\0\0\0\0\0",
                                32);
    std::string const framesInside = id3v2(joined(frames, 50, 60));
    struct Case {
        char const* name;
        std::string stream;
        std::string audio;
        uint64_t infos = 0;
        uint64_t tags = 0;
        uint64_t noise = 0;
    };
    for (Case const& each : std::vector<Case>{
             {"nothing", front + back, front + back},
             {"two tags in front, with frames in them", framesInside + framesInside + front, front,
              0, 2 * framesInside.size()},
             {"a tag behind noise", noise(300, 1) + framesInside + front, front, 0,
              framesInside.size(), 300},
             {"tags and frames in turns", front + framesInside + back, front + back, 0,
              framesInside.size()},
             {"tags at the end", front + ape + "12345678" + apeFooter + "TAG" + back.substr(0, 125),
              front, 0, 32 + 40 + 128},
             {"an APE footer", front + apeFooter + back, front + back, 0, 32},
             {"noise in front", noise(5000, 2) + front, front, 0, 0, 5000},
             {"noise between", front + noise(100, 3) + back, front + back, 0, 0, 100},
             {"much noise between", front + noise(100000, 4) + back, front + back, 0, 0, 100000},
             {"noise at the end", front + noise(1000, 5), front, 0, 0, 1000},
             {"bytes lost in a frame", front.substr(0, front.size() - 50) + back,
              joined(frames, 0, 19) + back, 0, 0, frames[19].size() - 50},
             {"bytes lost in front", front.substr(50) + back, joined(frames, 1, 40), 0, 0,
              frames[0].size() - 50},
             {"a header by chance", front + frames[0].substr(0, 4) + "noise" + back, front + back,
              0, 0, 9},
             {"a cut at the end", front + frames[20].substr(0, 200), front, 0, 0, 200},
             {"a header alone at the end", front + frames[20].substr(0, 4), front, 0, 0, 4},
             {"one frame", frames[0], frames[0]},
             {"Xing", info_frame(frames[0], 13, "Xing") + front, front, 1},
             {"Info behind frames", front + info_frame(frames[0], 13, "Info") + back, front + back,
              1},
             {"VBRI", info_frame(frames[0], 36, "VBRI") + front, front, 1},
             {"Info of stereo", info_frame(frames[0], 21, "Info") + front,
              info_frame(frames[0], 21, "Info") + front},
             {"a place kept for an info frame", blank + front, front, 1},
             {"silence", front + blank + back, front + blank + back},
             {"no frame", std::string(3000, 'x'), "", 0, 0, 3000},
             {"an empty stream", "", ""},
         }) {
        for (size_t const piece :
             {size_t{1}, size_t{3}, size_t{250}, size_t{4096}, size_t{70000}}) {
            SCOPED_TRACE(std::string(each.name) + ", pieces of " + std::to_string(piece));
            Result const result = take(each.stream, piece);
            EXPECT_TRUE(result.audio == each.audio);
            EXPECT_EQ(result.infos, each.infos);
            EXPECT_EQ(result.state.ullTags, each.tags);
            EXPECT_EQ(result.state.ullNoise, each.noise);
        }
    }
}

TEST(FramesTest, EveryPlaceOfASplitGivesTheSame) {
    std::string const stream = SPEECH.substr(0, 2000);
    for (size_t piece = 1; piece < stream.size(); ++piece) {
        EXPECT_TRUE(take(stream, piece).audio == take(stream, stream.size()).audio) << piece;
    }
    // A tag cut by each end of the stream.
    for (size_t length = 1; length < 128; ++length) {
        Result const result = take(SPEECH + ("TAG" + std::string(125, ' ')).substr(0, length), 77);
        EXPECT_TRUE(result.audio == SPEECH) << length;
    }
}

TEST(FramesTest, AFrameWaitsForWhatFollowsUnlessTheStreamPauses) {
    std::string const stream = joined(frames_of(SPEECH, 208), 0, 5);
    EXPECT_EQ(take(stream, 9, FFD_STREAM_GOES_ON).frames, 4U);
    EXPECT_EQ(take(stream, 9, FFD_STREAM_PAUSES).frames, 5U);
    EXPECT_EQ(take(stream + stream.substr(0, 100), 9, FFD_STREAM_PAUSES).state.ullNoise, 0U);
    EXPECT_EQ(take(stream + "ID3", 9, FFD_STREAM_PAUSES).state.ullNoise, 0U);
    EXPECT_EQ(take(stream.substr(0, 208), 9, FFD_STREAM_PAUSES).frames, 0U) << "not borne out yet";
}

// What each header tells, an open of the driver shows for all of them.
TEST(FramesTest, LengthsStayInTheirLimits) {
    uint8_t const longest[] = {0xFF, 0xFB, 0xEA, 0};
    EXPECT_EQ(ffd_frame_length(longest), FFD_LONGEST_FRAME);
    for (uint32_t word = 0; word < 0x10000; ++word) { // all second and third bytes
        uint8_t const header[] = {0xFF, static_cast<uint8_t>(word), static_cast<uint8_t>(word >> 8),
                                  0};
        EXPECT_TRUE(
            !ffd_frame_is_usable(header) ||
            (ffd_frame_length(header) >= 24 && ffd_frame_length(header) <= FFD_LONGEST_FRAME));
    }
}

TEST(FramesTest, BordersAroundAPosition) {
    auto const* const bytes = reinterpret_cast<uint8_t const*>(SPEECH.data());
    auto const frames = frames_of(SPEECH, 208);
    size_t begin = 0;
    for (size_t i = 0; i < 120; ++i) {
        size_t const end = begin + frames[i].size();
        for (size_t const position : {begin, begin + 1, begin + 104, end - 1}) {
            // In a block that begins and ends anywhere.
            size_t const front = std::min<size_t>(position, FFD_BORDER_REACH);
            size_t const base = position - front;
            FFDBorders const borders =
                ffd_find_borders(bytes + base, front + FFD_BORDER_REACH, front);
            EXPECT_EQ(base + borders.before, begin) << position;
            EXPECT_EQ(base + borders.behind, position == begin ? begin : end) << position;
        }
        begin = end;
    }
    FFDBorders const atEnd = ffd_find_borders(bytes, SPEECH.size(), SPEECH.size());
    EXPECT_EQ(atEnd.before, SPEECH.size());
    EXPECT_EQ(atEnd.behind, SPEECH.size());
    FFDBorders const none = ffd_find_borders(bytes + 5, 100, 50);
    EXPECT_EQ(none.before, 0U);
    EXPECT_EQ(none.behind, 100U);
}

} // namespace
