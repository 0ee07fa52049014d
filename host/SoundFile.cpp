#include "SoundFile.h"

#include "console/Files.h"
#include "console/Output.h"
#include "console/Position.h"
#include "console/System.h"

#include <span>
#include <utility>

namespace ffdhost {

namespace {

constexpr uint32_t kShareOfDisk = 5;          // of what a recording writes, see recording_seconds()
constexpr uint32_t kWarnedBefore = 600;       // seconds that can still be recorded at the warning
constexpr std::chrono::minutes kSaidAgain(1); // what the driver says with every write

// Why a file cannot be opened: the driver has one status for all of it.
[[noreturn]] void explain_open(std::string const& path, Access access, ffd::Error const& error) {
    auto const fail = [&](std::string const& words, std::string const& advice) {
        return Failure(error.operation(), path, error.status(), words, advice);
    };
    std::error_code code;
    if (!std::filesystem::exists(path, code)) {
        if (std::filesystem::is_symlink(path, code)) {
            throw fail("the link leads to no file", "Check where it leads to.");
        }
        throw fail("there is no such file", "Check the path.");
    }
    if (std::filesystem::is_directory(path, code)) {
        throw fail("it is a directory", "Give the path of a file in it.");
    }
    try {
        InputFile const file(path); // takes no heed of what others have open
    } catch (Failure const& reason) {
        throw fail(reason.what(), "Check the permissions of the file.");
    }
    if (access == Access::ReadWrite) {
        if (!may_write(path)) {
            throw fail("permission denied: the file may not be written to",
                       "Change its permissions, or copy it to a place of your own.");
        }
        std::filesystem::path const folder = std::filesystem::absolute(path).parent_path();
        if (!may_write(folder)) {
            throw fail("permission denied: no files may be made in its folder, and edits need one",
                       "Change the permissions of " + folder.string() +
                           ", or copy the file to a place of your own.");
        }
    }
    throw fail("it is in use by another program", "Close that program, or wait until it is done.");
}

// Called by the driver in the middle of a write, on this thread. Nothing may be thrown through it.
void on_driver_message(void* /*hDriver*/, uint32_t message, uintptr_t user, uintptr_t parameter1,
                       uintptr_t /*parameter2*/) noexcept try {
    auto& file = *reinterpret_cast<SoundFile::Watched*>(user);
    auto const now = std::chrono::steady_clock::now();
    if (message == FIDM_DISKSPACE_WARNING) {
        // The parameter is a third of what is left above the need of the rebuild at close.
        print_warning(
            file.path + ": disk space is getting low, it lasts for another " +
            rough_time_text(recording_seconds(uint64_t{parameter1} * 3, file.bytesPerSecond)) +
            " of a recording");
    } else if (message == FIDM_OUT_OF_DISKSPACE && now >= file.saidAgain) {
        file.saidAgain = now + kSaidAgain;
        print_warning(file.path + ": disk space is used up, the close may not find room to rebuild "
                                  "the file; free some space now");
    }
} catch (...) {
    return; // the warning is lost
}

ffd::File open(Driver const& driver, SoundFile::Watched& watched, Access access) {
    std::string const& path = watched.path;
    std::error_code code;
    if (is_no_regular_file(path) && !std::filesystem::is_directory(path, code)) {
        throw Failure(access == Access::Read ? "open for reading" : "open for writing", path,
                      FFD_FILE_IO_ERROR, "it is no regular file");
    }
    FFDCallbackParams messages{};
    messages.dwCallback = reinterpret_cast<uint64_t>(&on_driver_message);
    messages.dwUser = reinterpret_cast<uint64_t>(&watched);
    std::optional<std::string> const name = to_driver(path);
    if (!name) {
        throw Failure("open", path, FFD_INVALID_PATH,
                      "the name has letters that the code page of this system lacks",
                      "Give the file another name.");
    }
    try {
        ffd::File file(driver, *name, access, messages);
        watched.bytesPerSecond = file.format().bytesPerSecond;
        driver.table().set_diskspace_warning_time(
            file.handle(), watched.bytesPerSecond * kWarnedBefore * kShareOfDisk / 3); // see ffd.h
        return file;
    } catch (ffd::Error const& error) {
        if (error.status() != FFD_FILE_IO_ERROR) {
            throw;
        }
        explain_open(path, access, error);
    }
}

// Makes a call, and a Failure of its error.
template <class Call> auto named(std::string const& path, Call call) {
    try {
        return call();
    } catch (ffd::Error const& error) {
        throw Failure(error.operation(), path, error.status());
    }
}

} // namespace

SoundFile::SoundFile(Driver const& driver, std::string path, Access access)
    : m_driver(driver), m_access(access),
      m_watched(std::make_unique<Watched>(Watched{std::move(path)})),
      m_file(named(this->path(), [&] { return open(driver, *m_watched, access); })) {}

void SoundFile::hand_to(
    std::function<void(ffd::File&, std::function<ffd::File()> const&)> const& work) {
    named(path(), [&] { work(m_file, [&] { return open(m_driver, *m_watched, m_access); }); });
}

void SoundFile::close() {
    named(path(), [&] { m_file.close(); });
}

WaveFormat SoundFile::wave_format() {
    WaveFormat const format = named(path(), [&] { return m_file.format(); });
    if (format.bytesPerSecond == 0) {
        throw Failure("get format", path(), FFD_INTERNAL_ERROR, "the file has a bitrate of 0");
    }
    return format;
}

uint32_t SoundFile::file_size() {
    return named(path(), [&] { return m_file.file_size(); });
}

uint32_t SoundFile::position() {
    return named(path(), [&] { return m_file.position(); });
}

uint32_t SoundFile::length() {
    return named(path(), [&] { return m_file.length(); });
}

uint32_t SoundFile::seek(uint32_t dictationPosition) {
    return named(path(), [&] { return m_file.seek(dictationPosition); });
}

uint32_t SoundFile::nearest_border(uint32_t dictationPosition) {
    return named(path(), [&] {
        uint32_t const end = m_file.length();
        return dictationPosition < end
                   ? m_file.borders(dictationPosition).nearest(dictationPosition)
                   : end;
    });
}

std::vector<uint8_t> SoundFile::read(uint32_t size) {
    return named(path(), [&] {
        std::vector<uint8_t> bytes(size);
        bytes.resize(m_file.read(std::as_writable_bytes(std::span(bytes))));
        return bytes;
    });
}

void SoundFile::write(FFDMethod method, std::vector<uint8_t> const& bytes) {
    named(path(), [&] {
        auto const frames = std::as_bytes(std::span(bytes));
        method == FFD_METHOD_OVERWRITE ? m_file.overwrite(frames) : m_file.insert(frames);
    });
}

void SoundFile::erase(uint32_t size) {
    named(path(), [&] { m_file.erase(size); });
}

void SoundFile::undo() {
    named(path(), [&] { m_file.undo(); });
}

void SoundFile::store() {
    named(path(), [&] { m_file.store(); });
}

void SoundFile::restore() {
    named(path(), [&] { m_file.restore(); });
}

uint64_t recording_seconds(uint64_t freeBytes, uint32_t bytesPerSecond) {
    return freeBytes / kShareOfDisk / bytesPerSecond;
}

} // namespace ffdhost
