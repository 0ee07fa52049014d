#include "MCI/KIVMP3/FrameHeader.h"

#include <cstring>

#define TRACE_MODULE "XKIVMP3.DLL"
#include "log/trace.h"

namespace {

bool begins_with_tag(BYTE const* pbyHeader_p) {
    return memcmp(pbyHeader_p, "ID3", 3) == 0 || memcmp(pbyHeader_p, "TAG", 3) == 0 ||
           memcmp(pbyHeader_p, "APE", 3) == 0;
}

} // namespace

FFDError check_frame_header(BYTE const* pbyHeader_p) {
    TRACE_ENTRY("-----CKivmp3::check_frame_header");
    if (pbyHeader_p[0] != 0xFF && begins_with_tag(pbyHeader_p)) {
        TRACE_ERROR(FFD_INVALID_FORMAT, "tag found");
        return FFD_NO_MORE_FRAMES;
    }
    if (!ffd_frame_has_sync(pbyHeader_p)) {
        return TRACED_ERROR(FFD_INVALID_FORMAT, "FFD_INVALID_FORMAT no framesync found");
    }
    return ffd_frame_is_usable(pbyHeader_p) ? FFD_NOERROR : FFD_INVALID_FORMAT;
}

FFDError check_ID3_header(BYTE const* pbyHeader_p, DWORD* pdwTagLength_p) {
    TRACE_ENTRY("-----CKivmp3::check_ID3_header(..)");
    BYTE const byMajorVersion = pbyHeader_p[3];
    if (byMajorVersion > 4) {
        return FFD_TAG_VERSION_UNKNOWN;
    }
    DWORD const dwTagLength = ffd_id3v2_length(pbyHeader_p);
    if (dwTagLength == 0) {
        return FFD_INVALID_FORMAT;
    }
    *pdwTagLength_p = dwTagLength;
    return FFD_NOERROR;
}
