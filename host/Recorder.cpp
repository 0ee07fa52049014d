#include "Recorder.h"

#include <algorithm>
#include <string>
#include <thread>
#include <utility>

namespace ffdhost {

namespace {

constexpr std::chrono::milliseconds kLongestWait(500); // a frame, in memory
constexpr std::chrono::minutes kTakeOutEvery(1);
constexpr std::chrono::seconds kPatience(10); // with others who look at the file when it is closed
constexpr std::chrono::milliseconds kPause(50);
constexpr size_t kMostWaiting = 64 * 1024 - FFD_LONGEST_FRAME;
constexpr uint64_t kMostNoise =
    uint64_t{4} * 1024 * 1024; // before a first frame: it is no MP3 stream

std::string kind_of(uint8_t const* header) {
    static char const* const versions[] = {"2.5", "", "2", "1"};
    return std::string("MPEG ") + versions[ffd_frame_version(header)] + " Layer " +
           std::string(4 - ffd_frame_layer(header), 'I') + ", " +
           std::to_string(ffd_frame_sampling_rate(header)) + " Hz, " +
           std::to_string(ffd_frame_bitrate(header)) + " kbit/s";
}

// Nothing if the dictation holds no frame.
std::optional<std::vector<uint8_t>> first_header(ffd::File& file) {
    std::vector<std::byte> bytes(size_t{2} * FFD_BORDER_REACH);
    file.seek(0);
    bytes.resize(file.read(bytes));
    std::optional<std::vector<uint8_t>> header;
    auto const keep = [&](FFDFrame const& frame) {
        if (!header) {
            header.emplace(frame.pBytes, frame.pBytes + FFD_FRAME_HEADER_SIZE);
        }
    };
    ffd::FrameReader reader;
    reader.put(bytes, keep);
    reader.end(keep);
    return header;
}

} // namespace

Recorder::Recorder(ffd::File& file, Open open, RecorderOptions const& options)
    : m_file(file), m_open(std::move(open)), m_options(options), m_header(first_header(file)),
      m_limit(options.most) {
    uint32_t const length = m_file.length();
    m_begin = options.at < length ? m_file.borders(options.at).nearest(options.at) : length;
    m_position = m_file.seek(m_begin);
    m_waiting.reserve(kMostWaiting + FFD_LONGEST_FRAME);
}

void Recorder::put(std::span<std::byte const> bytes) {
    m_reader.put(bytes, [this](FFDFrame const& frame) { take(frame); });
    if (stream().ullFrames == 0 && stream().ullNoise > kMostNoise) {
        throw WrongStream("the stream is no MP3: no frame was found in its first megabytes");
    }
    flush_if_due();
}

void Recorder::pause() {
    m_reader.pause([this](FFDFrame const& frame) { take(frame); });
    flush_if_due();
}

void Recorder::finish() {
    m_reader.end([this](FFDFrame const& frame) { take(frame); });
    flush();
    take_out_overwritten(true);
}

void Recorder::take(FFDFrame const& frame) {
    if (frame.bInfo || done() || m_isWrong) {
        return;
    }
    m_isWrong = true; // if the check throws
    check(frame);
    m_isWrong = false;
    if (m_waiting.empty()) {
        m_waitingSince = Clock::now();
    }
    auto const bytes = std::as_bytes(std::span(frame.pBytes, frame.dwLength));
    m_waiting.insert(m_waiting.end(), bytes.begin(), bytes.end());
    m_recorded += bytes.size();
    if (m_limit - std::min(m_limit, m_recorded) < bytes.size() / 2) {
        m_limit = m_recorded; // the next frame would lead further away
    }
    if (m_waiting.size() >= kMostWaiting || !m_hasBlock) {
        flush();
    }
}

void Recorder::check(FFDFrame const& frame) const {
    if (m_options.force || !m_header) {
        return;
    }
    uint8_t const* const header = m_header->data();
    if (!ffd_frame_same_kind(frame.pBytes, header) ||
        ffd_frame_bitrate(frame.pBytes) != ffd_frame_bitrate(header)) {
        throw WrongStream("the stream has a frame of " + kind_of(frame.pBytes) +
                          ", the dictation is " + kind_of(header));
    }
}

void Recorder::flush_if_due() {
    if (!m_waiting.empty() && Clock::now() - m_waitingSince >= kLongestWait) {
        flush();
    }
    if (m_toTakeOut > 0 && Clock::now() - m_takenOut >= kTakeOutEvery) {
        take_out_overwritten(false);
    }
}

void Recorder::flush() {
    std::span<std::byte const> frames = m_waiting;
    if (!m_hasBlock && !frames.empty()) {
        // A crash between the audio and the directory makes the block that is last in the file
        // longer. That is the recording from its second write on; the first is kept small.
        size_t const length = ffd_frame_length(reinterpret_cast<uint8_t const*>(frames.data()));
        insert(frames.first(length));
        frames = frames.subspan(length);
    }
    if (!frames.empty()) {
        insert(frames);
    }
    m_waiting.clear();
}

void Recorder::insert(std::span<std::byte const> frames) {
    edit([&] { m_file.insert(frames); });
    m_hasBlock = true;
    m_position += static_cast<uint32_t>(frames.size());
    m_toTakeOut += m_options.overwrite ? frames.size() : 0;
}

// Whole frames, and so a bit less than was recorded; the next time makes up for it. At the end the
// nearest border.
void Recorder::take_out_overwritten(bool isEnd) {
    m_takenOut = Clock::now();
    uint32_t const length = m_file.length();
    auto const wanted = static_cast<uint32_t>(std::min<uint64_t>(length, m_position + m_toTakeOut));
    uint32_t end = length;
    if (wanted < length) {
        ffd::Borders const borders = m_file.borders(wanted);
        end = isEnd ? borders.nearest(wanted) : borders.before;
    }
    if (end <= m_position) {
        return;
    }
    edit([&] { m_file.erase(end - m_position); });
    m_replaced += length - m_file.length();
    m_toTakeOut -= std::min<uint64_t>(m_toTakeOut, end - m_position);
}

// With a full directory nothing is changed, and a close empties it.
template <class Edit> void Recorder::edit(Edit const& edit) {
    try {
        edit();
        return;
    } catch (ffd::Error const& error) {
        if (error.status() != FFD_ERROR_OUTOFMEMORY) {
            throw;
        }
    }
    reopen();
    edit();
}

void Recorder::reopen() {
    uint32_t const length = m_file.length();
    m_file.close();
    for (auto const end = Clock::now() + kPatience;;) {
        try {
            m_file = m_open();
            break;
        } catch (std::exception const&) {
            if (Clock::now() >= end) {
                throw;
            }
        }
        std::this_thread::sleep_for(kPause);
    }
    m_hasBlock = false;
    ++m_reopened;
    // A close goes to whole frames: cuts of others inside frames may have moved the place.
    uint32_t const now = m_file.length();
    if (now != length) {
        m_position = now < m_position ? now : m_file.borders(m_position).nearest(m_position);
    }
    m_file.seek(m_position);
}

} // namespace ffdhost
