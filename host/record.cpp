#include "commands.h"

#include "console/Position.h"
#include "console/System.h"
#include "Recorder.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <memory>

namespace ffdhost {

namespace {

constexpr std::chrono::milliseconds kPatience(200); // with a stream that pauses
constexpr size_t kPieceOfStream = size_t{32} * 1024;
constexpr uint64_t kReserve = uint64_t{10} * 1024 * 1024; // that the close wants to find free

// How long the disk lasts: what is recorded takes its own room, and four times as much is asked of
// the close (see ffd.h), whose need is checked with every write.
std::string time_left(std::string const& file, uint32_t fileSize, uint32_t bytesPerSecond) {
    std::error_code error;
    auto const folder = std::filesystem::absolute(file, error).parent_path();
    std::filesystem::space_info const space = std::filesystem::space(folder, error);
    if (error) {
        return "unknown";
    }
    uint64_t const needed = uint64_t{fileSize} * 4 + kReserve;
    uint64_t const seconds =
        space.available > needed ? (space.available - needed) / 5 / bytesPerSecond : 0;
    uint64_t const room = (uint64_t{0xFFFFFFFF} - fileSize) / bytesPerSecond; // of a file
    uint64_t const minutes = std::min(seconds, room) / 60;
    return minutes >= 120 ? std::to_string(minutes / 60) + " h" : std::to_string(minutes) + " min";
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
    std::FILE* const file = std::fopen(name.c_str(), "wbx");
    bool const written =
        file != nullptr && std::fwrite(frame.data(), 1, frame.size(), file) == frame.size();
    int const error = errno;
    if (file == nullptr || std::fclose(file) != 0 || !written) {
        throw Failure("make file", name, FFD_FILE_IO_ERROR, std::generic_category().message(error));
    }
}

Failure no_audio() {
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

} // namespace

Json record_stream(SoundFile& sound, std::string const& name, RecorderOptions const& options,
                   std::span<std::byte const> begun) {
    uint32_t const rate = sound.wave_format().bytesPerSecond;
    Json result;
    sound.hand_to([&](ffd::File& file, Recorder::Open const& open) {
        Recorder recorder(file, open, options);
        StatusLine line;
        std::string left;
        std::array<std::byte, kPieceOfStream> buffer;
        auto const show = [&] {
            if (line.due()) {
                line.show("recorded " + time_text(milliseconds_of(recorder.recorded(), rate)) +
                          ", at " + time_text(milliseconds_of(recorder.position(), rate)) +
                          ", disk lasts " + time_left(name, file.file_size(), rate));
            }
        };
        try {
            recorder.put(begun);
            for (bool goesOn = true; goesOn && !recorder.done();) {
                show();
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
                    goesOn = false;
                }
            }
            recorder.finish();
        } catch (WrongStream const& wrong) {
            bool const nothing = recorder.position() == recorder.begin();
            if (!nothing) {
                recorder.finish();
            }
            throw Failure("record", name, FFD_NOT_SUPPORTED, wrong.what(),
                          nothing ? "Encode the stream in the format of the dictation, with a "
                                    "constant bitrate; nothing was recorded."
                                  : "Encode the stream with a constant bitrate; what came before "
                                    "is recorded.");
        } catch (std::system_error const& error) {
            recorder.finish();
            throw Failure("read standard input", name, FFD_FILE_IO_ERROR, error.what(),
                          "What came before is recorded.");
        }
        if (recorder.stream().ullFrames == 0 && begun.data() == nullptr) {
            throw no_audio();
        }
        result = result_json(recorder, rate);
    });
    return result;
}

Outcome run_record(Driver const& driver, std::string const& file, RecordOptions const& options,
                   bool json) {
    Position const at = parse_position("record", options.at);
    Position const length = options.length.empty() ? Position{Position::Unit::All}
                                                   : parse_length("record", options.length);
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
        if (!beginning.find()) {
            throw no_audio();
        }
        make_file(file, beginning.frame());
    }
    size_t const takenOver = tell_edits_waiting(dir_file_of(file), {}, json);
    auto sound = std::make_unique<SoundFile>(driver, file, Access::ReadWrite);
    uint32_t const rate = sound->wave_format().bytesPerSecond;
    RecorderOptions recorder;
    recorder.at = at.to_place(rate, 0, sound->length());
    recorder.overwrite = options.overwrite;
    recorder.force = options.force;
    if (length.unit != Position::Unit::All) {
        recorder.most = length.to_bytes(rate);
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
    try {
        document.update(record_stream(*sound, file, recorder, beginning.rest()));
    } catch (Failure const& failure) {
        report("failure", failure);
    }
    try {
        Waiting const waiting("closing");
        sound->close();
        uint32_t const now = look_at(driver, file).audioLength;
        document["dictation"] = length_json(now, rate);
    } catch (Failure const& failure) {
        report(failed ? "close_failure" : "failure", failure);
    }
    document["ok"] = !failed;
    if (!json) {
        if (document.contains("recorded")) {
            print_line("Recorded",
                       length_text(document["recorded"]) + " at position " +
                           std::to_string(document["from"].get<uint32_t>()) +
                           (options.overwrite ? " over " + bytes_text(document["replaced"])
                                              : std::string()));
        }
        if (document.contains("dictation")) {
            print_line("Closed", length_text(document["dictation"]));
        }
    }
    return {document, failed ? kExitFailed : 0};
}

} // namespace ffdhost
