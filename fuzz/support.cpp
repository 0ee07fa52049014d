#include "fuzz/support.h"

#include <cstdio>
#include <cstdlib>
#include <memory>

// The driver's large blocks come and go all the time: giving them back to the system costs more
// than the runs do.
extern "C" char const* __asan_default_options() {
    return "allocator_release_to_os_interval_ms=-1:quarantine_size_mb=4";
}

namespace fuzz {
namespace {

unsigned g_nSeed = 0;

} // namespace

void fail(char const* pszCondition, char const* pszFile, int nLine) {
    fprintf(stderr, "%s:%d: does not hold: %s\n", pszFile, nLine, pszCondition);
    abort();
}

std::string Input::bytes(size_t nMost) {
    std::string taken = m_bytes.substr(m_nNext, nMost);
    m_nNext += taken.size();
    return taken;
}

std::string noise(size_t nBytes) {
    std::string bytes(nBytes, '\0');
    uint32_t nState = ++g_nSeed * 2654435761u;
    for (char& byte : bytes) {
        nState = nState * 1664525 + 1013904223;
        byte = static_cast<char>(nState >> 25); // below 0x80: no frame begins here
    }
    return bytes;
}

std::string frames(unsigned nCount) {
    std::string bytes;
    for (; nCount > 0; --nCount) {
        bytes += "\xFF\xF3\x44\xC0" + noise(FRAME - 4);
    }
    return bytes;
}

std::string head() {
    return std::string("ID3\3\0\0\0\0\0\x14", 10) + noise(20);
}

std::string tag() {
    return "TAG" + noise(125);
}

void start() {
    static BOOL const bAttached = DllMain(nullptr, DLL_PROCESS_ATTACH, nullptr);
    REQUIRE(bAttached);
    memory_disk::begin();
    g_nSeed = 0;
}

void finish() {
    REQUIRE(dry::open_handles() == 0);
    REQUIRE(dry::mapped_views() == 0);
    for (std::string const& name : dry::names()) {
        REQUIRE(!name.ends_with(".csf"));
    }
}

FFDHandle open(std::string const& path, FFDDesiredAccess access, FFDError& status) {
    FFDCallbackParams callback = {};
    callback.hDriver = &callback;
    status = 0xDEADDEADDEADDEAD;
    FFDHandle const handle = slot<FFDCreateFileProc>(FFD_SLOT_CREATE_FILE)(
        path.c_str(), access, FFD_OPEN_EXISTING, nullptr, callback, &status, nullptr);
    REQUIRE((handle == nullptr) == (status != FFD_NOERROR));
    return handle;
}

FFDError close(FFDHandle handle) {
    return call(handle, FFD_SLOT_CLOSE);
}

uint32_t seek(FFDHandle handle, uint32_t position) {
    uint32_t nReached = 0;
    REQUIRE(slot<FFDAudioSeekProc>(FFD_SLOT_AUDIO_SEEK)(handle, position, &nReached) == 0);
    return nReached;
}

uint32_t position(FFDHandle handle) {
    uint32_t nPosition = 0;
    REQUIRE(slot<FFDGetCurrentPosProc>(FFD_SLOT_GET_CURRENT_POS)(handle, &nPosition) == 0);
    return nPosition;
}

uint32_t length(FFDHandle handle) {
    return seek(handle, 0xFFFFFFFF);
}

std::string read(FFDHandle handle, uint32_t nBytes, FFDError& status) {
    uint32_t const nBefore = position(handle);
    FFDReadHandle* pRead = nullptr;
    REQUIRE(slot<FFDGetSizeOfDataProc>(FFD_SLOT_GET_SIZE_OF_DATA)(handle, nBytes, &pRead) == 0);
    uint32_t const nSize = pRead->RealSizeInBytes;
    REQUIRE(nSize <= nBytes && pRead->RealStartPos == nBefore);
    std::unique_ptr<uint8_t[]> const buffer(new uint8_t[nSize]);
    status = slot<FFDReadDataProc>(FFD_SLOT_READ_DATA)(handle, pRead, nSize, buffer.get());
    uint32_t const nRead = position(handle) - nBefore;
    REQUIRE(nRead <= nSize);
    return {reinterpret_cast<char const*>(buffer.get()), nRead};
}

FFDError write(FFDHandle handle, FFDMethod method, std::string bytes) {
    bytes.shrink_to_fit();
    return slot<FFDWriteDataProc>(FFD_SLOT_WRITE_DATA)(handle, method,
                                                       static_cast<uint32_t>(bytes.size()),
                                                       reinterpret_cast<uint8_t*>(bytes.data()));
}

FFDError erase(FFDHandle handle, uint32_t nBytes) {
    return slot<FFDDeleteDataProc>(FFD_SLOT_DELETE_DATA)(handle, nBytes);
}

FFDError call(FFDHandle handle, int nSlot) {
    return slot<FFDCloseProc>(nSlot)(handle);
}

} // namespace fuzz
