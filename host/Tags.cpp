#include "Tags.h"

#include "Bytes.h"
#include "console/Output.h"

#include <ffd_frames.h>

#include <algorithm>
#include <deque>
#include <optional>
#include <string_view>

namespace ffdhost {

namespace {

constexpr uint64_t kLyrics3EndSize = 9;   // "LYRICS200" or "LYRICSEND"
constexpr uint64_t kLyrics3SizeField = 6; // decimal digits in front of "LYRICS200"
constexpr uint64_t kLyrics3v1Longest = 5100 + 20;
constexpr std::string_view kLyrics3Begin = "LYRICSBEGIN";

std::string_view text_of(std::vector<uint8_t> const& bytes) {
    return {reinterpret_cast<char const*>(bytes.data()), bytes.size()};
}

std::optional<Region> id3v2_at(InputFile const& file, uint64_t fileOffset, uint64_t fileSize) {
    std::vector<uint8_t> const header = file.read_at(fileOffset, FFD_ID3V2_HEADER_SIZE);
    if (header.size() < FFD_ID3V2_HEADER_SIZE) {
        return std::nullopt;
    }
    uint64_t const size = ffd_id3v2_length(header.data());
    if (size == 0 || size > fileSize - fileOffset) {
        return std::nullopt;
    }
    return Region{"ID3v2", "2." + std::to_string(header[3]) + "." + std::to_string(header[4]),
                  fileOffset, size};
}

// The tags that can end a file, each between `from` and `to`. A tag is recognised by its end.

std::optional<Region> id3v1_before(InputFile const& file, uint64_t from, uint64_t to) {
    if (to - from < FFD_ID3V1_SIZE) {
        return std::nullopt;
    }
    std::vector<uint8_t> const tag = file.read_at(to - FFD_ID3V1_SIZE, FFD_ID3V1_SIZE);
    if (tag.size() < FFD_ID3V1_SIZE || !text_of(tag).starts_with("TAG")) {
        return std::nullopt;
    }
    // Version 1.1 keeps a track number in the last byte of the comment, behind a 0.
    bool const hasTrack = tag[125] == 0 && tag[126] != 0;
    return Region{"ID3v1", hasTrack ? "1.1" : "1.0", to - FFD_ID3V1_SIZE, FFD_ID3V1_SIZE};
}

std::optional<Region> ape_before(InputFile const& file, uint64_t from, uint64_t to) {
    if (to - from < FFD_APE_HEADER_SIZE) {
        return std::nullopt;
    }
    std::vector<uint8_t> const footer = file.read_at(to - FFD_APE_HEADER_SIZE, FFD_APE_HEADER_SIZE);
    if (footer.size() < FFD_APE_HEADER_SIZE || !text_of(footer).starts_with("APETAGEX")) {
        return std::nullopt;
    }
    bool const hasHeader = (le32(&footer[20]) & 0x80000000) != 0;
    // The size field counts items and footer, not the header.
    uint64_t const size = le32(&footer[12]) + (hasHeader ? FFD_APE_HEADER_SIZE : 0);
    if (size < FFD_APE_HEADER_SIZE || size > to - from) {
        return std::nullopt;
    }
    return Region{"APE", le32(&footer[8]) == 1000 ? "1" : "2", to - size, size};
}

std::optional<Region> lyrics3v2_before(InputFile const& file, uint64_t from, uint64_t to) {
    constexpr uint64_t kTail = kLyrics3SizeField + kLyrics3EndSize;
    if (to - from < kTail) {
        return std::nullopt;
    }
    std::vector<uint8_t> const tail = file.read_at(to - kTail, kTail);
    if (tail.size() < kTail || !text_of(tail).ends_with("LYRICS200")) {
        return std::nullopt;
    }
    uint64_t size = 0;
    for (size_t i = 0; i < kLyrics3SizeField; ++i) {
        if (tail[i] < '0' || tail[i] > '9') {
            return std::nullopt;
        }
        size = size * 10 + static_cast<uint64_t>(tail[i] - '0');
    }
    if (size + kTail > to - from ||
        text_of(file.read_at(to - kTail - size, kLyrics3Begin.size())) != kLyrics3Begin) {
        return std::nullopt;
    }
    return Region{"Lyrics3", "2", to - kTail - size, size + kTail};
}

std::optional<Region> lyrics3v1_before(InputFile const& file, uint64_t from, uint64_t to) {
    uint64_t const start = to - std::min(to - from, kLyrics3v1Longest);
    std::vector<uint8_t> const bytes = file.read_at(start, static_cast<size_t>(to - start));
    size_t const begin = text_of(bytes).rfind(kLyrics3Begin);
    if (!text_of(bytes).ends_with("LYRICSEND") || begin == std::string_view::npos) {
        return std::nullopt;
    }
    return Region{"Lyrics3", "1", start + begin, bytes.size() - begin};
}

Region other(uint64_t from, uint64_t to) {
    return {"other", "", from, to - from};
}

} // namespace

uint64_t end_of_front_tags(InputFile const& file) {
    uint64_t end = 0;
    while (std::optional<Region> const tag = id3v2_at(file, end, file.size())) {
        end += tag->size;
    }
    return end;
}

Regions regions_in_front(InputFile const& file, uint64_t firstFrameOffset) {
    Regions regions;
    auto const add = [&](Region const& region) {
        if (regions.listed.size() < kMostRows) {
            regions.listed.push_back(region);
        } else {
            ++regions.more;
        }
    };
    uint64_t end = 0;
    while (std::optional<Region> const tag = id3v2_at(file, end, file.size())) {
        add(*tag);
        end += tag->size;
    }
    if (end < firstFrameOffset) {
        add(other(end, firstFrameOffset));
    }
    return regions;
}

Regions regions_behind(InputFile const& file, uint64_t fileSize, uint64_t audioEndOffset) {
    std::deque<Region> found; // from the end of the file on; those that were found last stay
    Regions regions;
    uint64_t end = fileSize;
    while (end > audioEndOffset) {
        std::optional<Region> tag;
        for (auto const recognise :
             {id3v1_before, ape_before, lyrics3v2_before, lyrics3v1_before}) {
            if (!tag) {
                tag = recognise(file, audioEndOffset, end);
            }
        }
        found.push_front(tag ? *tag : other(audioEndOffset, end));
        end = found.front().fileOffset;
        if (found.size() > kMostRows) {
            found.pop_back();
            ++regions.more;
        }
    }
    regions.listed.assign(found.begin(), found.end());
    return regions;
}

} // namespace ffdhost
