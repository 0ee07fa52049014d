// Permissions come from the folder here: what is made in a private folder is private.
#include "Files.h"

#include "Status.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>
#include <utility>
#include <windows.h>

namespace ffdhost {

namespace {

constexpr int kStandardOutput = 1;
constexpr size_t kMostAtOnce = size_t{1} << 30;

int open_to_read(std::filesystem::path const& path) {
    return _wopen(path.c_str(), _O_RDONLY | _O_BINARY | _O_NOINHERIT);
}

} // namespace

bool is_no_regular_file(std::filesystem::path const& path) {
    std::error_code error;
    auto const status = std::filesystem::status(path, error);
    return std::filesystem::exists(status) && !std::filesystem::is_regular_file(status);
}

bool is_in_use(std::filesystem::path const& path) {
    HANDLE const file = CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        return GetLastError() == ERROR_SHARING_VIOLATION;
    }
    CloseHandle(file);
    return false;
}

bool Descriptor::close() {
    int const number = release();
    return number < 0 || _close(number) == 0;
}

InputFile::InputFile(std::filesystem::path const& path)
    : InputFile(path, Descriptor(open_to_read(path))) {}

InputFile::InputFile(std::filesystem::path path, Descriptor file)
    : m_path(std::move(path)), m_file(std::move(file)) {
    struct _stat64 status {};
    if (m_file.number() < 0 || _fstat64(m_file.number(), &status) != 0) {
        fail(m_path, system_words(errno));
    }
    if ((status.st_mode & _S_IFMT) != _S_IFREG) {
        fail(m_path, "it is no regular file");
    }
    m_size = static_cast<uint64_t>(status.st_size);
}

std::optional<InputFile> InputFile::find_own(std::filesystem::path const& path) {
    std::error_code error;
    auto const status = std::filesystem::symlink_status(path, error);
    if (!std::filesystem::exists(status)) {
        return std::nullopt;
    }
    if (!std::filesystem::is_regular_file(status)) {
        fail(path, "it is no regular file");
    }
    return InputFile(path);
}

std::vector<uint8_t> InputFile::read_at(uint64_t fileOffset, size_t size) const {
    std::vector<uint8_t> bytes(size);
    size_t done = 0;
    bool good = _lseeki64(m_file.number(), static_cast<int64_t>(fileOffset), SEEK_SET) >= 0;
    while (good && done < size) {
        auto const most = static_cast<unsigned>(std::min(size - done, kMostAtOnce));
        int const count = _read(m_file.number(), bytes.data() + done, most);
        good = count >= 0;
        if (count == 0) {
            break;
        }
        done += good ? static_cast<size_t>(count) : 0;
    }
    if (!good) {
        throw Failure("read file", m_path.string(), FFD_FILE_IO_ERROR, system_words(errno));
    }
    bytes.resize(done);
    return bytes;
}

Descriptor make_file(std::string const& name, std::vector<std::string> const& /*privateAs*/) {
    return Descriptor(_wopen(std::filesystem::path(name).c_str(),
                             _O_WRONLY | _O_CREAT | _O_EXCL | _O_BINARY | _O_NOINHERIT,
                             _S_IREAD | _S_IWRITE));
}

// Whoever writes it shares it with nobody who wants it alone.
bool remove_abandoned(std::string const& name) {
    std::error_code error;
    return !is_in_use(name) && std::filesystem::is_regular_file(name, error) &&
           std::filesystem::remove(name, error);
}

bool flush(Descriptor const& file) {
    return _commit(file.number()) == 0;
}

bool move_file(std::string const& from, std::string const& to, bool replace) {
    if (!replace) {
        return _wrename(std::filesystem::path(from).c_str(), std::filesystem::path(to).c_str()) ==
               0;
    }
    std::error_code error;
    std::filesystem::rename(from, to, error);
    errno = EACCES; // whatever it is that Windows says
    return !error;
}

Descriptor open_as_it_is(std::string const& name) {
    if (name.empty()) {
        _setmode(kStandardOutput, _O_BINARY);
        return Descriptor(_dup(kStandardOutput));
    }
    std::filesystem::path const path(name);
    HANDLE const there = CreateFileW(path.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                     OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    bool const isDevice = there != INVALID_HANDLE_VALUE && GetFileType(there) != FILE_TYPE_DISK;
    if (there != INVALID_HANDLE_VALUE) {
        CloseHandle(there);
    }
    std::error_code error;
    if (!isDevice && !std::filesystem::is_symlink(path, error)) {
        errno = 0; // which the look has set where there is no such name
        return Descriptor();
    }
    return Descriptor(_wopen(path.c_str(), _O_WRONLY | _O_TRUNC | _O_BINARY | _O_NOINHERIT));
}

bool OutputFile::write_some(std::span<uint8_t const>& bytes) const {
    int const count = _write(m_file.number(), bytes.data(),
                             static_cast<unsigned>(std::min(bytes.size(), kMostAtOnce)));
    bytes = bytes.subspan(count > 0 ? static_cast<size_t>(count) : 0);
    return count > 0;
}

} // namespace ffdhost
