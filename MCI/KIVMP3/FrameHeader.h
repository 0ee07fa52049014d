// What the driver knows of an MP3 frame and of an ID3v2 tag: their headers.
//
// A frame header is four bytes in file order, laid out as in ISO/IEC 11172-3 and ISO/IEC 13818-3
// with the MPEG 2.5 extension of the version field. One accessor per field stands below; nothing
// else knows a bit position.
#pragma once

#include "ffd.h"
#include "platform/platform.h"

constexpr DWORD FRAME_HEADER_SIZE = 4;
constexpr DWORD ID3_HEADER_SIZE = 10;

inline bool frame_has_sync(BYTE const* pbyHeader_p) {
    return pbyHeader_p[0] == 0xFF && (pbyHeader_p[1] & 0xE0) == 0xE0;
}
// 3 MPEG 1, 2 MPEG 2, 0 MPEG 2.5, 1 none.
inline unsigned frame_version(BYTE const* pbyHeader_p) {
    return pbyHeader_p[1] >> 3 & 3u;
}
// 1 Layer III, 2 Layer II, 3 Layer I, 0 none.
inline unsigned frame_layer(BYTE const* pbyHeader_p) {
    return pbyHeader_p[1] >> 1 & 3u;
}
// 0 is the free format, 15 is forbidden.
inline unsigned frame_bitrate_index(BYTE const* pbyHeader_p) {
    return pbyHeader_p[2] >> 4;
}
// 3 is reserved.
inline unsigned frame_sampling_rate_index(BYTE const* pbyHeader_p) {
    return pbyHeader_p[2] >> 2 & 3u;
}
// Bytes: 1 or 0.
inline unsigned frame_padding(BYTE const* pbyHeader_p) {
    return pbyHeader_p[2] >> 1 & 1u;
}
// 3 is a single channel, the others are two.
inline unsigned frame_channel_mode(BYTE const* pbyHeader_p) {
    return pbyHeader_p[3] >> 6;
}

inline bool frame_is_mpeg1(BYTE const* pbyHeader_p) {
    return (frame_version(pbyHeader_p) & 1) != 0;
}

// The four bytes as one little-endian word.
inline DWORD frame_header_word(BYTE const* pbyHeader_p) {
    return DWORD{pbyHeader_p[0]} | DWORD{pbyHeader_p[1]} << 8 | DWORD{pbyHeader_p[2]} << 16 |
           DWORD{pbyHeader_p[3]} << 24;
}

// Of such a word, what all frames of one file have in common: sync, version, layer and sampling
// rate index. Protection, bitrate, padding and channel mode may differ.
constexpr DWORD FRAME_REFERENCE_MASK = 0x000CFEFF;

// The values below want a header that check_frame_header accepted.

// In kbit/s, from the row of MPEG 1 or from that of MPEG 2 and 2.5.
WORD frame_bitrate(bool bMpeg1_p, unsigned nBitrateIndex_p);
WORD frame_bitrate(BYTE const* pbyHeader_p);

// In Hz.
DWORD frame_sampling_rate(BYTE const* pbyHeader_p);

// 1 or 2.
WORD frame_channels(BYTE const* pbyHeader_p);

// 144000 or 72000: bitrate in kbit/s times this, divided by the sampling rate, is a frame's length.
DWORD frame_length_factor(BYTE const* pbyHeader_p);

// In bytes, header and padding included. The Layer III formula serves all layers.
DWORD frame_length(WORD wBitrate_p, DWORD dwFactor_p, DWORD dwSamplingRate_p, unsigned nPadding_p);
DWORD frame_length(BYTE const* pbyHeader_p);

// Judges four bytes: FFD_NOERROR for a usable header, FFD_NO_MORE_FRAMES for the beginning of a tag
// ("ID3", "TAG", "APE"), FFD_INVALID_FORMAT for anything else. No second frame is looked for.
FFDError check_frame_header(BYTE const* pbyHeader_p);

// Sizes the ID3v2 tag whose ten header bytes are given (the caller has seen the "ID3"): the whole
// length in bytes, header and footer included. FFD_TAG_VERSION_UNKNOWN for a major version above 4,
// FFD_INVALID_FORMAT for size or flag bytes that the format does not have.
FFDError check_ID3_header(BYTE const* pbyHeader_p, DWORD* pdwTagLength_p);
