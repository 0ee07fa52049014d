#include "commands.h"

#include "BlockList.h"
#include "console/Printable.h"
#include "console/System.h"
#include "EditOps.h"

#include <algorithm>
#include <memory>

namespace ffdhost {

namespace {

bool takes_standard_input(EditOp const& op) {
    return op.takes_clip() && op.path == "-";
}

// One run of 'edit': the checks, the open file, and the results so far.
class Editor {
public:
    Editor(Driver const& driver, std::string const& file, std::vector<EditOp> ops,
           EditOptions const& options, bool json)
        : m_driver(driver), m_file(file), m_dirFile(dir_file_of(file)), m_ops(std::move(ops)),
          m_options(options), m_json(json), m_document{{"command", "edit"},
                                                       {"ok", false},
                                                       {"file", file},
                                                       {"operations", Json::array()}} {}

    Outcome run();

private:
    void check_before_open();
    void check_paths(EditOp const& op) const;
    void check_clips(StreamFormat const* target) const;
    void open();
    void perform_all();
    void close();

    // Does an operation and fills in its result, and the text of that result.
    void perform(EditOp const& op, Json& result);
    void print(EditOp const& op, Json const& result) const;
    std::string text_of(EditOp const& op, Json const& result) const;
    uint32_t snapped(uint32_t dictationPosition, Json& result);
    void settle(Json& result);
    uint32_t length_of(EditOp const& op, Json& result);
    void seek(EditOp const& op, Json& result);
    void enter_clip(EditOp const& op, Json& result);
    void record(EditOp const& op, Json& result);
    uint64_t enter_pieces(FFDMethod method, std::string const& name, SoundFile& clip, Json& result);
    void erase(EditOp const& op, Json& result);
    void undo(Json& result);
    void read(EditOp const& op, Json& result);
    void show(Json& result);
    void map(Json& result);
    void restore(Json& result);
    void crash();

    void report_failure(char const* key, Failure const& failure);
    void say(std::string const& name, std::string const& value) const {
        if (!m_json) {
            print_line(name, value);
        }
    }

    Driver const& m_driver;
    std::string const m_file;
    std::filesystem::path const m_dirFile;
    std::vector<EditOp> const m_ops;
    EditOptions const& m_options;
    bool const m_json;
    Json m_document;
    std::optional<StreamView> m_view; // the file before this edit
    std::unique_ptr<SoundFile> m_sound;
    uint32_t m_rate = 0; // bytes per second of the dictation
    // A restore changes the directory in memory only; the .DIR file follows with the next edit.
    bool m_dirFileIsBehind = false;
};

Outcome Editor::run() {
    check_before_open();
    open();
    bool failed = false;
    try {
        perform_all();
    } catch (Failure const& failure) {
        failed = true;
        report_failure("failure", failure);
    }
    if (m_document.contains("crashed")) { // which only was pretended
        return {m_document, kExitCrash};
    }
    // Also after a failure: the edits that worked are kept.
    try {
        close();
    } catch (Failure const& failure) {
        report_failure(failed ? "close_failure" : "failure", failure);
        failed = true;
    }
    m_document["ok"] = !failed;
    return {m_document, failed ? kExitFailed : 0};
}

// All that can be known to be wrong is found here, so that a slip in the third operation does not
// leave the first two done.
void Editor::check_before_open() {
    for (EditOp const& op : m_ops) {
        check_paths(op);
    }
    m_view = look_before_writing(m_driver, m_file);
    check_clips(m_view ? &m_view->format : nullptr);
}

void Editor::check_paths(EditOp const& op) const {
    std::error_code error;
    if (op.takes_clip() && std::filesystem::equivalent(op.path, m_file, error)) {
        throw Failure(op.name, op.path, FFD_ERROR_ACCESS_DENIED,
                      "a file cannot be entered into itself while it is open for writing",
                      "Read the audio into another file first: 'ffdhost read FILE -o COPY'.");
    }
    if (op.kind != EditOp::Kind::Read) {
        return;
    }
    if (op.path == "-") {
        throw Failure(op.name, m_file, FFD_INVALID_PARAMETER,
                      "standard output takes the results of the edit",
                      "Name a file for the audio, or use 'ffdhost read'.");
    }
    check_output(op.name, op.path, m_file, m_options.force);
    for (EditOp const& other : m_ops) {
        if (other.takes_clip()) {
            check_output(op.name, op.path, other.path, m_options.force);
        }
    }
}

// Without a target only what the driver itself refuses is found.
void Editor::check_clips(StreamFormat const* target) const {
    for (EditOp const& op : m_ops) {
        if (!op.takes_clip() ||
            takes_standard_input(op)) { // which the recorder checks before it writes
            continue;
        }
        StreamFormat const clip = look_at(m_driver, op.path).format;
        if (target == nullptr) {
            continue;
        }
        std::string const words = format_conflicts(clip, *target);
        if (!words.empty() && !m_options.force) {
            throw Failure(op.name, op.path, FFD_NOT_SUPPORTED,
                          "the clip does not fit the dictation: " + words,
                          "Encode the clip in the format of the dictation (" +
                              format_text(*target) +
                              "), or enter it all the same with --force; nothing was changed.");
        }
        if (!words.empty()) {
            print_warning(op.path + " does not fit the dictation: " + words);
        } else if (clip.wave.channels != target->wave.channels) {
            print_warning(op.path + " and the dictation differ in their number of channels");
        }
    }
}

void Editor::open() {
    if (std::any_of(m_ops.begin(), m_ops.end(), takes_standard_input)) {
        make_stdin_binary();
        let_stop_wait();
    }
    if (!m_options.pretendedCrash) {
        tell_when_interrupted("\nffdhost: interrupted: the edits so far are kept beside " +
                              printable(m_file) + "; the next open for writing finds them\n");
    }
    {
        Waiting const waiting("opening");
        m_sound = std::make_unique<SoundFile>(m_driver, m_file, Access::ReadWrite);
    }
    m_document["taken_over_blocks"] =
        tell_edits_taken_over(m_dirFile, m_options.readDirectory, m_json);
    m_rate = m_sound->wave_format().bytesPerSecond;
    say("Opened", length_text(m_sound->length(), m_rate));
}

void Editor::perform_all() {
    for (EditOp const& op : m_ops) {
        if (m_document.contains("crashed")) {
            return;
        }
        Json& result = m_document["operations"].emplace_back(Json{{"op", op.name}});
        try {
            perform(op, result);
            settle(result);
            print(op, result);
        } catch (Failure const&) {
            result["failed"] = true;
            throw;
        }
    }
}

void Editor::close() {
    if (!m_sound->is_open()) {
        return; // a recording could not go on, and has told
    }
    m_document["dictation"] = length_json(m_sound->length(), m_rate); // if the close fails
    {
        Waiting const waiting("closing");
        m_sound->close();
    }
    tell_when_interrupted("");
    uint32_t const length = audio_length(m_driver, m_file); // a close goes to whole frames
    m_document["dictation"] = length_json(length, m_rate);
    m_document["closed"] = status_json(FFD_NOERROR);
    say("Closed", length_text(m_document["dictation"]));
    m_document["info_frame"] = length > 0 ? info_frame_json(m_driver, m_file) : Json();
    if (!m_json) {
        print_wrong_info_frame(m_document["info_frame"], m_file);
    }
}

void Editor::perform(EditOp const& op, Json& result) {
    switch (op.kind) {
    case EditOp::Kind::Seek:
        return seek(op, result);
    case EditOp::Kind::Insert:
    case EditOp::Kind::Overwrite:
        return enter_clip(op, result);
    case EditOp::Kind::Delete:
        return erase(op, result);
    case EditOp::Kind::Undo:
        return undo(result);
    case EditOp::Kind::Read:
        return read(op, result);
    case EditOp::Kind::Show:
        return show(result);
    case EditOp::Kind::Map:
        return map(result);
    case EditOp::Kind::Store:
        return m_sound->store();
    case EditOp::Kind::Restore:
        return restore(result);
    case EditOp::Kind::Crash:
        crash();
    }
}

void Editor::seek(EditOp const& op, Json& result) {
    uint32_t const length = m_sound->length();
    uint32_t const here = m_sound->position();
    uint32_t const wanted = op.position.to_place(m_rate, here, length);
    uint32_t const reached = m_sound->seek(snapped(std::min(wanted, length), result));
    result["position"] = reached;
    tell_place_beyond("seek", op.position, here, length, m_rate);
}

// With --snap the nearest border, and in the result how far it lies behind the place.
uint32_t Editor::snapped(uint32_t dictationPosition, Json& result) {
    if (!m_options.snap) {
        return dictationPosition;
    }
    uint32_t const border = m_sound->nearest_border(dictationPosition);
    result["snapped"] = int64_t{border} - int64_t{dictationPosition};
    return border;
}

// With --snap no operation begins inside a frame: an undo can end there, or a clip in half a one.
void Editor::settle(Json& result) {
    if (!m_options.snap || !m_sound->is_open()) {
        return;
    }
    uint32_t const position = m_sound->position();
    uint32_t const border = m_sound->nearest_border(position);
    if (border != position) {
        result["snapped"] = int64_t{border} - int64_t{position};
        result["position"] = m_sound->seek(border);
    }
}

// From the position on; what lies beyond the end is cut off.
uint32_t Editor::length_of(EditOp const& op, Json& result) {
    uint32_t const from = m_sound->position();
    uint32_t const left = m_sound->length() - from;
    uint32_t const wanted = op.position.to_bytes(m_rate);
    if (wanted > left) {
        print_warning(op.name + ": " + length_text(wanted, m_rate) + " are wanted and " +
                      length_text(left, m_rate) + " are left up to the end");
        return left;
    }
    return std::max(from, snapped(from + wanted, result)) - from;
}

void Editor::enter_clip(EditOp const& op, Json& result) {
    FFDMethod const method =
        op.kind == EditOp::Kind::Overwrite ? FFD_METHOD_OVERWRITE : FFD_METHOD_INSERT;
    if (takes_standard_input(op)) {
        return record(op, result);
    }
    // Through the driver: its dictation is the clip without its tags.
    SoundFile clip(m_driver, op.path, Access::Read);
    skip_info_frame(clip);
    uint32_t const before = m_sound->length();
    result["clip"] = op.path;
    result["from"] = m_sound->position();
    // The driver takes out as many bytes as it enters, up to inside a frame.
    bool const takesFrames = m_options.snap && method == FFD_METHOD_OVERWRITE;
    uint64_t const done =
        enter_pieces(takesFrames ? FFD_METHOD_INSERT : method, op.name, clip, result);
    clip.close();
    if (takesFrames) {
        uint32_t const position = m_sound->position();
        uint64_t const end = std::min<uint64_t>(position + done, m_sound->length());
        m_sound->erase(std::max(position, snapped(static_cast<uint32_t>(end), result)) - position);
    }
    result["replaced"] = before + done - m_sound->length();
    result["position"] = m_sound->position();
}

void Editor::record(EditOp const& op, Json& result) {
    RecorderOptions options;
    options.at = m_sound->position();
    options.overwrite = op.kind == EditOp::Kind::Overwrite;
    options.force = m_options.force;
    m_dirFileIsBehind = false;
    Recorded const recorded = record_stream(*m_sound, m_file, options);
    result.update({{"clip", op.path},
                   {"from", recorded.result["from"]},
                   {"bytes", recorded.result["recorded"]["bytes"]},
                   {"replaced", recorded.result["replaced"]},
                   {"position", recorded.result["position"]}});
    if (recorded.failure) {
        throw *recorded.failure;
    }
}

uint64_t Editor::enter_pieces(FFDMethod method, std::string const& name, SoundFile& clip,
                              Json& result) {
    Progress progress(name, clip.length() - clip.position());
    uint64_t done = 0;
    for (std::vector<uint8_t> piece; !(piece = clip.read(kPieceSize)).empty();) {
        m_sound->write(method, piece);
        m_dirFileIsBehind = false;
        done += piece.size();
        result["bytes"] = done; // kept up to date, for a failure half way through
        progress.advance(piece.size());
    }
    return done;
}

void Editor::erase(EditOp const& op, Json& result) {
    uint32_t const wanted = length_of(op, result);
    uint32_t const before = m_sound->length();
    if (before - wanted < m_sound->wave_format().frameSize && wanted > 0 && !m_options.force) {
        throw Failure(op.name, m_file, FFD_NOT_SUPPORTED,
                      "no frame would be left, and a file without one cannot be opened any more",
                      "Leave a frame, insert the new audio first and delete behind it, or delete "
                      "all the same with --force.");
    }
    m_sound->erase(wanted);
    m_dirFileIsBehind = false;
    uint32_t const deleted = before - m_sound->length();
    result["from"] = m_sound->position();
    result["deleted"] = length_json(deleted, m_rate);
    if (deleted == 0 && wanted != 0) {
        print_warning("delete took nothing: the position is less than a frame before the end");
    }
}

void Editor::undo(Json& result) {
    uint32_t const before = m_sound->length();
    m_sound->undo();
    m_dirFileIsBehind = false;
    uint32_t const broughtBack = m_sound->length() - before;
    result["brought_back"] = length_json(broughtBack, m_rate);
}

void Editor::read(EditOp const& op, Json& result) {
    uint32_t const range = length_of(op, result);
    uint32_t const skipped = std::min(range, skip_info_frame(*m_sound));
    uint32_t const from = m_sound->position();
    uint64_t const wanted = range - skipped;
    uint64_t done = wanted;
    if (!m_options.pretendedCrash) {
        OutputFile output(op.path, {m_file});
        done = copy_dictation(*m_sound, wanted, output);
        publish(output, m_file, m_options.force);
    } else {
        m_options.pretendedOutput(op.path, wanted);
        m_sound->seek(static_cast<uint32_t>(from + wanted));
    }
    result["from"] = from;
    result["read"] = length_json(done, m_rate);
    result["output"] = op.path;
}

void Editor::show(Json& result) {
    result["position"] = length_json(m_sound->position(), m_rate);
    result["dictation"] = length_json(m_sound->length(), m_rate);
    result["file_size"] = m_sound->file_size();
}

void Editor::map(Json& result) {
    uint32_t const length = m_sound->length();
    std::optional<DirMap> const edited = m_options.readDirectory(m_dirFile);
    DirMap const blocks = edited ? *edited : one_block(length);
    bool const current = !m_dirFileIsBehind && blocks.dictationLength == length;
    result["edited"] = edited.has_value();
    result["current"] = current;
    result["blocks"] = map_json(blocks, m_view, m_rate);
    if (!current) {
        print_warning(std::string("map shows the .DIR file, which follows ") +
                      (m_dirFileIsBehind ? "the restored edit state"
                                         : "the repair of the block that a crash has cut") +
                      " only with the next edit");
    }
}

void Editor::restore(Json& result) {
    m_sound->restore();
    m_dirFileIsBehind = true;
    result["position"] = m_sound->position();
    result["dictation"] = length_json(m_sound->length(), m_rate);
}

void Editor::print(EditOp const& op, Json const& result) const {
    int64_t const moved = result.value("snapped", int64_t{0});
    say(op.name, text_of(op, result) +
                     (moved == 0 ? ""
                                 : ", to the border of frames " + std::to_string(std::abs(moved)) +
                                       (moved < 0 ? " bytes before" : " bytes behind")));
    if (op.kind == EditOp::Kind::Map && !m_json) {
        print_map(result["blocks"]);
    }
}

std::string Editor::text_of(EditOp const& op, Json const& result) const {
    auto const bytes = [&](char const* key) { return result.value(key, uint64_t{0}); };
    auto const number = [&](char const* key) { return std::to_string(bytes(key)); };
    auto const length = [&](char const* key) { return length_text(result[key]); };
    std::string const clip = takes_standard_input(op) ? "standard input" : op.path;
    switch (op.kind) {
    case EditOp::Kind::Seek:
        return "position " + length_text(bytes("position"), m_rate);
    case EditOp::Kind::Insert:
        return length_text(bytes("bytes"), m_rate) + " of " + clip + " at position " +
               number("from");
    case EditOp::Kind::Overwrite:
        return length_text(bytes("bytes"), m_rate) + " of " + clip + " at position " +
               number("from") + " over " + bytes_text(bytes("replaced"));
    case EditOp::Kind::Delete:
        return length("deleted") + " at position " + number("from");
    case EditOp::Kind::Undo:
        return length("brought_back") + " brought back";
    case EditOp::Kind::Read:
        return length("read") + " from position " + number("from") + " into " + op.path;
    case EditOp::Kind::Show:
        return "position " + length("position") + ", dictation " + length("dictation") + ", file " +
               bytes_text(bytes("file_size"));
    case EditOp::Kind::Map:
        return result["edited"] ? m_dirFile.string() : "no edits yet";
    case EditOp::Kind::Store:
        return "the edit state is stored";
    case EditOp::Kind::Restore:
        return "back to position " + number("position") + ", dictation " + length("dictation");
    case EditOp::Kind::Crash: // to be seen only where it is pretended
        return "the process would end here";
    }
    return "";
}

void Editor::crash() {
    m_document["crashed"] = true;
    if (m_options.pretendedCrash) {
        return m_options.pretendedCrash();
    }
    if (m_json) {
        print_document(m_document);
    }
    print_warning("crash: the process ends here without a close; the edits are in " +
                  m_dirFile.string());
    if (!stdout_is_written()) {
        print_failure(stdout_failure());
        end_process(kExitFailed);
    }
    end_process(kExitCrash);
}

void Editor::report_failure(char const* key, Failure const& failure) {
    m_document[key] = failure_json(failure);
    if (failure.operation() == "close") {
        m_document["closed"] = status_json(failure.status());
    }
    if (!m_json) {
        print_failure(failure);
    }
}

} // namespace

size_t tell_edits_taken_over(std::filesystem::path const& dirFile, DirReader const& readDirectory,
                             bool json) {
    std::optional<DirMap> const left = readDirectory(dirFile);
    size_t const blocks = left ? left->blocks.size() : 0;
    if (blocks > 0 && !json) {
        print_line("Taken over",
                   "the edits of a session that did not close: " + std::to_string(blocks) +
                       (blocks == 1 ? " block" : " blocks") + " in " + dirFile.string());
    }
    return blocks;
}

Outcome run_edit(Driver const& driver, std::string const& file,
                 std::vector<std::string> const& tokens, EditOptions const& options, bool json) {
    std::vector<EditOp> ops = parse_edit_ops(tokens);
    if (std::count_if(ops.begin(), ops.end(), takes_standard_input) > 1) {
        throw Failure("edit", file, FFD_INVALID_PARAMETER, "standard input can be taken only once",
                      "Give the clip as a file; nothing was changed.");
    }
    return Editor(driver, file, std::move(ops), options, json).run();
}

} // namespace ffdhost
