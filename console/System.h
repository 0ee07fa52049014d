// What the host needs of the operating system beyond the C++ library. The one place of the host
// that knows which system it runs on.
#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <optional>
#include <span>
#include <string>

namespace ffdhost {

// The host keeps all text as UTF-8. The driver takes and stores names in the narrow characters of
// the process, which on Windows are those of its code page. The program's manifest asks for UTF-8
// there; a Windows that ignores it uses the system's own.
//
// The words of the command line; they live as long as the program.
std::span<char const* const> command_line(int argc, char** argv);
// Nothing if the name has letters that the code page lacks.
std::optional<std::string> to_driver(std::string const& name);
std::string from_driver(std::string const& name);

// The name under which the driver is built on this system.
extern char const* const kDriverFileName;

// The letters that separate the parts of a path.
extern char const* const kNameSeparators;

// Whether commands are typed into a shell of Windows.
extern bool const kShellOfWindows;

// Whether the file system takes two names for one.
bool same_file_name(std::filesystem::path const& name1, std::filesystem::path const& name2);

// Whether this user may write to a file, or make files in a directory. Nothing is opened.
bool may_write(std::filesystem::path const& path);

// Opens what is missing of the descriptors 0 to 2, so that no file of the program or of the driver
// gets one of them and is written into as standard output. What was missing fails when it is used,
// and so does a write beyond a limit on the size of files, which would end the program otherwise.
void make_failures_visible();

// The directory of the running program; empty if the system does not say.
std::filesystem::path program_directory();

enum class Stream { Output, Error };

// Whether a person is watching stdout or stderr.
bool is_terminal(Stream stream);

// Whether the terminal behind it shows colours.
bool terminal_has_colours(Stream stream);

// What the terminal behind stdout can show: columns of text (80 if it does not say), and letters
// beyond ASCII.
unsigned terminal_width();
bool terminal_shows_utf8();

// As long as it lives, a terminal that has to be told takes text as UTF-8.
class Utf8Terminal {
public:
    Utf8Terminal();
    ~Utf8Terminal();
    Utf8Terminal(Utf8Terminal const&) = delete;
    Utf8Terminal& operator=(Utf8Terminal const&) = delete;

private:
    unsigned m_before;
};

// What is written to stderr when the user or the system stops the program (Ctrl-C, or the signals
// that ask for it). Empty: nothing. The program ends on the spot, as in a crash. At most 1000
// bytes.
void tell_when_interrupted(std::string const& words);

// From now on the first such stop does not end the program but shows as Arrival::Stop. The second
// does what tell_when_interrupted says. A reader of stderr that goes away ends nothing.
void let_stop_wait();
// Whether there was one.
bool stop_is_wanted();

// As long as one lives, a first stop only shows in is_wanted(): whoever has something to clean up
// does that and comes to the end of the object, which ends the program as the stop would have.
// After let_stop_wait it does nothing.
class HeldStop {
public:
    HeldStop();
    ~HeldStop();
    HeldStop(HeldStop const&) = delete;
    HeldStop& operator=(HeldStop const&) = delete;

    bool is_wanted() const;
};

// Ends the program by the stop that was noted.
void end_by_stop();

// Sleeps. False, and at once, if the program is to stop (let_stop_wait).
bool sleep_for(std::chrono::milliseconds time);

enum class Arrival {
    Bytes,   // some have come
    Nothing, // none have, in the time given
    End,     // none will
    Stop     // the program is to stop
};

// What comes through stdin, as soon as something has come. Throws std::system_error if stdin cannot
// be read.
Arrival await_stdin(std::span<std::byte> buffer, size_t& count, std::chrono::milliseconds patience);

// Whether stdin is the keyboard.
bool stdin_is_terminal();

// Keeps the system from translating line ends in what comes from stdin.
void make_stdin_binary();

// Ends the process on the spot, without a word to any library.
[[noreturn]] void end_process(int exitCode);

} // namespace ffdhost
