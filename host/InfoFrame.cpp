#include "InfoFrame.h"

#include "console/Printable.h"
#include "StreamView.h"

#include <algorithm>

namespace ffdhost {

namespace {

uint64_t count_frames(SoundFile& sound) {
    ffd::FrameReader reader;
    auto const pass = [](FFDFrame const&) {};
    sound.seek(0);
    for (std::vector<uint8_t> piece; !(piece = sound.read(kPieceSize)).empty();) {
        reader.put(std::as_bytes(std::span(piece)), pass);
    }
    reader.end(pass);
    return reader.state().ullFrames;
}

} // namespace

bool InfoFrame::is_wrong(uint64_t allFrames, uint64_t allBytes) const {
    auto const differs = [](std::optional<uint32_t> told, uint64_t all, uint64_t itself) {
        return told.value_or(0) != 0 && *told != all && *told + itself != all;
    };
    return differs(frames, allFrames, 1) || differs(bytes, allBytes, length);
}

std::optional<InfoFrame> info_frame_of(std::span<uint8_t const> audio) {
    FFDInfo fields;
    if (audio.size() < FFD_FRAME_HEADER_SIZE || !ffd_frame_is_usable(audio.data()) ||
        audio.size() < ffd_frame_length(audio.data()) ||
        ffd_find_info(audio.data(), &fields) == 0) {
        return std::nullopt;
    }
    auto const field = [&](uint32_t place) {
        return place > 0 ? std::optional(ffd_info_field(&audio[place])) : std::nullopt;
    };
    return InfoFrame{fields.szKind, ffd_frame_length(audio.data()), field(fields.dwFramesAt),
                     field(fields.dwBytesAt)};
}

uint32_t skip_info_frame(SoundFile& sound) {
    uint32_t const from = sound.position();
    if (from >= FFD_LONGEST_FRAME) {
        return 0;
    }
    sound.seek(0);
    std::optional<InfoFrame> const info = info_frame_of(sound.read(FFD_LONGEST_FRAME));
    return sound.seek(std::max(from, info ? info->length : 0)) - from;
}

Json info_frame_json(InfoFrame const& frame, bool isWrong) {
    auto const count = [](std::optional<uint32_t> told) { return told ? Json(*told) : Json(); };
    return {{"kind", frame.kind},
            {"frames", count(frame.frames)},
            {"bytes", count(frame.bytes)},
            {"wrong", isWrong}};
}

Json info_frame_json(Driver const& driver, std::string const& path) {
    SoundFile sound(driver, path, Access::Read);
    std::optional<InfoFrame> const info = info_frame_of(sound.read(FFD_LONGEST_FRAME));
    if (!info) {
        return {};
    }
    uint32_t const length = sound.length();
    // Where the bytes differ the frames need not be counted.
    bool const isWrong = info->is_wrong(info->frames.value_or(0), length) ||
                         info->is_wrong(count_frames(sound), length);
    return info_frame_json(*info, isWrong);
}

std::string info_frame_text(Json const& frame, std::string const& path) {
    std::string text = frame["kind"];
    auto const add = [&](char const* field, std::string const& between, std::string const& unit) {
        if (!frame[field].is_null()) {
            text += between + std::to_string(frame[field].get<uint32_t>()) + unit;
        }
    };
    add("frames", ", tells of ", " frames");
    add("bytes", frame["frames"].is_null() ? ", tells of " : " and ", " bytes");
    return frame["wrong"].get<bool>()
               ? text + ", which is wrong. To correct it, run: ffdhost recover --info-frame -- " +
                     shell_word(path)
               : text;
}

void print_wrong_info_frame(Json const& frame, std::string const& path) {
    if (!frame.is_null() && frame["wrong"].get<bool>()) {
        print_line("Info frame", info_frame_text(frame, path));
    }
}

} // namespace ffdhost
