// The printf formats of LogParam and LogValue.
//
// One conversion is honoured: % [-+ #0] [width] [.precision] then d, i, u, x, X or o, each with or
// without one `l` and always 32 bits wide; c; s; p or Fp. Width and precision are at most 255. What
// follows the first conversion is text. A conversion that is none of these reads no value, because
// its size cannot be known: the format comes out as it stands.
#pragma once

#include "log/line.h"

#include <cstdarg>

namespace xkivlog {

void append_formatted(Line& line, char const* format, va_list values);

} // namespace xkivlog
