#include "commands.h"

#include "console/Position.h"
#include "console/Printable.h"
#include "console/System.h"

#include <algorithm>

namespace ffdhost {

namespace {

// What a crash has left for a sound file of this name: the next open for writing applies it to
// whatever has the name by then. What `file` has waiting is meant for that, and not for letter.wav
// or letter.svg beside letter.mp3.
std::optional<std::filesystem::path> left_for(std::string const& output, std::string const& file) {
    std::error_code error;
    for (auto const companion : {dir_file_of, marker_file_of}) {
        std::filesystem::path const left = companion(output);
        if (std::filesystem::file_size(left, error) > 0 && !error &&
            !std::filesystem::equivalent(left, companion(file), error)) {
            return left;
        }
    }
    return std::nullopt;
}

} // namespace

void check_nothing_left(std::string const& operation, std::string const& output,
                        std::string const& file) {
    if (ends_in(output, ".dir") || ends_in(output, ".clm")) {
        throw Failure(operation, output, FFD_INVALID_PATH,
                      "the driver keeps edits and interrupted closes in files that end so, and "
                      "would take it for one of them",
                      "Choose another name, or write it all the same with --force; nothing was "
                      "written.");
    }
    if (std::optional<std::filesystem::path> const left = left_for(output, file)) {
        throw Failure(operation, output, FFD_FILE_ALREADY_EXISTS,
                      "a session that did not close has left edits for a file of this name in " +
                          left->string() + ", which would be lost",
                      "Choose another name. To fold the edits in, run: ffdhost recover -- " +
                          shell_word(output) + ". With --force they are set aside.");
    }
}

void set_aside_what_is_left(std::string const& output, std::string const& file) {
    while (std::optional<std::filesystem::path> const left = left_for(output, file)) {
        std::error_code error;
        std::filesystem::path kept;
        for (int i = 0; kept.empty() || std::filesystem::exists(kept, error); ++i) {
            kept = left->string() + ".bad" + (i == 0 ? "" : std::to_string(i));
        }
        std::filesystem::rename(*left, kept, error);
        if (error) {
            throw Failure("set aside", left->string(), FFD_FILE_IO_ERROR, error.message());
        }
        print_warning(left->string() + " is set aside as " + kept.string());
    }
}

void check_output(std::string const& operation, std::string const& output, std::string const& file,
                  bool force) {
    std::error_code error;
    auto const place_of = [&](std::filesystem::path const& path) { // of one that is not there, too
        return std::filesystem::weakly_canonical(std::filesystem::absolute(path, error), error);
    };
    std::filesystem::path const place = place_of(output);
    for (std::filesystem::path const& kept : {std::filesystem::path(file), dir_file_of(file)}) {
        if (std::filesystem::equivalent(output, kept, error) ||
            (!place.empty() && place == place_of(kept))) {
            throw Failure(operation, output, FFD_FILE_ALREADY_EXISTS,
                          "the output would overwrite the file that is read",
                          "Choose another name for the output.");
        }
    }
    if (!force) {
        check_nothing_left(operation, output, file);
    }
    std::filesystem::path const parent = std::filesystem::absolute(output).parent_path();
    if (std::filesystem::is_directory(output, error) ||
        !std::filesystem::is_directory(parent, error)) {
        throw Failure(operation, output, FFD_INVALID_PATH, "no file can be written there",
                      "Give the name of a file in a directory that exists.");
    }
}

void tell_place_beyond(std::string const& operation, Position const& asked, uint32_t here,
                       uint32_t length, uint32_t bytesPerSecond) {
    uint32_t const place = asked.to_place(bytesPerSecond, here, length);
    bool const fromEnd = asked.from == Position::From::End;
    if (asked.isBack && asked.to_bytes(bytesPerSecond) > (fromEnd ? length : here)) {
        print_warning(operation + ": " +
                      length_text(asked.to_bytes(bytesPerSecond), bytesPerSecond) + " back from " +
                      length_text(fromEnd ? length : here, bytesPerSecond) +
                      " is before the beginning");
    } else if (place > length && asked.from != Position::From::End) {
        print_warning(operation + ": " + length_text(place, bytesPerSecond) +
                      " is beyond the end of " + length_text(length, bytesPerSecond));
    }
}

void publish(OutputFile& output, std::string const& source, bool force, bool replace) {
    if (force) {
        set_aside_what_is_left(output.name(), source);
    }
    output.publish(replace);
}

void tell_of_no_half_file() {
    tell_when_interrupted("\nffdhost: interrupted: no file is left half written\n");
}

uint64_t copy_dictation(SoundFile& sound, uint64_t size, OutputFile& output) {
    Progress progress("reading", size);
    uint64_t done = 0;
    while (done < size) {
        auto const piece =
            sound.read(static_cast<uint32_t>(std::min<uint64_t>(size - done, kPieceSize)));
        if (piece.empty()) {
            break;
        }
        output.write(piece);
        done += piece.size();
        progress.advance(piece.size());
    }
    output.close();
    return done;
}

Outcome run_read(Driver const& driver, std::string const& file, ReadOptions const& options,
                 bool json) {
    std::string const output = options.output == "-" ? "" : options.output;
    Position const fromOption = parse_place("read", options.from);
    Position const lengthOption = options.length.empty() ? Position{Position::Unit::All}
                                                         : parse_length("read", options.length);
    if (output.empty() && json) {
        throw Failure("read", file, FFD_INVALID_PARAMETER,
                      "standard output cannot take the audio and the JSON document at once",
                      "Name a file for the audio with -o.");
    }
    if (!output.empty()) {
        check_output("read", output, file, options.force);
    }

    std::unique_ptr<SoundFile> const opened = open_for_reading(driver, file);
    SoundFile& sound = *opened;
    uint32_t const rate = sound.wave_format().bytesPerSecond;
    uint32_t const end = sound.length();
    uint32_t const place = fromOption.to_place(rate, 0, end);
    uint32_t const asked = sound.seek(place);
    uint32_t const range = std::min(lengthOption.to_bytes(rate), end - asked);
    uint32_t const skipped = std::min(range, skip_info_frame(sound));
    uint32_t const from = asked + skipped;
    uint64_t const wanted = range - skipped;
    tell_place_beyond("read", fromOption, 0, end, rate);
    if (!output.empty()) {
        tell_of_no_half_file();
    }
    OutputFile written(output, {file});
    uint64_t const done = copy_dictation(sound, wanted, written);
    sound.close();
    publish(written, file, options.force && !output.empty());

    if (done < wanted) {
        print_warning(file + ": the file ends " + bytes_text(wanted - done) +
                      " before its last frame does");
    }
    Json const read = {{"command", "read"},
                       {"ok", true},
                       {"file", file},
                       {"from", from},
                       {"read", length_json(done, rate)},
                       {"missing_bytes", wanted - done},
                       {"output", output}};
    if (!json && !output.empty()) {
        print_line("Read", length_text(read["read"]) + " from position " + std::to_string(from));
        print_line("Written", read["output"]);
    }
    return {read};
}

} // namespace ffdhost
