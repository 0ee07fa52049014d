// The driver's own code, linked into this program over a disk that only pretends: what it would do
// can be seen, and nothing on the disk changes (platform/dry_platform.h).
#pragma once

#include "log/dry_log.h"

#include <ffd.hpp>

namespace ffdhost {

// Attached, with no patience for files in use (set_patience), with nothing changed yet and no file
// open. Only one is of use at a time.
class DryDriver {
public:
    DryDriver();
    // `listener` hears what the driver traces, as long as the object lives.
    explicit DryDriver(dry::Listener& listener);
    ~DryDriver();
    DryDriver(DryDriver const&) = delete;
    DryDriver& operator=(DryDriver const&) = delete;

    ffd::Driver const& driver() const { return m_driver; }

private:
    ffd::Driver m_driver;
    std::chrono::milliseconds m_patience;
};

} // namespace ffdhost
