#include "commands.h"

#include "Position.h"

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

Outcome run_map(Driver const& driver, std::string const& file, bool json) {
    StreamView const view = look_at(driver, file);
    uint32_t const rate = view.format.wave.bytesPerSecond;
    std::filesystem::path const dirFile = dir_file_of(file);
    std::optional<DirMap> const edited = read_dir_file(dirFile);
    DirMap const map = edited ? *edited : one_block(view.audioLength);

    Json const blocks = map_json(map, view, rate);
    std::string const source = edited ? dirFile.string() : file;
    if (!json) {
        print_line("Blocks of", source);
        print_line("Dictation", length_text(map.dictationLength, rate));
        print_map(blocks);
    }
    for (Block const& block : map.blocks) {
        // A cut-off last frame does this to the one block of a file, which is no news here.
        if (edited && view.firstFrameOffset + uint64_t{block.audioTo} > view.fileSize) {
            print_warning(source + ": the block at audio position " +
                          std::to_string(block.audioFrom) + " reaches behind the end of the file");
        }
    }
    return {{{"command", "map"},
             {"ok", true},
             {"file", file},
             {"source", source},
             {"edited", edited.has_value()},
             {"dictation", length_json(map.dictationLength, rate)},
             {"blocks", blocks}}};
}

} // namespace ffdhost
