// The one place of the host that writes into a sound file without an edit: the counts of its info
// frame, in place.
#define KIV_PLATFORM_OWN_CALLS // the disk, and not the one that only pretends
#include "platform/platform.h"

#include "console/System.h"
#include "Diagnosis.h"
#include "support.h"

#include <algorithm>
#include <utility>

namespace ffdhost {

namespace {

[[noreturn]] void fail(std::string const& file, std::string const& words) {
    throw Failure("correct the info frame", file, FFD_FILE_IO_ERROR, words,
                  "Close other programs that use the file, check its permissions, and try again.");
}

// The sound file, open for writing as the driver opens it, but for nobody else to write.
class HeldFile {
public:
    explicit HeldFile(std::string const& path)
        : m_path(path), m_handle(CreateFileA(to_driver(path).value_or("").c_str(),
                                             GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                             OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr)) {
        if (m_handle == INVALID_HANDLE_VALUE) {
            DWORD const error = GetLastError();
            fail(path, error == ERROR_SHARING_VIOLATION ? "it is in use by another program"
                                                        : "it can't be opened for writing");
        }
    }
    ~HeldFile() {
        if (m_handle != INVALID_HANDLE_VALUE) {
            CloseHandle(m_handle);
        }
    }
    HeldFile(HeldFile const&) = delete;
    HeldFile& operator=(HeldFile const&) = delete;

    std::vector<uint8_t> read_at(uint64_t fileOffset, size_t size) {
        std::vector<uint8_t> bytes(size);
        DWORD count = 0;
        seek(fileOffset);
        if (ReadFile(m_handle, bytes.data(), static_cast<DWORD>(size), &count, nullptr) == 0) {
            fail(m_path, "it can't be read");
        }
        bytes.resize(count);
        return bytes;
    }
    // All at once, and on the disk.
    void write_at(uint64_t fileOffset, std::span<uint8_t const> bytes) {
        DWORD count = 0;
        seek(fileOffset);
        if (WriteFile(m_handle, bytes.data(), static_cast<DWORD>(bytes.size()), &count, nullptr) ==
                0 ||
            count != bytes.size() || FlushFileBuffers(m_handle) == 0 ||
            CloseHandle(std::exchange(m_handle, INVALID_HANDLE_VALUE)) == 0) {
            fail(m_path, "the info frame can't be written");
        }
    }

private:
    void seek(uint64_t fileOffset) {
        LONG high = 0; // a sound file has less than 4 GiB
        SetLastError(NO_ERROR);
        if (SetFilePointer(m_handle, static_cast<LONG>(fileOffset), &high, FILE_BEGIN) ==
                INVALID_SET_FILE_POINTER &&
            GetLastError() != NO_ERROR) {
            fail(m_path, "it can't be read");
        }
    }

    std::string m_path;
    HANDLE m_handle;
};

} // namespace

void mend_info_frame(std::string const& file, FrameWalk const& walk) {
    HeldFile held(file);
    std::error_code error;
    // Nobody opens the file for writing from here on.
    if (leftover_size(file).value_or(0) > 0 ||
        std::filesystem::file_size(file, error) != walk.fileSize) {
        fail(file, "another program has changed it meanwhile");
    }
    std::vector<uint8_t> const before = held.read_at(walk.firstFrameOffset, walk.infoFrame->length);
    std::vector<uint8_t> frame = before;
    FFDInfo fields;
    if (!info_frame_of(frame) || ffd_find_info(frame.data(), &fields) == 0) {
        fail(file, "another program has changed it meanwhile");
    }
    ffd_mend_info(frame.data(), &fields, static_cast<uint32_t>(walk.frames - 1),
                  static_cast<uint32_t>(walk.audio_length()));
    auto const begin = std::mismatch(frame.begin(), frame.end(), before.begin()).first;
    auto const end = std::mismatch(frame.rbegin(), frame.rend(), before.rbegin()).first.base();
    if (begin < end) {
        held.write_at(walk.firstFrameOffset + static_cast<uint64_t>(begin - frame.begin()),
                      std::span(begin, end));
    }
}

} // namespace ffdhost
