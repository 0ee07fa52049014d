#include "testing/driver_fixture.h"

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

// ---- Files ----

std::string read_file(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    EXPECT_TRUE(in.good()) << path;
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void write_file(std::string const& path, std::string const& contents) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(contents.data(), static_cast<std::streamsize>(contents.size()));
    ASSERT_TRUE(out.good()) << path;
}

bool exists(std::string const& path) {
    return fs::exists(path);
}

::testing::AssertionResult same_bytes(std::string const& actual, std::string const& expected) {
    size_t const nCommon = std::min(actual.size(), expected.size());
    size_t nByte = 0;
    while (nByte < nCommon && actual[nByte] == expected[nByte]) {
        ++nByte;
    }
    if (nByte == actual.size() && nByte == expected.size()) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << actual.size() << " bytes instead of " << expected.size()
                                         << ", the first difference at byte " << nByte;
}

// ---- The fixture ----

DriverTest::DriverTest() {
    // Taken before a test moves it.
    static fs::path const root = fs::temp_directory_path();
    static unsigned nFolder = 0;
    fs::path folder;
    do {
        folder =
            root / ("kiv-test-" + std::to_string(process_id()) + "-" + std::to_string(++nFolder));
    } while (!fs::create_directory(folder));
    m_folder = (folder / "").string();
    m_callback.hDriver = this;
    platform_faults::reset();
    driver();
}

DriverTest::~DriverTest() {
    platform_faults::reset();
    for (FFDHandle handle : m_open) {
        driver().Close(handle);
    }
    EXPECT_EQ(platform_faults::open_handles(), 0u);
    EXPECT_EQ(platform_faults::heap_blocks(), 0u);
    EXPECT_EQ(platform_faults::mapped_views(), 0u);
    std::error_code ignored;
    fs::remove_all(m_folder, ignored);
}

std::vector<std::string> DriverTest::listing() const {
    std::vector<std::string> names;
    for (fs::directory_entry const& entry : fs::directory_iterator(m_folder)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

FFDHandle DriverTest::open(std::string const& file, FFDDesiredAccess access) {
    m_status = 0xDEADBEEFDEADBEEF;
    FFDHandle const handle =
        driver().CreateFile(file.c_str(), access, 2, nullptr, m_callback, &m_status, nullptr);
    EXPECT_EQ(handle == nullptr, m_status != 0);
    if (handle != nullptr) {
        m_open.push_back(handle);
    }
    return handle;
}

FFDHandle DriverTest::open_with(std::string const& file, std::string const& contents) {
    write_file(file, contents);
    FFDHandle const handle = open(file);
    EXPECT_EQ(m_status, 0u);
    return handle;
}

void DriverTest::close(FFDHandle handle, FFDError expected) {
    m_open.erase(std::remove(m_open.begin(), m_open.end(), handle), m_open.end());
    EXPECT_EQ(driver().Close(handle), expected);
}

std::string DriverTest::read(FFDHandle handle, uint32_t from, uint32_t bytes) {
    FFDError status = 0;
    EXPECT_EQ(seek(handle, from), from);
    std::string const delivered = read_on(handle, bytes, status);
    EXPECT_EQ(status, 0u);
    return delivered;
}

std::string DriverTest::read_all(FFDHandle handle) {
    uint32_t const nPosition = position(handle);
    uint32_t const nLength = length(handle);
    // With nothing left in the dictation a read has no block to begin with.
    std::string const bytes = nLength == 0 ? "" : read(handle, 0, nLength);
    seek(handle, nPosition);
    return bytes;
}
