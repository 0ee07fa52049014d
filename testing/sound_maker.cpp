#include "testing/sound_maker.h"

#include <cstdint>

std::string noise(size_t nBytes, unsigned nSeed) {
    std::string bytes(nBytes, '\0');
    uint32_t nState = nSeed * 2654435761u + 12345;
    for (char& byte : bytes) {
        nState = nState * 1664525 + 1013904223;
        byte = static_cast<char>(nState >> 24 == 0xFF ? 0x55 : nState >> 24);
    }
    return bytes;
}

std::string frames(unsigned nCount, unsigned nSeed) {
    std::string bytes;
    for (unsigned nFrame = 0; nFrame < nCount; ++nFrame) {
        bytes += std::string("\xFF\xF3\x44\xC0", 4) + noise(92, nSeed * 100003 + nFrame);
    }
    return bytes;
}

std::string thousand_bytes() {
    std::string const all = frames(10, 7);
    return all.substr(0, 864) + noise(40, 8) + all.substr(864);
}

std::string id3v2_tag(size_t nBytes) {
    size_t const nSize = nBytes - 10;
    char const header[10] = {'I',
                             'D',
                             '3',
                             3,
                             0,
                             0,
                             static_cast<char>(nSize >> 21 & 0x7F),
                             static_cast<char>(nSize >> 14 & 0x7F),
                             static_cast<char>(nSize >> 7 & 0x7F),
                             static_cast<char>(nSize & 0x7F)};
    return std::string(header, 10) + noise(nSize, 99);
}

std::string id3v1_tag() {
    return "TAG" + noise(125, 77);
}
