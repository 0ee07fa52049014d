// What the fuzz targets share: their input as a stream of values, and MP3
// data. The driver runs over the disk in memory.
#pragma once

#include "testing/driver_calls.h"
#include "testing/memory_disk.h"

#include <cstddef>
#include <cstdint>
#include <string>

#define REQUIRE(condition) ((condition) ? void() : fuzz::fail(#condition, __FILE__, __LINE__))

namespace fuzz {

[[noreturn]] void fail(char const* pszCondition, char const* pszFile, int nLine);

// Hands the input out from its front; behind its end all values are 0.
class Input {
public:
    Input(uint8_t const* pbyData, size_t nBytes)
        : m_bytes(reinterpret_cast<char const*>(pbyData), nBytes) {}
    bool empty() const { return m_nNext == m_bytes.size(); }
    uint8_t byte() { return empty() ? uint8_t{0} : static_cast<uint8_t>(m_bytes[m_nNext++]); }
    uint32_t word() { return byte() | byte() * 256u; }
    std::string bytes(size_t nMost);

private:
    std::string m_bytes;
    size_t m_nNext = 0;
};

// MP3 data that no call has given before in this run: whole frames, bytes without a frame, and a
// tag of 30 bytes to stand in front of the frames.
constexpr uint32_t FRAME = 96;
std::string frames(unsigned nCount);
std::string noise(size_t nBytes);
std::string head();

// Brackets a run: no file is there, and at the end no handle, heap block, view or stored status.
void start();
void finish();

// Opens, and looks at what an open leaves: a handle, or a status.
FFDHandle open(std::string const& path, FFDDesiredAccess access, FFDError& status);

} // namespace fuzz
