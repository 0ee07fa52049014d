// A small MP3 file beside whatever .DIR file and marker the input holds, then a short session. What
// the .DIR file says after each edit is compared with what reads deliver.
#include "fuzz/support.h"
#include "testing/dictation.h"
#include "testing/sound_maker.h"

namespace {

std::string const SOUND = "/d/a.mp3";
std::string const DIRECTORY = "/d/a.DIR";
std::string const MARKER = "/d/a.CLM";
std::string const REBUILT = "/d/1.MP3";
constexpr uint32_t AUDIO = 8 * fuzz::FRAME;

std::string directory(fuzz::Input& input, unsigned nKind) {
    unsigned const nCount = input.byte();
    std::string image;
    if (nKind % 2 == 0) {
        image = input.bytes(nCount);
    } else {
        uint32_t const anStatus[] = {1, 1, 3, 11};
        for (unsigned nEntry = 0; nEntry < nCount && !input.empty(); ++nEntry) {
            uint32_t const nStatus = anStatus[input.byte() % 4];
            uint32_t const nStartpos = input.word();
            image += little_endian(nStatus) + little_endian(nStartpos) +
                     little_endian(nStartpos + input.word());
        }
    }
    image.resize(nKind < 2 ? image.size() : 65536);
    return image;
}

// A marker as a close writes it, with sizes and names of the input.
std::string marker(fuzz::Input& input) {
    uint32_t const anSizes[] = {AUDIO, 30 + AUDIO, 30 + AUDIO + 128, input.word()};
    std::string record =
        little_endian(anSizes[input.byte() % 4]) + little_endian(anSizes[input.byte() % 4]);
    record.resize(8 + 12); // a reserved word, and a fingerprint that no file has
    for (std::string name : {"a.mp3", "1.MP3"}) {
        name = input.byte() % 4 != 0 ? name : input.bytes(8);
        name.resize(260);
        record += name;
    }
    uint32_t nCrc = 0xFFFFFFFF;
    for (char const byte : record) {
        nCrc ^= static_cast<uint8_t>(byte);
        for (int nBit = 0; nBit < 8; ++nBit) {
            nCrc = nCrc >> 1 ^ (nCrc % 2 == 0 ? 0 : 0xEDB88320);
        }
    }
    return "XKIVCLM1" + little_endian(~nCrc) + record;
}

// Reads the whole dictation, and compares it with what the .DIR file says after a flush.
void check(FFDHandle handle) {
    std::string const image = memory_disk::get(DIRECTORY);
    std::optional<Dictation> const flushed = dictation_of(image);
    REQUIRE(flushed.has_value());
    size_t const nEnd = flushed->runs.size() * 12;
    REQUIRE(image.substr(nEnd) == std::string(image.size() - nEnd, '\0'));
    std::string const expected = flushed->bytes(memory_disk::get(SOUND).substr(30));
    uint32_t const nLength = flushed->length();
    uint32_t const nPosition = position(handle);
    REQUIRE(seek(handle, 0xFFFFFFFF) == nLength && nPosition <= nLength);
    seek(handle, 0);
    FFDError status = 0;
    uint32_t const nMore = static_cast<uint32_t>(expected.size()) + 16;
    REQUIRE(read_on(handle, nMore, status) == expected);
    REQUIRE(status == FFD_NOERROR || nLength == 0);
    seek(handle, nPosition);
}

void step(FFDHandle handle, fuzz::Input& input) {
    FFDError status = 0;
    bool bFlushed = false;
    unsigned const nAction = input.byte();
    switch (nAction % 8) {
    case 0:
        seek(handle, input.word() * (nAction < 128 ? 1 : 0x10001));
        break;
    case 1:
        read_on(handle, input.word(), status);
        REQUIRE(status == FFD_NOERROR || seek(handle, 0xFFFFFFFF) == 0);
        break;
    case 2:
    case 3:
        status = write_at(handle, nAction % 8 - 1,
                          nAction < 128 ? fuzz::frames(1) : fuzz::noise(1 + input.byte()));
        bFlushed = true;
        break;
    case 4:
        status = driver().DeleteData(handle, input.word());
        bFlushed = true;
        break;
    case 5:
        status = driver().UndoLast(handle);
        bFlushed = status == FFD_NOERROR;
        REQUIRE(bFlushed || status == FFD_NOTHING_TO_UNDO);
        break;
    case 6:
        REQUIRE(driver().StoreActualFileStatus(handle) == FFD_NOERROR);
        break;
    default:
        status = driver().RestoreFileStatus(handle);
        REQUIRE(status == FFD_NOERROR || status == FFD_NO_STORED_FILE_STATUS);
    }
    if (bFlushed) {
        REQUIRE(status == FFD_NOERROR);
        check(handle);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* pbyData, size_t nBytes) {
    fuzz::start();
    fuzz::Input input(pbyData, nBytes);
    unsigned const nFlags = input.byte();
    bool const bMarker = (nFlags & 16) != 0;
    std::string const head = fuzz::head();
    std::string const tag = (nFlags & 4) != 0 ? id3v1_tag() : "";
    std::string const sound = head + fuzz::frames(8) + tag + fuzz::frames(nFlags / 8 % 2 * 3);
    std::string const image = directory(input, nFlags % 4);
    memory_disk::put(DIRECTORY, image);
    bool bSound = true;
    std::string planted;
    if (bMarker) {
        planted = (nFlags & 32) != 0 ? input.bytes(16) : marker(input);
        memory_disk::put(MARKER, planted);
        bSound = (nFlags & 64) != 0;
        if ((nFlags & 128) != 0) {
            memory_disk::put(REBUILT, head + fuzz::frames(8) + tag);
        }
    }
    if (bSound) {
        memory_disk::put(SOUND, sound);
    }

    FFDError status = 0;
    FFDHandle const handle = fuzz::open(SOUND, FFD_ACCESS_READWRITE, status);
    REQUIRE(!bSound || memory_disk::get(SOUND) == sound);
    REQUIRE(bSound || memory_disk::has(SOUND) || memory_disk::has(REBUILT) || (nFlags & 128) == 0);
    REQUIRE(handle != nullptr || (bMarker && status == FFD_FILE_IO_ERROR));
    bool const bAdopted =
        bMarker || (nFlags & 8) != 0 || !(memory_disk::has(DIRECTORY + ".bad") || image[0] == 0);
    if (handle != nullptr) {
        while (!input.empty()) {
            step(handle, input);
        }
        REQUIRE(driver().Close(handle) == FFD_NOERROR);
        REQUIRE(!memory_disk::has(DIRECTORY));
        REQUIRE(!memory_disk::has(MARKER) || memory_disk::get(MARKER) == planted); // foreign
        std::string const closed = memory_disk::get(SOUND);
        REQUIRE(closed.starts_with(head));
        REQUIRE(bAdopted || closed.ends_with(tag));
        FFDHandle const again = fuzz::open(SOUND, FFD_ACCESS_READ, status);
        // The last frame of a file that was cut stays cut, and with what follows it may look like
        // one of another bitrate.
        REQUIRE(again != nullptr || status == FFD_NO_MORE_FRAMES || status == FFD_NOT_SUPPORTED ||
                closed == head);
        REQUIRE(again == nullptr || driver().Close(again) == FFD_NOERROR);
    }
    fuzz::finish();
    return 0;
}
