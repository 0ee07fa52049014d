#include "SoundFile.h"

#include "Bytes.h"
#include "Status.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>
#include <utility>

namespace ffdhost {

namespace {

constexpr uint32_t kEnd = 0xFFFFFFFF; // a seek to it is cut down to the end

// Called by the driver in the middle of a write, on this thread.
void on_driver_message(void* /*hDriver*/, uint32_t message, uintptr_t user, uintptr_t parameter1,
                       uintptr_t /*parameter2*/) {
    auto const* const path = reinterpret_cast<std::string const*>(user);
    if (message == FIDM_DISKSPACE_WARNING) {
        // The parameter is a third of what is left above the need of the rebuild at close.
        std::fprintf(stderr,
                     "ffdhost: warning: %s: disk space is getting low, %" PRIu64
                     " bytes are left above what the close needs\n",
                     path->c_str(), static_cast<uint64_t>(parameter1) * 3);
    } else if (message == FIDM_OUT_OF_DISKSPACE) {
        std::fprintf(stderr,
                     "ffdhost: warning: %s: disk space is used up, the close may not find room to "
                     "rebuild the file; free some space now\n",
                     path->c_str());
    }
}

} // namespace

SoundFile::SoundFile(Driver const& driver, std::string path, Access access)
    : m_driver(driver), m_path(std::move(path)) {
    FFDCallbackParams callback{};
    callback.hDriver = const_cast<Driver*>(&driver); // any value but null; the driver hands it back
    callback.dwCallback = reinterpret_cast<uint64_t>(&on_driver_message);
    callback.dwUser = reinterpret_cast<uint64_t>(&m_path);
    FFDError status = FFD_NOERROR;
    m_handle = m_driver.create_file(m_path.c_str(),
                                    access == Access::Read ? FFD_ACCESS_READ : FFD_ACCESS_READWRITE,
                                    FFD_OPEN_EXISTING, nullptr, callback, &status, nullptr);
    check(access == Access::Read ? "open for reading" : "open for writing", status);
    if (m_handle == nullptr) {
        throw Failure("open", m_path, FFD_INTERNAL_ERROR);
    }
}

SoundFile::~SoundFile() {
    if (m_handle != nullptr) {
        m_driver.close(m_handle);
    }
}

void SoundFile::close() {
    check("close", m_driver.close(std::exchange(m_handle, nullptr)));
}

WaveFormat SoundFile::wave_format() {
    std::array<uint8_t, 30> block{};
    check("get format", m_driver.get_wfx(m_handle, block.data(), block.size()));
    WaveFormat const format{le16(&block[2]), le32(&block[4]), le32(&block[8]), le16(&block[24])};
    if (format.bytesPerSecond == 0) {
        throw Failure("get format", m_path, FFD_INTERNAL_ERROR, "the file has a bitrate of 0");
    }
    return format;
}

uint32_t SoundFile::file_size() {
    uint32_t size = 0;
    check("get file size", m_driver.get_dictation_file_size(m_handle, &size));
    return size;
}

uint32_t SoundFile::position() {
    uint32_t dictationPosition = 0;
    check("get position", m_driver.get_current_pos(m_handle, &dictationPosition));
    return dictationPosition;
}

uint32_t SoundFile::length() {
    // By a seek to the end: FFDGetSoundDataLength goes through whole milliseconds and loses bytes.
    uint32_t const before = position();
    uint32_t const end = seek(kEnd);
    seek(before);
    return end;
}

uint32_t SoundFile::seek(uint32_t dictationPosition) {
    uint32_t reached = 0;
    check("seek", m_driver.audio_seek(m_handle, dictationPosition, &reached));
    return reached;
}

std::vector<uint8_t> SoundFile::read(uint32_t size) {
    FFDReadHandle* readHandle = nullptr;
    check("read", m_driver.get_size_of_data(m_handle, size, &readHandle));
    std::vector<uint8_t> bytes(readHandle->RealSizeInBytes);
    if (bytes.empty()) {
        return bytes; // an empty dictation would answer a read of nothing with a failure
    }
    uint32_t const from = readHandle->RealStartPos;
    check("read",
          m_driver.read_data(m_handle, readHandle, readHandle->RealSizeInBytes, bytes.data()));
    bytes.resize(std::min<size_t>(position() - from, bytes.size()));
    return bytes;
}

void SoundFile::write(FFDMethod method, std::vector<uint8_t>& bytes) {
    check(method == FFD_METHOD_OVERWRITE ? "overwrite" : "insert",
          m_driver.write_data(m_handle, method, static_cast<uint32_t>(bytes.size()), bytes.data()));
}

void SoundFile::erase(uint32_t size) {
    check("delete", m_driver.delete_data(m_handle, size));
}

void SoundFile::undo() {
    check("undo", m_driver.undo_last(m_handle));
}

void SoundFile::store() {
    check("store", m_driver.store_actual_file_status(m_handle));
}

void SoundFile::restore() {
    check("restore", m_driver.restore_file_status(m_handle));
}

void SoundFile::check(std::string const& operation, FFDError status) const {
    if (status != FFD_NOERROR) {
        throw Failure(operation, m_path, status);
    }
}

} // namespace ffdhost
