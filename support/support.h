// The commands 'check' and 'recover'.
#pragma once

#include "host/commands.h"

namespace ffdhost {

// The exit code is kExitFailed if something needs attention.
Outcome run_check(Driver const& driver, std::string const& file, bool json);

// `copy`: keeps what is there in a new folder first.
Outcome run_recover(Driver const& driver, std::string const& file, bool copy, bool json);

} // namespace ffdhost
