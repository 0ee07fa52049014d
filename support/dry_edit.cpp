#include "support.h"

#include "DryDriver.h"
#include "host/Obstacle.h"
#include "KeepCopy.h"
#include "map/DirFile.h"
#include "platform/dry_platform.h"

#include <filesystem>

namespace ffdhost {

namespace {

char const* name_of(dry::Change::Kind kind) {
    switch (kind) {
    case dry::Change::Kind::Made:
        return "make";
    case dry::Change::Kind::Written:
        return "write";
    case dry::Change::Kind::Resized:
        return "resize";
    case dry::Change::Kind::Permissions:
        return "set permissions";
    case dry::Change::Kind::Renamed:
        return "rename";
    case dry::Change::Kind::Removed:
        return "remove";
    }
    return "";
}

// What this program, and not the driver, would have made.
struct Made {
    size_t changesBefore; // of the driver
    std::filesystem::path path;
    uint64_t size; // bytes
};

Json changes_json(std::vector<Made> const& own) {
    Json list = Json::array();
    std::vector<dry::Change> const& changes = dry::changes();
    auto next = own.begin();
    for (size_t i = 0; list.size() < kMostRows; ++i) {
        for (; next != own.end() && next->changesBefore <= i; ++next) {
            list.push_back({{"change", name_of(dry::Change::Kind::Made)},
                            {"file", std::filesystem::absolute(next->path).string()},
                            {"size_after", next->size}});
        }
        if (i >= changes.size()) {
            break;
        }
        dry::Change const& change = changes[i];
        Json& row = list.emplace_back(Json{{"change", name_of(change.kind)},
                                           {"file", change.file},
                                           {"size_after", change.ullFileBytes}});
        if (change.kind == dry::Change::Kind::Renamed) {
            row["new_name"] = change.newName;
        }
        if (change.kind == dry::Change::Kind::Written) {
            row["file_offset"] = change.ullFileOffset;
            row["size"] = change.ullBytes;
        }
    }
    count_left_out(list, changes.size() + own.size() - list.size());
    return list;
}

std::string text_of(Json const& row) {
    std::string text = row["change"].get<std::string>() + " " + row["file"].get<std::string>();
    if (row.contains("new_name")) {
        text += " to " + row["new_name"].get<std::string>();
    }
    if (row.contains("size")) {
        text += ": " + bytes_text(row["size"]) + " at file offset " +
                std::to_string(row["file_offset"].get<uint64_t>());
    }
    return text;
}

// The .DIR file as the edits so far would have left it.
std::optional<DirMap> read_pretended(std::filesystem::path const& path) {
    dry::Contents const* const contents = dry::find(path.string());
    if (contents == nullptr) {
        return std::nullopt;
    }
    std::vector<uint8_t> bytes(static_cast<size_t>(contents->size()));
    DWORD read = 0;
    contents->read(0, bytes.data(), static_cast<DWORD>(bytes.size()), read);
    return parse_dir_file(path, bytes);
}

} // namespace

Outcome run_dry_edit(std::string const& file, std::vector<std::string> const& tokens,
                     EditOptions options, bool backup, bool json) {
    await_free(file);
    DryDriver const dry;
    std::vector<Made> made;
    if (backup) {
        namespace fs = std::filesystem;
        std::vector<std::string> const names = names_to_keep(file);
        fs::path const folder = next_kept_folder(file);
        made.push_back({0, folder, 0});
        for (std::string const& name : names) {
            std::error_code error;
            uint64_t const size = fs::file_size(fs::path(file).replace_filename(name), error);
            if (!error) {
                made.push_back({0, folder / name, size});
            }
        }
    }
    Json changes; // up to a crash
    options.pretendedCrash = [&] { changes = changes_json(made); };
    options.pretendedOutput = [&](std::string const& path, uint64_t size) {
        made.push_back({dry::changes().size(), path, size});
    };
    options.readDirectory = read_pretended;
    Outcome outcome = run_edit(dry.driver(), file, tokens, options, json);
    if (changes.is_null()) {
        changes = changes_json(made);
    }
    outcome.document["dry_run"] = true;
    outcome.document["changes"] = changes;
    if (!json) {
        std::string heading = "Would";
        for (Json const& row : changes) {
            print_line(heading, is_left_out(row) ? left_out_text(row) : text_of(row));
            heading = "";
        }
        print_line("Dry run", "nothing was changed");
    }
    return outcome;
}

} // namespace ffdhost
