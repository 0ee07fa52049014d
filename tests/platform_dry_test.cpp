// The layer that only pretends, beside a model and beside the true layer.
#define KIV_PLATFORM_OWN_CALLS
#include "platform/dry_platform.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <random>

namespace {

namespace fs = std::filesystem;

class DryTest : public testing::Test {
protected:
    DryTest() {
        fs::create_directories(m_folder);
        std::ofstream(m_real, std::ios::binary) << BYTES;
        dry::start(dry::Disk::Real);
    }
    ~DryTest() override { fs::remove_all(m_folder); }

    static HANDLE open(std::string const& path, DWORD disposition = OPEN_EXISTING) {
        return DryCreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                              disposition, 0, nullptr);
    }
    static void seek(HANDLE file, size_t offset) {
        LONG high = 0;
        DrySetFilePointer(file, static_cast<LONG>(offset), &high, FILE_BEGIN);
    }
    static std::string read(HANDLE file, size_t offset, size_t size) {
        std::string bytes(size, '?');
        DWORD count = 0;
        seek(file, offset);
        EXPECT_TRUE(DryReadFile(file, bytes.data(), static_cast<DWORD>(size), &count, nullptr));
        return bytes.substr(0, count);
    }

    static inline std::string const BYTES =
        "What stands in the file on the disk. " + std::string(99, 'x');
    fs::path const m_folder =
        fs::temp_directory_path() / ("dry" + std::to_string(std::random_device()()));
    std::string const m_real = (m_folder / "real").string();
    std::string const m_made = (m_folder / "made").string();
};

TEST_F(DryTest, BytesAreThoseOfAModel) {
    std::mt19937 random(7);
    HANDLE const files[] = {open(m_real), open(m_made, CREATE_NEW)};
    std::string models[] = {BYTES, ""};
    for (int step = 0; step < 20000; ++step) {
        size_t const which = random() % 2;
        std::string& model = models[which];
        size_t const offset = random() % 300;
        size_t const size = random() % 40 + 1;
        seek(files[which], offset);
        std::string bytes(size, static_cast<char>('a' + step % 26));
        DWORD count = 0;
        switch (random() % 4) {
        case 0: // as it was just read elsewhere
            bytes = read(files[1 - which], random() % 300, size);
            [[fallthrough]];
        case 1:
            DryWriteFile(files[which], bytes.data(), static_cast<DWORD>(bytes.size()), &count,
                         nullptr);
            ASSERT_EQ(count, bytes.size());
            break;
        case 2:
            DrySetEndOfFile(files[which]);
            model.resize(offset);
            bytes.clear();
            break;
        default:
            seek(files[1 - which], random() % 300);
            LONG high = 0;
            DWORD const from = DrySetFilePointer(files[1 - which], 0, &high, FILE_CURRENT);
            count = DryPlatformCopyBytes(files[1 - which], files[which], static_cast<DWORD>(size));
            bytes = from < models[1 - which].size() ? models[1 - which].substr(from, size) : "";
            ASSERT_EQ(count, bytes.size());
        }
        if (!bytes.empty()) {
            model.resize(std::max(model.size(), offset + bytes.size()));
            model.replace(offset, bytes.size(), bytes);
        }
        ASSERT_EQ(read(files[which], 0, 1000), model) << step;
    }
    for (HANDLE const file : files) {
        EXPECT_TRUE(DryCloseHandle(file));
    }
    std::string disk;
    std::getline(std::ifstream(m_real, std::ios::binary), disk);
    EXPECT_EQ(disk, BYTES);
    EXPECT_FALSE(fs::exists(m_made));
}

TEST_F(DryTest, NamesAreThoseOfASessionOfItsOwn) {
    EXPECT_TRUE(DryMoveFileA(m_real.c_str(), m_made.c_str()));
    EXPECT_EQ(open(m_real), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_FILE_NOT_FOUND});
    HANDLE const made = open(m_made);
    EXPECT_EQ(read(made, 0, 1000), BYTES);
    EXPECT_FALSE(DryDeleteFileA(m_made.c_str()));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_SHARING_VIOLATION});
    EXPECT_TRUE(DryCloseHandle(made));
    HANDLE const again = open(m_real, CREATE_NEW);
    EXPECT_TRUE(DryCloseHandle(again));
    EXPECT_FALSE(DryMoveFileA(m_made.c_str(), m_real.c_str()));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_ALREADY_EXISTS});
    EXPECT_TRUE(fs::exists(m_real) && !fs::exists(m_made));
    ASSERT_EQ(dry::changes().size(), 2u);
    EXPECT_EQ(dry::changes()[0].kind, dry::Change::Kind::Renamed);
    EXPECT_EQ(dry::changes()[1].kind, dry::Change::Kind::Made);
}

TEST_F(DryTest, MeetsClaimsAndHasNone) {
    HANDLE const pretended = open(m_real);
    HANDLE const alone = CreateFileA(m_real.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                     OPEN_EXISTING, 0, nullptr);
    EXPECT_NE(alone, INVALID_HANDLE_VALUE);
    EXPECT_TRUE(DryCloseHandle(pretended));
    EXPECT_EQ(open(m_real), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_SHARING_VIOLATION});
    EXPECT_FALSE(DryDeleteFileA(m_real.c_str()));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_SHARING_VIOLATION});
    EXPECT_EQ(dry::failures().size(), 2u);
    EXPECT_TRUE(CloseHandle(alone));
    EXPECT_TRUE(DryDeleteFileA(m_real.c_str()));
    EXPECT_TRUE(fs::exists(m_real));
}

} // namespace
