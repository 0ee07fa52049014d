#include "commands.h"

#include "console/Position.h"
#include "console/Printable.h"
#include "console/System.h"
#include "Obstacle.h"
#include "Recorder.h"

#include <algorithm>
#include <array>
#include <memory>

namespace ffdhost {

namespace {

constexpr std::chrono::milliseconds kPatience(200); // with a stream that pauses
constexpr size_t kPieceOfStream = size_t{32} * 1024;
constexpr uint64_t kLargestFile = 0xFFFFFFFF;
constexpr uint64_t kLongestWrite = size_t{64} * 1024; // of a Recorder

std::filesystem::path parent_of(std::string const& file) {
    std::error_code error;
    return std::filesystem::absolute(file, error).parent_path();
}

// That the disk lasts, or the room in a file.
std::string time_left(std::string const& file, uint32_t fileSize, uint32_t bytesPerSecond) {
    std::error_code error;
    std::filesystem::space_info const space = std::filesystem::space(parent_of(file), error);
    if (error) {
        return "unknown";
    }
    uint64_t const needed =
        ffd_basic_need(uint64_t{fileSize} * 2); // all of it is in blocks, nearly
    uint64_t const room = kLargestFile - fileSize;
    uint64_t const free = space.available - std::min<uint64_t>(space.available, needed);
    return rough_time_text(
        std::min(recording_seconds(free, bytesPerSecond), room / bytesPerSecond));
}

// The stream up to its first frame that is audio.
class Beginning {
public:
    // False if the stream ends or the program is to stop before there is one.
    bool find() {
        std::array<std::byte, kPieceOfStream> buffer;
        for (size_t count = 0; m_frame.empty();) {
            Arrival const arrival = await_stdin(buffer, count, kPatience);
            auto const take = [this](FFDFrame const& frame) {
                if (m_frame.empty() && !frame.bInfo) {
                    m_frame.assign(frame.pBytes, frame.pBytes + frame.dwLength);
                    m_end = static_cast<size_t>(frame.ullOffset) + frame.dwLength;
                }
            };
            if (arrival == Arrival::Bytes) {
                m_stream.insert(m_stream.end(), buffer.begin(),
                                buffer.begin() + static_cast<std::ptrdiff_t>(count));
                m_reader.put(std::span(buffer).first(count), take);
            } else if (arrival == Arrival::Nothing) {
                m_reader.pause(take);
            } else {
                m_reader.end(take);
                break;
            }
            if (m_stream.size() > kMostNoise) {
                break;
            }
        }
        return !m_frame.empty();
    }

    std::vector<uint8_t> const& frame() const { return m_frame; }
    // What has come behind it.
    std::span<std::byte const> rest() const { return std::span(m_stream).subspan(m_end); }

private:
    static constexpr size_t kMostNoise = size_t{4} * 1024 * 1024;

    ffd::FrameReader m_reader;
    std::vector<std::byte> m_stream;
    std::vector<uint8_t> m_frame;
    size_t m_end = 0; // of the frame, in the stream
};

// Never over a file that somebody else has made meanwhile.
void make_file(std::string const& name, std::vector<uint8_t> const& frame) {
    OutputFile file(name, {});
    file.write(frame);
    file.close();
    file.publish(false);
}

Failure unreadable(std::system_error const& error) {
    return {"read", "standard input", FFD_FILE_IO_ERROR, error.code().message(),
            "Let an encoder write to it: ffmpeg ... -f mp3 - | ffdhost record FILE"};
}

Failure wrong_stream(std::string const& name, WrongStream const& wrong, bool isBegun) {
    return {"record", name, FFD_NOT_SUPPORTED, wrong.what(),
            isBegun ? "Encode the stream with a constant bitrate; what came before is recorded."
                    : "Encode the stream in the format of the dictation, with a constant bitrate; "
                      "nothing was recorded."};
}

// The driver has one status for every write that fails.
Failure not_written(std::string const& name, ffd::Error const& error, uint32_t fileSize) {
    if (fileSize == 0) { // it is closed
        return why_not_closed(name, error);
    }
    std::error_code code;
    uint64_t const space = std::filesystem::space(parent_of(name), code).available;
    if (error.status() == FFD_FILE_IO_ERROR && fileSize > kLargestFile - kLongestWrite) {
        return {error.operation(), name, error.status(), "the file would get larger than 4 GiB",
                "What came before is recorded. Go on with another file."};
    }
    if (error.status() == FFD_FILE_IO_ERROR && !code && space < kLongestWrite) {
        return {error.operation(), name, error.status(), "the disk is full",
                "What came before is recorded. Free some space before you go on."};
    }
    return {error.operation(), name, error.status()};
}

Failure no_audio() {
    if (stop_is_wanted()) {
        return {"record", "standard input", FFD_NO_MORE_FRAMES,
                "it was stopped before a frame had come", "Nothing was recorded."};
    }
    return {"record", "standard input", FFD_NO_MORE_FRAMES, "the stream has no MP3 frame",
            "Let an encoder write MP3 to it: ffmpeg ... -f mp3 - | ffdhost record FILE"};
}

// What came of it before the file is closed.
Json result_json(Recorder const& recorder, uint32_t rate) {
    FFDFrames const& stream = recorder.stream();
    return {{"from", recorder.begin()},
            {"recorded", length_json(recorder.position() - recorder.begin(), rate)},
            {"replaced", recorder.replaced()},
            {"position", recorder.position()},
            {"reopened", recorder.reopened()},
            {"tag_bytes", stream.ullTags},
            {"noise_bytes", stream.ullNoise}};
}

// Up to the end of the stream, a stop, or as much as is wanted.
void take_stream(Recorder& recorder, ffd::File const& file, std::string const& name, uint32_t rate,
                 std::span<std::byte const> begun) {
    StatusLine line;
    bool isHomeless = false;
    std::array<std::byte, kPieceOfStream> buffer;
    recorder.put(begun);
    while (!recorder.done()) {
        if (line.due()) {
            std::error_code error;
            if (!isHomeless && !std::filesystem::exists(parent_of(name), error)) {
                isHomeless = true;
                print_warning(name +
                              ": its folder is gone. If it was removed, make it again before "
                              "the recording ends, or all of it is lost");
            }
            line.show("recorded " + time_text(milliseconds_of(recorder.recorded(), rate)) +
                      ", at " + time_text(milliseconds_of(recorder.position(), rate)) +
                      ", disk lasts " + time_left(name, file.file_size(), rate));
        }
        size_t count = 0;
        switch (await_stdin(buffer, count, kPatience)) {
        case Arrival::Bytes:
            recorder.put(std::span(buffer).first(count));
            break;
        case Arrival::Nothing:
            recorder.pause();
            break;
        case Arrival::End:
        case Arrival::Stop:
            return;
        }
    }
}

} // namespace

Recorded record_stream(SoundFile& sound, std::string const& name, RecorderOptions const& options,
                       std::span<std::byte const> begun) {
    uint32_t const rate = sound.wave_format().bytesPerSecond;
    Recorded done;
    auto const fail = [&](Failure const& failure) {
        if (!done.failure) {
            done.failure = failure;
        }
    };
    sound.hand_to([&](ffd::File& file, Recorder::Open const& open) {
        Recorder recorder(file, open, options);
        try {
            try {
                take_stream(recorder, file, name, rate, begun);
            } catch (WrongStream const& wrong) {
                fail(wrong_stream(name, wrong, recorder.recorded() > 0));
            } catch (std::system_error const& error) {
                fail(unreadable(error));
            }
            recorder.finish();
            if (recorder.stream().ullFrames == 0 && begun.data() == nullptr) {
                fail(no_audio());
            }
        } catch (ffd::Error const& error) {
            fail(not_written(name, error, file.handle() == nullptr ? 0 : file.file_size()));
        } catch (Failure const& failure) { // of the open behind the close of a full directory
            fail(failure);
        }
        done.result = result_json(recorder, rate);
    });
    return done;
}

Outcome run_record(Driver const& driver, std::string const& file, RecordOptions const& options,
                   bool json) {
    Position const at = parse_place("record", options.at);
    Position const length = options.length.empty() ? Position{Position::Unit::All}
                                                   : parse_length("record", options.length);
    if (length.unit != Position::Unit::All && length.count == 0) {
        throw Failure("record", file, FFD_INVALID_PARAMETER, "a length of 0 records nothing",
                      "Give a longer one, or none to record until the stream ends.");
    }
    if (stdin_is_terminal()) {
        throw Failure("record", "standard input", FFD_INVALID_PARAMETER,
                      "standard input is the keyboard, and an MP3 stream is wanted",
                      "Let an encoder write to it: ffmpeg ... -f mp3 - | ffdhost record FILE");
    }
    tell_when_interrupted("\nffdhost: interrupted: what was recorded so far is kept beside the "
                          "file; the next open for writing finds it\n");
    let_stop_wait();
    make_stdin_binary();
    std::error_code error;
    bool const made = options.create && !std::filesystem::exists(file, error);
    Beginning beginning;
    if (made) {
        check_output("record", file, "", options.force);
        try {
            if (!beginning.find()) {
                throw no_audio();
            }
        } catch (std::system_error const& reason) {
            throw unreadable(reason);
        }
        set_aside_what_is_left(file);
        make_file(file, beginning.frame());
    }
    std::unique_ptr<SoundFile> sound;
    try {
        look_before_writing(driver, file);
        sound = std::make_unique<SoundFile>(driver, file, Access::ReadWrite);
    } catch (Failure const& failure) {
        if (made && !is_in_use(file)) {
            std::filesystem::remove(file, error);
        }
        if (!options.create &&
            !std::filesystem::exists(std::filesystem::symlink_status(file, error)) &&
            !std::filesystem::exists(dir_file_of(file), error)) {
            throw Failure("record", file, failure.status(), failure.what(),
                          "Check the path, or have the file made with --new.");
        }
        throw;
    }
    size_t const takenOver = tell_edits_taken_over(dir_file_of(file), options.readDirectory, json);
    uint32_t const rate = sound->wave_format().bytesPerSecond;
    uint32_t const before = sound->length();
    auto const begun = static_cast<uint32_t>(beginning.frame().size()); // of a file that was made
    RecorderOptions recorder;
    if (!made) {
        recorder.at = at.to_place(rate, 0, before);
        tell_place_beyond("record", at, 0, before, rate);
    }
    recorder.overwrite = options.overwrite;
    recorder.force = options.force;
    if (length.unit != Position::Unit::All) {
        uint32_t const wanted = length.to_bytes(rate);
        recorder.most = wanted - std::min(wanted, begun);
    }
    Json document{{"command", "record"},
                  {"ok", false},
                  {"file", file},
                  {"made", made},
                  {"taken_over_blocks", takenOver}};
    bool failed = false;
    auto const report = [&](char const* key, Failure const& failure) {
        failed = true;
        document[key] = failure_json(failure);
        if (!json) {
            print_failure(failure);
        }
    };
    Recorded const recorded = record_stream(*sound, file, recorder, beginning.rest());
    document.update(recorded.result);
    if (made) {
        document["from"] = 0;
        document["recorded"] =
            length_json(document["recorded"]["bytes"].get<uint64_t>() + begun, rate);
    }
    if (recorded.failure) {
        report("failure", *recorded.failure);
    }
    try {
        Waiting const waiting("closing");
        if (sound->is_open()) {
            sound->close();
        }
        document["dictation"] = length_json(audio_length(driver, file), rate);
        document["info_frame"] = info_frame_json(driver, file);
    } catch (Failure const& failure) {
        report(failed ? "close_failure" : "failure", failure);
    }
    document["ok"] = !failed;
    if (!json) {
        print_line("Recorded", length_text(document["recorded"]) + " at position " +
                                   std::to_string(document["from"].get<uint32_t>()) +
                                   (options.overwrite ? " over " + bytes_text(document["replaced"])
                                                      : std::string()));
        if (document.contains("dictation")) {
            print_line("Closed", length_text(document["dictation"]));
            print_wrong_info_frame(document["info_frame"], file);
        }
    }
    return {document, failed ? kExitFailed : 0};
}

} // namespace ffdhost
