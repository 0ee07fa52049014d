#include "Stop.h"
#include "System.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <string_view>
#include <sys/auxv.h>
#include <sys/ioctl.h>
#include <system_error>
#include <unistd.h>

namespace ffdhost {

namespace {

constexpr unsigned kUsualWidth = 80; // of a terminal

constexpr int kStops[] = {SIGINT, SIGTERM, SIGHUP};

volatile std::sig_atomic_t g_stop = 0; // the first
int g_stopPipe[2] = {-1, -1};          // wakes up whoever waits for stdin

// Ends the process by the signal itself, so that the caller sees what it was.
void on_interrupt(int signal) {
    if (g_stopWaits && !g_stopped.exchange(true)) {
        g_stop = signal;
        int const error = errno;
        [[maybe_unused]] ssize_t const woken = write(g_stopPipe[1], "", 1);
        errno = error;
        return;
    }
    [[maybe_unused]] ssize_t const written = write(STDERR_FILENO, g_words.data(), g_length);
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

} // namespace

std::span<char const* const> command_line(int argc, char** argv) {
    return {argv, static_cast<size_t>(argc)};
}

std::optional<std::string> to_driver(std::string const& name) {
    return name;
}

std::string from_driver(std::string const& name) {
    return name;
}

char const* const kDriverFileName = "libxkivmp3.so";
char const* const kNameSeparators = "/";
bool const kShellOfWindows = false;

bool same_file_name(std::filesystem::path const& name1, std::filesystem::path const& name2) {
    return name1 == name2;
}

bool may_write(std::filesystem::path const& path) {
    return access(path.c_str(), W_OK) == 0;
}

void make_failures_visible() {
    std::signal(SIGXFSZ, SIG_IGN);
    for (int const each : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        // The lowest that is free is taken, and those below are open by now.
        if (fcntl(each, F_GETFD) < 0 &&
            open("/dev/null", each == STDIN_FILENO ? O_WRONLY : O_RDONLY) != each) {
            _exit(1);
        }
    }
}

std::filesystem::path program_directory() {
    std::error_code error;
    std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", error);
    if (error) { // without /proc: the path that the system was told to run
        auto const* const name = reinterpret_cast<char const*>(getauxval(AT_EXECFN));
        program = std::filesystem::canonical(name == nullptr ? "" : name, error);
    }
    return error ? std::filesystem::path() : program.parent_path();
}

bool is_terminal(Stream stream) {
    return isatty(stream == Stream::Output ? STDOUT_FILENO : STDERR_FILENO) != 0;
}

bool terminal_has_colours(Stream stream) {
    char const* const terminal = std::getenv("TERM");
    return is_terminal(stream) && terminal != nullptr && std::strcmp(terminal, "dumb") != 0;
}

unsigned terminal_width() {
    winsize size{};
    bool const told = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return told ? size.ws_col : kUsualWidth;
}

bool terminal_shows_utf8() {
    for (char const* const name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        char const* const locale = std::getenv(name);
        if (locale != nullptr && *locale != '\0') {
            std::string_view const words = locale;
            return words.find("UTF-8") != words.npos || words.find("utf8") != words.npos;
        }
    }
    return false;
}

Utf8Terminal::Utf8Terminal() : m_before(0) {}

Utf8Terminal::~Utf8Terminal() {
    static_cast<void>(m_before); // nothing to take back
}

void tell_when_interrupted(std::string const& words) {
    sigset_t stops;
    sigset_t before;
    sigemptyset(&stops);
    for (int const stop : kStops) {
        sigaddset(&stops, stop);
    }
    sigprocmask(SIG_BLOCK, &stops, &before);
    set_words(words);
    for (int const stop : kStops) {
        if (std::signal(stop, on_interrupt) == SIG_IGN) {
            std::signal(stop, SIG_IGN); // the caller wants the program to go on, as nohup does
        }
    }
    sigprocmask(SIG_SETMASK, &before, nullptr);
}

void make_stdin_binary() {}

bool stop_is_wanted() {
    return g_stopped;
}

void let_stop_wait() {
    if (pipe2(g_stopPipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        throw std::system_error(errno, std::generic_category());
    }
    g_stopWaits = true;
    std::signal(SIGPIPE, SIG_IGN);
    // What comes during a close that rebuilds waits in the pipe. Refused if it is none.
    [[maybe_unused]] int const size = fcntl(STDIN_FILENO, F_SETPIPE_SZ, 1 << 20);
}

void end_by_stop() {
    std::raise(g_stop);
}

bool sleep_for(std::chrono::milliseconds time) {
    pollfd stop{g_stopPipe[0], POLLIN, 0}; // a missing one is passed over
    poll(&stop, 1, static_cast<int>(time.count()));
    return !g_stopped;
}

bool stdin_is_terminal() {
    return isatty(STDIN_FILENO) != 0;
}

Arrival await_stdin(std::span<std::byte> buffer, size_t& count,
                    std::chrono::milliseconds patience) {
    pollfd sources[] = {{STDIN_FILENO, POLLIN, 0}, {g_stopPipe[0], POLLIN, 0}};
    int const ready = poll(sources, 2, static_cast<int>(patience.count()));
    if (g_stopped) {
        return Arrival::Stop;
    }
    if (ready == 0 || (ready < 0 && errno == EINTR)) {
        return Arrival::Nothing;
    }
    ssize_t const got = ready < 0 ? -1 : read(STDIN_FILENO, buffer.data(), buffer.size());
    if (got < 0) {
        if (errno == EINTR || errno == EAGAIN) {
            return Arrival::Nothing;
        }
        throw std::system_error(errno, std::generic_category());
    }
    count = static_cast<size_t>(got);
    return got > 0 ? Arrival::Bytes : Arrival::End;
}

void end_process(int exitCode) {
    _exit(exitCode);
}

} // namespace ffdhost
