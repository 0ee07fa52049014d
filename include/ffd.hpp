/**
 * @file
 * The C++20 face of the MP3 dictation driver: ffd.h with the driver loaded, files that close
 * themselves, statuses as exceptions, and bytes as std::span. Header only; a call costs what the
 * slot of the table costs.
 *
 *     ffd::Driver driver("libxkivmp3.so");
 *     ffd::File sound(driver, "letter.mp3", ffd::Access::ReadWrite);
 *     sound.seek(sound.borders(24000).before);
 *     sound.insert(frames); // whole MP3 frames of the format of the file
 *     sound.close();
 *
 * What holds for the table holds here: one thread at a time, and positions and lengths are bytes of
 * the dictation. A driver must outlive its files.
 */
#pragma once

// Compilers from the time when C++20 was being made give a value in between.
#if __cplusplus <= 201703L && (!defined(_MSVC_LANG) || _MSVC_LANG <= 201703L)
#error "ffd.hpp wants C++20: compile with -std=c++20 or /std:c++20. ffd.h is plain C."
#else

#include "ffd.h"
#include "ffd_frames.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <limits>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#ifdef _WIN32
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

#include <system_error>
#else
#include <dlfcn.h>
#endif

/** The driver for C++ hosts. */
namespace ffd {

/** A status in words. */
using StatusText = FFDStatusText;

/** The words for a status. One that ffd.h does not name gets words that say so. */
inline StatusText describe(FFDError status) {
    return ffd_describe(status);
}

/** An operation that gave a status other than FFD_NOERROR. */
class Error : public std::runtime_error {
public:
    /** `operation` is a literal: it is kept as it is. */
    Error(char const* operation, FFDError status)
        : std::runtime_error(std::string(operation) + ": " + describe(status).szMeaning),
          m_operation(operation), m_status(status) {}

    /** What was tried, in a word or two: "open for reading", "insert". */
    char const* operation() const noexcept { return m_operation; }
    /** The answer of the driver. */
    FFDError status() const noexcept { return m_status; }
    /** One sentence: what can be done about it. */
    char const* advice() const noexcept { return describe(m_status).szAdvice; }

private:
    char const* m_operation;
    FFDError m_status;
};

/** The slots of the table by name and type. */
using Table = FFDTable;

/** The loaded driver. Unloading closes no file: what was edited stays in the .DIR file then. */
class Driver {
public:
    /**
     * Loads the library: a path, or a bare name that the system looks for. With a path its own
     * folder is searched for the trace library. Throws std::runtime_error with the system's own
     * words, also if the library is no such driver.
     */
    explicit Driver(std::filesystem::path const& library) : m_library(load(library)) {
        void const* const symbol = find(m_library, FFD_TABLE_SYMBOL);
        if (symbol != nullptr) {
            std::memcpy(&m_table, symbol, sizeof m_table);
        }
        if (m_table.create_file == nullptr) {
            unload(m_library);
            throw std::runtime_error(
                "the library is no such driver: it has no filled " FFD_TABLE_SYMBOL);
        }
    }
    /** A driver whose table is at hand, since it is linked in. */
    explicit Driver(Table const& table) : m_library(nullptr), m_table(table) {}
    ~Driver() {
        if (m_library != nullptr) {
            unload(m_library);
        }
    }
    Driver(Driver const&) = delete;
    Driver& operator=(Driver const&) = delete;

    /** The slots, for what File offers no operation for. */
    Table const& table() const noexcept { return m_table; }

private:
#ifdef _WIN32
    static void* load(std::filesystem::path const& library) {
        // With its whole path, so that the system looks for what the driver needs in the folder of
        // the driver and not in that of the program.
        bool const isPath = library.has_parent_path();
        std::filesystem::path const place =
            isPath ? std::filesystem::absolute(library).make_preferred() : library;
        HMODULE const module =
            LoadLibraryExW(place.c_str(), nullptr, isPath ? LOAD_WITH_ALTERED_SEARCH_PATH : 0);
        if (module == nullptr) {
            throw std::runtime_error(
                std::system_category().message(static_cast<int>(GetLastError())));
        }
        return module;
    }
    static void unload(void* library) {
        FreeLibrary(static_cast<HMODULE>(library));
    }
    static void const* find(void* library, char const* name) {
        return reinterpret_cast<void const*>(GetProcAddress(static_cast<HMODULE>(library), name));
    }
#else
    static void* load(std::filesystem::path const& library) {
        void* const handle = dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (handle == nullptr) {
            char const* const words = dlerror();
            throw std::runtime_error(words != nullptr ? words : "the library cannot be loaded");
        }
        return handle;
    }
    static void unload(void* library) {
        dlclose(library);
    }
    static void const* find(void* library, char const* name) {
        return dlsym(library, name);
    }
#endif

    void* m_library;
    Table m_table{};
};

/**
 * Whole frames out of a stream that comes in pieces, as ffd_frames.h cuts them. `take` is called
 * with an FFDFrame const& for each; its bytes are valid during the call.
 */
class FrameReader {
public:
    FrameReader() { ffd_frames_begin(&m_frames); }

    /** Takes the next bytes of the stream. */
    template <class Take> void put(std::span<std::byte const> bytes, Take&& take) {
        auto const* next = reinterpret_cast<uint8_t const*>(bytes.data());
        size_t count = bytes.size();
        run(FFD_STREAM_GOES_ON, &next, &count, take);
    }
    /** No bytes come for a while: the frame that is whole does not wait for them. */
    template <class Take> void pause(Take&& take) {
        run(FFD_STREAM_PAUSES, nullptr, nullptr, take);
    }
    /** No more bytes come. */
    template <class Take> void end(Take&& take) { run(FFD_STREAM_ENDS, nullptr, nullptr, take); }

    /** What was given out and what was left out so far. */
    FFDFrames const& state() const noexcept { return m_frames; }

private:
    template <class Take> void run(int how, uint8_t const** bytes, size_t* count, Take& take) {
        for (FFDFrame frame; ffd_frames_next(&m_frames, how, bytes, count, &frame) != 0;) {
            take(std::as_const(frame));
        }
    }

    FFDFrames m_frames;
};

/** The borders of frames around a dictation position, which are the places to edit at. */
struct Borders {
    uint32_t before; /**< the last one at or before the position */
    uint32_t behind; /**< the first one at or behind it */

    /** The nearer of the two to the position. */
    uint32_t nearest(uint32_t dictationPosition) const noexcept {
        return dictationPosition - before <= behind - dictationPosition ? before : behind;
    }
};

/** For what a file is opened. */
enum class Access : FFDDesiredAccess {
    Read = FFD_ACCESS_READ,          /**< reads only */
    ReadWrite = FFD_ACCESS_READWRITE /**< reads and edits; takes over the edits of a crash */
};

/** What the wave format block of a file says. */
struct WaveFormat {
    uint16_t channels;       /**< 1 or 2 */
    uint32_t samplingRate;   /**< Hz */
    uint32_t bytesPerSecond; /**< of the constant bitrate: turns times into positions */
    uint16_t frameSize;      /**< bytes of a frame without padding */

    /** kbit/s. */
    uint32_t bitrate() const noexcept { return bytesPerSecond / 125; }
};

/**
 * An open sound file. Every operation throws Error for a status other than FFD_NOERROR; ffd.h tells
 * which there are and what they leave behind. Positions and lengths are bytes of the dictation.
 */
class File {
public:
    /**
     * Opens an MP3 file. `path` is in the narrow characters of the system, as the driver takes it.
     * `messages` tells where messages about disk space go; without an hDriver it gets one.
     */
    File(Driver const& driver, std::string const& path, Access access,
         FFDCallbackParams messages = {})
        : m_table(&driver.table()) {
        if (messages.hDriver == nullptr) {
            messages.hDriver = const_cast<Driver*>(&driver); // only handed back
        }
        FFDError status = FFD_NOERROR;
        m_handle = m_table->create_file(path.c_str(), static_cast<FFDDesiredAccess>(access),
                                        FFD_OPEN_EXISTING, nullptr, messages, &status, nullptr);
        if (m_handle == nullptr || status != FFD_NOERROR) {
            throw Error(access == Access::Read ? "open for reading" : "open for writing",
                        status != FFD_NOERROR ? status : FFD_INTERNAL_ERROR);
        }
    }
    /** Closes what was not closed, and keeps silent about how that went: call close() for that. */
    ~File() { abandon(); }
    /** `other` holds no file afterwards. */
    File(File&& other) noexcept
        : m_table(other.m_table), m_handle(std::exchange(other.m_handle, nullptr)) {}
    /** Closes the own file first. */
    File& operator=(File&& other) noexcept {
        if (this != &other) {
            abandon();
            m_table = other.m_table;
            m_handle = std::exchange(other.m_handle, nullptr);
        }
        return *this;
    }

    /**
     * Folds the edits in and ends the file, whatever the status. If it throws, the edits are in the
     * .DIR file beside the sound file, and the next open for writing finds them.
     */
    void close() { check("close", m_table->close(std::exchange(m_handle, nullptr))); }

    /** The handle, for the slots of the table. Null if no file is held. */
    FFDHandle handle() const noexcept { return m_handle; }

    /** The position of the next read or edit. */
    uint32_t position() const {
        uint32_t dictationPosition = 0;
        check("get position", m_table->get_current_pos(m_handle, &dictationPosition));
        return dictationPosition;
    }
    /** Moves the position, to the end at most. Gives the position reached. */
    uint32_t seek(uint32_t dictationPosition) {
        uint32_t reached = 0;
        check("seek", m_table->audio_seek(m_handle, dictationPosition, &reached));
        return reached;
    }
    /** The exact length: that of FFDGetSoundDataLength goes through whole milliseconds. */
    uint32_t length() {
        uint32_t const before = position();
        uint32_t const end = seek(std::numeric_limits<uint32_t>::max());
        seek(before);
        return end;
    }
    /** The borders of frames around a position; the end for one beyond it. Leaves the position. */
    Borders borders(uint32_t dictationPosition) {
        uint32_t const kept = position();
        uint32_t const wanted = seek(dictationPosition);
        uint32_t const begin = seek(wanted > FFD_BORDER_REACH ? wanted - FFD_BORDER_REACH : 0);
        std::array<std::byte, size_t{2} * FFD_BORDER_REACH> block;
        size_t size = 0;
        for (size_t count = 1; count > 0 && size < block.size(); size += count) {
            count = read(std::span(block).subspan(size));
        }
        seek(kept);
        FFDBorders const found =
            ffd_find_borders(reinterpret_cast<uint8_t const*>(block.data()), size, wanted - begin);
        return {begin + static_cast<uint32_t>(found.before),
                begin + static_cast<uint32_t>(found.behind)};
    }
    /** Bytes of the whole MP3 file, with its tags and with what was deleted and appended. */
    uint32_t file_size() const {
        uint32_t size = 0;
        check("get file size", m_table->get_dictation_file_size(m_handle, &size));
        return size;
    }
    /** The format of the first frame, which is that of all. */
    WaveFormat format() const {
        std::array<unsigned char, 30> block{}; // an MPEGLAYER3WAVEFORMAT, little-endian
        check("get format", m_table->get_wfx(m_handle, block.data(), block.size()));
        auto const number = [&](size_t offset, int bytes) {
            uint32_t value = 0;
            for (int i = bytes; i-- > 0;) {
                value = value << 8 | block[offset + static_cast<size_t>(i)];
            }
            return value;
        };
        return {static_cast<uint16_t>(number(2, 2)), number(4, 4), number(8, 4),
                static_cast<uint16_t>(number(24, 2))};
    }

    /**
     * Reads from the position on and moves it. Gives the count of bytes read, which is less than
     * the buffer takes at the end of the dictation, and where the dictation promises bytes that the
     * file does not hold: a last frame that the end of the file cuts short counts whole.
     */
    size_t read(std::span<std::byte> buffer) {
        FFDReadHandle* range = nullptr;
        uint32_t const size = size_of(buffer.size());
        check("read", m_table->get_size_of_data(m_handle, size, &range));
        if (range->RealSizeInBytes == 0) {
            return 0; // at the end, where FFDReadData would answer a failure
        }
        uint32_t const from = range->RealStartPos;
        check("read",
              m_table->read_data(m_handle, range, size, reinterpret_cast<uint8_t*>(buffer.data())));
        return position() - from;
    }
    /** Enters whole frames of the format of the file at the position, and moves it behind them. */
    void insert(std::span<std::byte const> frames) { write("insert", FFD_METHOD_INSERT, frames); }
    /** The same; as many bytes behind them leave the dictation. */
    void overwrite(std::span<std::byte const> frames) {
        write("overwrite", FFD_METHOD_OVERWRITE, frames);
    }
    /** Takes up to so many bytes behind the position out of the dictation. */
    void erase(uint32_t length) { check("delete", m_table->delete_data(m_handle, length)); }
    /** Brings back what the last erase() took out. */
    void undo() { check("undo", m_table->undo_last(m_handle)); }
    /** Takes a snapshot of the edit state, one per open file. */
    void store() { check("store", m_table->store_actual_file_status(m_handle)); }
    /** Goes back to the snapshot. */
    void restore() { check("restore", m_table->restore_file_status(m_handle)); }

private:
    static void check(char const* operation, FFDError status) {
        if (status != FFD_NOERROR) {
            throw Error(operation, status);
        }
    }
    static uint32_t size_of(size_t size) {
        return static_cast<uint32_t>(size < std::numeric_limits<uint32_t>::max()
                                         ? size
                                         : std::numeric_limits<uint32_t>::max());
    }
    void write(char const* operation, FFDMethod method, std::span<std::byte const> frames) {
        if (frames.size() > std::numeric_limits<uint32_t>::max()) {
            throw Error(operation, FFD_INVALID_PARAMETER);
        }
        // The slot only reads the bytes, though it takes them as not constant.
        auto* const bytes = const_cast<uint8_t*>(reinterpret_cast<uint8_t const*>(frames.data()));
        check(operation,
              m_table->write_data(m_handle, method, static_cast<uint32_t>(frames.size()), bytes));
    }
    void abandon() noexcept {
        if (m_handle != nullptr) {
            m_table->close(std::exchange(m_handle, nullptr));
        }
    }

    Table const* m_table;
    FFDHandle m_handle = nullptr;
};

} // namespace ffd

#endif
