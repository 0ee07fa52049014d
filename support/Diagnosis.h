// What is wrong with a sound file, and what the next open for writing makes of it. Found only by
// looking.
#pragma once

#include "console/Output.h"
#include "host/Tags.h"
#include "NextOpen.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace ffdhost {

struct Finding {
    bool attention; // or it is only worth knowing
    std::string code;
    std::string text;
    std::string advice;
};

struct Diagnosis {
    std::string file;
    NextOpen next;
    // What the driver that is loaded makes of the same file, if it was asked: the open for reading
    // of a file that nobody has open.
    std::optional<FFDError> readStatus;
    std::optional<uint64_t> readLength; // bytes, if that works
    Regions inFront;                    // of the audio
    Regions behind;
    std::vector<std::filesystem::path> copies; // rebuilt files of a close that failed, of any file
    std::vector<std::filesystem::path> setAside; // .DIR and .CLM files of this name
    std::vector<Finding> findings;               // the gravest first

    bool needs_attention() const;
    // Whether an open for writing and a close change anything but what every close changes.
    bool has_work() const;
    // The gravest finding, in one line.
    std::string verdict() const;
    std::string verdict_code() const; // of that finding, or "sound"
};

Diagnosis diagnose(Driver const& driver, std::string const& file);

// Writes what the walk has counted into the info frame that it has found, and the checksum that
// depends on it, with one write. Throws a Failure, with nothing changed, if another program has the
// file open or has edited it since the walk.
void mend_info_frame(std::string const& file, FrameWalk const& walk);

// Peculiarities of frames in words.
std::string difference_text(DifferentFrame const& frame);
std::string gap_text(FrameWalk const& walk); // only if there is a gap
std::string cut_text(CutFrame const& cut);

Json diagnosis_json(Diagnosis const& diagnosis);
void print_diagnosis(Diagnosis const& diagnosis);
// What the next open for writing and its close do.
void print_plan(NextOpen const& next);

} // namespace ffdhost
