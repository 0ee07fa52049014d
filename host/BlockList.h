// The blocks of a dictation as rows.
#pragma once

#include "DirMap.h"
#include "StreamView.h"

#include <optional>

namespace ffdhost {

// The blocks, where they lie and where they play, as a list that may end with what is left out.
// `view` places them in the file; without it their file offsets are not known.
Json map_json(DirMap const& map, std::optional<StreamView> const& view, uint32_t bytesPerSecond);
void print_map(Json const& blocks);

} // namespace ffdhost
