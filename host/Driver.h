// The driver as the host sees it: a library with one table.
#pragma once

#include "System.h"

#include <ffd.h>

namespace ffdhost {

// The loaded driver, its slots by name and type. It must outlive every open file: unloading the
// driver closes nothing.
class Driver {
public:
    // Loads the driver; an empty path means the one beside this program. Throws a Failure of the
    // operation "load driver".
    explicit Driver(std::filesystem::path const& path);

    // The slots that this host has a use for.
    FFDCreateFileProc create_file;
    FFDCloseProc close;
    FFDGetDictationFileSizeProc get_dictation_file_size;
    FFDGetWfxProc get_wfx;
    FFDGetCurrentPosProc get_current_pos;
    FFDAudioSeekProc audio_seek;
    FFDGetSizeOfDataProc get_size_of_data;
    FFDReadDataProc read_data;
    FFDWriteDataProc write_data;
    FFDDeleteDataProc delete_data;
    FFDUndoLastProc undo_last;
    FFDStoreActualFileStatusProc store_actual_file_status;
    FFDRestoreFileStatusProc restore_file_status;

private:
    Library m_library;
};

} // namespace ffdhost
