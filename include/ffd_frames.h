/**
 * @file
 * Whole MP3 frames, for every host of the driver.
 *
 * The driver takes audio as it comes and does not look at it: whole frames are up to the host. This
 * header cuts a stream that arrives in pieces of any size into frames, leaves out what is none
 * (tags, the silent frame that encoders put first, noise), and finds the border of frames at which
 * an edit belongs. The driver reads its headers with the same accessors.
 *
 * Plain C99 and C++, all inline; it needs nothing but the C library and takes no memory.
 *
 *     FFDFrames frames;
 *     FFDFrame frame;
 *     ffd_frames_begin(&frames);
 *     while ((count = read(0, piece, sizeof piece)) > 0) {
 *         uint8_t const* next = piece;
 *         while (ffd_frames_next(&frames, FFD_STREAM_GOES_ON, &next, &count, &frame)) {
 *             keep(frame.pBytes, frame.dwLength);
 *         }
 *     }
 *     while (ffd_frames_next(&frames, FFD_STREAM_ENDS, NULL, NULL, &frame)) {
 *         keep(frame.pBytes, frame.dwLength);
 *     }
 */
#ifndef FFD_FRAMES_H
#define FFD_FRAMES_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- A frame header ------------------------------------------------------------------------ *
 * Four bytes in file order, laid out as in ISO/IEC 11172-3 and ISO/IEC 13818-3 with the MPEG 2.5
 * extension of the version field. Each field has its accessor here, and no other code knows a bit
 * position. */

#define FFD_FRAME_HEADER_SIZE 4u /**< bytes */
#define FFD_LONGEST_FRAME 1441u  /**< bytes: 320 kbit/s at 32000 Hz, with padding */

/** Whether the eleven bits stand there with which every header begins. */
static inline int ffd_frame_has_sync(uint8_t const* header) {
    return header[0] == 0xFF && (header[1] & 0xE0) == 0xE0;
}

/** 3 MPEG 1, 2 MPEG 2, 0 MPEG 2.5, 1 none. */
static inline unsigned ffd_frame_version(uint8_t const* header) {
    return header[1] >> 3 & 3u;
}

/** 1 Layer III, 2 Layer II, 3 Layer I, 0 none. */
static inline unsigned ffd_frame_layer(uint8_t const* header) {
    return header[1] >> 1 & 3u;
}

/** Whether two bytes of a checksum stand behind the header. */
static inline int ffd_frame_has_checksum(uint8_t const* header) {
    return (header[1] & 1) == 0;
}

/** 0 is the free format, 15 is forbidden. */
static inline unsigned ffd_frame_bitrate_index(uint8_t const* header) {
    return header[2] >> 4;
}

/** 3 is reserved. */
static inline unsigned ffd_frame_sampling_rate_index(uint8_t const* header) {
    return header[2] >> 2 & 3u;
}

/** Bytes: 1 or 0. */
static inline unsigned ffd_frame_padding(uint8_t const* header) {
    return header[2] >> 1 & 1u;
}

/** 3 is a single channel, the others are two. */
static inline unsigned ffd_frame_channel_mode(uint8_t const* header) {
    return header[3] >> 6;
}

/** MPEG 1, and not 2 or 2.5. */
static inline int ffd_frame_is_mpeg1(uint8_t const* header) {
    return (ffd_frame_version(header) & 1) != 0;
}

/** Whether the driver takes four bytes for a header: all fields that give the length are valid. The
 * values below want such a header. */
static inline int ffd_frame_is_usable(uint8_t const* header) {
    unsigned const bitrate = ffd_frame_bitrate_index(header);
    return ffd_frame_has_sync(header) && ffd_frame_version(header) != 1 &&
           ffd_frame_layer(header) != 0 && bitrate != 0 && bitrate != 15 &&
           ffd_frame_sampling_rate_index(header) != 3;
}

/** kbit/s by bitrate index, 0 for one without a value: the Layer III columns of ISO/IEC 11172-3
 * (MPEG 1) and ISO/IEC 13818-3 (MPEG 2, which also serves MPEG 2.5). They serve all layers. */
static inline uint16_t ffd_bitrate(int isMpeg1, unsigned bitrateIndex) {
    static uint16_t const ofMpeg1[16] = {0,   32,  40,  48,  56,  64,  80,  96,
                                         112, 128, 160, 192, 224, 256, 320, 0};
    static uint16_t const ofMpeg2[16] = {0,  8,  16, 24,  32,  40,  48,  56,
                                         64, 80, 96, 112, 128, 144, 160, 0};
    return isMpeg1 ? ofMpeg1[bitrateIndex & 15] : ofMpeg2[bitrateIndex & 15];
}

/** kbit/s. */
static inline uint16_t ffd_frame_bitrate(uint8_t const* header) {
    return ffd_bitrate(ffd_frame_is_mpeg1(header), ffd_frame_bitrate_index(header));
}

/** Hz. MPEG 2.5 has half the values of MPEG 2. */
static inline uint32_t ffd_frame_sampling_rate(uint8_t const* header) {
    static uint32_t const ofMpeg1[4] = {44100, 48000, 32000, 0};
    static uint32_t const ofMpeg2[4] = {22050, 24000, 16000, 0};
    unsigned const index = ffd_frame_sampling_rate_index(header);
    if (ffd_frame_is_mpeg1(header)) {
        return ofMpeg1[index];
    }
    return ffd_frame_version(header) == 0 ? ofMpeg2[index] >> 1 : ofMpeg2[index];
}

/** 1 or 2. */
static inline uint16_t ffd_frame_channels(uint8_t const* header) {
    return ffd_frame_channel_mode(header) == 3 ? 1 : 2;
}

/** kbit/s times this, divided by the sampling rate, is the length of a frame without padding. */
static inline uint32_t ffd_frame_length_factor(int isMpeg1) {
    return isMpeg1 ? 144000 : 72000;
}

/** Bytes of a frame, with header and padding, from the values of its header; the formula of Layer
 * III, which serves all layers. */
static inline uint32_t ffd_frame_length_of(uint32_t bitrate, uint32_t factor, uint32_t samplingRate,
                                           uint32_t padding) {
    return bitrate * factor / samplingRate + padding;
}

/** Bytes, with header and padding; at most FFD_LONGEST_FRAME. */
static inline uint32_t ffd_frame_length(uint8_t const* header) {
    return ffd_frame_length_of(ffd_frame_bitrate(header),
                               ffd_frame_length_factor(ffd_frame_is_mpeg1(header)),
                               ffd_frame_sampling_rate(header), ffd_frame_padding(header));
}

/** Milliseconds that a frame plays are these samples of each channel, times 1000, divided by the
 * sampling rate. */
static inline uint32_t ffd_frame_samples(uint8_t const* header) {
    return ffd_frame_is_mpeg1(header) ? 1152 : 576;
}

/** The four bytes as one little-endian word. */
static inline uint32_t ffd_frame_header_word(uint8_t const* header) {
    return (uint32_t)header[0] | (uint32_t)header[1] << 8 | (uint32_t)header[2] << 16 |
           (uint32_t)header[3] << 24;
}

/** Of such a word, what all frames of one file have in common: sync, version, layer and sampling
 * rate. Checksum, bitrate, padding and channel mode may differ; of these the driver refuses another
 * bitrate at the next open. */
#define FFD_FRAME_KIND_MASK 0x000CFEFFu

/** Whether two frames can belong to one file. */
static inline int ffd_frame_same_kind(uint8_t const* header1, uint8_t const* header2) {
    return ((ffd_frame_header_word(header1) ^ ffd_frame_header_word(header2)) &
            FFD_FRAME_KIND_MASK) == 0;
}

/** Where the frame that describes the file to players has its "Xing" or "Info": bytes behind the
 * beginning of the frame, if it has no checksum. */
static inline uint32_t ffd_info_offset(uint8_t const* header) {
    int const isMono = ffd_frame_channels(header) == 1;
    if (ffd_frame_is_mpeg1(header)) {
        return FFD_FRAME_HEADER_SIZE + (isMono ? 17 : 32);
    }
    return FFD_FRAME_HEADER_SIZE + (isMono ? 9 : 17);
}

/** What an info frame tells players of its file: where its fields begin, in bytes behind the
 * beginning of the frame. 0 for one that it does not have. All are stored with the high byte
 * first. */
typedef struct FFDInfo {
    char szKind[5];        /**< "Xing", "Info" or "VBRI" */
    uint32_t dwFramesAt;   /**< four bytes: frames of the file, without the info frame */
    uint32_t dwBytesAt;    /**< four bytes: from the info frame to the end of the last frame */
    uint32_t dwChecksumAt; /**< two bytes: ffd_info_checksum(), if the encoder has left a tag and
                                its checksum is right */
} FFDInfo;

/** A field of an info frame. */
static inline uint32_t ffd_info_field(uint8_t const* field) {
    return (uint32_t)field[0] << 24 | (uint32_t)field[1] << 16 | (uint32_t)field[2] << 8 | field[3];
}

/** The checksum of the bytes from the beginning of an info frame up to its checksum: CRC-16 with
 * the polynomial 0x8005, low bit first, from 0. */
static inline uint16_t ffd_info_checksum(uint8_t const* frame, uint32_t count) {
    uint32_t checksum = 0;
    for (; count > 0; --count) {
        int bit;
        checksum ^= *frame++;
        for (bit = 0; bit < 8; ++bit) {
            checksum = checksum >> 1 ^ ((checksum & 1) != 0 ? 0xA001u : 0);
        }
    }
    return (uint16_t)checksum;
}

/** Where the name stands in a whole Layer III frame that is an info frame; 0 for any other frame.
 */
static inline uint32_t ffd_info_place(uint8_t const* frame) {
    uint32_t const checksum = ffd_frame_has_checksum(frame) ? 2 : 0;
    uint32_t const length = ffd_frame_length(frame);
    uint32_t const offset = ffd_info_offset(frame);
    uint32_t const vbri = 36;
    uint32_t place = FFD_FRAME_HEADER_SIZE + checksum;
    if (ffd_frame_layer(frame) != 1) {
        return 0;
    }
    while (place < length && frame[place] == 0) { /* silence has no side information */
        ++place;
    }
    if (place + 4 > length) {
        return 0;
    }
    if (place == vbri && memcmp(frame + place, "VBRI", 4) == 0) {
        return place;
    }
    return (place == offset || place == offset + checksum) &&
                   (memcmp(frame + place, "Xing", 4) == 0 || memcmp(frame + place, "Info", 4) == 0)
               ? place
               : 0;
}

/**
 * Whether a whole Layer III frame is an info frame: silent, written in front of the audio by
 * encoders to tell players the count of frames and of bytes of the file ("Xing", "Info", "VBRI").
 * Inside another file it would be a gap of silence, and its counts would be wrong.
 */
static inline int ffd_is_info_frame(uint8_t const* frame) {
    return ffd_info_place(frame) != 0;
}

/** The same, with the fields of the frame in *info. */
static inline int ffd_find_info(uint8_t const* frame, FFDInfo* info) {
    uint32_t const length = ffd_frame_length(frame);
    uint32_t const place = ffd_info_place(frame);
    uint32_t next = place + 8;
    uint32_t flags;
    memset(info, 0, sizeof *info);
    if (place == 0) {
        return 0;
    }
    memcpy(info->szKind, frame + place, 4);
    if (frame[place] == 'V') { /* a version, a delay and a quality of two bytes each */
        info->dwBytesAt = place + 14 <= length ? place + 10 : 0;
        info->dwFramesAt = place + 18 <= length ? place + 14 : 0;
        return 1;
    }
    flags = next <= length ? ffd_info_field(frame + place + 4) : 0;
    if ((flags & 1) != 0) {
        info->dwFramesAt = next + 4 <= length ? next : 0;
        next += 4;
    }
    if ((flags & 2) != 0) {
        info->dwBytesAt = next + 4 <= length ? next : 0;
        next += 4;
    }
    next += (flags & 4) != 0 ? 100 : 0; /* where to seek to, in parts of the whole */
    next += (flags & 8) != 0 ? 4 : 0;   /* quality */
    next += 34;                         /* the tag of the encoder, up to its checksum */
    if (next + 2 <= length && frame[next - 34] != 0 && /* it begins with a name */
        ffd_info_checksum(frame, next) == (frame[next] << 8 | frame[next + 1])) {
        info->dwChecksumAt = next;
    }
    return 1;
}

/**
 * Corrects an info frame behind an edit: the counts that it has (`frames` without it, `bytes` with
 * it), and its checksum if that was right. The rest tells of what the encoder made and stays as it
 * is.
 */
static inline void ffd_mend_info(uint8_t* frame, FFDInfo const* info, uint32_t frames,
                                 uint32_t bytes) {
    uint32_t i;
    for (i = 0; i < 4; ++i) {
        if (info->dwFramesAt > 0) {
            frame[info->dwFramesAt + i] = (uint8_t)(frames >> (24 - 8 * i));
        }
        if (info->dwBytesAt > 0) {
            frame[info->dwBytesAt + i] = (uint8_t)(bytes >> (24 - 8 * i));
        }
    }
    if (info->dwChecksumAt > 0) {
        uint16_t const checksum = ffd_info_checksum(frame, info->dwChecksumAt);
        frame[info->dwChecksumAt] = (uint8_t)(checksum >> 8);
        frame[info->dwChecksumAt + 1] = (uint8_t)checksum;
    }
}

/* ---- Tags ---------------------------------------------------------------------------------- */

#define FFD_ID3V2_HEADER_SIZE 10u /**< bytes */
#define FFD_ID3V1_SIZE 128u       /**< bytes of the whole tag */
#define FFD_APE_HEADER_SIZE 32u   /**< bytes, of a header and of a footer */

/** The whole length in bytes of an ID3v2 tag, header and footer included, by its first ten bytes.
 * 0 if they begin no tag that has a length: another beginning than "ID3", a major version above 4,
 * or size or flag bytes that the format does not have. */
static inline uint32_t ffd_id3v2_length(uint8_t const* header) {
    uint8_t const* const size = header + 6;
    uint32_t const footer = (header[5] & 0x10) != 0 ? FFD_ID3V2_HEADER_SIZE : 0;
    if (memcmp(header, "ID3", 3) != 0 || header[3] > 4 || (header[5] & 0x0F) != 0 ||
        ((size[0] | size[1] | size[2] | size[3]) & 0x80) != 0) {
        return 0;
    }
    return ((uint32_t)size[0] << 21 | (uint32_t)size[1] << 14 | (uint32_t)size[2] << 7 | size[3]) +
           footer + FFD_ID3V2_HEADER_SIZE;
}

/** The bytes of an APE tag from its first 32 bytes on, which are a header or a footer; 0 if they
 * are neither. */
static inline uint32_t ffd_ape_length(uint8_t const* header) {
    uint32_t const size = header[12] | (uint32_t)header[13] << 8 | (uint32_t)header[14] << 16 |
                          (uint32_t)header[15] << 24;
    if (memcmp(header, "APETAGEX", 8) != 0) {
        return 0;
    }
    return (header[23] & 0x20) != 0 && size < 0xFFFFFFFFu - FFD_APE_HEADER_SIZE
               ? FFD_APE_HEADER_SIZE + size
               : FFD_APE_HEADER_SIZE;
}

/* ---- Frames out of a stream ---------------------------------------------------------------- */

/** What follows the bytes at hand. */
enum {
    FFD_STREAM_GOES_ON = 0, /**< more bytes come */
    FFD_STREAM_PAUSES = 1,  /**< more may come, but a frame that is whole shall not wait for them */
    FFD_STREAM_ENDS = 2     /**< none: an unfinished frame is dropped */
};

/** A whole frame of a stream. */
typedef struct FFDFrame {
    uint8_t const* pBytes; /**< valid up to the next call */
    uint32_t dwLength;     /**< bytes */
    uint64_t ullOffset;    /**< of its first byte, counted from the beginning of the stream */
    int bInfo;             /**< no audio: leave it out of what goes into another file */
} FFDFrame;

#define FFD_FRAMES_HELD 8192u /**< bytes that a reader holds back at most */

/** Cuts a stream into frames. The members are for reading only. */
typedef struct FFDFrames {
    uint64_t ullOffset; /**< of the first byte held, counted from the beginning of the stream */
    uint64_t ullFrames; /**< given out so far */
    uint64_t ullTags;   /**< bytes of tags left out */
    uint64_t ullNoise;  /**< bytes left out that are neither tags nor whole frames */
    uint32_t dwSkip;    /**< bytes of a tag that are still to come */
    uint32_t dwBegin;   /**< place of the first byte held */
    uint32_t dwEnd;     /**< place behind the last byte held */
    int bBorder;        /**< the bytes held begin where a frame may be expected */
    uint8_t abyHeld[FFD_FRAMES_HELD]; /**< bytes not yet decided upon */
} FFDFrames;

/** Begins a stream at its first byte. */
static inline void ffd_frames_begin(FFDFrames* frames) {
    memset(frames, 0, offsetof(FFDFrames, abyHeld));
    frames->bBorder = 1;
}

/** @cond the steps of ffd_frames_next */

static inline void ffd_frames_drop(FFDFrames* frames, uint32_t count, uint64_t* counter) {
    frames->dwBegin += count;
    frames->ullOffset += count;
    *counter += count;
}

/* Takes over as many bytes as there is room for. */
static inline void ffd_frames_hold(FFDFrames* frames, uint8_t const** bytes, size_t* count) {
    uint32_t const held = frames->dwEnd - frames->dwBegin;
    size_t taken;
    if (!count || *count == 0) {
        return;
    }
    if (frames->dwBegin > 0) {
        memmove(frames->abyHeld, frames->abyHeld + frames->dwBegin, held);
        frames->dwBegin = 0;
        frames->dwEnd = held;
    }
    taken = *count < FFD_FRAMES_HELD - held ? *count : FFD_FRAMES_HELD - held;
    memcpy(frames->abyHeld + held, *bytes, taken);
    frames->dwEnd += (uint32_t)taken;
    *bytes += taken;
    *count -= taken;
}

/* Whether a frame or a tag stands where a frame has ended. Wants four bytes. */
static inline int ffd_frames_goes_on(uint8_t const* frame, uint8_t const* behind) {
    return (ffd_frame_is_usable(behind) && ffd_frame_same_kind(frame, behind)) ||
           memcmp(behind, "ID3", 3) == 0 || memcmp(behind, "TAG", 3) == 0 ||
           memcmp(behind, "APET", 4) == 0 || memcmp(behind, "LYRI", 4) == 0;
}

enum { FFD_FRAMES_NO = 0, FFD_FRAMES_YES = 1, FFD_FRAMES_WAIT = 2 };

/* Whether bytes went missing inside the frame at the beginning, whose end nothing follows: then the
 * next frame, of the same bitrate and itself followed, begins before that end. */
static inline int ffd_frames_is_torn(uint8_t const* bytes, uint32_t count, int how) {
    uint32_t const length = ffd_frame_length(bytes);
    uint32_t place;
    for (place = 1; place < length && place + FFD_FRAME_HEADER_SIZE <= count; ++place) {
        uint8_t const* const header = bytes + place;
        uint32_t end;
        if (!ffd_frame_is_usable(header) || !ffd_frame_same_kind(bytes, header) ||
            ffd_frame_bitrate(header) != ffd_frame_bitrate(bytes)) {
            continue;
        }
        end = place + ffd_frame_length(header);
        if (end + FFD_FRAME_HEADER_SIZE > count) {
            if (how == FFD_STREAM_GOES_ON) {
                return FFD_FRAMES_WAIT;
            }
            if (end == count) {
                return FFD_FRAMES_YES;
            }
        } else if (ffd_frames_goes_on(header, bytes + end)) {
            return FFD_FRAMES_YES;
        }
    }
    return FFD_FRAMES_NO;
}

/* Whether the header at the beginning is that of a whole frame. Four bytes may look like one by
 * chance, so the end of the frame must bear it out. Where a frame is due less is asked. */
static inline int ffd_frames_is_frame(FFDFrames const* frames, uint8_t const* bytes, uint32_t count,
                                      int how) {
    uint32_t const length = ffd_frame_length(bytes);
    int const isDue = frames->bBorder && frames->ullFrames > 0;
    if (count >= length + FFD_FRAME_HEADER_SIZE) {
        int torn;
        if (ffd_frames_goes_on(bytes, bytes + length)) {
            return FFD_FRAMES_YES;
        }
        torn = isDue ? ffd_frames_is_torn(bytes, count, how) : FFD_FRAMES_YES;
        return torn == FFD_FRAMES_WAIT  ? FFD_FRAMES_WAIT
               : torn == FFD_FRAMES_YES ? FFD_FRAMES_NO
                                        : FFD_FRAMES_YES;
    }
    if (how == FFD_STREAM_GOES_ON || (how == FFD_STREAM_PAUSES && (!isDue || count < length))) {
        return FFD_FRAMES_WAIT;
    }
    return count == length || (count > length && frames->bBorder) ? FFD_FRAMES_YES : FFD_FRAMES_NO;
}

/* The length of the tag at the beginning, as far as the bytes at hand tell; 0 for none. */
static inline uint32_t ffd_frames_tag(FFDFrames const* frames, uint8_t const* bytes,
                                      uint32_t count) {
    if (count >= FFD_ID3V2_HEADER_SIZE && bytes[0] == 'I') {
        return ffd_id3v2_length(bytes);
    }
    if (!frames->bBorder || count < FFD_APE_HEADER_SIZE) {
        return 0; /* elsewhere three letters are not enough */
    }
    return memcmp(bytes, "TAG", 3) == 0 ? FFD_ID3V1_SIZE : ffd_ape_length(bytes);
}

/* What an encoder puts in front of a stream to come back to it with an info frame, and then cannot:
 * a header and nothing behind it. */
static inline int ffd_frames_is_blank(uint8_t const* frame) {
    uint32_t const length = ffd_frame_length(frame);
    uint32_t place = FFD_FRAME_HEADER_SIZE;
    while (place < length && frame[place] == 0) {
        ++place;
    }
    return place == length;
}

/** @endcond */

/**
 * Gives the next whole frame of the stream: 1 and *frame, or 0 once all bytes at hand are used up.
 * A frame is given out when what stands behind it bears it out, so that it waits for the four bytes
 * behind its end, unless `how` says that none are to be expected (FFD_STREAM_...).
 *
 * *bytes and *count are the bytes that have come, moved on as they are taken; when 0 is returned
 * *count is 0. Both pointers may be null, for none. Frames of another kind or bitrate are given out
 * as well: look at the header if it matters (ffd_frame_same_kind, ffd_frame_bitrate).
 */
static inline int ffd_frames_next(FFDFrames* frames, int how, uint8_t const** bytes, size_t* count,
                                  FFDFrame* frame) {
    for (;;) {
        uint8_t* held;
        uint32_t left;
        int state = how;
        int isFrame = FFD_FRAMES_NO;
        if (frames->dwEnd - frames->dwBegin < FFD_FRAMES_HELD / 2) {
            ffd_frames_hold(frames, bytes, count);
        }
        if (count && *count > 0) {
            state = FFD_STREAM_GOES_ON; /* and half of what can be held is enough to decide */
        }
        held = frames->abyHeld + frames->dwBegin;
        left = frames->dwEnd - frames->dwBegin;
        if (frames->dwSkip > 0 && left > 0) {
            uint32_t const skipped = left < frames->dwSkip ? left : frames->dwSkip;
            frames->dwSkip -= skipped;
            ffd_frames_drop(frames, skipped, &frames->ullTags);
            continue;
        }
        if (left < FFD_FRAME_HEADER_SIZE) {
            if (state == FFD_STREAM_ENDS) {
                ffd_frames_drop(frames, left, &frames->ullNoise);
            }
            return 0;
        }
        if (ffd_frame_is_usable(held)) {
            isFrame = ffd_frames_is_frame(frames, held, left, state);
        } else if (left < FFD_APE_HEADER_SIZE && state != FFD_STREAM_ENDS) {
            isFrame = FFD_FRAMES_WAIT; /* it may be a tag */
        } else {
            frames->dwSkip = ffd_frames_tag(frames, held, left);
        }
        if (isFrame == FFD_FRAMES_WAIT) {
            return 0;
        }
        if (isFrame == FFD_FRAMES_YES) {
            uint64_t given = 0;
            frame->pBytes = held;
            frame->dwLength = ffd_frame_length(held);
            frame->ullOffset = frames->ullOffset;
            frame->bInfo =
                ffd_is_info_frame(held) || (frames->ullFrames == 0 && ffd_frames_is_blank(held));
            ffd_frames_drop(frames, frame->dwLength, &given);
            frames->bBorder = 1;
            ++frames->ullFrames;
            return 1;
        }
        if (frames->dwSkip == 0) {
            ffd_frames_drop(frames, 1, &frames->ullNoise);
            frames->bBorder = 0;
        }
    }
}

/* ---- Borders of frames --------------------------------------------------------------------- */

/** Two borders of frames in a block of bytes. */
typedef struct FFDBorders {
    size_t before; /**< the last one at or before the position */
    size_t behind; /**< the first one at or behind it */
} FFDBorders;

/** So many bytes in front of a position and behind it are enough to find its borders in. */
#define FFD_BORDER_REACH 8192u

/**
 * The borders of frames around a position in a block of MP3 data, which may begin and end in the
 * middle of frames. Where no frame is found the ends of the block count as borders, so that what
 * stands at the ends of a dictation is right.
 */
static inline FFDBorders ffd_find_borders(uint8_t const* bytes, size_t count, size_t position) {
    FFDFrames frames;
    FFDFrame frame;
    FFDBorders borders;
    borders.before = 0;
    borders.behind = count;
    ffd_frames_begin(&frames);
    frames.bBorder = 0;
    while (ffd_frames_next(&frames, FFD_STREAM_ENDS, &bytes, &count, &frame)) {
        size_t const begin = (size_t)frame.ullOffset;
        size_t const end = begin + frame.dwLength;
        if (begin <= position) {
            borders.before = begin;
        }
        if (begin >= position) {
            borders.behind = begin;
            break;
        }
        if (end <= position) {
            borders.before = end;
        }
        if (end >= position) {
            borders.behind = end;
            break;
        }
    }
    return borders;
}

#ifdef __cplusplus
}
#endif

#endif
