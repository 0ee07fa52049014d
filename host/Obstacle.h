// What keeps a file from being opened. The driver has one status for all of it, FFD_FILE_IO_ERROR.
#pragma once

#include "console/Status.h"

#include <chrono>
#include <optional>
#include <string>

namespace ffdhost {

// How long, in all, opens wait from now on for files that other programs have in use. Gives what
// was left of the time before.
std::chrono::milliseconds set_patience(std::chrono::milliseconds patience);

// Waits until no other program has the sound file in use. False if the patience is at its end.
// Throws a Failure if the program is to stop.
bool await_free(std::string const& path);

// Why no sound file can be read there, whoever has it open; nothing if one can. The Failure is one
// of the operation.
std::optional<Failure> why_unreadable(std::string const& operation, std::string const& path);

// To be called when an open has failed, the first time or `again`. Comes back when a new try is
// worth it, and throws a Failure with the reason otherwise.
void wait_or_explain(std::string const& path, ffd::Access access, ffd::Error const& error,
                     bool again);

// Why a close has failed, and where what was edited is now.
Failure why_not_closed(std::string const& path, ffd::Error const& error);

} // namespace ffdhost
