#include "DirMap.h"

namespace ffdhost {

char const* state_text(BlockState state) {
    switch (state) {
    case BlockState::Live:
        return "live";
    case BlockState::Deleted:
        return "deleted";
    case BlockState::DeletedUndoable:
        return "deleted, undoable";
    }
    return "";
}

DirMap one_block(uint32_t audioLength) {
    return {{{BlockState::Live, 0, audioLength, 0}}, audioLength};
}

} // namespace ffdhost
