// The driver's view of frame headers and ID3v2 tags. The accessors are those that every host has,
// and stand in ffd_frames.h.
#pragma once

#include "ffd.h"
#include "ffd_frames.h"
#include "platform/platform.h"

constexpr DWORD FRAME_HEADER_SIZE = FFD_FRAME_HEADER_SIZE;
constexpr DWORD ID3_HEADER_SIZE = FFD_ID3V2_HEADER_SIZE;

// Bytes that play in a second at this bitrate (kbit/s), as the driver counts them.
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
