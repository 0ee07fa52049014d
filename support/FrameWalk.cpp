#include "FrameWalk.h"

#include "MCI/KIVMP3/FrameHeader.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace ffdhost {

namespace {

using Header = FrameCounter::Header;

bool begins_with(std::span<uint8_t const> bytes, std::string_view text) {
    return bytes.size() >= text.size() && std::memcmp(bytes.data(), text.data(), text.size()) == 0;
}

// Up to so many bytes, fewer at the end of the file. What can't be read counts as the end.
std::vector<uint8_t> read_at(dry::Contents const& file, uint64_t fileOffset, size_t size) {
    std::vector<uint8_t> bytes(size);
    DWORD read = 0;
    if (file.read(fileOffset, bytes.data(), static_cast<DWORD>(size), read) != NO_ERROR) {
        read = 0;
    }
    bytes.resize(read);
    return bytes;
}

uint32_t length_of(Header const& header) {
    return ffd_frame_length(header.data());
}

StreamFormat format_of(Header const& header) {
    return {{ffd_frame_channels(header.data()), ffd_frame_sampling_rate(header.data()),
             frame_bytes_per_second(ffd_frame_bitrate(header.data())),
             static_cast<uint16_t>(length_of(header) - ffd_frame_padding(header.data()))},
            mpeg_version(header.data()),
            mpeg_layer(header.data())};
}

std::vector<FrameDifference> differences_of(Header const& found, Header const& expected) {
    std::vector<FrameDifference> differences;
    auto const compare = [&](char const* what, std::string const& ofExpected,
                             std::string const& ofFound) {
        if (ofExpected != ofFound) {
            differences.push_back({what, ofExpected, ofFound});
        }
    };
    auto const compare_numbers = [&](char const* what, uint32_t ofExpected, uint32_t ofFound,
                                     char const* unit) {
        compare(what, std::to_string(ofExpected) + unit, std::to_string(ofFound) + unit);
    };
    compare("MPEG version", mpeg_version(expected.data()), mpeg_version(found.data()));
    compare_numbers("layer", mpeg_layer(expected.data()), mpeg_layer(found.data()), "");
    compare_numbers("sampling rate", ffd_frame_sampling_rate(expected.data()),
                    ffd_frame_sampling_rate(found.data()), " Hz");
    compare_numbers("bitrate", ffd_frame_bitrate(expected.data()), ffd_frame_bitrate(found.data()),
                    " kbit/s");
    compare_numbers("channels", ffd_frame_channels(expected.data()),
                    ffd_frame_channels(found.data()), "");
    return differences;
}

// A header that the driver would take for one, of whatever kind.
std::optional<Header> header_at(dry::Contents const& file, uint64_t fileOffset) {
    std::vector<uint8_t> const bytes = read_at(file, fileOffset, FRAME_HEADER_SIZE);
    if (bytes.size() < FRAME_HEADER_SIZE || check_frame_header(bytes.data()) != FFD_NOERROR) {
        return std::nullopt;
    }
    Header header;
    std::copy_n(bytes.begin(), header.size(), header.begin());
    return header;
}

} // namespace

void FrameCounter::add(dry::Contents const& file, uint64_t fileOffset, uint64_t end,
                       Header const& header) {
    if (m_walk.frames == 0) {
        m_first = header;
        m_walk.format = format_of(header);
        m_walk.firstFrameOffset = fileOffset;
    } else if (fileOffset > m_walk.audioEndOffset) {
        note_gap(file, m_walk.audioEndOffset, fileOffset);
    }
    ++m_walk.frames;
    ++m_walk.framesOfBitrate[ffd_frame_bitrate(header.data())];
    if (ffd_frame_bitrate(header.data()) != ffd_frame_bitrate(m_first.data()) ||
        ffd_frame_channels(header.data()) != ffd_frame_channels(m_first.data())) {
        note_different(header, fileOffset);
    }
    m_lastFrameOffset = fileOffset;
    m_walk.audioEndOffset = end;
}

void FrameCounter::note_different(Header const& header, uint64_t fileOffset) {
    ++m_walk.differentFrames;
    if (!m_walk.firstDifferent) {
        m_walk.firstDifferent = {m_walk.frames, fileOffset, differences_of(header, m_first)};
    }
}

// Frames that the driver does not take for any stand in such a gap one behind the other from its
// beginning. A single header may be chance.
void FrameCounter::note_gap(dry::Contents const& file, uint64_t from, uint64_t to) {
    ++m_walk.gaps;
    m_walk.gapBytes += to - from;
    std::vector<uint8_t> const bytes = read_at(file, from, 8);
    std::string kind = begins_with(bytes, "TAG")        ? "ID3v1 tag"
                       : begins_with(bytes, "ID3")      ? "ID3v2 tag"
                       : begins_with(bytes, "APETAGEX") ? "APE tag"
                                                        : "noise";
    uint64_t offset = from;
    for (std::optional<Header> header = header_at(file, from); header && offset < to;) {
        uint64_t const next = offset + length_of(*header);
        std::optional<Header> const following = header_at(file, next);
        if (next > to || !following) {
            break;
        }
        kind = "frames of another kind";
        ++m_walk.frames;
        note_different(*header, offset);
        --m_walk.frames;
        offset = next;
        header = following;
    }
    if (!m_walk.firstGap) {
        m_walk.firstGap = {from, to - from, kind};
    }
}

FrameWalk FrameCounter::finish(dry::Contents const& file) {
    m_walk.fileSize = file.size();
    if (m_walk.frames > 0) {
        note_end(file);
        m_walk.infoFrame = info_frame_of(read_at(file, m_walk.firstFrameOffset, FFD_LONGEST_FRAME));
    }
    return std::move(m_walk);
}

void FrameCounter::note_end(dry::Contents const& file) {
    uint64_t const end = m_walk.audioEndOffset;
    if (end > m_walk.fileSize) {
        m_walk.cut = {m_walk.frames, m_lastFrameOffset, end - m_walk.fileSize, false};
    }
    if (m_walk.fileSize < m_lastFrameOffset + FFD_ID3V1_SIZE) {
        return;
    }
    uint64_t const tag = m_walk.fileSize - FFD_ID3V1_SIZE;
    if (tag > m_lastFrameOffset && tag < end && begins_with(read_at(file, tag, 3), "TAG")) {
        m_walk.cut = {m_walk.frames, m_lastFrameOffset, end - tag, true};
    }
}

} // namespace ffdhost
