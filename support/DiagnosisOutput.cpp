// How a diagnosis reads: as text, and as JSON.
#include "Diagnosis.h"

#include "host/commands.h"

namespace ffdhost {

namespace {

char const* directory_text(DirState state) {
    switch (state) {
    case DirState::None:
        return "none";
    case DirState::Empty:
        return "empty";
    case DirState::Taken:
        return "taken over";
    case DirState::Repaired:
        return "taken over and repaired";
    case DirState::Damaged:
        return "set aside";
    case DirState::Hidden:
        return "may not be read";
    case DirState::Gone:
        return "gone with the interrupted close";
    }
    return "";
}

std::string step_text(Step const& step) {
    std::string const what = step.action == Step::Action::Remove
                                 ? "removes " + step.file.string()
                                 : "renames " + step.file.string() + " to " + step.newName.string();
    return step.reason.empty() ? what : what + ": " + step.reason;
}

Json frames_json(FrameWalk const& walk) {
    Json bitrates = Json::array();
    for (auto const& [bitrate, frames] : walk.framesOfBitrate) {
        bitrates.push_back({{"bitrate", bitrate}, {"frames", frames}});
    }
    Json frames = {{"count", walk.frames},
                   {"file_from", walk.firstFrameOffset},
                   {"file_to", walk.audioEndOffset},
                   {"bitrates", bitrates},
                   {"different", {{"count", walk.differentFrames}, {"first", nullptr}}},
                   {"gaps", {{"count", walk.gaps}, {"bytes", walk.gapBytes}, {"first", nullptr}}},
                   {"cut", nullptr},
                   {"info_frame", nullptr}};
    if (walk.firstDifferent) {
        Json differences = Json::array();
        for (FrameDifference const& each : walk.firstDifferent->differences) {
            differences.push_back(
                {{"what", each.what}, {"expected", each.expected}, {"found", each.found}});
        }
        frames["different"]["first"] = {{"number", walk.firstDifferent->number},
                                        {"file_offset", walk.firstDifferent->fileOffset},
                                        {"differences", differences}};
    }
    if (walk.firstGap) {
        frames["gaps"]["first"] = {{"kind", walk.firstGap->kind},
                                   {"file_offset", walk.firstGap->fileOffset},
                                   {"size", walk.firstGap->size}};
    }
    if (walk.cut) {
        frames["cut"] = {{"number", walk.cut->number},
                         {"file_offset", walk.cut->fileOffset},
                         {"missing_bytes", walk.cut->missing},
                         {"by_tag", walk.cut->byTag}};
    }
    if (walk.infoFrame) {
        frames["info_frame"] = info_frame_json(*walk.infoFrame, walk.is_info_frame_wrong());
    }
    return frames;
}

Json sound_json(Diagnosis const& diagnosis) {
    if (!diagnosis.next.walk) {
        return {};
    }
    FrameWalk const& walk = *diagnosis.next.walk;
    Json sound = {{"file", diagnosis.next.soundNow},
                  {"size", walk.fileSize},
                  {"format", nullptr},
                  {"frames", nullptr},
                  {"in_front", regions_json(diagnosis.inFront)},
                  {"behind", regions_json(diagnosis.behind)}};
    if (walk.frames > 0) {
        sound["format"] = format_json(walk.format);
        sound["frames"] = frames_json(walk);
    }
    return sound;
}

std::string hex_text(std::vector<uint8_t> const& bytes) {
    static char const* const kDigits = "0123456789abcdef";
    std::string text;
    for (uint8_t const byte : bytes) {
        text += {kDigits[byte >> 4], kDigits[byte & 15]};
    }
    return text;
}

// What the file that a close leaves is made of: ranges of files as they are now, and new bytes.
Json parts_json(ClosedFile const& closed) {
    Json parts = Json::array();
    for (Part const& part : closed.parts) {
        Json& row = parts.emplace_back(Json{{"size", part.size}});
        if (!part.file.empty()) {
            row["file"] = part.file;
            row["file_offset"] = part.fileOffset;
        }
        if (!part.bytes.empty()) {
            row["bytes"] = hex_text(part.bytes);
        }
    }
    count_left_out(parts, closed.moreParts);
    return parts;
}

Json closed_json(ClosedFile const& closed) {
    Json after = status_json(closed.status);
    after["reason"] = closed.reason;
    after["size"] = closed.size;
    after["dictation"] = closed.status == FFD_NOERROR
                             ? length_json(closed.dictationLength, closed.bytesPerSecond)
                             : Json();
    after["parts"] = parts_json(closed);
    return after;
}

Json next_open_json(NextOpen const& next) {
    Json steps = Json::array();
    for (Step const& step : next.steps) {
        bool const renames = step.action == Step::Action::Rename;
        steps.push_back({{"action", renames ? "rename" : "remove"},
                         {"file", step.file.string()},
                         {"new_name", renames ? Json(step.newName.string()) : Json()},
                         {"reason", step.reason}});
    }
    Json open = status_json(next.status);
    open["reason"] = next.reason;
    open["steps"] = steps;
    open["directory"] = directory_text(next.directory);
    open["repair"] = next.repair;
    open["dictation"] = nullptr;
    open["close"] = nullptr;
    if (next.status == FFD_NOERROR) {
        open["dictation"] = length_json(next.dictationLength, next.bytesPerSecond);
        open["missing_bytes"] = next.missingBytes;
        open["unnamed_bytes"] = next.unnamedBytes;
        open["close"] = status_json(next.close.status);
        open["close"]["rebuild"] = next.close.rebuilds;
        open["close"]["reason"] = next.close.reason;
        open["close"]["after"] = closed_json(next.close.after);
        open["close"]["needed_bytes"] = next.close.neededBytes;
        open["close"]["free_bytes"] = next.close.freeBytes;
    }
    return open;
}

Json paths_json(std::vector<std::filesystem::path> const& paths) {
    Json list = Json::array();
    for (auto const& path : paths) {
        list.push_back(path.string());
    }
    return list;
}

void print_sound(Diagnosis const& diagnosis) {
    FrameWalk const& walk = *diagnosis.next.walk;
    if (diagnosis.next.soundNow != diagnosis.file) {
        print_line("Sound now in", diagnosis.next.soundNow);
    }
    print_line("Size", bytes_text(walk.fileSize));
    if (walk.frames == 0) {
        return;
    }
    print_line("Format", format_text(walk.format));
    print_line("Frames", std::to_string(walk.frames) + ", file offsets " +
                             std::to_string(walk.firstFrameOffset) + " to " +
                             std::to_string(walk.audioEndOffset));
    print_line("Different", walk.firstDifferent
                                ? std::to_string(walk.differentFrames) + ", first " +
                                      difference_text(*walk.firstDifferent)
                                : "none");
    print_line("Between them", walk.firstGap ? gap_text(walk) : "nothing");
    print_line("Last frame", walk.cut ? "cut off, " + cut_text(*walk.cut) : "whole");
    if (walk.infoFrame) {
        print_line("Info frame",
                   info_frame_text(info_frame_json(*walk.infoFrame, false), diagnosis.file));
    }
    print_regions("In front", regions_json(diagnosis.inFront));
    print_regions("Behind", regions_json(diagnosis.behind));
}

} // namespace

std::string difference_text(DifferentFrame const& frame) {
    std::string text = "frame " + std::to_string(frame.number) + " at file offset " +
                       std::to_string(frame.fileOffset) + ": ";
    for (FrameDifference const& difference : frame.differences) {
        text += (&difference == frame.differences.data() ? "" : ", ") + difference.what + " " +
                difference.found + " instead of " + difference.expected;
    }
    return text;
}

std::string gap_text(FrameWalk const& walk) {
    return bytes_text(walk.gapBytes) + " in " + std::to_string(walk.gaps) +
           (walk.gaps == 1 ? " place" : " places") + ", first " + bytes_text(walk.firstGap->size) +
           " (" + walk.firstGap->kind + ") at file offset " +
           std::to_string(walk.firstGap->fileOffset);
}

std::string cut_text(CutFrame const& cut) {
    return "frame " + std::to_string(cut.number) + " at file offset " +
           std::to_string(cut.fileOffset) + ": " + bytes_text(cut.missing) + " of it are missing" +
           (cut.byTag ? ", an ID3v1 tag stands in their place" : "");
}

Json diagnosis_json(Diagnosis const& diagnosis) {
    Json findings = Json::array();
    for (Finding const& finding : diagnosis.findings) {
        findings.push_back({{"level", finding.attention ? "attention" : "note"},
                            {"code", finding.code},
                            {"text", finding.text},
                            {"advice", finding.advice}});
    }
    std::optional<Marker> const& marker = diagnosis.next.marker;
    return {{"verdict", {{"code", diagnosis.verdict_code()}, {"text", diagnosis.verdict()}}},
            {"findings", findings},
            {"sound", sound_json(diagnosis)},
            {"directory", diagnosis.next.directory == DirState::None
                              ? Json()
                              : Json{{"file", dir_file_of(diagnosis.file).string()},
                                     {"size", diagnosis.next.directorySize}}},
            {"marker", marker ? Json{{"file", marker->path.string()},
                                     {"size", marker->size},
                                     {"whole", marker->settled}}
                              : Json()},
            {"copies", paths_json(diagnosis.copies)},
            {"set_aside", paths_json(diagnosis.setAside)},
            {"next_open", diagnosis.next.inUse ? Json() : next_open_json(diagnosis.next)}};
}

void print_plan(NextOpen const& next) {
    std::string heading = "Next open";
    for (Step const& step : next.steps) {
        print_line(heading, step_text(step));
        heading = "";
    }
    if (next.status != FFD_NOERROR) {
        print_line(heading, "fails: " + next.reason + status_suffix(next.status));
        return;
    }
    print_line(heading, "works, with a dictation of " +
                            length_text(next.dictationLength, next.bytesPerSecond));
    print_line("Its close", next.close.rebuilds ? "rebuilds the file: " + next.close.reason
                                                : "leaves the file as it is");
}

void print_diagnosis(Diagnosis const& diagnosis) {
    NextOpen const& next = diagnosis.next;
    print_line("File", diagnosis.file);
    if (next.walk) {
        print_sound(diagnosis);
    }
    print_line(
        "Leftover .DIR",
        next.directory == DirState::None
            ? "none"
            : dir_file_of(diagnosis.file).string() + ", " + bytes_text(next.directorySize) +
                  (diagnosis.next.inUse ? "" : std::string(": ") + directory_text(next.directory)));
    if (next.marker) {
        print_line("Close marker", next.marker->path.string());
    }
    if (!diagnosis.next.inUse) {
        print_plan(next);
    }
    for (Finding const& finding : diagnosis.findings) {
        print_line(finding.attention ? "Attention" : "Note", finding.text);
        print_line("", finding.advice);
    }
    print_line("Verdict", diagnosis.verdict());
}

} // namespace ffdhost
