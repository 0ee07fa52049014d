#include "FrameWalk.h"

#include "console/Output.h"
#include "host/Tags.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>

namespace ffdhost {

namespace {

constexpr uint64_t kLargestFile = 0xFFFFFFFF; // bytes, what the driver opens
constexpr uint64_t kSearchBlock = 1024;       // the driver searches in blocks of so many bytes
constexpr uint64_t kId3v1Size = 128;
constexpr size_t kId3v2HeaderSize = 10;

constexpr uint32_t kBitrates[2][16] = {
    {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160, 0}, // MPEG 2 and 2.5
    {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 0}};
constexpr uint32_t kSamplingRates[2][3] = {{22050, 24000, 16000}, {44100, 48000, 32000}};

uint32_t be32(uint8_t const* bytes) {
    return static_cast<uint32_t>(bytes[0]) << 24 | static_cast<uint32_t>(bytes[1]) << 16 |
           static_cast<uint32_t>(bytes[2]) << 8 | bytes[3];
}

bool begins_with(std::span<uint8_t const> bytes, std::string_view text) {
    return bytes.size() >= text.size() && std::memcmp(bytes.data(), text.data(), text.size()) == 0;
}

uint64_t size_on_disk(std::string const& path) {
    std::error_code error;
    uint64_t const size = std::filesystem::file_size(path, error);
    if (error) {
        throw Failure("read file", path, FFD_FILE_IO_ERROR);
    }
    return size;
}

// Ranges of a file, one behind the other, seen as one file through a piece of it.
class FileWindow {
public:
    FileWindow(std::string const& path, std::vector<Extent> extents)
        : m_path(path), m_file(std::filesystem::path(path), std::ios::binary),
          m_extents(std::move(extents)) {
        for (Extent const& extent : m_extents) {
            m_fileSize += extent.size;
        }
    }

    explicit FileWindow(std::string const& path) : FileWindow(path, {{0, size_on_disk(path)}}) {}

    uint64_t file_size() const { return m_fileSize; }

    // The bytes from a file offset on: at least so many, unless the file ends before.
    std::span<uint8_t const> from(uint64_t fileOffset, size_t least) {
        if (fileOffset >= m_fileSize) {
            return {};
        }
        uint64_t const wantedEnd = std::min<uint64_t>(fileOffset + least, m_fileSize);
        if (fileOffset < m_start || wantedEnd > m_start + m_bytes.size()) {
            fill(fileOffset);
        }
        return std::span<uint8_t const>(m_bytes).subspan(static_cast<size_t>(fileOffset - m_start));
    }

private:
    void fill(uint64_t fileOffset) {
        m_bytes.clear();
        m_start = fileOffset;
        uint64_t passed = 0;
        for (Extent const& extent : m_extents) {
            uint64_t const place = m_start + m_bytes.size();
            if (place < passed + extent.size && m_bytes.size() < kPieceSize) {
                uint64_t const inside = place - passed;
                auto const wanted = static_cast<size_t>(
                    std::min<uint64_t>(extent.size - inside, kPieceSize - m_bytes.size()));
                append(extent.fileOffset + inside, wanted);
            }
            passed += extent.size;
        }
    }

    void append(uint64_t fileOffset, size_t size) {
        std::vector<uint8_t> const piece = read_at(m_file, fileOffset, size);
        if (piece.size() != size) {
            throw Failure("read file", m_path, FFD_FILE_IO_ERROR,
                          "reading fails at file offset " +
                              std::to_string(fileOffset + piece.size()));
        }
        m_bytes.insert(m_bytes.end(), piece.begin(), piece.end());
    }

    std::string m_path;
    std::ifstream m_file;
    std::vector<Extent> m_extents;
    uint64_t m_fileSize = 0;
    std::vector<uint8_t> m_bytes;
    uint64_t m_start = 0; // file offset of the first of them
};

// Behind the last place where the driver's search looks. It never looks at the last four, and if
// its last block has one to three bytes only, not at those either.
uint64_t end_of_search(uint64_t from, uint64_t fileSize) {
    if (from >= fileSize) {
        return 0;
    }
    uint64_t const lastBlock = (fileSize - from) % kSearchBlock;
    uint64_t const unseen = FrameHeader::kSize + (lastBlock < FrameHeader::kSize ? lastBlock : 0);
    return fileSize < unseen ? 0 : fileSize - unseen;
}

// The next frame header, like another one if that is given.
std::optional<uint64_t> find_frame(FileWindow& file, uint64_t from,
                                   std::optional<FrameHeader> const& like) {
    uint64_t const end = end_of_search(from, file.file_size());
    for (uint64_t offset = from; offset < end;) {
        auto const bytes = file.from(offset, FrameHeader::kSize);
        size_t const places = static_cast<size_t>(
            std::min<uint64_t>(bytes.size() - (FrameHeader::kSize - 1), end - offset));
        auto const* const found =
            static_cast<uint8_t const*>(std::memchr(bytes.data(), 0xFF, places));
        if (found == nullptr) {
            offset += places;
            continue;
        }
        auto const place = static_cast<size_t>(found - bytes.data());
        offset += place;
        auto const header = FrameHeader::parse(bytes.subspan(place));
        if (header && (!like || header->fits(*like))) {
            return offset;
        }
        ++offset;
    }
    return std::nullopt;
}

// Where the driver begins its search for the first frame; nothing if it refuses the tags.
std::optional<uint64_t> skip_tags(FileWindow& file) {
    // Kept from one tag to the next: behind a tag that ends the file the driver meets it again.
    std::array<uint8_t, kId3v2HeaderSize> header{};
    uint64_t offset = 0;
    for (;;) {
        auto const bytes = file.from(offset, header.size());
        std::copy_n(bytes.begin(), std::min(bytes.size(), header.size()), header.begin());
        if (!begins_with(header, "ID3") || header[3] > 4 || (header[5] & 0x0F) != 0 ||
            ((header[6] | header[7] | header[8] | header[9]) & 0x80) != 0) {
            return offset;
        }
        uint64_t const size =
            kId3v2HeaderSize + ((header[5] & 0x10) != 0 ? kId3v2HeaderSize : 0) +
            (static_cast<uint64_t>(header[6]) << 21 | static_cast<uint64_t>(header[7]) << 14 |
             static_cast<uint64_t>(header[8]) << 7 | header[9]);
        if (offset + size > file.file_size()) {
            return std::nullopt;
        }
        offset += size;
    }
}

std::vector<FrameDifference> differences_of(FrameHeader const& found, FrameHeader const& expected) {
    std::vector<FrameDifference> differences;
    auto const compare = [&](char const* what, std::string const& ofExpected,
                             std::string const& ofFound) {
        if (ofExpected != ofFound) {
            differences.push_back({what, ofExpected, ofFound});
        }
    };
    compare("MPEG version", expected.mpeg_version(), found.mpeg_version());
    compare("layer", std::to_string(expected.layer()), std::to_string(found.layer()));
    compare("sampling rate", std::to_string(expected.sampling_rate()) + " Hz",
            std::to_string(found.sampling_rate()) + " Hz");
    compare("bitrate", std::to_string(expected.bitrate()) + " kbit/s",
            std::to_string(found.bitrate()) + " kbit/s");
    compare("channels", std::to_string(expected.channels()), std::to_string(found.channels()));
    return differences;
}

// Fills in a FrameWalk.
class Walker {
public:
    Walker(std::string const& path, FileWindow file)
        : m_file(std::move(file)), m_progress("checking", m_file.file_size()) {
        m_walk.path = path;
        m_walk.fileSize = m_file.file_size();
    }

    FrameWalk walk();

private:
    bool find_first();
    void walk_all();
    void count(FrameHeader const& header, uint64_t fileOffset);
    void note_different(FrameHeader const& header, uint64_t fileOffset);
    void note_gap(uint64_t from, uint64_t to);
    void note_end(uint64_t lastFrameOffset);
    void note_info_frame();
    void refuse(FFDError status, std::string const& reason);

    FileWindow m_file;
    Progress m_progress;
    FrameWalk m_walk;
};

FrameWalk Walker::walk() {
    if (find_first()) {
        walk_all();
        note_info_frame();
        if (m_walk.framesOfBitrate.size() > 1) {
            refuse(FFD_NOT_SUPPORTED, "its bitrate is not constant");
        }
    }
    return std::move(m_walk);
}

// The first refusal is the one that the driver gives.
void Walker::refuse(FFDError status, std::string const& reason) {
    if (m_walk.status == FFD_NOERROR) {
        m_walk.status = status;
        m_walk.reason = reason;
    }
}

bool Walker::find_first() {
    if (m_walk.fileSize > kLargestFile) {
        refuse(FFD_NOT_SUPPORTED, "it has 4 GiB or more");
    }
    std::optional<uint64_t> const behindTags = skip_tags(m_file);
    if (!behindTags) {
        refuse(FFD_INVALID_FORMAT,
               "an ID3v2 tag in front says that it is longer than what the file holds");
        return false;
    }
    std::optional<uint64_t> const found = find_frame(m_file, *behindTags, std::nullopt);
    if (!found) {
        refuse(FFD_NO_MORE_FRAMES, "it holds no MP3 frame");
        return false;
    }
    m_walk.firstFrameOffset = *found;
    m_walk.first = FrameHeader::parse(m_file.from(*found, FrameHeader::kSize));
    return true;
}

void Walker::walk_all() {
    uint64_t offset = m_walk.firstFrameOffset;
    uint64_t shown = 0;
    for (;;) {
        FrameHeader const header = *FrameHeader::parse(m_file.from(offset, FrameHeader::kSize));
        count(header, offset);
        uint64_t const next = offset + header.frame_length();
        m_walk.audioEndOffset =
            m_walk.fileSize > kLargestFile ? next : std::min(next, kLargestFile);
        if (next - shown >= kPieceSize) {
            m_progress.advance(next - shown);
            shown = next;
        }
        std::optional<uint64_t> const found = find_frame(m_file, next, m_walk.first);
        if (!found) {
            note_end(offset);
            return;
        }
        if (*found > next) {
            note_gap(next, *found);
        }
        offset = *found;
    }
}

void Walker::count(FrameHeader const& header, uint64_t fileOffset) {
    ++m_walk.frames;
    ++m_walk.framesOfBitrate[header.bitrate()];
    if (header.bitrate() != m_walk.first->bitrate() ||
        header.channels() != m_walk.first->channels()) {
        note_different(header, fileOffset);
    }
}

void Walker::note_different(FrameHeader const& header, uint64_t fileOffset) {
    ++m_walk.differentFrames;
    if (!m_walk.firstDifferent) {
        m_walk.firstDifferent = {m_walk.frames, fileOffset, differences_of(header, *m_walk.first)};
    }
}

// Frames that the driver does not take for any stand in such a gap one behind the other from its
// beginning. One header alone may be chance.
void Walker::note_gap(uint64_t from, uint64_t to) {
    ++m_walk.gaps;
    m_walk.gapBytes += to - from;
    auto const bytes = m_file.from(from, 8);
    std::string kind = begins_with(bytes, "TAG")        ? "ID3v1 tag"
                       : begins_with(bytes, "ID3")      ? "ID3v2 tag"
                       : begins_with(bytes, "APETAGEX") ? "APE tag"
                                                        : "noise";
    uint64_t offset = from;
    for (auto header = FrameHeader::parse(bytes); header && offset < to;) {
        uint64_t const next = offset + header->frame_length();
        auto const following = FrameHeader::parse(m_file.from(next, FrameHeader::kSize));
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

void Walker::note_end(uint64_t lastFrameOffset) {
    uint64_t const end = m_walk.audioEndOffset;
    if (end > m_walk.fileSize) {
        m_walk.cut = {m_walk.frames, lastFrameOffset, end - m_walk.fileSize, false};
    }
    if (m_walk.fileSize < lastFrameOffset + kId3v1Size) {
        return;
    }
    uint64_t const tag = m_walk.fileSize - kId3v1Size;
    if (tag > lastFrameOffset && tag < end && begins_with(m_file.from(tag, 3), "TAG")) {
        m_walk.cut = {m_walk.frames, lastFrameOffset, end - tag, true};
    }
}

void Walker::note_info_frame() {
    FrameHeader const& first = *m_walk.first;
    auto const frame = m_file.from(m_walk.firstFrameOffset, first.frame_length());
    bool const mpeg1 = first.mpeg_version() == "1";
    bool const mono = first.channels() == 1;
    size_t const sideInfo = mpeg1 ? (mono ? 17 : 32) : (mono ? 9 : 17);
    size_t const xing = FrameHeader::kSize + sideInfo;
    size_t const vbri = FrameHeader::kSize + 32;
    auto const has = [&](size_t place, std::string_view text, size_t size) {
        return frame.size() >= place + size && begins_with(frame.subspan(place), text);
    };
    for (char const* const kind : {"Xing", "Info"}) {
        if (has(xing, kind, 12)) {
            bool const counted = (frame[xing + 7] & 1) != 0;
            m_walk.infoFrame = {kind, m_walk.firstFrameOffset,
                                counted ? std::optional(be32(&frame[xing + 8])) : std::nullopt};
        }
    }
    if (has(vbri, "VBRI", 18)) {
        m_walk.infoFrame = {"VBRI", m_walk.firstFrameOffset, be32(&frame[vbri + 14])};
    }
}

} // namespace

FrameHeader::FrameHeader(std::span<uint8_t const> bytes) : m_bytes{} {
    std::copy_n(bytes.begin(), kSize, m_bytes);
}

std::optional<FrameHeader> FrameHeader::parse(std::span<uint8_t const> bytes) {
    if (bytes.size() < kSize || bytes[0] != 0xFF || (bytes[1] & 0xE0) != 0xE0) {
        return std::nullopt;
    }
    unsigned const bitrateIndex = bytes[2] >> 4;
    if ((bytes[1] & 0x18) == 0x08 || (bytes[1] & 0x06) == 0 || bitrateIndex == 0 ||
        bitrateIndex == 15 || (bytes[2] & 0x0C) == 0x0C) {
        return std::nullopt;
    }
    return FrameHeader(bytes);
}

bool FrameHeader::fits(FrameHeader const& other) const {
    return ((m_bytes[1] ^ other.m_bytes[1]) & 0xFE) == 0 &&
           ((m_bytes[2] ^ other.m_bytes[2]) & 0x0C) == 0;
}

std::string FrameHeader::mpeg_version() const {
    return is_mpeg1() ? "1" : (m_bytes[1] & 0x10) != 0 ? "2" : "2.5";
}

unsigned FrameHeader::layer() const {
    return 4U - (m_bytes[1] >> 1 & 3U);
}

uint32_t FrameHeader::sampling_rate() const {
    uint32_t const rate = kSamplingRates[is_mpeg1() ? 1 : 0][m_bytes[2] >> 2 & 3];
    return (m_bytes[1] & 0x18) == 0 ? rate / 2 : rate;
}

uint32_t FrameHeader::bitrate() const {
    return kBitrates[is_mpeg1() ? 1 : 0][m_bytes[2] >> 4];
}

unsigned FrameHeader::channels() const {
    return m_bytes[3] >> 6 == 3 ? 1 : 2;
}

uint32_t FrameHeader::frame_length() const {
    return bitrate() * (is_mpeg1() ? 144000 : 72000) / sampling_rate() + (m_bytes[2] >> 1 & 1U);
}

StreamFormat FrameHeader::format() const {
    uint32_t const padding = m_bytes[2] >> 1 & 1U;
    return {{static_cast<uint16_t>(channels()), sampling_rate(), bitrate() / 8 * 1000,
             static_cast<uint16_t>(frame_length() - padding)},
            mpeg_version(),
            layer()};
}

FrameWalk walk_frames(std::string const& path) {
    return Walker(path, FileWindow(path)).walk();
}

FrameWalk walk_frames(std::string const& path, std::vector<Extent> const& extents) {
    return Walker(path, FileWindow(path, extents)).walk();
}

std::optional<uint64_t> find_next_frame(FrameWalk const& walk, uint64_t fileOffset) {
    FileWindow file(walk.path);
    return find_frame(file, fileOffset, walk.first);
}

std::optional<uint64_t> find_frame_to_cut_at(FrameWalk const& walk, uint64_t fileOffset) {
    FileWindow file(walk.path);
    auto const header_at = [&](uint64_t offset) {
        return FrameHeader::parse(file.from(offset, FrameHeader::kSize));
    };
    auto const is_followed = [&](uint64_t offset) {
        FrameHeader const header = *header_at(offset);
        uint64_t const next = offset + header.frame_length();
        auto const second = header_at(next);
        return next == walk.audioEndOffset || next == walk.fileSize ||
               (second && second->fits(*walk.first) && second->bitrate() == header.bitrate());
    };
    std::optional<uint64_t> const first = find_frame(file, fileOffset, walk.first);
    if (!first || *first == walk.firstFrameOffset || is_followed(*first)) {
        return first;
    }
    uint64_t const most = *first + walk.first->format().wave.frameSize + 1;
    auto next = find_frame(file, *first + 1, walk.first);
    while (next && *next <= most) {
        if (header_at(*next)->bitrate() == walk.first->bitrate() && is_followed(*next)) {
            return next;
        }
        next = find_frame(file, *next + 1, walk.first);
    }
    return first;
}

} // namespace ffdhost
