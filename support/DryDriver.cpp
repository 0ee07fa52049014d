#include "DryDriver.h"

#include "host/Obstacle.h"
#include "platform/dry_platform.h"

#include <cstring>

// Of the driver that is linked in.
extern "C" void* FFD_Function_Table[FFD_SLOT_COUNT];

namespace ffdhost {

namespace {

ffd::Table attached_table() {
    static bool const attached = DllMain(nullptr, DLL_PROCESS_ATTACH, nullptr) != FALSE;
    ffd::Table table{};
    if (attached) {
        std::memcpy(&table, static_cast<void const*>(FFD_Function_Table), sizeof table);
    }
    return table;
}

} // namespace

DryDriver::DryDriver() : m_driver(attached_table()), m_patience(set_patience({})) {
    dry::start(dry::Disk::Real);
}

DryDriver::DryDriver(dry::Listener& listener) : DryDriver() {
    dry::listen(&listener);
}

DryDriver::~DryDriver() {
    dry::listen(nullptr);
    set_patience(m_patience);
}

} // namespace ffdhost
