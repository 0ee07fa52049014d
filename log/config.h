// The state of the log in this process: what decides, how much passes, and where it goes.
//
// The environment variable XKIVLOG is read once, at the first call of any kind. If it is set and
// not empty, only it decides; otherwise the initialisation file of the last LogInit does.
#pragma once

#include "log/settings.h"

namespace xkivlog {

// The highest level that is written, as a number. Starts at the top, so that the first call, which
// may come before LogInit and before any constructor, takes the slow path and finds out. Read and
// written only with the atomic builtins: the entry points that hold a variable argument list are
// compiled without floating point registers, and std::atomic cannot be inlined into those.
extern int gate;

// Reads the environment unless that has been done.
void ensure_configured();

// Takes the settings of an initialisation file, unless the environment decides or the file is the
// one already read. Null and "" leave everything as it is.
void use_ini(char const* path);

// The descriptor that takes the lines, or -1.
int destination();

// Turns the log off because nobody reads what goes to its descriptor, until an initialisation file
// names another place.
void give_up();

} // namespace xkivlog
