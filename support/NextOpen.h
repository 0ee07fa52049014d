// What the next open for writing of a sound file, and the close after it, will do with what is on
// the disk. Found by letting the driver do it on a disk that only pretends: nothing is made,
// written, renamed or removed.
#pragma once

#include "FrameWalk.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace ffdhost {

// A change of a name on the disk.
struct Step {
    enum class Action { Remove, Rename };

    Action action;
    std::filesystem::path file;
    std::filesystem::path newName; // of a rename
    std::string reason;            // in the words of the driver's trace
};

enum class DirState {
    None,
    Empty,    // holds no entry, and is taken for new
    Taken,    // the edits in it are taken over as they stand
    Repaired, // the same, with one block fitted to what the file holds
    Damaged,  // set aside, for the reason in the step
    Hidden,   // may not be read
    Gone      // removed or set aside with an interrupted close
};

// The close marker beside the file.
struct Marker {
    std::filesystem::path path;
    uint64_t size; // bytes
    // Whether the open settles the close that it records. Otherwise it records none that is in the
    // way, or the open sets it aside or removes it.
    bool settled;
    bool goes; // the open removes or renames it
};

// A range of the file that a close leaves: bytes of a file as it is now, or new ones.
struct Part {
    std::string file;    // its present name; empty for new bytes
    uint64_t fileOffset; // in it
    uint64_t size;
    std::vector<uint8_t> bytes; // new ones, if they are few
};

// The file that a close leaves.
struct ClosedFile {
    FFDError status = FFD_NOERROR; // of an open of it
    std::string reason;            // if that fails
    uint64_t size = 0;             // bytes
    uint64_t dictationLength = 0;
    uint32_t bytesPerSecond = 0;
    std::vector<Part> parts; // at most kMostRows
    uint64_t moreParts = 0;
};

struct NextClose {
    FFDError status = FFD_NOERROR;
    bool rebuilds = false;
    std::string reason;       // why it does
    uint64_t freeBytes = 0;   // on the disk
    uint64_t neededBytes = 0; // by a rebuild
    ClosedFile after;         // of a close that works: if only space is missing, with that space
};

struct NextOpen {
    FFDError status = FFD_NOERROR; // of the open
    std::string reason;            // if it fails
    bool inUse = false;            // it fails since another program has the file, or its .DIR file
    // It fails since this user may not write. What is told of directory, marker and frames is what
    // it would be with permission.
    bool forbidden = false;
    std::vector<Step> steps; // in order; also those before a failure
    std::optional<Marker> marker;
    DirState directory = DirState::None;
    uint64_t directorySize = 0; // bytes of the .DIR file as it is now
    std::string directoryFault; // why it is damaged
    std::string repair;         // what becomes of the block that is fitted
    // The present name of the file that will have the name of the sound file then, its bytes, and
    // its frames as far as the open comes. Nothing if there will be none, or it can't be read.
    std::string soundNow;
    std::optional<FrameWalk> walk;
    // Every file of the disk that the open or its close writes to, renames or removes, by its name
    // now, without the folder.
    std::vector<std::string> touched;

    // All below only if the open works.
    uint64_t dictationLength = 0; // bytes
    uint32_t bytesPerSecond = 0;
    // Bytes that entries of the directory name, and that the file does not hold.
    uint64_t missingBytes = 0;
    // Bytes of the audio that no entry names, and that the closed file does not have either.
    uint64_t unnamedBytes = 0;
    NextClose close;
};

// Throws a Failure if something can't be read.
NextOpen foretell_open(std::string const& soundFile);

} // namespace ffdhost
