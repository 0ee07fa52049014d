#include "commands.h"

#include "Position.h"
#include "System.h"

#include <algorithm>
#include <fstream>
#include <iostream>

namespace ffdhost {

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
    std::filesystem::path const parent = std::filesystem::absolute(output).parent_path();
    if (std::filesystem::is_directory(output, error) ||
        !std::filesystem::is_directory(parent, error)) {
        throw Failure(operation, output, FFD_INVALID_PATH, "no file can be written there",
                      "Give the name of a file in a directory that exists.");
    }
}

uint64_t copy_dictation(SoundFile& sound, uint64_t size, std::string const& output) {
    std::ofstream file;
    if (!output.empty()) {
        file.open(output, std::ios::binary | std::ios::trunc);
    }
    std::ostream& stream = output.empty() ? std::cout : file;
    Progress progress("reading", size);
    uint64_t done = 0;
    while (stream && done < size) {
        auto const piece =
            sound.read(static_cast<uint32_t>(std::min<uint64_t>(size - done, kPieceSize)));
        if (piece.empty()) {
            break;
        }
        stream.write(reinterpret_cast<char const*>(piece.data()),
                     static_cast<std::streamsize>(piece.size()));
        done += piece.size();
        progress.advance(piece.size());
    }
    if (!stream.flush()) {
        throw Failure("write output", output.empty() ? "standard output" : output,
                      FFD_FILE_IO_ERROR, "the output cannot be written",
                      "Check the permissions of the output, and that the disk is not full.");
    }
    return done;
}

Outcome run_read(Driver const& driver, std::string const& file, ReadOptions const& given,
                 bool json) {
    ReadOptions options = given;
    if (options.output == "-") {
        options.output.clear();
    }
    Position const fromOption = parse_position("read", options.from);
    Position const lengthOption = options.length.empty() ? Position{Position::Unit::End, 0}
                                                         : parse_position("read", options.length);
    if (options.output.empty()) {
        if (json) {
            throw Failure("read", file, FFD_INVALID_PARAMETER,
                          "standard output cannot take the audio and the JSON document at once",
                          "Name a file for the audio with -o.");
        }
        make_stdout_binary();
    } else {
        check_output("read", options.output, file);
    }

    std::unique_ptr<SoundFile> const opened = open_for_reading(driver, file);
    SoundFile& sound = *opened;
    uint32_t const rate = sound.wave_format().bytesPerSecond;
    uint32_t const end = sound.length();
    uint32_t const from = sound.seek(fromOption.to_bytes(rate));
    uint64_t const wanted = std::min(lengthOption.to_bytes(rate), end - from);
    uint64_t const done = copy_dictation(sound, wanted, options.output);
    sound.close();

    if (done < wanted) {
        print_warning(file + ": the file ends " + bytes_text(wanted - done) +
                      " before its last frame does");
    }
    if (!json && !options.output.empty()) {
        print_line("Read", length_text(done, rate) + " from position " + std::to_string(from));
        print_line("Written", options.output);
    }
    return {{{"command", "read"},
             {"ok", true},
             {"file", file},
             {"from", from},
             {"read", length_json(done, rate)},
             {"missing_bytes", wanted - done},
             {"output", options.output}}};
}

} // namespace ffdhost
