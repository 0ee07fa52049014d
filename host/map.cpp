#include "commands.h"

#include "MapPicture.h"
#include "MapStrip.h"
#include "Position.h"
#include "System.h"
#include "Tags.h"

#include <algorithm>
#include <iostream>
#include <span>

namespace ffdhost {

namespace {

constexpr size_t kMostGapNames = 6;
constexpr uint64_t kMostWarnings = 10;

std::string range_text(Json const& block, char const* from, char const* to) {
    if (block[from].is_null()) {
        return "-";
    }
    return std::to_string(block[from].get<uint64_t>()) + "-" +
           std::to_string(block[to].get<uint64_t>());
}

// What stands in each gap of the lanes.
std::vector<std::string> gap_names(std::string const& file, Lanes const& lanes) {
    InputFile const bytes(file);
    std::vector<std::string> names;
    for (LaneGap const& gap : lanes.gaps) {
        Regions const regions = gap.inFront ? regions_in_front(bytes, gap.fileTo)
                                            : regions_behind(bytes, gap.fileTo, gap.fileFrom);
        size_t const shown = std::min(regions.listed.size(), kMostGapNames);
        std::string name;
        for (Region const& region : std::span(regions.listed).first(shown)) {
            name += (name.empty() ? "" : ", ") +
                    (region.version.empty() ? region.kind : region.kind + " " + region.version);
        }
        if (uint64_t const more = regions.listed.size() - shown + regions.more; more > 0) {
            name += " and " + std::to_string(more) + " more";
        }
        names.push_back(name == "other" ? "other bytes" : name);
    }
    return names;
}

void warn_of_missing_bytes(DirMap const& map, StreamView const& view, std::string const& source) {
    uint64_t blocks = 0;
    for (Block const& block : map.blocks) {
        if (view.firstFrameOffset + uint64_t{block.audioTo} > view.fileSize &&
            ++blocks <= kMostWarnings) {
            print_warning(source + ": the block at audio position " +
                          std::to_string(block.audioFrom) + " reaches behind the end of the file");
        }
    }
    if (blocks > kMostWarnings) {
        print_warning(source + ": so do " + std::to_string(blocks - kMostWarnings) + " more");
    }
}

void write_picture(std::string const& output, std::string const& file, std::string const& picture) {
    OutputFile stream(output, file);
    auto const* const bytes = reinterpret_cast<uint8_t const*>(picture.data());
    stream.write(std::span(bytes, picture.size()));
    stream.close();
}

} // namespace

Json map_json(DirMap const& map, std::optional<StreamView> const& view, uint32_t bytesPerSecond) {
    Json list = Json::array();
    size_t const listed = std::min(map.blocks.size(), kMostRows);
    for (Block const& block : std::span(map.blocks).first(listed)) {
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
        list.push_back(std::move(entry));
    }
    count_left_out(list, map.blocks.size() - listed);
    return list;
}

void print_map(Json const& blocks) {
    std::vector<std::vector<std::string>> rows = {
        {"block", "state", "size", "audio position", "file offset", "dictation position", "time"}};
    std::string end;
    for (Json const& block : blocks) {
        if (is_left_out(block)) {
            end = left_out_text(block);
            break;
        }
        rows.push_back({std::to_string(block["index"].get<uint64_t>()), block["state"],
                        std::to_string(block["size"].get<uint64_t>()),
                        range_text(block, "audio_from", "audio_to"),
                        range_text(block, "file_from", "file_to"),
                        range_text(block, "dictation_from", "dictation_to"),
                        block["time"].is_null() ? "-" : block["time"].get<std::string>()});
    }
    print_table(std::move(rows));
    if (!end.empty()) {
        print_line(end, "");
    }
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
    DirMap const unedited = one_block(view.audioLength);
    DirMap const& map = edited ? *edited : unedited;
    Json document = {{"command", "map"},
                     {"ok", true},
                     {"file", file},
                     {"source", edited ? dirFile.string() : file},
                     {"edited", edited.has_value()},
                     {"dictation", length_json(map.dictationLength, rate)},
                     {"blocks", map_json(map, view, rate)}};
    Lanes const lanes = lanes_of(map, view.firstFrameOffset, view.fileSize);
    if (!svg.empty()) {
        document["svg"] = svg;
        std::string const name = std::filesystem::path(file).filename().string();
        write_picture(
            toStdout ? "" : svg, file,
            map_picture(lanes, {name, format_text(view.format), gap_names(file, lanes)}, rate));
    }
    if (!json && !toStdout) {
        print_line("Blocks of", document["source"]);
        print_line("Dictation", length_text(document["dictation"]));
    }
    if (!json && !svg.empty() && !toStdout) {
        print_line("Written", svg);
    } else if (!json && svg.empty()) {
        print_map(document["blocks"]);
        if (is_terminal(Stream::Output)) {
            StripStyle const style{terminal_width(), stdout_wants_colour(), terminal_shows_utf8()};
            std::cout << map_strip(lanes, rate, style) << std::flush;
        }
    }
    if (edited) { // a cut-off last frame does it to the one block of a file, which is no news
        warn_of_missing_bytes(*edited, view, dirFile.string());
    }
    return {document};
}

} // namespace ffdhost
