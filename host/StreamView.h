// A sound file looked at from outside: its format, and where its audio lies in the file.
#pragma once

#include "console/Output.h"
#include "SoundFile.h"

#include <memory>
#include <optional>
#include <string>

namespace ffdhost {

// Of a usable frame header: "1", "2" or "2.5", and 1 to 3.
std::string mpeg_version(uint8_t const* header);
unsigned mpeg_layer(uint8_t const* header);

struct StreamFormat {
    WaveFormat wave;
    // From the header of the first frame.
    std::string mpegVersion;
    unsigned layer;
};

struct StreamView {
    StreamFormat format;
    uint64_t fileSize;
    uint32_t firstFrameOffset; // file offset of audio position 0
    // Bytes of audio as the driver counts them in the file, without the edits of a leftover .DIR.
    // A last frame that the end of the file cuts short counts whole.
    uint32_t audioLength;

    uint64_t audioEndOffset() const {
        return static_cast<uint64_t>(firstFrameOffset) + audioLength;
    }
};

// Opens the file for reading only. Tells apart a file that is missing from one that an interrupted
// close has left under another name.
std::unique_ptr<SoundFile> open_for_reading(Driver const& driver, std::string const& path);

// Opens the file for reading only and closes it again. Throws what the open throws; it leaves no
// trace on the disk, unlike an open for writing that fails.
StreamView look_at(Driver const& driver, std::string const& path);

// The same length, 0 if there is no frame. Nothing but the driver looks at the file, which may be
// one that a driver only pretends.
uint32_t audio_length(Driver const& driver, std::string const& path);

// The look in front of an open for writing, which would leave an empty .DIR file if it failed.
// Nothing if the file can't be read before that open has mended what a crash has left.
std::optional<StreamView> look_before_writing(Driver const& driver, std::string const& path);

Json format_json(StreamFormat const& format);

// "MPEG 2 Layer III, mono, 22050 Hz, 64 kbit/s"
std::string format_text(Json const& format); // of format_json
std::string format_text(StreamFormat const& format);

// What keeps audio of the one format from playing on in a stream of the other; empty if nothing
// does. The number of channels does not: decoders follow it from frame to frame.
std::string format_conflicts(StreamFormat const& clip, StreamFormat const& target);

} // namespace ffdhost
