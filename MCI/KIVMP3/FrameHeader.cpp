#include "MCI/KIVMP3/FrameHeader.h"

#include <cstring>

#define TRACE_MODULE "XKIVMP3.DLL"
#include "log/trace.h"

namespace {

// kbit/s by bitrate index: the Layer III columns of ISO/IEC 11172-3 (MPEG 1) and ISO/IEC 13818-3
// (MPEG 2, which also serves MPEG 2.5).
constexpr WORD awBitrateMpeg1[16] = {0,   32,  40,  48,  56,  64,  80,  96,
                                     112, 128, 160, 192, 224, 256, 320, 0};
constexpr WORD awBitrateMpeg2[16] = {0,  8,  16, 24,  32,  40,  48,  56,
                                     64, 80, 96, 112, 128, 144, 160, 0};

// Hz by sampling rate index; MPEG 2.5 has half the values of MPEG 2.
constexpr DWORD adwSamplingRateMpeg1[4] = {44100, 48000, 32000, 0};
constexpr DWORD adwSamplingRateMpeg2[4] = {22050, 24000, 16000, 0};

bool begins_with_tag(BYTE const* pbyHeader_p) {
    return memcmp(pbyHeader_p, "ID3", 3) == 0 || memcmp(pbyHeader_p, "TAG", 3) == 0 ||
           memcmp(pbyHeader_p, "APE", 3) == 0;
}

} // namespace

WORD frame_bitrate(bool bMpeg1_p, unsigned nBitrateIndex_p) {
    return bMpeg1_p ? awBitrateMpeg1[nBitrateIndex_p & 15] : awBitrateMpeg2[nBitrateIndex_p & 15];
}

WORD frame_bitrate(BYTE const* pbyHeader_p) {
    return frame_bitrate(frame_is_mpeg1(pbyHeader_p), frame_bitrate_index(pbyHeader_p));
}

DWORD frame_sampling_rate(BYTE const* pbyHeader_p) {
    unsigned const nIndex = frame_sampling_rate_index(pbyHeader_p);
    if (frame_is_mpeg1(pbyHeader_p)) {
        return adwSamplingRateMpeg1[nIndex];
    }
    return frame_version(pbyHeader_p) == 0 ? adwSamplingRateMpeg2[nIndex] >> 1
                                           : adwSamplingRateMpeg2[nIndex];
}

WORD frame_channels(BYTE const* pbyHeader_p) {
    return frame_channel_mode(pbyHeader_p) == 3 ? 1 : 2;
}

DWORD frame_length_factor(BYTE const* pbyHeader_p) {
    return frame_is_mpeg1(pbyHeader_p) ? 144000 : 72000;
}

DWORD frame_length(WORD wBitrate_p, DWORD dwFactor_p, DWORD dwSamplingRate_p, unsigned nPadding_p) {
    return (wBitrate_p * dwFactor_p / dwSamplingRate_p & 0xFFFF) + nPadding_p;
}

DWORD frame_length(BYTE const* pbyHeader_p) {
    return frame_length(frame_bitrate(pbyHeader_p), frame_length_factor(pbyHeader_p),
                        frame_sampling_rate(pbyHeader_p), frame_padding(pbyHeader_p));
}

FFDError check_frame_header(BYTE const* pbyHeader_p) {
    TRACE_ENTRY("-----CKivmp3::check_frame_header");
    if (pbyHeader_p[0] != 0xFF && begins_with_tag(pbyHeader_p)) {
        TRACE_ERROR(FFD_INVALID_FORMAT, "tag found");
        return FFD_NO_MORE_FRAMES;
    }
    if (!frame_has_sync(pbyHeader_p)) {
        TRACE_ERROR(FFD_INVALID_FORMAT, "FFD_INVALID_FORMAT no framesync found");
        return FFD_INVALID_FORMAT;
    }
    unsigned const nBitrateIndex = frame_bitrate_index(pbyHeader_p);
    if (frame_version(pbyHeader_p) == 1 || frame_layer(pbyHeader_p) == 0 || nBitrateIndex == 0 ||
        nBitrateIndex == 15 || frame_sampling_rate_index(pbyHeader_p) == 3) {
        return FFD_INVALID_FORMAT;
    }
    return FFD_NOERROR;
}

FFDError check_ID3_header(BYTE const* pbyHeader_p, DWORD* pdwTagLength_p) {
    TRACE_ENTRY("-----CKivmp3::check_ID3_header(..)");
    BYTE const byMajorVersion = pbyHeader_p[3];
    BYTE const byFlags = pbyHeader_p[5];
    BYTE const* const pbySize = pbyHeader_p + 6;
    if (byMajorVersion > 4) {
        return FFD_TAG_VERSION_UNKNOWN;
    }
    if (((pbySize[0] | pbySize[1] | pbySize[2] | pbySize[3]) & 0x80) != 0) {
        return FFD_INVALID_FORMAT;
    }
    if ((byFlags & 0x0F) != 0) {
        return FFD_INVALID_FORMAT;
    }
    DWORD const dwSize = DWORD{pbySize[0]} << 21 | DWORD{pbySize[1]} << 14 |
                         DWORD{pbySize[2]} << 7 | DWORD{pbySize[3]};
    constexpr BYTE byFooterPresent = 0x10;
    DWORD const dwFooter = (byFlags & byFooterPresent) != 0 ? ID3_HEADER_SIZE : 0;
    *pdwTagLength_p = dwSize + dwFooter + ID3_HEADER_SIZE;
    return FFD_NOERROR;
}
