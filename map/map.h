// The command 'map'.
#pragma once

#include "host/commands.h"

namespace ffdhost {

// `svg` names the file for a picture of the blocks, or is '-' for standard output. Empty: text.
Outcome run_map(Driver const& driver, std::string const& file, std::string const& svg, bool force,
                bool json);

} // namespace ffdhost
