#include "commands.h"

namespace ffdhost {

namespace {

// A region without a version is no tag.
std::string region_text(Json const& region) {
    std::string const kind = region["kind"];
    return (region.contains("version")
                ? kind + " tag, version " + region["version"].get<std::string>()
                : kind + " bytes") +
           ": " + bytes_text(region["size"]) + " at file offset " +
           std::to_string(region["file_offset"].get<uint64_t>());
}

std::string leftover_text(Json const& leftover) {
    if (leftover.is_null()) {
        return "none";
    }
    return leftover["file"].get<std::string>() +
           (leftover["size"] == 0 ? ", empty: it holds no edits"
                                  : ", edits that no close has folded in yet: the next open for "
                                    "writing takes them over");
}

void print_info(Json const& info) {
    Json const& leftover = info["leftover_directory"];
    bool const hasEdits = !leftover.is_null() && leftover["size"] != 0;
    print_line("File", info["file"]);
    print_line("Size", bytes_text(info["file_size"]));
    print_line("Format", format_text(info["format"]));
    print_line("Frame size", bytes_text(info["format"]["frame_size"]) + ", one more with padding");
    print_line("Dictation", length_text(info["dictation"]) +
                                (hasEdits ? ", without the edits in the leftover .DIR file" : ""));
    print_line("First frame",
               "at file offset " + std::to_string(info["first_frame_offset"].get<uint64_t>()));
    if (info["missing_bytes"] != 0) {
        print_line("Last frame", "cut short, " + bytes_text(info["missing_bytes"]) +
                                     " of it are not in the file");
    }
    if (!info["info_frame"].is_null()) {
        print_line("Info frame", info_frame_text(info["info_frame"], info["file"]));
    }
    print_regions("In front", info["in_front"]);
    print_regions("Behind", info["behind"]);
    print_line("Leftover .DIR", leftover_text(leftover));
}

} // namespace

Json regions_json(Regions const& regions) {
    Json list = Json::array();
    for (Region const& region : regions.listed) {
        Json& entry = list.emplace_back(Json{{"kind", region.kind}});
        if (!region.version.empty()) {
            entry["version"] = region.version;
        }
        entry["file_offset"] = region.fileOffset;
        entry["size"] = region.size;
    }
    count_left_out(list, regions.more);
    return list;
}

void print_regions(std::string const& name, Json const& regions) {
    std::string heading = name;
    for (Json const& region : regions) {
        print_line(heading, is_left_out(region) ? left_out_text(region) : region_text(region));
        heading = "";
    }
    if (regions.empty()) {
        print_line(heading, "nothing");
    }
}

Outcome run_info(Driver const& driver, std::string const& file, bool json) {
    StreamView const view = look_at(driver, file);
    uint64_t const end = view.audioEndOffset();
    InputFile const bytes(file);
    std::optional<uint64_t> const leftover = leftover_size(file);
    Json info = {{"ok", true},
                 {"file", file},
                 {"file_size", view.fileSize},
                 {"format", format_json(view.format)},
                 {"dictation", length_json(view.audioLength, view.format.wave.bytesPerSecond)},
                 {"first_frame_offset", view.firstFrameOffset},
                 {"missing_bytes", end > view.fileSize ? end - view.fileSize : 0},
                 {"info_frame", info_frame_json(driver, file)},
                 {"in_front", regions_json(regions_in_front(bytes, view.firstFrameOffset))},
                 {"behind", regions_json(regions_behind(bytes, view.fileSize, end))},
                 {"leftover_directory", nullptr}};
    if (leftover) {
        info["leftover_directory"] = {{"file", dir_file_of(file).string()}, {"size", *leftover}};
    }
    if (!json) {
        print_info(info);
    }
    return {info};
}

} // namespace ffdhost
