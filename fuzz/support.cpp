#include "fuzz/support.h"

#include "testing/sound_maker.h"

#include <cstdio>
#include <cstdlib>

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

std::string frames(unsigned nCount) {
    return ::frames(nCount, ++g_nSeed);
}

std::string noise(size_t nBytes) {
    return ::noise(nBytes, ++g_nSeed);
}

std::string head() {
    return id3v2_tag(30);
}

void start() {
    driver();
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
    FFDHandle const handle = open_sound(path, access, status);
    REQUIRE((handle == nullptr) == (status != FFD_NOERROR));
    return handle;
}

} // namespace fuzz
