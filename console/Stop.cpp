#include "Stop.h"

#include "System.h"

namespace ffdhost {

namespace {

int g_held = 0;         // objects that live
bool g_isNoted = false; // by let_stop_wait, whose caller sees to the stop

} // namespace

HeldStop::HeldStop() {
    if (g_held++ == 0) {
        g_isNoted = g_stopWaits.exchange(true);
    }
}

HeldStop::~HeldStop() {
    if (--g_held == 0 && !g_isNoted) {
        g_stopWaits = false;
        if (g_stopped) {
            end_by_stop();
        }
    }
}

bool HeldStop::is_wanted() const {
    return g_stopped && !g_isNoted;
}

} // namespace ffdhost
