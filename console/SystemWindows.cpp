#include "Stop.h"
#include "System.h"

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <io.h>
#include <shellapi.h>
#include <string_view>
#include <system_error>
#include <vector>

namespace ffdhost {

namespace {

constexpr unsigned kUsualWidth = 80; // of a terminal

// Empty if the text is none in this code page.
std::wstring widened(UINT codePage, std::string const& text) {
    int const size = static_cast<int>(text.size());
    std::wstring wide(text.size(), L'\0');
    int const length =
        MultiByteToWideChar(codePage, MB_ERR_INVALID_CHARS, text.data(), size, wide.data(), size);
    wide.resize(static_cast<size_t>(length));
    return wide;
}

// Nothing if the code page lacks a letter.
std::optional<std::string> narrowed(UINT codePage, std::wstring_view text) {
    // UTF-8 knows neither the flag nor the question.
    BOOL replaced = FALSE;
    bool const utf8 = codePage == CP_UTF8 || GetACP() == CP_UTF8;
    DWORD const flags = utf8 ? WC_ERR_INVALID_CHARS : WC_NO_BEST_FIT_CHARS;
    std::string narrow(text.size() * 4, '\0');
    int const length = WideCharToMultiByte(
        codePage, flags, text.data(), static_cast<int>(text.size()), narrow.data(),
        static_cast<int>(narrow.size()), nullptr, utf8 ? nullptr : &replaced);
    if ((length == 0 && !text.empty()) || replaced != FALSE) {
        return std::nullopt;
    }
    narrow.resize(static_cast<size_t>(length));
    return narrow;
}

} // namespace

// The C++ library uses this function of the C library, whose locales do not know UTF-8 here, to
// make a path of narrow text; the linker puts this one in its place. Everything narrow that becomes
// a path is UTF-8.
extern "C" size_t __wrap_mbrtowc(wchar_t* wide, char const* text, size_t size, mbstate_t* state) {
    constexpr auto kInvalid = static_cast<size_t>(-1);
    if (*state != 0) { // the second half of a letter, which the last byte stands for
        *wide = static_cast<wchar_t>(*state);
        *state = 0;
        return 1;
    }
    auto const first = static_cast<unsigned char>(*text);
    size_t const length = first < 0x80 ? 1 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    std::array<wchar_t, 2> units{};
    if (length > size) {
        return kInvalid;
    }
    int const count =
        MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text, static_cast<int>(length),
                            units.data(), static_cast<int>(units.size()));
    if (count == 0 || (count == 2 && length != 4)) {
        return kInvalid;
    }
    *wide = units[0];
    *state = units[1];
    return count == 2 ? length - 1 : units[0] == L'\0' ? 0 : length;
}

std::span<char const* const> command_line(int argc, char** argv) {
    static std::vector<std::string> words;
    static std::vector<char const*> pointers;
    int count = 0;
    wchar_t** const wide = CommandLineToArgvW(GetCommandLineW(), &count);
    if (wide == nullptr) {
        return {argv, static_cast<size_t>(argc)};
    }
    for (int i = 0; i < count; ++i) {
        words.push_back(narrowed(CP_UTF8, wide[i]).value_or("?")); // half a letter
    }
    LocalFree(wide);
    for (std::string const& word : words) {
        pointers.push_back(word.c_str());
    }
    return pointers;
}

std::optional<std::string> to_driver(std::string const& name) {
    return narrowed(CP_ACP, widened(CP_UTF8, name));
}

std::string from_driver(std::string const& name) {
    std::wstring const wide = widened(CP_ACP, name);
    return wide.empty() ? name : narrowed(CP_UTF8, wide).value_or(name);
}

char const* const kDriverFileName = "XKIVMP3.dll";
char const* const kNameSeparators = "\\/:";
bool const kShellOfWindows = true;

bool same_file_name(std::filesystem::path const& name1, std::filesystem::path const& name2) {
    return CompareStringOrdinal(name1.c_str(), -1, name2.c_str(), -1, TRUE) == CSTR_EQUAL;
}

// For a directory the attribute means nothing.
bool may_write(std::filesystem::path const& path) {
    DWORD const attributes = GetFileAttributesW(path.c_str());
    return attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 ||
           (attributes & FILE_ATTRIBUTE_READONLY) == 0;
}

void make_failures_visible() {} // handles are not numbered from 0

std::filesystem::path program_directory() {
    wchar_t name[MAX_PATH];
    DWORD const length = GetModuleFileNameW(nullptr, name, MAX_PATH);
    if (length == 0 || length == MAX_PATH) {
        return {};
    }
    return std::filesystem::path(name).parent_path();
}

bool is_terminal(Stream stream) {
    return _isatty(_fileno(stream == Stream::Output ? stdout : stderr)) != 0;
}

bool terminal_has_colours(Stream stream) {
    HANDLE const console =
        GetStdHandle(stream == Stream::Output ? STD_OUTPUT_HANDLE : STD_ERROR_HANDLE);
    DWORD mode = 0;
    return GetConsoleMode(console, &mode) != 0 &&
           SetConsoleMode(console, mode | 4 /* it follows escape sequences */) != 0;
}

unsigned terminal_width() {
    CONSOLE_SCREEN_BUFFER_INFO console;
    if (GetConsoleScreenBufferInfo(GetStdHandle(STD_OUTPUT_HANDLE), &console) == 0) {
        return kUsualWidth;
    }
    int const width = console.srWindow.Right - console.srWindow.Left; // a full line would wrap
    return width > 0 ? static_cast<unsigned>(width) : kUsualWidth;
}

bool terminal_shows_utf8() {
    return GetConsoleOutputCP() == CP_UTF8;
}

Utf8Terminal::Utf8Terminal() : m_before(GetConsoleOutputCP()) {
    SetConsoleOutputCP(CP_UTF8);
}

Utf8Terminal::~Utf8Terminal() {
    SetConsoleOutputCP(m_before);
}

namespace {

BOOL WINAPI on_interrupt(DWORD event) {
    if (g_stopWaits && !g_stopped.exchange(true)) {
        if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT) {
            Sleep(INFINITE); // the system ends the program when this returns, or after seconds
        }
        return TRUE;
    }
    end_by_stop();
    return TRUE;
}

} // namespace

void end_by_stop() {
    DWORD written = 0;
    WriteFile(GetStdHandle(STD_ERROR_HANDLE), g_words.data(), static_cast<DWORD>(g_length),
              &written, nullptr);
    TerminateProcess(GetCurrentProcess(), 130);
}

void tell_when_interrupted(std::string const& words) {
    SetConsoleCtrlHandler(on_interrupt, FALSE);
    set_words(words);
    SetConsoleCtrlHandler(on_interrupt, TRUE);
}

void make_stdin_binary() {
    _setmode(_fileno(stdin), _O_BINARY);
}

bool stop_is_wanted() {
    return g_stopped;
}

void let_stop_wait() {
    g_stopWaits = true;
}

bool sleep_for(std::chrono::milliseconds time) {
    auto const end = std::chrono::steady_clock::now() + time;
    while (!g_stopped && std::chrono::steady_clock::now() < end) {
        Sleep(20);
    }
    return !g_stopped;
}

bool stdin_is_terminal() {
    return _isatty(_fileno(stdin)) != 0;
}

// The system has no way to wait for a pipe, so it is asked again and again.
Arrival await_stdin(std::span<std::byte> buffer, size_t& count,
                    std::chrono::milliseconds patience) {
    HANDLE const input = GetStdHandle(STD_INPUT_HANDLE);
    bool const isPipe = GetFileType(input) == FILE_TYPE_PIPE;
    auto const end = std::chrono::steady_clock::now() + patience;
    for (;;) {
        if (g_stopped) {
            return Arrival::Stop;
        }
        DWORD waiting = 0;
        if (isPipe && PeekNamedPipe(input, nullptr, 0, nullptr, &waiting, nullptr) == 0) {
            return Arrival::End;
        }
        if (!isPipe || waiting > 0) {
            break;
        }
        if (std::chrono::steady_clock::now() >= end) {
            return Arrival::Nothing;
        }
        Sleep(20);
    }
    DWORD read = 0;
    if (ReadFile(input, buffer.data(), static_cast<DWORD>(buffer.size()), &read, nullptr) == 0) {
        DWORD const error = GetLastError();
        if (error != ERROR_BROKEN_PIPE) {
            throw std::system_error(static_cast<int>(error), std::system_category());
        }
    }
    count = read;
    return read > 0 ? Arrival::Bytes : Arrival::End;
}

void end_process(int exitCode) {
    // Leaving by the C library would still let the driver know.
    TerminateProcess(GetCurrentProcess(), static_cast<UINT>(exitCode));
    std::abort();
}

} // namespace ffdhost
