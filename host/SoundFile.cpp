#include "SoundFile.h"

#include "console/Files.h"
#include "console/Output.h"
#include "console/Position.h"
#include "console/System.h"
#include "Obstacle.h"

#include <span>
#include <utility>

namespace ffdhost {

namespace {

constexpr uint32_t kShareOfDisk = 5;          // of what a recording writes, see recording_seconds()
constexpr uint32_t kWarnedBefore = 600;       // seconds that can still be recorded at the warning
constexpr std::chrono::minutes kSaidAgain(1); // what the driver says with every write

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
    char const* const operation = access == Access::Read ? "open for reading" : "open for writing";
    if (is_no_regular_file(path)) { // such as a pipe, whose open would not come back
        if (auto const why = why_unreadable(operation, path)) {
            throw *why;
        }
    }
    FFDCallbackParams messages{};
    messages.dwCallback = reinterpret_cast<uint64_t>(&on_driver_message);
    messages.dwUser = reinterpret_cast<uint64_t>(&watched);
    std::optional<std::string> const name = to_driver(path);
    if (!name) {
        throw Failure(operation, path, FFD_INVALID_PATH,
                      "the name has letters that the code page of this system lacks",
                      "Give the file another name.");
    }
    for (bool again = false;; again = true) {
        try {
            ffd::File file(driver, *name, access, messages);
            watched.bytesPerSecond = file.format().bytesPerSecond;
            driver.table().set_diskspace_warning_time(file.handle(),
                                                      watched.bytesPerSecond * kWarnedBefore *
                                                          kShareOfDisk / 3); // see ffd.h
            return file;
        } catch (ffd::Error const& error) {
            if (error.status() != FFD_FILE_IO_ERROR) {
                throw;
            }
            wait_or_explain(path, access, error, again);
        }
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
    try {
        m_file.close();
    } catch (ffd::Error const& error) {
        throw m_access == Access::Read ? Failure(error.operation(), path(), error.status())
                                       : why_not_closed(path(), error);
    }
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
