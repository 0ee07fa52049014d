#include "map.h"

#include "console/Position.h"
#include "console/System.h"
#include "DirFile.h"
#include "host/BlockList.h"
#include "host/Tags.h"
#include "MapPicture.h"
#include "MapStrip.h"

#include <algorithm>
#include <iostream>
#include <span>

namespace ffdhost {

namespace {

constexpr size_t kMostGapNames = 6;
constexpr uint64_t kMostWarnings = 10;

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

void write_picture(std::string const& name, std::string const& file, std::string const& picture,
                   bool force) {
    OutputFile output(name, {file});
    auto const* const bytes = reinterpret_cast<uint8_t const*>(picture.data());
    output.write(std::span(bytes, picture.size()));
    output.close();
    publish(output, file, force);
}

} // namespace

Outcome run_map(Driver const& driver, std::string const& file, std::string const& svg, bool force,
                bool json) {
    bool const toStdout = svg == "-";
    if (toStdout && json) {
        throw Failure("map", file, FFD_INVALID_PARAMETER,
                      "standard output cannot take the picture and the JSON document at once",
                      "Name a file for the picture with --svg.");
    }
    if (!svg.empty() && !toStdout) {
        check_output("map", svg, file, force);
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
        tell_of_no_half_file();
        std::string const name = std::filesystem::path(file).filename().string();
        write_picture(
            toStdout ? "" : svg, file,
            map_picture(lanes, {name, format_text(view.format), gap_names(file, lanes)}, rate),
            force && !toStdout);
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
