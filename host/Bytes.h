// Little-endian fields of formats that cross the boundary or lie on the disk.
#pragma once

#include <cstdint>

namespace ffdhost {

inline uint16_t le16(uint8_t const* bytes) {
    return static_cast<uint16_t>(bytes[0] | bytes[1] << 8);
}

inline uint32_t le32(uint8_t const* bytes) {
    return le16(bytes) | static_cast<uint32_t>(le16(bytes + 2)) << 16;
}

} // namespace ffdhost
