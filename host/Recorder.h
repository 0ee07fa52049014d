// Records an MP3 stream into an open dictation. It needs the public headers only: copy it.
#pragma once

#include <ffd.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <span>
#include <stdexcept>
#include <vector>

namespace ffdhost {

// The stream does not fit the dictation. What fitted so far is recorded.
class WrongStream : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct RecorderOptions {
    // Dictation position to begin at; it goes to the nearest border of frames, beyond the end to
    // the end.
    uint32_t at = std::numeric_limits<uint32_t>::max();
    // Takes out as much behind the recording as was recorded: once a minute and at the end, since
    // each time may take an entry of the edit directory. Until then both are there.
    bool overwrite = false;
    // Bytes to record at most, to the nearest frame.
    uint64_t most = std::numeric_limits<uint64_t>::max();
    // Takes frames of another kind and bitrate than those of the dictation, too.
    bool force = false;
};

// Takes the stream as it comes and hands whole frames to the driver, each write being on the disk
// when it returns: once they wait for half a second, or have nearly 64 KiB. Tags, info frames and
// noise are left out. All calls throw the ffd::Error of the driver.
class Recorder {
public:
    using Open = std::function<ffd::File()>;

    // Goes to the position to begin at. When the edit directory is full, `file` is closed, which
    // folds the edits in, and assigned from `open`, which is called for up to ten seconds if it
    // throws; behind a failure of the two `file` is closed. It must outlive the object.
    Recorder(ffd::File& file, Open open, RecorderOptions const& options);

    // The next bytes of the stream. Throws WrongStream once, at the first frame that does not fit;
    // neither that one nor one behind it is taken. finish() still writes those that wait.
    void put(std::span<std::byte const> bytes);
    // To be called when nothing has come for a while, a quarter of a second at most.
    void pause();
    // The stream has ended: writes what waits, and takes out what is overwritten. The file stays
    // open.
    void finish();

    bool done() const { return m_recorded >= m_limit; } // as much is recorded as is wanted
    uint32_t begin() const { return m_begin; }          // dictation position of the first byte
    uint32_t position() const { return m_position; }    // behind what is written
    uint64_t recorded() const { return m_recorded; }    // bytes, those that wait included
    uint64_t replaced() const { return m_replaced; }    // bytes taken out by overwriting
    unsigned reopened() const { return m_reopened; }    // times that the directory was full
    FFDFrames const& stream() const { return m_reader.state(); }

private:
    using Clock = std::chrono::steady_clock;

    void take(FFDFrame const& frame);
    void check(FFDFrame const& frame) const;
    void flush_if_due();
    void flush();
    void insert(std::span<std::byte const> frames);
    void take_out_overwritten(bool isEnd);
    template <class Edit> void edit(Edit const& edit);
    void reopen();

    ffd::File& m_file;
    Open m_open;
    RecorderOptions m_options;
    std::optional<std::vector<uint8_t>> m_header; // of the first frame of the dictation
    ffd::FrameReader m_reader;
    std::vector<std::byte> m_waiting; // whole frames
    Clock::time_point m_waitingSince;
    Clock::time_point m_takenOut = Clock::now();
    bool m_hasBlock = false; // since the file was opened
    bool m_isWrong = false;  // the stream, from some frame on
    uint64_t m_limit;
    uint32_t m_begin = 0;
    uint32_t m_position = 0;
    uint64_t m_recorded = 0;
    uint64_t m_toTakeOut = 0; // bytes written and not yet taken out behind them
    uint64_t m_replaced = 0;
    unsigned m_reopened = 0;
};

} // namespace ffdhost
