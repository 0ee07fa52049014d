#include "commands.h"

#include "console/Position.h"
#include "console/Printable.h"

#include <algorithm>

namespace ffdhost {

namespace {

// The .DIR file that gives the bytes of an output their order, or is that output.
std::optional<std::string> waiting_edits_of(std::filesystem::path const& output) {
    std::error_code error;
    if (!std::filesystem::is_regular_file(output, error)) {
        return std::nullopt;
    }
    std::filesystem::path const directory = dir_file_of(output.string());
    uint64_t const size = std::filesystem::file_size(directory, error);
    return error || size == 0 ? std::nullopt : std::optional(directory.string());
}

} // namespace

void check_output(std::string const& operation, std::string const& output,
                  std::string const& file) {
    std::error_code error;
    std::filesystem::path const place = std::filesystem::weakly_canonical(output, error);
    for (std::filesystem::path const& kept : {std::filesystem::path(file), dir_file_of(file)}) {
        if (std::filesystem::equivalent(output, kept, error) ||
            (!place.empty() && place == std::filesystem::weakly_canonical(kept, error))) {
            throw Failure(operation, output, FFD_FILE_ALREADY_EXISTS,
                          "the output would overwrite the file that is read",
                          "Choose another name for the output.");
        }
    }
    if (std::optional<std::string> const edits = waiting_edits_of(output)) {
        throw Failure(operation, output, FFD_FILE_ALREADY_EXISTS,
                      "a session that did not close has left edits in " + *edits +
                          ", which would be lost",
                      "Choose another name for the output. To fold the edits in, run: ffdhost "
                      "recover -- " +
                          shell_word(output));
    }
    std::filesystem::path const parent = std::filesystem::absolute(output).parent_path();
    if (std::filesystem::is_directory(output, error) ||
        !std::filesystem::is_directory(parent, error)) {
        throw Failure(operation, output, FFD_INVALID_PATH, "no file can be written there",
                      "Give the name of a file in a directory that exists.");
    }
}

uint64_t copy_dictation(SoundFile& sound, uint64_t size, OutputFile output) {
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
    Position const fromOption = parse_position("read", options.from);
    Position const lengthOption = options.length.empty() ? Position{Position::Unit::All}
                                                         : parse_length("read", options.length);
    if (output.empty() && json) {
        throw Failure("read", file, FFD_INVALID_PARAMETER,
                      "standard output cannot take the audio and the JSON document at once",
                      "Name a file for the audio with -o.");
    }
    if (!output.empty()) {
        check_output("read", output, file);
    }

    std::unique_ptr<SoundFile> const opened = open_for_reading(driver, file);
    SoundFile& sound = *opened;
    uint32_t const rate = sound.wave_format().bytesPerSecond;
    uint32_t const end = sound.length();
    uint32_t const from = sound.seek(fromOption.to_place(rate, 0, end));
    uint64_t const wanted = std::min(lengthOption.to_bytes(rate), end - from);
    uint64_t const done = copy_dictation(sound, wanted, OutputFile(output, file));
    sound.close();

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
