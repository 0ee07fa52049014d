/* The frames of a block of bytes as ffd_frames.h gives them, for a test that is not written in C.
 */
#include "ffd_frames.h"

/* Takes the bytes in pieces of a size; how: FFD_STREAM_... Gives the count of frames. */
size_t frames_of(uint8_t const* bytes, size_t count, size_t piece, int how, uint64_t offsets[],
                 uint32_t lengths[], int infos[]) {
    static FFDFrames frames;
    FFDFrame frame;
    size_t found = 0;
    ffd_frames_begin(&frames);
    for (int last = 0; !last;) {
        size_t part = count < piece ? count : piece;
        last = count == 0;
        count -= part;
        while (ffd_frames_next(&frames, last ? how : FFD_STREAM_GOES_ON, &bytes, &part, &frame)) {
            offsets[found] = frame.ullOffset;
            lengths[found] = frame.dwLength;
            infos[found++] = frame.bInfo;
        }
    }
    return found;
}

void borders_of(uint8_t const* bytes, size_t count, size_t position, uint64_t borders[2]) {
    FFDBorders const found = ffd_find_borders(bytes, count, position);
    borders[0] = found.before;
    borders[1] = found.behind;
}
