// Files as this host reads and writes them: it reads regular files only, and what it makes of a
// private file is private.
#pragma once

#include <cstdint>
#include <filesystem>
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

// Where audio or a picture goes: a file, or standard output. All throw a Failure with
// FFD_FILE_IO_ERROR.
class OutputFile {
public:
    // An empty name is standard output. A file that is there is overwritten and keeps its
    // permissions; a new one has those of `privateAs` at most.
    OutputFile(std::string name, std::filesystem::path const& privateAs);

    void write(std::span<uint8_t const> bytes);
    // To be called after the last write: only then everything is known to be written.
    void close();

private:
    friend class NewFile;
    OutputFile(std::string name, Descriptor file)
        : m_name(std::move(name)), m_file(std::move(file)) {}
    [[noreturn]] void fail() const; // for the reason in errno

    std::string m_name;
    Descriptor m_file;
};

// A file that gets its name when it is whole. Until then it grows beside that, under the name and
// ".part", with a number if that is taken. All throw a Failure with FFD_FILE_IO_ERROR.
class NewFile {
public:
    // Nobody gets to read it who may not read all of `privateAs`.
    NewFile(std::string name, std::vector<std::string> const& privateAs);
    // Removes what has not got its name.
    ~NewFile();
    NewFile(NewFile&& other) noexcept;

    std::string const& name() const { return m_output.m_name; }
    std::string const& temporary() const { return m_temporary; }

    void write(std::span<uint8_t const> bytes) { m_output.write(bytes); }
    // Then all that was written is on the disk.
    void close();
    // Gives it its name. A file that has it is replaced, or else in the way.
    void publish(bool replace);

private:
    static constexpr int kMostLeft = 100; // of earlier ones that were killed

    OutputFile m_output;
    std::string m_temporary; // empty: it has its name
};

// ---- What each system has its own way for; errno tells why it fails ----------------------------

// Makes a file that nobody gets to read who may not read all of `privateAs`.
Descriptor make_file(std::string const& name, std::vector<std::string> const& privateAs);
bool flush(Descriptor const& file);
bool move_file(std::string const& from, std::string const& to, bool replace);

} // namespace ffdhost
