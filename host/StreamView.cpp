#include "StreamView.h"

#include "Beside.h"
#include "console/Files.h"
#include "console/Output.h"
#include "console/Printable.h"
#include "console/Status.h"
#include "Tags.h"

#include <algorithm>

namespace ffdhost {

namespace {

constexpr uint32_t kProbeSize = 1024; // bytes of audio that tell where the audio begins

// The driver does not tell where the first frame lies, but it gives its bytes: the first place
// behind the tags that holds them is where it found them.
uint32_t find_audio(std::string const& path, std::vector<uint8_t> const& firstBytes,
                    uint64_t fileSize) {
    InputFile const file(path);
    uint64_t offset = end_of_front_tags(file);
    while (offset < fileSize) {
        std::vector<uint8_t> const piece = file.read_at(offset, kPieceSize);
        auto const found =
            std::search(piece.begin(), piece.end(), firstBytes.begin(), firstBytes.end());
        if (found != piece.end()) {
            return static_cast<uint32_t>(offset + static_cast<uint64_t>(found - piece.begin()));
        }
        if (piece.size() < kPieceSize) {
            break;
        }
        offset += piece.size() - firstBytes.size() + 1; // a place may lie across two pieces
    }
    throw Failure("find audio", path, FFD_INTERNAL_ERROR,
                  "the audio that the driver reads is not in the file",
                  "Make sure that no other program changes the file, and try again.");
}

// A crash in the middle of a close can leave the sound file under another name for the time being.
// Only an open for writing puts it back, so a failure to read must say so.
[[noreturn]] void explain(Failure const& failure, std::string const& path) {
    std::error_code error;
    if (std::filesystem::exists(path, error) || leftover_size(path).value_or(0) == 0) {
        throw failure;
    }
    throw Failure(failure.operation(), path, failure.status(),
                  "the file is gone, but its .DIR file holds edits: a close was interrupted",
                  "An open for writing finishes what the close began. Run: "
                  "ffdhost recover --copy -- " +
                      shell_word(path));
}

} // namespace

std::string mpeg_version(uint8_t const* header) {
    static char const* const versions[] = {"2.5", "", "2", "1"};
    return versions[ffd_frame_version(header)];
}

unsigned mpeg_layer(uint8_t const* header) {
    return 4U - ffd_frame_layer(header);
}

std::unique_ptr<SoundFile> open_for_reading(Driver const& driver, std::string const& path) {
    std::error_code error;
    if (std::filesystem::exists(marker_file_of(path), error)) {
        print_warning(path +
                      ": a close was interrupted, so that a .DIR file beside it may belong to "
                      "the file before; to finish the close, run: ffdhost recover --copy -- " +
                      shell_word(path));
    }
    try {
        return std::make_unique<SoundFile>(driver, path, Access::Read);
    } catch (Failure const& failure) {
        explain(failure, path);
    }
}

StreamView look_at(Driver const& driver, std::string const& path) {
    std::unique_ptr<SoundFile> const opened = open_for_reading(driver, path);
    SoundFile& sound = *opened;
    std::vector<uint8_t> const firstBytes = sound.read(kProbeSize);
    if (firstBytes.size() < 4) {
        throw Failure("read", path, FFD_NO_MORE_FRAMES);
    }
    StreamView view;
    view.format = {sound.wave_format(), mpeg_version(firstBytes.data()),
                   mpeg_layer(firstBytes.data())};
    view.fileSize = sound.file_size();
    view.audioLength = sound.length();
    view.firstFrameOffset = find_audio(path, firstBytes, view.fileSize);
    sound.close();
    return view;
}

uint32_t audio_length(Driver const& driver, std::string const& path) {
    try {
        return SoundFile(driver, path, Access::Read).length();
    } catch (Failure const& failure) {
        if (failure.status() != FFD_NO_MORE_FRAMES) {
            throw;
        }
    }
    return 0;
}

std::optional<StreamView> look_before_writing(Driver const& driver, std::string const& path) {
    try {
        return look_at(driver, path);
    } catch (Failure const&) {
        std::error_code error;
        if (leftover_size(path).value_or(0) == 0 &&
            !std::filesystem::exists(marker_file_of(path), error)) {
            throw;
        }
        return std::nullopt;
    }
}

Json format_json(StreamFormat const& format) {
    return {{"mpeg_version", format.mpegVersion}, {"layer", format.layer},
            {"channels", format.wave.channels},   {"sampling_rate", format.wave.samplingRate},
            {"bitrate", format.wave.bitrate()},   {"bytes_per_second", format.wave.bytesPerSecond},
            {"frame_size", format.wave.frameSize}};
}

std::string format_text(Json const& format) {
    auto const number = [&](char const* name) { return format[name].get<unsigned>(); };
    return "MPEG " + format["mpeg_version"].get<std::string>() + " Layer " +
           std::string(number("layer"), 'I') + ", " +
           (number("channels") == 1 ? "mono" : "stereo") + ", " +
           std::to_string(number("sampling_rate")) + " Hz, " + std::to_string(number("bitrate")) +
           " kbit/s";
}

std::string format_text(StreamFormat const& format) {
    return format_text(format_json(format));
}

std::string format_conflicts(StreamFormat const& clip, StreamFormat const& target) {
    std::string conflicts;
    auto const compare = [&](std::string const& what, std::string const& ofClip,
                             std::string const& ofTarget) {
        if (ofClip != ofTarget) {
            conflicts += conflicts.empty() ? "" : "; ";
            conflicts += what;
            conflicts += " is " + ofClip + ", that of the dictation " + ofTarget;
        }
    };
    compare("its sampling rate", std::to_string(clip.wave.samplingRate) + " Hz",
            std::to_string(target.wave.samplingRate) + " Hz");
    compare("its bitrate", std::to_string(clip.wave.bitrate()) + " kbit/s",
            std::to_string(target.wave.bitrate()) + " kbit/s");
    compare("its MPEG version", clip.mpegVersion, target.mpegVersion);
    compare("its layer", std::to_string(clip.layer), std::to_string(target.layer));
    return conflicts;
}

} // namespace ffdhost
