// The commands 'check' and 'recover', and 'edit --dry-run'.
#pragma once

#include "host/commands.h"

namespace ffdhost {

// run_edit on a disk that only pretends: its result, and the changes that the disk would have seen,
// with those of keep_backup if there is to be a `backup`. The options that this takes are set here.
Outcome run_dry_edit(std::string const& file, std::vector<std::string> const& tokens,
                     EditOptions options, bool backup, bool json);

// The document is that of one file. The exit code is kExitFailed if something needs attention.
Outcome run_check(Driver const& driver, std::string const& file, bool json);

struct RecoverOptions {
    bool copy = false;      // keeps what is there in a new folder first
    bool infoFrame = false; // corrects the info frame, in place, and does nothing else
};
Outcome run_recover(Driver const& driver, std::string const& file, RecoverOptions const& options,
                    bool json);

// A copy of the file and of what a crash has left beside it, as 'recover --copy' makes it, before
// anything is changed. Throws a Failure if it can't be made.
void keep_backup(std::string const& file, bool json);
// The names of what it copies, as far as they are there. Throws the same.
std::vector<std::string> names_to_keep(std::string const& file);

// The MP3 files of a folder, in order of their names, and those that are missing beside a .DIR file
// or a close marker of theirs. Throws a Failure if the folder can't be read.
std::vector<std::string> sound_files_in(std::string const& folder);

} // namespace ffdhost
