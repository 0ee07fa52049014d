// The driver's view of frame headers and ID3v2 tags. The accessors are those that every host has,
// and stand in ffd_frames.h.
#pragma once

#include "ffd.h"
#include "ffd_frames.h"
#include "platform/platform.h"

constexpr DWORD FRAME_HEADER_SIZE = FFD_FRAME_HEADER_SIZE;
constexpr DWORD ID3_HEADER_SIZE = FFD_ID3V2_HEADER_SIZE;

// The four bytes as one little-endian word.
inline DWORD frame_header_word(BYTE const* pbyHeader_p) {
    return DWORD{pbyHeader_p[0]} | DWORD{pbyHeader_p[1]} << 8 | DWORD{pbyHeader_p[2]} << 16 |
           DWORD{pbyHeader_p[3]} << 24;
}

// Of such a word, what all frames of one file have in common, as in ffd_frame_same_kind.
constexpr DWORD FRAME_REFERENCE_MASK = 0x000CFEFF;

// Short names for what the walk over the frames asks of a header that check_frame_header accepted.
inline bool frame_has_sync(BYTE const* pbyHeader_p) {
    return ffd_frame_has_sync(pbyHeader_p) != 0;
}
inline bool frame_is_mpeg1(BYTE const* pbyHeader_p) {
    return ffd_frame_is_mpeg1(pbyHeader_p) != 0;
}
inline unsigned frame_bitrate_index(BYTE const* pbyHeader_p) {
    return ffd_frame_bitrate_index(pbyHeader_p);
}
inline unsigned frame_padding(BYTE const* pbyHeader_p) {
    return ffd_frame_padding(pbyHeader_p);
}
inline WORD frame_bitrate(bool bMpeg1_p, unsigned nBitrateIndex_p) {
    return ffd_bitrate(bMpeg1_p, nBitrateIndex_p);
}
inline WORD frame_bitrate(BYTE const* pbyHeader_p) {
    return ffd_frame_bitrate(pbyHeader_p);
}
inline DWORD frame_sampling_rate(BYTE const* pbyHeader_p) {
    return ffd_frame_sampling_rate(pbyHeader_p);
}
inline WORD frame_channels(BYTE const* pbyHeader_p) {
    return ffd_frame_channels(pbyHeader_p);
}
inline DWORD frame_length_factor(BYTE const* pbyHeader_p) {
    return ffd_frame_length_factor(ffd_frame_is_mpeg1(pbyHeader_p));
}
inline DWORD frame_length(WORD wBitrate_p, DWORD dwFactor_p, DWORD dwSamplingRate_p,
                          unsigned nPadding_p) {
    return ffd_frame_length_of(wBitrate_p, dwFactor_p, dwSamplingRate_p, nPadding_p);
}
inline DWORD frame_length(BYTE const* pbyHeader_p) {
    return ffd_frame_length(pbyHeader_p);
}
inline DWORD frame_bytes_per_second(WORD wBitrate_p) {
    return DWORD{wBitrate_p} / 8 * 1000;
}

// Judges four bytes: FFD_NOERROR for a usable header, FFD_NO_MORE_FRAMES for the beginning of a tag
// ("ID3", "TAG", "APE"), FFD_INVALID_FORMAT for anything else. No second frame is looked for.
FFDError check_frame_header(BYTE const* pbyHeader_p);

// Sizes the ID3v2 tag whose ten header bytes are given (the caller has seen the "ID3"): the whole
// length in bytes, header and footer included. FFD_TAG_VERSION_UNKNOWN for a major version above 4,
// FFD_INVALID_FORMAT for size or flag bytes that the format does not have.
FFDError check_ID3_header(BYTE const* pbyHeader_p, DWORD* pdwTagLength_p);
