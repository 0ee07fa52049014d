#include "commands.h"

#include "console/Files.h"
#include "console/Printable.h"
#include "console/System.h"

#include <algorithm>
#include <limits>

namespace ffdhost {

namespace {

namespace fs = std::filesystem;

// The audio of a file, in whole frames.
struct Audio {
    uint32_t begin = 0; // behind an info frame
    uint32_t end = 0;   // a last frame that the end of the file cuts short is left out
    uint32_t size() const { return end - begin; }
};

uint32_t end_of_whole_frames(SoundFile& sound) {
    uint32_t const length = sound.length();
    uint32_t last = 0; // frame, or what there is of it
    sound.hand_to([&](ffd::File& file, auto const&) {
        last = length > 0 ? file.borders(length - 1).before : 0;
    });
    sound.seek(last);
    size_t size = 0;
    for (size_t count = 1; count > 0; size += count) {
        count = sound.read(FFD_LONGEST_FRAME).size();
    }
    return last + size < length ? last : length;
}

Audio audio_of(SoundFile& sound, std::string const& operation, std::string const& path) {
    if (leftover_size(path).value_or(0) > 0) {
        throw Failure(operation, path, FFD_ERROR_ACCESS_DENIED,
                      "edits of a session that did not close are waiting in " +
                          dir_file_of(path).string() + ", and would be missing",
                      "Fold them in first; nothing was written. Run: ffdhost recover -- " +
                          shell_word(path));
    }
    Audio const audio{skip_info_frame(sound), end_of_whole_frames(sound)};
    if (audio.begin >= audio.end) {
        throw Failure(operation, path, FFD_NO_MORE_FRAMES, "it holds no whole frame of audio",
                      "Leave the file out; nothing was written.");
    }
    if (audio.end < sound.length()) {
        print_warning(path + ": the last frame is cut off, and left out");
    }
    return audio;
}

void copy_frames(std::string const& operation, SoundFile& sound, Audio const& audio,
                 OutputFile& output, Progress& progress) {
    sound.seek(audio.begin);
    for (uint32_t left = audio.size(); left > 0;) {
        std::vector<uint8_t> const piece = sound.read(std::min(left, kPieceSize));
        if (piece.empty()) {
            throw Failure(operation, output.name(), FFD_FILE_IO_ERROR,
                          "what is read got shorter meanwhile", "Nothing was written.");
        }
        output.write(piece);
        left -= static_cast<uint32_t>(piece.size());
        progress.advance(piece.size());
    }
}

void check_new(std::string const& operation, std::string const& output, std::string const& source,
               bool force) {
    check_output(operation, output, source, force);
    std::error_code error;
    fs::file_status const there = fs::symlink_status(output, error);
    if (fs::exists(there) && !(force && fs::is_regular_file(there))) {
        throw Failure(operation, output, FFD_FILE_ALREADY_EXISTS, "the name is taken",
                      "Choose another one, or have a file replaced with --force; nothing was "
                      "written.");
    }
}

void check_fits(StreamFormat const& own, StreamFormat const& first, std::string const& file,
                std::string const& firstFile) {
    std::string const conflicts = format_conflicts(own, first);
    if (!conflicts.empty()) {
        throw Failure("join", file, FFD_NOT_SUPPORTED,
                      "it does not fit " + firstFile + ": " + conflicts,
                      "Encode it in the format of the first file (" + format_text(first) +
                          "); nothing was written.");
    }
    if (own.wave.channels != first.wave.channels) {
        print_warning(file + " and " + firstFile + " differ in their number of channels");
    }
}

struct Cut {
    uint32_t asked;
    uint32_t border; // the nearest
};

std::vector<Cut> find_cuts(SoundFile& sound, Audio const& audio, std::string const& file,
                           std::vector<Position> const& places) {
    uint32_t const rate = sound.wave_format().bytesPerSecond;
    std::vector<Cut> cuts;
    uint32_t begin = audio.begin;
    uint32_t here = 0;
    for (Position const& place : places) {
        here = place.to_place(rate, here, audio.end);
        uint32_t const border = sound.nearest_border(here);
        if (border <= begin || border >= audio.end) {
            throw Failure("split", file, FFD_INVALID_POSITION,
                          "nothing would be left between the cut at " + length_text(here, rate) +
                              (border <= begin ? " and what begins at " + length_text(begin, rate)
                                               : " and the end at " + length_text(audio.end, rate)),
                          "Give the places in their order, more than a frame from each other and "
                          "from both ends; nothing was written.");
        }
        cuts.push_back({here, border});
        begin = border;
    }
    return cuts;
}

std::vector<std::string> names_of_parts(std::string const& file, std::string const& prefix,
                                        size_t count) {
    fs::path stem = fs::path(file).replace_extension();
    std::error_code error;
    if (!prefix.empty()) {
        stem =
            fs::is_directory(prefix, error) ? fs::path(prefix) / stem.filename() : fs::path(prefix);
    }
    std::string const extension = fs::path(file).extension().string();
    size_t const digits = std::to_string(count).size();
    std::vector<std::string> names;
    for (size_t i = 1; i <= count; ++i) {
        std::string const number = std::to_string(i);
        names.push_back(stem.string() + '-');
        names.back().append(digits - number.size(), '0').append(number).append(extension);
    }
    return names;
}

} // namespace

Outcome run_split(Driver const& driver, std::string const& file, SplitOptions const& options,
                  bool json) {
    std::vector<Position> places;
    for (std::string const& text : options.at) {
        places.push_back(parse_position("split", text));
    }
    std::unique_ptr<SoundFile> const sound = open_for_reading(driver, file);
    uint32_t const rate = sound->wave_format().bytesPerSecond;
    Audio const all = audio_of(*sound, "split", file);
    std::vector<Cut> const cuts = find_cuts(*sound, all, file, places);
    std::vector<std::string> const names = names_of_parts(file, options.output, cuts.size() + 1);
    for (std::string const& name : names) {
        check_new("split", name, file, options.force);
    }
    tell_of_no_half_file();
    std::vector<OutputFile> outputs;
    Json parts = Json::array();
    {
        Progress progress("splitting", all.size());
        Audio audio = all;
        for (size_t i = 0; i < names.size(); ++i, audio.begin = audio.end) {
            audio.end = i < cuts.size() ? cuts[i].border : all.end;
            outputs.emplace_back(names[i], std::vector<std::string>{file});
            copy_frames("split", *sound, audio, outputs.back(), progress);
            outputs.back().close();
            parts.push_back({{"file", names[i]},
                             {"from", audio.begin},
                             {"snapped", i == 0 ? 0 : int64_t{audio.begin} - cuts[i - 1].asked},
                             {"dictation", length_json(audio.size(), rate)}});
        }
    }
    sound->close();
    for (OutputFile& output : outputs) {
        publish(output, file, options.force, options.force);
    }
    std::string heading = "Written";
    for (Json const& part : parts) {
        if (!json) {
            print_line(heading, part["file"].get<std::string>() + ": " +
                                    length_text(part["dictation"]) + " from position " +
                                    std::to_string(part["from"].get<uint32_t>()));
        }
        heading = "";
    }
    return {{{"command", "split"}, {"ok", true}, {"file", file}, {"parts", parts}}};
}

Outcome run_join(Driver const& driver, std::string const& output,
                 std::vector<std::string> const& files, bool force, bool json) {
    StreamFormat const format = look_at(driver, files.front()).format;
    std::vector<Audio> audio;
    uint64_t total = 0;
    for (std::string const& file : files) {
        check_new("join", output, file, force);
        check_fits(look_at(driver, file).format, format, file, files.front());
        audio.push_back(audio_of(*open_for_reading(driver, file), "join", file));
        total += audio.back().size();
    }
    if (total > std::numeric_limits<uint32_t>::max()) {
        throw Failure("join", output, FFD_NOT_SUPPORTED,
                      "the file would have 4 GiB or more, and could not be opened",
                      "Join fewer files; nothing was written.");
    }
    tell_of_no_half_file();
    OutputFile made(output, files);
    Json inputs = Json::array();
    {
        Progress progress("joining", total);
        for (size_t i = 0; i < files.size(); ++i) {
            SoundFile sound(driver, files[i], Access::Read);
            copy_frames("join", sound, audio[i], made, progress);
            sound.close();
            inputs.push_back(
                {{"file", files[i]},
                 {"dictation", length_json(audio[i].size(), format.wave.bytesPerSecond)}});
        }
    }
    made.close();
    if (audio_length(driver, made.temporary()) != total) {
        throw Failure("join", output, FFD_INTERNAL_ERROR, "what was written is not what was read",
                      "Make sure that no other program changes the files; nothing was written.");
    }
    publish(made, files.front(), force, force);
    Json const joined = {{"command", "join"},
                         {"ok", true},
                         {"file", output},
                         {"inputs", inputs},
                         {"dictation", length_json(total, format.wave.bytesPerSecond)}};
    if (!json) {
        print_line("Joined",
                   std::to_string(files.size()) + (files.size() == 1 ? " file" : " files"));
        print_line("Written", output + ": " + length_text(joined["dictation"]));
    }
    return {joined};
}

} // namespace ffdhost
