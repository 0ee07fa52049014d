#include "commands.h"

#include "MapPicture.h"
#include "MapStrip.h"
#include "Position.h"
#include "System.h"
#include "Tags.h"

#include <fstream>
#include <iostream>

namespace ffdhost {

namespace {

std::string range_text(Json const& block, char const* from, char const* to) {
    if (block[from].is_null()) {
        return "-";
    }
    return std::to_string(block[from].get<uint64_t>()) + "-" +
           std::to_string(block[to].get<uint64_t>());
}

// What stands in each gap of the lanes.
std::vector<std::string> gap_names(std::string const& file, Lanes const& lanes) {
    std::ifstream stream(file, std::ios::binary);
    std::vector<std::string> names;
    for (Gap const& gap : lanes.gaps) {
        std::string name;
        for (Region const& region : gap.inFront
                                        ? regions_in_front(stream, gap.fileTo, gap.fileTo)
                                        : regions_behind(stream, gap.fileTo, gap.fileFrom)) {
            name += (name.empty() ? "" : ", ") +
                    (region.version.empty() ? region.kind : region.kind + " " + region.version);
        }
        names.push_back(name == "other" ? "other bytes" : name);
    }
    return names;
}

void write_picture(std::string const& output, std::string const& picture) {
    std::ofstream file;
    if (output.empty()) {
        make_stdout_binary();
    } else {
        file.open(output, std::ios::binary | std::ios::trunc);
    }
    std::ostream& stream = output.empty() ? std::cout : file;
    if (!(stream << picture << std::flush)) {
        throw Failure("write picture", output.empty() ? "standard output" : output,
                      FFD_FILE_IO_ERROR, "the picture cannot be written",
                      "Check the permissions of the output, and that the disk is not full.");
    }
}

} // namespace

Json map_json(DirMap const& map, std::optional<StreamView> const& view, uint32_t bytesPerSecond) {
    Json list = Json::array();
    for (Block const& block : map.blocks) {
        Json entry = {{"index", list.size()},      {"state", state_text(block.state)},
                      {"size", block.size()},      {"audio_from", block.audioFrom},
                      {"audio_to", block.audioTo}, {"file_from", nullptr},
                      {"file_to", nullptr},        {"dictation_from", nullptr},
                      {"dictation_to", nullptr},   {"time", nullptr}};
        if (view) {
            uint64_t const offset = view->firstFrameOffset;
            entry["file_from"] = offset + block.audioFrom;
            entry["file_to"] = offset + block.audioTo;
        }
        if (block.live()) {
            entry["dictation_from"] = block.dictationFrom;
            entry["dictation_to"] = block.dictationFrom + block.size();
            entry["time"] = time_text(milliseconds_of(block.dictationFrom, bytesPerSecond));
        }
        list.push_back(entry);
    }
    return list;
}

void print_map(Json const& blocks) {
    std::vector<std::vector<std::string>> rows = {
        {"block", "state", "size", "audio position", "file offset", "dictation position", "time"}};
    for (Json const& block : blocks) {
        rows.push_back({std::to_string(block["index"].get<uint64_t>()), block["state"],
                        std::to_string(block["size"].get<uint64_t>()),
                        range_text(block, "audio_from", "audio_to"),
                        range_text(block, "file_from", "file_to"),
                        range_text(block, "dictation_from", "dictation_to"),
                        block["time"].is_null() ? "-" : block["time"].get<std::string>()});
    }
    print_table(rows);
}

Outcome run_map(Driver const& driver, std::string const& file, std::string const& svg, bool json) {
    bool const toStdout = svg == "-";
    if (toStdout && json) {
        throw Failure("map", file, FFD_INVALID_PARAMETER,
                      "standard output cannot take the picture and the JSON document at once",
                      "Name a file for the picture with --svg.");
    }
    if (!svg.empty() && !toStdout) {
        check_output("map", svg, file);
    }
    StreamView const view = look_at(driver, file);
    uint32_t const rate = view.format.wave.bytesPerSecond;
    std::filesystem::path const dirFile = dir_file_of(file);
    std::optional<DirMap> const edited = read_dir_file(dirFile);
    DirMap const map = edited ? *edited : one_block(view.audioLength);

    Json const blocks = map_json(map, view, rate);
    std::string const source = edited ? dirFile.string() : file;
    if (!json && !toStdout) {
        print_line("Blocks of", source);
        print_line("Dictation", length_text(map.dictationLength, rate));
    }
    Lanes const lanes = lanes_of(map, view.firstFrameOffset, view.fileSize);
    if (!svg.empty()) {
        std::string const name = std::filesystem::path(file).filename().string();
        write_picture(
            toStdout ? "" : svg,
            map_picture(lanes, {name, format_text(view.format), gap_names(file, lanes)}, rate));
        if (!json && !toStdout) {
            print_line("Written", svg);
        }
    } else if (!json) {
        print_map(blocks);
        if (is_terminal(Stream::Output)) {
            StripStyle const style{terminal_width(), stdout_wants_colour(), terminal_shows_utf8()};
            std::cout << map_strip(lanes, rate, style) << std::flush;
        }
    }
    for (Block const& block : map.blocks) {
        // A cut-off last frame does this to the one block of a file, which is no news here.
        if (edited && view.firstFrameOffset + uint64_t{block.audioTo} > view.fileSize) {
            print_warning(source + ": the block at audio position " +
                          std::to_string(block.audioFrom) + " reaches behind the end of the file");
        }
    }
    Json document = {{"command", "map"},
                     {"ok", true},
                     {"file", file},
                     {"source", source},
                     {"edited", edited.has_value()},
                     {"dictation", length_json(map.dictationLength, rate)},
                     {"blocks", blocks}};
    if (!svg.empty()) {
        document["svg"] = svg;
    }
    return {document};
}

} // namespace ffdhost
