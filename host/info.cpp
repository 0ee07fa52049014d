#include "commands.h"

#include <fstream>

namespace ffdhost {

namespace {

std::string leftover_text(std::string const& name, uint64_t size) {
    return name + (size == 0 ? ", empty: it holds no edits"
                             : ", edits that no close has folded in yet: the next open for "
                               "writing takes them over");
}

} // namespace

Json regions_json(std::vector<Region> const& regions) {
    Json list = Json::array();
    for (Region const& region : regions) {
        Json entry = {{"kind", region.kind}};
        if (!region.version.empty()) {
            entry["version"] = region.version;
        }
        entry["file_offset"] = region.fileOffset;
        entry["size"] = region.size;
        list.push_back(entry);
    }
    return list;
}

void print_regions(std::string const& name, std::vector<Region> const& regions) {
    std::string heading = name;
    for (Region const& region : regions) {
        std::string const what = region.version.empty()
                                     ? region.kind + " bytes"
                                     : region.kind + " tag, version " + region.version;
        print_line(heading, what + ": " + bytes_text(region.size) + " at file offset " +
                                std::to_string(region.fileOffset));
        heading = "";
    }
    if (regions.empty()) {
        print_line(heading, "nothing");
    }
}

Json format_json(StreamFormat const& format) {
    return {{"mpeg_version", format.mpegVersion}, {"layer", format.layer},
            {"channels", format.wave.channels},   {"sampling_rate", format.wave.samplingRate},
            {"bitrate", format.wave.bitrate()},   {"bytes_per_second", format.wave.bytesPerSecond},
            {"frame_size", format.wave.frameSize}};
}

Outcome run_info(Driver const& driver, std::string const& file, bool json) {
    StreamView const view = look_at(driver, file);
    WaveFormat const& wave = view.format.wave;
    std::ifstream stream(file, std::ios::binary);
    auto const inFront = regions_in_front(stream, view.fileSize, view.firstFrameOffset);
    auto const behind = regions_behind(stream, view.fileSize, view.audioEndOffset());

    std::string const leftover = dir_file_of(file).string();
    std::optional<uint64_t> const leftoverSize = leftover_size(file);

    if (!json) {
        print_line("File", file);
        print_line("Size", bytes_text(view.fileSize));
        print_line("Format", format_text(view.format));
        print_line("Frame size", bytes_text(wave.frameSize) + ", one more with padding");
        print_line("Dictation", length_text(view.audioLength, wave.bytesPerSecond) +
                                    (leftoverSize.value_or(0) > 0
                                         ? ", without the edits in the leftover .DIR file"
                                         : ""));
        print_line("First frame", "at file offset " + std::to_string(view.firstFrameOffset));
        if (view.audioEndOffset() > view.fileSize) {
            print_line("Last frame", "cut short, " +
                                         bytes_text(view.audioEndOffset() - view.fileSize) +
                                         " of it are not in the file");
        }
        print_regions("In front", inFront);
        print_regions("Behind", behind);
        print_line("Leftover .DIR", leftoverSize ? leftover_text(leftover, *leftoverSize) : "none");
    }
    return {{{"command", "info"},
             {"ok", true},
             {"file", file},
             {"file_size", view.fileSize},
             {"format", format_json(view.format)},
             {"dictation", length_json(view.audioLength, wave.bytesPerSecond)},
             {"first_frame_offset", view.firstFrameOffset},
             {"missing_bytes",
              view.audioEndOffset() > view.fileSize ? view.audioEndOffset() - view.fileSize : 0},
             {"in_front", regions_json(inFront)},
             {"behind", regions_json(behind)},
             {"leftover_directory",
              leftoverSize ? Json{{"file", leftover}, {"size", *leftoverSize}} : Json()}}};
}

} // namespace ffdhost
