#include "BlockList.h"

#include "console/Position.h"

#include <algorithm>
#include <span>

namespace ffdhost {

namespace {

std::string range_text(Json const& block, char const* from, char const* to) {
    if (block[from].is_null()) {
        return "-";
    }
    return std::to_string(block[from].get<uint64_t>()) + "-" +
           std::to_string(block[to].get<uint64_t>());
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

} // namespace ffdhost
