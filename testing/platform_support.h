// What the tests of the platform layer share. Uses nothing but the layer and the language.
#pragma once

#include "platform/platform.h"

#include <chrono>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <vector>

constexpr DWORD READ = 0x80000000;
constexpr DWORD WRITE = 0x40000000;
constexpr DWORD READ_WRITE = 0xC0000000;
constexpr DWORD DELETE_ON_CLOSE = 0x04000000;

inline HANDLE open_file(std::string const& path, DWORD access, DWORD share, DWORD disposition = 3,
                        DWORD flags = 0) {
    return CreateFileA(path.c_str(), access, share, nullptr, disposition, flags, nullptr);
}

// A handle that closes itself.
class Opened {
public:
    template <typename... How>
    explicit Opened(std::string const& path, How... how)
        : m_handle(open_file(path, static_cast<DWORD>(how)...)) {
        EXPECT_NE(m_handle, INVALID_HANDLE_VALUE) << path << ": " << GetLastError();
    }
    ~Opened() { EXPECT_TRUE(CloseHandle(m_handle)); }
    Opened(Opened const&) = delete;
    Opened& operator=(Opened const&) = delete;
    operator HANDLE() const { return m_handle; }

private:
    HANDLE m_handle;
};

// The error number of a call that reports failure by its result; 0 if it worked.
inline DWORD error_unless(BOOL worked) {
    return worked ? 0 : GetLastError();
}

// Opens and closes.
inline DWORD open_error(std::string const& path, DWORD access, DWORD share, DWORD disposition = 3,
                        DWORD flags = 0) {
    HANDLE handle = open_file(path, access, share, disposition, flags);
    return error_unless(handle != INVALID_HANDLE_VALUE && CloseHandle(handle));
}

inline DWORD remove_error(std::string const& path) {
    return error_unless(DeleteFileA(path.c_str()));
}

inline DWORD rename_error(std::string const& from, std::string const& to) {
    return error_unless(MoveFileA(from.c_str(), to.c_str()));
}

inline DWORD write_text(HANDLE handle, std::string const& text) {
    DWORD written = 0;
    return error_unless(
        WriteFile(handle, text.data(), static_cast<DWORD>(text.size()), &written, nullptr));
}

inline void make_file(std::string const& path, std::string const& text) {
    EXPECT_EQ(write_text(Opened(path, READ_WRITE, 0, 2), text), 0u);
}

inline std::string read_text(HANDLE handle, DWORD bytes = 100) {
    std::string text(bytes, '\0');
    DWORD read = 0;
    if (!ReadFile(handle, text.data(), bytes, &read, nullptr)) {
        return "error " + std::to_string(GetLastError());
    }
    text.resize(read);
    return text;
}

inline std::string text_of(std::string const& path) {
    return read_text(Opened(path, READ, 7));
}

// Each test has an empty directory, and most work there on one or two files.
class PlatformTest : public testing::Test {
protected:
    PlatformTest() { std::filesystem::create_directory(folder); }
    ~PlatformTest() override {
        std::error_code ignored;
        std::filesystem::remove_all(folder, ignored);
    }
    std::string path(std::string const& name) const { return (folder / name).string(); }

    std::filesystem::path const folder =
        std::filesystem::temp_directory_path() /
        ("xkiv" + std::to_string(std::chrono::steady_clock::now().time_since_epoch().count()) +
         std::to_string(reinterpret_cast<uintptr_t>(this)));
    std::string const a = path("a");
    std::string const b = path("b");
};

struct Sharing {
    DWORD access;
    DWORD share;
};

inline std::vector<Sharing> all_sharings() {
    std::vector<Sharing> all;
    for (DWORD const access : {DWORD{0}, READ, WRITE, READ_WRITE}) {
        for (DWORD share = 0; share < 4; ++share) {
            all.push_back({access, share});
        }
    }
    return all;
}

inline bool allows(Sharing const& one, Sharing const& other) {
    return one.access == 0 || other.access == 0 ||
           (((other.access & READ) == 0 || (one.share & 1) != 0) &&
            ((other.access & WRITE) == 0 || (one.share & 2) != 0));
}

// While the file is held open in the first way, every second one gets what it should.
inline void expect_shared(std::string const& path, Sharing const& first) {
    for (Sharing const& second : all_sharings()) {
        EXPECT_EQ(open_error(path, second.access, second.share),
                  allows(first, second) && allows(second, first) ? 0u : 32u)
            << std::hex << first.access << " shared " << first.share << ", then " << second.access
            << " shared " << second.share;
    }
}
