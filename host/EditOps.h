// The operations of 'ffdhost edit' as the command line gives them.
#pragma once

#include "console/Position.h"

#include <string>
#include <vector>

namespace ffdhost {

struct EditOp {
    enum class Kind {
        Seek,
        Insert,
        Overwrite,
        Delete,
        Undo,
        Read,
        Show,
        Map,
        Crash,
        Store,
        Restore
    };

    Kind kind;
    std::string name;
    Position position; // of seek; the length of delete and read
    std::string path;  // the clip of insert and overwrite; the output of read

    bool takes_clip() const { return kind == Kind::Insert || kind == Kind::Overwrite; }
};

// Throws a Failure with FFD_INVALID_PARAMETER for an unknown operation, one without its arguments,
// or a bad number. Looks at no file.
std::vector<EditOp> parse_edit_ops(std::vector<std::string> const& tokens);

} // namespace ffdhost
