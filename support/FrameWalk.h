// The frames of a sound file as the driver's walk counts them, with what the driver passes over in
// silence: frames that differ, bytes between frames, a last frame cut off.
#pragma once

#include "host/InfoFrame.h"
#include "host/StreamView.h"
#include "platform/dry_contents.h"

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace ffdhost {

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

struct FrameWalk {
    uint64_t fileSize = 0;
    uint64_t frames = 0;

    // All below only if a frame was found.
    StreamFormat format;
    uint64_t firstFrameOffset = 0;
    uint64_t audioEndOffset = 0; // behind the last frame, even if the file ends before
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
    bool is_info_frame_wrong() const {
        return infoFrame && infoFrame->is_wrong(frames, audio_length());
    }
};

// Makes a FrameWalk of the frames that a walk counts.
class FrameCounter {
public:
    using Header = std::array<uint8_t, 4>;

    // A frame of the file with these contents, in the order in which they lie, and where it ends.
    void add(dry::Contents const& file, uint64_t fileOffset, uint64_t end, Header const& header);

    // Behind the last frame.
    FrameWalk finish(dry::Contents const& file);

private:
    void note_different(Header const& header, uint64_t fileOffset);
    void note_gap(dry::Contents const& file, uint64_t from, uint64_t to);
    void note_end(dry::Contents const& file);

    FrameWalk m_walk;
    Header m_first{};
    uint64_t m_lastFrameOffset = 0;
};

} // namespace ffdhost
