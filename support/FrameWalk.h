// The walk over all frames of a sound file, as the driver measures it at an open, with what the
// driver passes over in silence: frames that differ, bytes between frames, a last frame cut off.
#pragma once

#include "host/StreamView.h"

#include <cstdint>
#include <fstream>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace ffdhost {

// The four bytes in front of a frame.
class FrameHeader {
public:
    static constexpr size_t kSize = 4;

    // Nothing if the bytes are no header that the driver takes.
    static std::optional<FrameHeader> parse(std::span<uint8_t const> bytes);

    // Whether a search for frames like the other one stops here: version, layer and sampling rate
    // are the same, bitrate and channels need not be.
    bool fits(FrameHeader const& other) const;

    std::string mpeg_version() const; // "1", "2" or "2.5"
    unsigned layer() const;           // 1 to 3
    uint32_t sampling_rate() const;   // Hz
    uint32_t bitrate() const;         // kbit/s, by the tables of Layer III for every layer
    unsigned channels() const;
    // Bytes, by the formula of Layer III for every layer, as the driver counts.
    uint32_t frame_length() const;
    StreamFormat format() const;

private:
    explicit FrameHeader(std::span<uint8_t const> bytes);
    bool is_mpeg1() const { return (m_bytes[1] & 0x08) != 0; }

    uint8_t m_bytes[kSize];
};

struct FrameDifference {
    std::string what; // "bitrate", "channels", "sampling rate", "MPEG version" or "layer"
    std::string expected;
    std::string found;
};

struct DifferentFrame {
    uint64_t number; // the first frame of the file is number 1
    uint64_t fileOffset;
    std::vector<FrameDifference> differences;
};

// Bytes between two frames that are none.
struct Gap {
    uint64_t fileOffset;
    uint64_t size;
    std::string kind; // "ID3v1 tag", "ID3v2 tag", "APE tag", "frames of another kind" or "noise"
};

struct CutFrame {
    uint64_t number;
    uint64_t fileOffset;
    uint64_t missing; // bytes
    bool byTag;       // an ID3v1 tag stands where they should be, instead of the end of the file
};

// What a first frame without audio tells players of the file. The driver takes it for audio.
struct InfoFrame {
    std::string kind; // "Xing", "Info" or "VBRI"
    uint64_t fileOffset;
    std::optional<uint32_t> frames; // without the info frame itself
};

struct FrameWalk {
    std::string path;
    uint64_t fileSize = 0;
    // What an open answers to the file alone, whatever lies beside it: FFD_NOERROR, or
    // FFD_INVALID_FORMAT, FFD_NO_MORE_FRAMES or FFD_NOT_SUPPORTED, with the reason.
    FFDError status = FFD_NOERROR;
    std::string reason;

    // All below only if a frame was found.
    std::optional<FrameHeader> first;
    uint64_t firstFrameOffset = 0;
    uint64_t audioEndOffset = 0; // behind the last frame, even if the file ends before
    uint64_t frames = 0;
    std::map<uint32_t, uint64_t> framesOfBitrate; // by kbit/s
    uint64_t differentFrames = 0;
    std::optional<DifferentFrame> firstDifferent;
    uint64_t gaps = 0;
    uint64_t gapBytes = 0;
    std::optional<Gap> firstGap;
    std::optional<CutFrame> cut;
    std::optional<InfoFrame> infoFrame;

    // Bytes of audio as the driver counts them, gaps included.
    uint64_t audio_length() const { return audioEndOffset - firstFrameOffset; }
    // Bytes from the first frame to the end of the file.
    uint64_t held() const { return fileSize - firstFrameOffset; }
};

// A range of a file.
struct Extent {
    uint64_t fileOffset;
    uint64_t size;
};

// Reads the whole file, in large pieces. Throws a Failure with FFD_FILE_IO_ERROR.
FrameWalk walk_frames(std::string const& path);

// The same for the file that ranges of this one would make, in their order.
FrameWalk walk_frames(std::string const& path, std::vector<Extent> const& extents);

// The file offset of the next frame like the first of the walked file, from a file offset on.
std::optional<uint64_t> find_next_frame(FrameWalk const& walk, uint64_t fileOffset);

// The same, as a rebuild cuts: a header, but not the first of the file, that no second one follows
// gives way to one that has one, if that is of the file's bitrate and comes within the length of a
// frame.
std::optional<uint64_t> find_frame_to_cut_at(FrameWalk const& walk, uint64_t fileOffset);

} // namespace ffdhost
