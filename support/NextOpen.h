// What the next open for writing of a sound file, and the close behind it, will do with what is on
// the disk. Found by looking alone: nothing is opened for writing, made, renamed or removed.
#pragma once

#include "FrameWalk.h"
#include "host/DirMap.h"
#include "Marker.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace ffdhost {

// A change on the disk.
struct Step {
    enum class Action { Remove, Rename };

    Action action;
    std::filesystem::path file;
    std::filesystem::path newName; // of a rename
    std::string reason;
};

enum class DirState {
    None,
    Empty,    // holds no entry, and is taken for new
    Taken,    // the edits in it are taken over as they stand
    Repaired, // the same, with one block fitted to what the file holds
    Damaged,  // set aside, for the reason in the step
    Gone      // removed or set aside with an interrupted close
};

struct NextClose {
    bool rebuilds = false;
    std::string reason;     // why it does
    uint64_t freeBytes = 0; // on the disk; a rebuild needs as many as the sound file has
    FFDError status = FFD_NOERROR;
    // The frames of the file that a close which works leaves.
    FrameWalk after;
};

struct NextOpen {
    FFDError status = FFD_NOERROR; // of the open
    std::string reason;            // if it fails
    std::vector<Step> steps;       // in order; also those in front of a failure
    std::optional<Marker> marker;
    DirState directory = DirState::None;
    uint64_t directorySize = 0; // bytes of the .DIR file as it is now
    std::string directoryFault; // why it is damaged
    std::string repair;         // what becomes of the block that is fitted
    // The frames of the file that will have the name of the sound file then. Nothing if there will
    // be none.
    std::optional<FrameWalk> walk;

    // All below only if the open works.
    DirMap map; // as repaired
    // Bytes that entries of the directory name, and that the file does not hold.
    uint64_t missingBytes = 0;
    // Bytes of the file that no entry names, except what stands behind the audio of the last clean
    // close. A rebuild leaves them out.
    uint64_t unnamedBytes = 0;
    NextClose close;

    // Whether the rebuild takes bytes out of the file that nobody has deleted.
    bool drops_audio() const { return close.rebuilds && unnamedBytes > 0; }
};

// Throws a Failure if something can't be read.
NextOpen predict_open(std::string const& soundFile);

} // namespace ffdhost
