// The fault seam, which the tests of the driver lean on.
#include "platform/faults.h"
#include "tests/platform_support.h"

#include <functional>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using platform_faults::Call;
using std::string;

class PlatformFaults : public testing::Test {
protected:
    void SetUp() override { platform_faults::reset(); }
    void TearDown() override { platform_faults::reset(); }
    ScratchDirectory const scratch;
};

TEST_F(PlatformFaults, EveryKindFailsOnceWithItsErrorAndDoesNothing) {
    string const path = scratch / "a";
    make_file(path, "old");
    HANDLE file = open_file(path, READ_WRITE, 7);
    HANDLE mapping = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, 4, 0, 10, nullptr);
    void* const view = MapViewOfFile(mapping, 2, 0, 0, 10);
    void* const block = HeapAlloc(GetProcessHeap(), 0, 10);
    char text[300];
    DWORD moved = 77;
    struct Row {
        Call call;
        std::function<bool()> works;
    };
    std::vector<Row> const rows{
        {Call::CreateFile, [&] { return open_error(scratch / "new", READ_WRITE, 0, 1) == 0; }},
        {Call::ReadFile, [&] { return ReadFile(file, text, 1, &moved, nullptr); }},
        {Call::WriteFile, [&] { return WriteFile(file, "new", 3, &moved, nullptr); }},
        {Call::SetFilePointer, [&] { return SetFilePointer(file, 1, nullptr, 0) != 0xFFFFFFFF; }},
        {Call::SetEndOfFile, [&] { return SetEndOfFile(file); }},
        {Call::GetFileSize, [&] { return GetFileSize(file, nullptr) != 0xFFFFFFFF; }},
        {Call::FlushFileBuffers, [&] { return FlushFileBuffers(file); }},
        {Call::CopyPermissions, [&] { return PlatformCopyPermissions(file, file); }},
        {Call::GetFullPathName, [&] { return GetFullPathNameA("a", 300, text, nullptr) != 0; }},
        {Call::HeapAlloc,
         [] {
             void* const more = HeapAlloc(GetProcessHeap(), 0, 1);
             return more != nullptr && HeapFree(GetProcessHeap(), 0, more);
         }},
        {Call::CreateFileMapping,
         [] {
             return CloseHandle(
                 CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, 4, 0, 1, nullptr));
         }},
        {Call::MapViewOfFile, [&] { return UnmapViewOfFile(MapViewOfFile(mapping, 2, 0, 0, 1)); }},
        {Call::GetSystemDirectory, [&] { return GetSystemDirectoryA(text, 300) != 0; }},
        {Call::GetTempPath, [&] { return GetTempPathA(300, text) != 0; }},
        {Call::GetDiskFreeSpaceEx,
         [] { return GetDiskFreeSpaceExA("/", nullptr, nullptr, nullptr); }},
        {Call::DriverCallback,
         [] {
             LPDRVCALLBACK const none = [](HDRVR, UINT, DWORD_PTR, DWORD_PTR, DWORD_PTR) {};
             return DriverCallback(reinterpret_cast<DWORD_PTR>(none), 3, nullptr, 0, 0, 0, 0);
         }},
        {Call::HeapFree, [&] { return HeapFree(GetProcessHeap(), 0, block); }},
        {Call::UnmapViewOfFile, [&] { return UnmapViewOfFile(view); }},
        {Call::CloseHandle, [&] { return CloseHandle(mapping) && CloseHandle(file); }},
        {Call::MoveFile, [&] { return MoveFileA(path.c_str(), (scratch / "b").c_str()); }},
        {Call::DeleteFile, [&] { return DeleteFileA((scratch / "b").c_str()); }},
    };
    unsigned const handles = platform_faults::open_handles();
    EXPECT_EQ(platform_faults::heap_blocks(), 1u);
    EXPECT_EQ(platform_faults::mapped_views(), 1u);
    ASSERT_EQ(rows.size(), static_cast<size_t>(Call::Any));
    for (Row const& row : rows) {
        platform_faults::reset();
        platform_faults::fail(row.call, 1, 4711);
        EXPECT_FALSE(row.works()) << static_cast<int>(row.call);
        EXPECT_EQ(platform_faults::changes(), 0u) << static_cast<int>(row.call);
        if (row.call == Call::CreateFileMapping) { // the close of null set another number behind it
            EXPECT_EQ(GetLastError(), 6u);
        } else if (row.call == Call::MapViewOfFile) {
            EXPECT_EQ(GetLastError(), 87u);
        } else {
            EXPECT_EQ(GetLastError(), 4711u) << static_cast<int>(row.call);
        }
        EXPECT_EQ(moved, row.call == Call::ReadFile || row.call == Call::CreateFile ? 77u : moved);
        EXPECT_TRUE(row.works()) << static_cast<int>(row.call);
    }
    EXPECT_EQ(platform_faults::open_handles(), handles - 2);
    EXPECT_EQ(platform_faults::heap_blocks(), 0u);
    EXPECT_EQ(platform_faults::mapped_views(), 0u);
    EXPECT_FALSE(std::filesystem::exists(scratch / "b"));
}

TEST_F(PlatformFaults, TheNthAndThoseBehindItAndCounts) {
    std::vector<bool> worked;
    worked.reserve(7);
    char text[300];
    platform_faults::fail(Call::GetTempPath, 2, 5, 2);
    platform_faults::fail(Call::Any, 6, 5);
    for (int i = 0; i < 5; ++i)
        worked.push_back(GetTempPathA(300, text) != 0);
    worked.push_back(GetSystemDirectoryA(text, 300) != 0);
    worked.push_back(GetSystemDirectoryA(text, 300) != 0);
    EXPECT_EQ(worked, (std::vector<bool>{true, false, false, true, true, false, true}));
    EXPECT_EQ(platform_faults::count(Call::GetTempPath), 5u);
    EXPECT_EQ(platform_faults::count(Call::Any), 7u);
    platform_faults::reset();
    EXPECT_EQ(platform_faults::count(Call::Any), 0u);
}

TEST_F(PlatformFaults, HalfTransfersAndPretendedSpace) {
    HANDLE file = open_file(scratch / "a", READ_WRITE, 0, 1);
    DWORD moved = 0;
    platform_faults::halve(Call::WriteFile, 1, 112);
    platform_faults::halve(Call::Any, 2, 0);
    EXPECT_FALSE(WriteFile(file, "0123456789", 10, &moved, nullptr));
    EXPECT_EQ(GetLastError(), 112u);
    EXPECT_EQ(moved, 5u);
    EXPECT_TRUE(WriteFile(file, "abcd", 4, &moved, nullptr));
    EXPECT_EQ(moved, 2u);
    SetFilePointer(file, 0, nullptr, 0);
    platform_faults::halve(Call::ReadFile, 2, 0);
    EXPECT_EQ(read_text(file, 2), "01");
    EXPECT_EQ(read_text(file, 4), "23");
    EXPECT_EQ(read_text(file), "4ab");
    CloseHandle(file);

    ULARGE_INTEGER space{};
    platform_faults::pretend_free_bytes(0x100000001);
    EXPECT_TRUE(GetDiskFreeSpaceExA("/", &space, nullptr, nullptr));
    EXPECT_EQ(space.QuadPart, 0x100000001u);
    platform_faults::reset();
    EXPECT_TRUE(GetDiskFreeSpaceExA("/", nullptr, &space, nullptr));
    EXPECT_NE(space.QuadPart, 0x100000001u);
}

// Six changes of the disk, and nothing else that counts as one.
void change_the_disk(ScratchDirectory const& scratch) {
    string const a = scratch / "a";
    string const b = scratch / "b";
    HANDLE file = open_file(a, READ_WRITE, 0, 1);
    WriteFile(file, "12", 2, nullptr, nullptr);
    WriteFile(file, "", 0, nullptr, nullptr);
    SetFilePointer(file, 1, nullptr, 0);
    SetEndOfFile(file);
    FlushFileBuffers(file);
    CloseHandle(file);
    MoveFileA(a.c_str(), b.c_str());
    open_error(b, READ, 1);
    open_error(b, READ_WRITE, 0, 2);
    DeleteFileA(b.c_str());
    DeleteFileA(b.c_str());
}

TEST_F(PlatformFaults, StopsInFrontOfEveryChange) {
    change_the_disk(scratch);
    EXPECT_EQ(platform_faults::changes(), 6u);
    std::vector<string> const stateAtStop{"none", "a:", "a:12", "a:1", "b:1", "b:"};
    for (unsigned nth = 1; nth <= 6; ++nth) {
        pid_t const child = fork();
        if (child == 0) {
            platform_faults::stop_before_change(nth);
            change_the_disk(scratch);
            _exit(0);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 86) << nth;
        string state = "none";
        for (char const* const name : {"a", "b"}) {
            if (std::filesystem::exists(scratch / name))
                state = string(name) + ":" + text_of(scratch / name);
            std::filesystem::remove(scratch / name);
        }
        EXPECT_EQ(state, stateAtStop[nth - 1]);
    }
}

} // namespace
