// What the tests of the platform layer share. Uses nothing but the layer and the language.
#pragma once

#include "platform/platform.h"

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

// An empty directory that goes with its object.
class ScratchDirectory {
public:
    ScratchDirectory() {
        auto const now = std::chrono::steady_clock::now().time_since_epoch().count();
        m_path = std::filesystem::temp_directory_path() /
                 ("xkiv" + std::to_string(now) + std::to_string(reinterpret_cast<uintptr_t>(this)));
        std::filesystem::create_directory(m_path);
    }
    ~ScratchDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    ScratchDirectory(ScratchDirectory const&) = delete;
    ScratchDirectory& operator=(ScratchDirectory const&) = delete;
    std::string operator/(std::string const& name) const { return (m_path / name).string(); }
    std::string path() const { return m_path.string(); }

private:
    std::filesystem::path m_path;
};

constexpr DWORD READ = 0x80000000;
constexpr DWORD WRITE = 0x40000000;
constexpr DWORD READ_WRITE = 0xC0000000;

inline HANDLE open_file(std::string const& path, DWORD access, DWORD share, DWORD disposition = 3,
                        DWORD flags = 0) {
    return CreateFileA(path.c_str(), access, share, nullptr, disposition, flags, nullptr);
}

// The error number of a call that reports failure by its result; 0 if it worked.
inline DWORD error_unless(BOOL worked) {
    return worked ? 0 : GetLastError();
}

// Opens and closes. The error number, or 0.
inline DWORD open_error(std::string const& path, DWORD access, DWORD share, DWORD disposition = 3,
                        DWORD flags = 0) {
    HANDLE handle = open_file(path, access, share, disposition, flags);
    return error_unless(handle != INVALID_HANDLE_VALUE && CloseHandle(handle));
}

inline DWORD write_text(HANDLE handle, std::string const& text) {
    DWORD written = 0;
    return error_unless(
        WriteFile(handle, text.data(), static_cast<DWORD>(text.size()), &written, nullptr));
}

inline void make_file(std::string const& path, std::string const& text) {
    HANDLE handle = open_file(path, READ_WRITE, 0, 2);
    write_text(handle, text);
    CloseHandle(handle);
}

inline std::string read_text(HANDLE handle, DWORD bytes = 100) {
    std::string text(bytes, '\0');
    DWORD read = 0;
    if (!ReadFile(handle, text.data(), bytes, &read, nullptr))
        return "error " + std::to_string(GetLastError());
    text.resize(read);
    return text;
}

// The whole text of a file, "error N" if it cannot be opened.
inline std::string text_of(std::string const& path) {
    HANDLE handle = open_file(path, READ, 7);
    std::string text = read_text(handle);
    CloseHandle(handle);
    return text;
}

// One way to open a file.
struct Sharing {
    DWORD access;
    DWORD share;
};

// Every access with every share mode.
inline std::vector<Sharing> all_sharings() {
    std::vector<Sharing> all;
    for (DWORD const access : {DWORD{0}, READ, WRITE, READ_WRITE})
        for (DWORD share = 0; share < 4; ++share)
            all.push_back({access, share});
    return all;
}

inline bool allows(Sharing const& one, Sharing const& other) {
    return one.access == 0 || other.access == 0 ||
           (((other.access & READ) == 0 || (one.share & 1) != 0) &&
            ((other.access & WRITE) == 0 || (one.share & 2) != 0));
}

// What a second open gets beside a first one.
inline DWORD expected_error(Sharing const& first, Sharing const& second) {
    return allows(first, second) && allows(second, first) ? 0 : 32;
}

inline std::string describe(Sharing const& sharing) {
    return "access " + std::to_string(sharing.access >> 30) + " share " +
           std::to_string(sharing.share);
}
