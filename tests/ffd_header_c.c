/* Compiled as strict C11 and again as C++: a host can be written in either. */
#define FFD_LINKED
#include "ffd.h"

#include "ffd_frames.h"

#include <ffd.h> /* a second inclusion changes nothing */

FFD_ASSERT_LAYOUT(sizeof(FFDTable) == 24 * sizeof(void*));
FFD_ASSERT_LAYOUT(sizeof(FFDError) == 8 && FFD_TAG_VERSION_UNKNOWN == 42);

/* The arguments of an open and a read, as a C host writes them. */
FFDError ffd_header_read(FFDTable const* table, char const* path, uint8_t* bytes, uint32_t size);

FFDError ffd_header_read(FFDTable const* table, char const* path, uint8_t* bytes, uint32_t size) {
    FFDCallbackParams callback = {0, 0, 0, 0, 0};
    FFDReadHandle* readHandle = NULL;
    FFDError status = FFD_NOERROR;
    FFDHandle file;
    callback.hDriver = &callback;
    file =
        table->create_file(path, FFD_ACCESS_READ, FFD_OPEN_EXISTING, NULL, callback, &status, NULL);
    if (status == FFD_NOERROR) {
        status = table->get_size_of_data(file, size, &readHandle);
        if (status == FFD_NOERROR) {
            status = table->read_data(file, readHandle, size, bytes);
        }
        table->close(file);
    }
    return status;
}

/* The table of a linked driver, a callback's type, and the words of a status. */
char const* ffd_header_advice(FFDHandle file, FFDCallbackParams* callback, FFDCallbackProc target);

char const* ffd_header_advice(FFDHandle file, FFDCallbackParams* callback, FFDCallbackProc target) {
    callback->dwCallback = (uint64_t)(uintptr_t)target;
    return ffd_describe(FFD_Function_Table.undo_last(file)).szAdvice;
}
