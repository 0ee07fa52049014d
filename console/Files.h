// Files as this host reads and writes them: it reads regular files only, and what it makes of a
// private file is private.
#pragma once

#include "System.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace ffdhost {

// Whether there is something under the name, links followed, that is no regular file: a folder, a
// device, or a pipe, which would keep a reader waiting.
bool is_no_regular_file(std::filesystem::path const& path);

// Whether another program has a file open that others are kept from, as the driver keeps them.
bool is_in_use(std::filesystem::path const& path);

// A descriptor of the C library, closed with the object.
class Descriptor {
public:
    explicit Descriptor(int number = -1) : m_number(number) {}
    ~Descriptor() { close(); }
    Descriptor(Descriptor&& other) noexcept : m_number(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept;

    int number() const { return m_number; }
    int release();
    bool close(); // false: what was written may not have arrived

private:
    int m_number;
};

// A regular file, open for reading.
class InputFile {
public:
    // Throws a Failure with FFD_FILE_IO_ERROR if it can't be opened or is no regular file.
    explicit InputFile(std::filesystem::path const& path);
    // The same for a file of the driver's, which may be no link. Nothing if there is none.
    static std::optional<InputFile> find_own(std::filesystem::path const& path);

    uint64_t size() const { return m_size; } // bytes, when it was opened
    // Up to `size` bytes, less at the end of the file only. Throws a Failure of a disk error.
    std::vector<uint8_t> read_at(uint64_t fileOffset, size_t size) const;

private:
    InputFile(std::filesystem::path path, Descriptor file);
    [[noreturn]] static void fail(std::filesystem::path const& path, std::string const& words);

    std::filesystem::path m_path;
    Descriptor m_file;
    uint64_t m_size = 0;
};

// Where audio or a picture goes: a file, or standard output. A file gets its name when it is whole.
// Until then it grows beside that, under the name and ".ffdpart", with a number if another program
// is at work there; a stop of the program waits until that is removed. What has the name and is no
// plain file, such as a device or a link, is written to as it is. All throw a Failure with
// FFD_FILE_IO_ERROR.
class OutputFile {
public:
    // An empty name is standard output. Nobody gets to read the file who may not read all of
    // `privateAs`.
    OutputFile(std::string name, std::vector<std::string> const& privateAs);
    // Removes what has not got its name.
    ~OutputFile();
    OutputFile(OutputFile&& other) noexcept;

    std::string const& name() const { return m_name; }
    std::string const& temporary() const { return m_temporary; }

    // Throws a Failure, too, if the program is to stop.
    void write(std::span<uint8_t const> bytes);
    // Then all that was written is on the disk.
    void close();
    // Gives it its name. A file that has it is replaced, or else in the way.
    void publish(bool replace);

private:
    static constexpr int kMostAtWork = 100;

    void make_temporary(std::vector<std::string> const& privateAs);
    bool write_some(std::span<uint8_t const>& bytes) const; // takes them off; false: errno
    [[noreturn]] void fail() const;                         // for the reason in errno

    std::unique_ptr<HeldStop> m_stop; // while it has not got its name
    std::string m_name;
    std::string m_temporary; // empty: it has its name
    Descriptor m_file;
};

// ---- What each system has its own way for; errno tells why it fails ----------------------------

// Makes a file that nobody gets to read who may not read all of `privateAs`. As long as it is open
// it is not abandoned.
Descriptor make_file(std::string const& name, std::vector<std::string> const& privateAs);
// Removes such a file of this user that nobody writes any more. False if it can't.
bool remove_abandoned(std::string const& name);
// Opens what is no plain file for writing; standard output without a name. None: a plain file, or
// nothing there, or errno is not 0.
Descriptor open_as_it_is(std::string const& name);
bool flush(Descriptor const& file);
bool move_file(std::string const& from, std::string const& to, bool replace);

} // namespace ffdhost
