// The info frame at the beginning of a dictation: a silent frame in which an encoder tells players
// how many frames and bytes there are. The driver takes it for audio and never changes it.
#pragma once

#include "console/Output.h"
#include "SoundFile.h"

#include <optional>
#include <span>
#include <string>

namespace ffdhost {

struct InfoFrame {
    std::string kind;               // "Xing", "Info" or "VBRI"
    uint32_t length = 0;            // bytes of the frame itself
    std::optional<uint32_t> frames; // that it tells of, without itself
    std::optional<uint32_t> bytes;  // that it tells of, with itself

    // Whether it tells of other counts than these, which are with it. Encoders differ in whether
    // they count it, and a count of 0 tells nothing.
    bool is_wrong(uint64_t allFrames, uint64_t allBytes) const;
};

// Of the first bytes of a dictation; they hold the whole frame.
std::optional<InfoFrame> info_frame_of(std::span<uint8_t const> audio);

// Moves a position within the info frame of a dictation behind it. Gives the bytes between.
uint32_t skip_info_frame(SoundFile& sound);

// The info frame of a file and whether it is wrong, which may take a look at all frames. Null if
// there is none.
Json info_frame_json(Driver const& driver, std::string const& path);
Json info_frame_json(InfoFrame const& frame, bool isWrong);

// "Info, 194 frames and 40750 bytes", and with advice if it is wrong.
std::string info_frame_text(Json const& frame, std::string const& path); // of info_frame_json

// With that advice; nothing for one that is right, or null.
void print_wrong_info_frame(Json const& frame, std::string const& path);

} // namespace ffdhost
