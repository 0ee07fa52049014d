#include "Marker.h"

#include "console/Status.h"
#include "console/System.h"
#include "host/Beside.h"
#include "host/Bytes.h"
#include "host/DirMap.h"
#include "host/Tags.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <span>
#include <string_view>
#include <vector>

namespace ffdhost {

namespace {

constexpr size_t kMarkerSize = 552;
constexpr size_t kNameSize = 260;
constexpr size_t kFingerprintPiece = size_t{64} * 1024; // a multiple of the word of 8 bytes

uint32_t crc32(std::span<uint8_t const> bytes) {
    uint32_t crc = 0xFFFFFFFF;
    for (uint8_t const byte : bytes) {
        crc ^= byte;
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc & 1) != 0 ? crc >> 1 ^ 0xEDB88320 : crc >> 1;
        }
    }
    return ~crc;
}

uint64_t le64(uint8_t const* bytes) {
    return le32(bytes) | static_cast<uint64_t>(le32(bytes + 4)) << 32;
}

// A name that reaches out of the folder, or is none, gives an empty text.
std::string plain_name(uint8_t const* field) {
    uint8_t const* const end = std::find(field, field + kNameSize, uint8_t{0});
    std::string const name = from_driver(std::string(field, end));
    bool const plain = end != field + kNameSize && !name.empty() && name.rfind('.') != 0 &&
                       name.find_first_of(kNameSeparators) == std::string::npos;
    return plain ? name : "";
}

std::string stem_of(std::string const& name) {
    return name.substr(0, name.rfind('.'));
}

} // namespace

std::optional<uint64_t> size_of_file(std::filesystem::path const& path) {
    std::error_code error;
    auto const status = std::filesystem::status(path, error);
    if (status.type() == std::filesystem::file_type::not_found) {
        return std::nullopt;
    }
    uint64_t const size = std::filesystem::is_regular_file(status)
                              ? std::filesystem::file_size(path, error)
                              : uint64_t{0};
    if (error || !std::filesystem::is_regular_file(status)) {
        throw Failure("look at file", path.string(), FFD_FILE_IO_ERROR,
                      "it is no file, or it can't be looked at");
    }
    return size;
}

std::optional<Marker> read_marker(std::string const& soundFile) {
    Marker marker;
    marker.path = beside(soundFile, ".CLM");
    std::optional<uint64_t> const size = size_of_file(marker.path);
    if (!size) {
        return std::nullopt;
    }
    marker.size = *size;
    std::ifstream stream(marker.path, std::ios::binary);
    std::vector<uint8_t> const bytes = read_at(stream, 0, kMarkerSize);
    if (bytes.size() != std::min<uint64_t>(marker.size, kMarkerSize)) {
        throw Failure("read marker", marker.path.string(), FFD_FILE_IO_ERROR);
    }
    if (marker.size != kMarkerSize || std::memcmp(bytes.data(), "XKIVCLM1", 8) != 0 ||
        le32(&bytes[8]) != crc32(std::span(bytes).subspan(12))) {
        return marker;
    }
    std::string const sound = plain_name(&bytes[32]);
    std::string const rebuilt = plain_name(&bytes[32 + kNameSize]);
    std::string const stem = stem_of(marker.path.filename().string());
    if (sound.empty() || rebuilt.empty() || !same_file_name(stem_of(sound), stem)) {
        return marker;
    }
    marker.whole = true;
    marker.oldSize = le32(&bytes[12]);
    marker.newSize = le32(&bytes[16]);
    marker.newFingerprint = le64(&bytes[24]);
    marker.soundFile = std::filesystem::path(marker.path).replace_filename(sound);
    marker.rebuiltFile = std::filesystem::path(marker.path).replace_filename(rebuilt);
    return marker;
}

bool Marker::is_rebuilt(std::filesystem::path const& file, uint64_t fileSize) const {
    if (fileSize != newSize || newSize != oldSize) {
        return fileSize == newSize;
    }
    std::ifstream stream(file, std::ios::binary);
    uint64_t fingerprint = 0xCBF29CE484222325;
    for (uint64_t offset = 0; offset < fileSize; offset += kFingerprintPiece) {
        std::vector<uint8_t> piece = read_at(stream, offset, kFingerprintPiece);
        if (piece.size() != std::min<uint64_t>(kFingerprintPiece, fileSize - offset)) {
            throw Failure("read file", file.string(), FFD_FILE_IO_ERROR);
        }
        piece.resize((piece.size() + 7) / 8 * 8);
        for (size_t i = 0; i < piece.size(); i += 8) {
            fingerprint = (fingerprint ^ le64(&piece[i])) * 0x100000001B3;
            fingerprint ^= fingerprint >> 32;
        }
    }
    return fingerprint == newFingerprint;
}

} // namespace ffdhost
