// What the fuzz targets share: their input as a stream of values, MP3 data, and the slots of the
// driver, which runs over the platform layer in memory.
#pragma once

#include "ffd.h"
#include "testing/memory_disk.h"

#include <cstddef>
#include <cstdint>
#include <string>

extern "C" void* FFD_Function_Table[24];

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

// Whole frames of 96 bytes, 4000 bytes per second, none like another; bytes without any frame; a
// tag of 30 bytes to stand in front of the frames, and one of 128 bytes to stand behind them.
constexpr uint32_t FRAME = 96;
std::string frames(unsigned nCount);
std::string noise(size_t nBytes);
std::string head();
std::string tag();

// Brackets a run: no file is there, and at the end no handle, heap block, view or stored status.
void start();
void finish();

template <typename Proc> Proc slot(int nSlot) {
    return reinterpret_cast<Proc>(FFD_Function_Table[nSlot]);
}

FFDHandle open(std::string const& path, FFDDesiredAccess access, FFDError& status);
FFDError close(FFDHandle handle);
uint32_t seek(FFDHandle handle, uint32_t position);
uint32_t position(FFDHandle handle);
uint32_t length(FFDHandle handle); // moves the position to the end

// What one read of so many bytes delivers. Cut down to what is left, as the driver does it.
std::string read(FFDHandle handle, uint32_t nBytes, FFDError& status);

FFDError write(FFDHandle handle, FFDMethod method, std::string bytes);
FFDError erase(FFDHandle handle, uint32_t nBytes);
FFDError call(FFDHandle handle, int nSlot); // a slot without arguments

} // namespace fuzz
