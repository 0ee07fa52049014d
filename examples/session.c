/*
 * session DRIVER SOUND CLIP: takes the MP3 stream of CLIP as it would come from an encoder, inserts
 * its frames into SOUND after the first second, deletes two seconds behind them, takes the deletion
 * back, and closes. All cuts lie between frames. Plain C11, ffd.h and ffd_frames.h, on Linux and on
 * Windows:
 *
 *     gcc -std=c11 -I include -o session examples/session.c
 *     ./session build/libxkivmp3.so letter.mp3 addition.mp3
 */
#include "ffd.h"
#include "ffd_frames.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#ifdef _WIN32
#include <windows.h>
static void* load_symbol(char const* library, char const* name) {
    char
        path[MAX_PATH]; /* whole, so that the driver's own folder is searched for its log library */
    DWORD const length = GetFullPathNameA(library, sizeof path, path, NULL);
    HMODULE const module = length > 0 && length < sizeof path
                               ? LoadLibraryExA(path, NULL, LOAD_WITH_ALTERED_SEARCH_PATH)
                               : NULL;
    return module ? (void*)GetProcAddress(module, name) : NULL;
}
#else
#include <dlfcn.h>
static void* load_symbol(char const* library, char const* name) {
    void* const handle = dlopen(library, RTLD_NOW | RTLD_LOCAL);
    return handle ? dlsym(handle, name) : NULL;
}
#endif

static FFDTable const* table;

/* For brevity a failure ends the program without a close: as after a crash, the next open for
 * writing finds the edits that were made. */
static void check(char const* what, FFDError status) {
    if (status != FFD_NOERROR) {
        FFDStatusText const text = ffd_describe(status);
        fprintf(stderr, "%s: %s (%s). %s\n", what, text.szMeaning, text.szName, text.szAdvice);
        exit(1);
    }
}

static FFDHandle open_sound(char const* path) {
    static int self; /* hDriver must not be null; no callback, so no messages about disk space */
    FFDCallbackParams const callback = {.hDriver = &self};
    FFDError status = FFD_NOERROR;
    FFDHandle const sound = table->create_file(path, FFD_ACCESS_READWRITE, FFD_OPEN_EXISTING, NULL,
                                               callback, &status, NULL);
    check(path, status);
    return sound;
}

static uint32_t seek(FFDHandle sound, uint32_t position) {
    uint32_t reached = 0;
    check("seek", table->audio_seek(sound, position, &reached));
    return reached;
}

/* A seek beyond the end stops there. */
static void show_length(char const* what, FFDHandle sound) {
    uint32_t position = 0;
    check("position", table->get_current_pos(sound, &position));
    printf("%-9s%u bytes\n", what, (unsigned)seek(sound, UINT32_MAX));
    seek(sound, position);
}

/* The last border of frames at or before a position. Leaves the position. */
static uint32_t border(FFDHandle sound, uint32_t position) {
    static uint8_t block[2 * FFD_BORDER_REACH];
    uint32_t kept = 0;
    check("position", table->get_current_pos(sound, &kept));
    position = seek(sound, position);
    uint32_t const begin =
        seek(sound, position > FFD_BORDER_REACH ? position - FFD_BORDER_REACH : 0);
    FFDReadHandle* range = NULL;
    check("size", table->get_size_of_data(sound, sizeof block, &range));
    check("read", table->read_data(sound, range, sizeof block, block));
    FFDBorders const borders = ffd_find_borders(block, range->RealSizeInBytes, position - begin);
    seek(sound, kept);
    return begin + (uint32_t)borders.before;
}

/* Hands out what waits, as one write: each goes to the disk at once. */
static uint32_t insert_waiting(FFDHandle sound, uint8_t* waiting, uint32_t size) {
    check("insert", table->write_data(sound, FFD_METHOD_INSERT, size, waiting));
    return 0;
}

/* Enters the frames of a stream, which comes in pieces, without its tags and info frame. A recorder
 * would not wait for 64 KiB only, but half a second at most. */
static void insert_stream(FFDHandle sound, char const* path) {
    static uint8_t waiting[65536];
    static FFDFrames frames;
    FILE* const stream = fopen(path, "rb");
    uint32_t size = 0;
    int how = FFD_STREAM_GOES_ON;
    check(path, stream ? FFD_NOERROR : FFD_FILE_NOT_FOUND);
    ffd_frames_begin(&frames);
    while (how == FFD_STREAM_GOES_ON) {
        uint8_t piece[4096];
        uint8_t const* next = piece;
        size_t count = fread(piece, 1, sizeof piece, stream);
        FFDFrame frame;
        how = count > 0 ? FFD_STREAM_GOES_ON : FFD_STREAM_ENDS;
        while (ffd_frames_next(&frames, how, &next, &count, &frame)) {
            if (size + frame.dwLength > sizeof waiting) {
                size = insert_waiting(sound, waiting, size);
            }
            if (!frame.bInfo) {
                memcpy(waiting + size, frame.pBytes, frame.dwLength);
                size += frame.dwLength;
            }
        }
    }
    fclose(stream);
    insert_waiting(sound, waiting, size);
}

int main(int argc, char** argv) {
    if (argc != 4) {
        fprintf(stderr, "usage: session DRIVER SOUND CLIP\n");
        return 2;
    }
    table = load_symbol(argv[1], FFD_TABLE_SYMBOL);
    if (table == NULL) {
        fprintf(stderr, "%s: cannot be loaded\n", argv[1]);
        return 1;
    }

    FFDHandle const sound = open_sound(argv[2]);
    uint8_t format[30];
    uint32_t bytesPerSecond;
    check("format", table->get_wfx(sound, format, sizeof format));
    memcpy(&bytesPerSecond, format + 8, sizeof bytesPerSecond); /* nAvgBytesPerSec */
    show_length("opened", sound);

    seek(sound, border(sound, bytesPerSecond));
    insert_stream(sound, argv[3]);
    show_length("inserted", sound);
    uint32_t position = 0;
    check("position", table->get_current_pos(sound, &position));
    uint32_t const end = border(sound, position + 2 * bytesPerSecond);
    check("delete", table->delete_data(sound, end - position));
    show_length("deleted", sound);
    check("undo", table->undo_last(sound));
    show_length("undone", sound);
    check("close", table->close(sound));
    return 0;
}
