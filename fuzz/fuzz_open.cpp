// Any bytes as an MP3 file: opened both ways, read, closed without an edit and with one.
#include "fuzz/support.h"

namespace {

std::string const SOUND = "/d/a.mp3";

// All that reads deliver, in pieces of so many bytes.
std::string read_all(FFDHandle handle, uint32_t nPiece) {
    std::string all;
    for (bool bMore = true; bMore;) {
        FFDError status = 0;
        std::string const piece = read_on(handle, nPiece, status);
        REQUIRE(status == FFD_NOERROR);
        all += piece;
        bMore = !piece.empty();
    }
    return all;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* pbyData, size_t nBytes) {
    fuzz::start();
    std::string const sound(reinterpret_cast<char const*>(pbyData), nBytes);
    memory_disk::put(SOUND, sound);
    FFDError status = 0;
    FFDHandle handle = fuzz::open(SOUND, FFD_ACCESS_READ, status);
    std::string audio;
    uint32_t nLength = 0;
    if (handle != nullptr) {
        audio = read_all(handle, 1000);
        nLength = seek(handle, 0xFFFFFFFF);
        // A last frame that the end of the file cuts short counts whole.
        REQUIRE(!audio.empty() && audio.size() <= nLength);
        REQUIRE(audio.size() == nLength ? sound.find(audio) != std::string::npos
                                        : sound.ends_with(audio));
        REQUIRE(driver().Close(handle) == FFD_NOERROR);
    }
    FFDError const statusOfReader = status;
    handle = fuzz::open(SOUND, FFD_ACCESS_READWRITE, status);
    REQUIRE(status == statusOfReader);
    if (handle != nullptr) {
        REQUIRE(seek(handle, 0xFFFFFFFF) == nLength && seek(handle, 0) == 0);
        REQUIRE(read_all(handle, 0x10000) == audio);
        REQUIRE(driver().Close(handle) == FFD_NOERROR);
        REQUIRE(memory_disk::get(SOUND) == sound);

        // Another frame in the middle: what stands in front of the audio and behind it stays.
        handle = fuzz::open(SOUND, FFD_ACCESS_READWRITE, status);
        seek(handle, nLength / 2);
        REQUIRE(write_at(handle, FFD_METHOD_INSERT, audio.substr(0, 4) + fuzz::noise(92)) == 0);
        REQUIRE(driver().Close(handle) == FFD_NOERROR);
        std::string const closed = memory_disk::get(SOUND);
        REQUIRE(closed.starts_with(sound.substr(0, sound.find(audio))));
        REQUIRE(closed.ends_with(sound.substr(sound.rfind(audio) + audio.size())));
    }
    fuzz::finish();
    return 0;
}
