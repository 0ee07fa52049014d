// The commands of the program, a source file each. A command prints its result as text, or, with
// `json`, leaves the printing of its document to the caller. It throws a Failure if it comes to
// nothing.
#pragma once

#include "Beside.h"
#include "console/Output.h"
#include "console/Position.h"
#include "DirMap.h"
#include "InfoFrame.h"
#include "Recorder.h"
#include "StreamView.h"
#include "Tags.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace ffdhost {

struct Outcome {
    Json document;
    int exitCode = 0;
};

// The document is that of one file; the caller makes one of many.
Outcome run_info(Driver const& driver, std::string const& file, bool json);

struct ReadOptions {
    std::string from = "0";
    std::string length; // empty: up to the end
    std::string output; // empty: standard output
    bool force = false; // onto a file that has edits waiting, which are set aside
};
Outcome run_read(Driver const& driver, std::string const& file, ReadOptions const& options,
                 bool json);

// What an edit does beyond its operations on the driver; as it stands, the true thing.
struct EditOptions {
    bool force = false; // enters clips that do not fit, deletes all, and reads onto any file
    bool snap = false;  // positions and lengths go to the nearest border of frames
    // With a driver that only pretends: 'crash' does not end the process but the operations, with a
    // call of this in place of the close, and of the other in place of an output of so many bytes.
    std::function<void()> pretendedCrash;
    std::function<void(std::string const& path, uint64_t size)> pretendedOutput;
    DirReader readDirectory;
};

// `tokens` are the operations with their arguments, one behind the other.
Outcome run_edit(Driver const& driver, std::string const& file,
                 std::vector<std::string> const& tokens, EditOptions const& options, bool json);

struct RecordOptions {
    std::string at = "end";
    std::string length; // empty: as long as the stream goes on
    bool overwrite = false;
    bool create = false; // makes the file if there is none
    bool force = false;  // takes a stream that does not fit, makes a file that has edits waiting
    DirReader readDirectory;
};
// From standard input, until it ends or the program is to stop (let_stop_wait).
Outcome run_record(Driver const& driver, std::string const& file, RecordOptions const& options,
                   bool json);

struct SplitOptions {
    std::vector<std::string> at; // positions in order; +5s counts from the one in front
    std::string output;          // a folder, or how names begin; empty: as that of the file
    bool force = false;          // replaces files that are there
};
// The parts of a file, in whole frames and without its tags.
Outcome run_split(Driver const& driver, std::string const& file, SplitOptions const& options,
                  bool json);

// A file of the audio of others, one behind the other, without their tags. `force`: replaces it.
Outcome run_join(Driver const& driver, std::string const& output,
                 std::vector<std::string> const& files, bool force, bool json);

// ---- Shared by commands ------------------------------------------------------------------------

// Copies up to `size` bytes of the dictation from the position on to an output, piece by piece, and
// closes it. The result is the count of bytes written.
uint64_t copy_dictation(SoundFile& sound, uint64_t size, OutputFile& output);

// Gives a file that is whole its name. With `force`, what a crash has left for that name is set
// aside, but for what `source` has waiting.
void publish(OutputFile& output, std::string const& source, bool force, bool replace = true);

// What a command that makes files says when it is interrupted.
void tell_of_no_half_file();

// NOLINTNEXTLINE(bugprone-exception-escape): its members are moved without one
struct Recorded {
    Json result; // of what is in the dictation now
    std::optional<Failure> failure;
};
// Records standard input into an open file, with a status line. `begun` are bytes of the stream
// that have been read already. `name` is that of the file, which a failure may leave closed.
Recorded record_stream(SoundFile& sound, std::string const& name, RecorderOptions const& options,
                       std::span<std::byte const> begun = {});

// Throws a Failure if the driver would take a file of this name for one of its own, or if a crash
// has left edits, or an interrupted close, for it: the next open for writing would apply them to
// whatever is put there. Those of `file`, which is read, do not count.
void check_nothing_left(std::string const& operation, std::string const& output,
                        std::string const& file = {});
// Puts them out of the way, under names ending in .bad, where the user wants the file all the same.
void set_aside_what_is_left(std::string const& output, std::string const& file = {});

// Throws a Failure if `output` is `file` or its .DIR file, even one that is not there: writing it
// would destroy them, or what the next open would take for one. So does check_nothing_left(), but
// with `force`: publish() sets them aside.
void check_output(std::string const& operation, std::string const& output, std::string const& file,
                  bool force);

// Tells of the edits that an open for writing has just taken over, which are those that the .DIR
// file still has, and gives the count of their blocks.
size_t tell_edits_taken_over(std::filesystem::path const& dirFile, DirReader const& readDirectory,
                             bool json);

// Warns if a place that was asked for, at the position `here`, lies outside of the dictation.
void tell_place_beyond(std::string const& operation, Position const& asked, uint32_t here,
                       uint32_t length, uint32_t bytesPerSecond);

// What stands in front of the audio or behind it.
Json regions_json(Regions const& regions);
void print_regions(std::string const& name, Json const& regions);

} // namespace ffdhost
