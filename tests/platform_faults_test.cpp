// The fault layer, which the tests of the driver lean on: over the layer of this system, and over
// the one that only pretends.
#include "testing/fault_layer.h"
#include "testing/platform_support.h"

#include <functional>

namespace {

using namespace platform_faults;
using std::string;

class PlatformFaults : public PlatformTest {
protected:
    PlatformFaults() { reset(); }
    ~PlatformFaults() override { reset(); }
};

TEST_F(PlatformFaults, EveryKindFailsOnceWithItsErrorAndDoesNothing) {
    HANDLE file = nullptr;
    HANDLE mapping = nullptr;
    void* view = nullptr;
    void* block = nullptr;
    char text[300];
    DWORD moved = 0;
    PlatformFileIdentity identity = {};
    ULARGE_INTEGER space{};
    string const c = path("c");
    make_file(c, "");
    struct Row {
        Call call;
        std::function<bool()> works;
    };
    std::vector<Row> const rows{
        {Call::CreateFile,
         [&] { return (file = open_file(a, READ_WRITE, 7, 1)) != INVALID_HANDLE_VALUE; }},
        {Call::WriteFile, [&] { return WriteFile(file, "new", 3, &moved, nullptr); }},
        {Call::SetFilePointer, [&] { return SetFilePointer(file, 1, nullptr, 0) != 0xFFFFFFFF; }},
        {Call::ReadFile, [&] { return ReadFile(file, text, 1, &moved, nullptr); }},
        {Call::SetEndOfFile, [&] { return SetEndOfFile(file); }},
        {Call::GetFileSize, [&] { return GetFileSize(file, nullptr) == 2; }},
        {Call::FlushFileBuffers, [&] { return FlushFileBuffers(file); }},
        {Call::CopyPermissions, [&] { return PlatformCopyPermissions(file, file, false); }},
        {Call::GetFileIdentity, [&] { return PlatformGetFileIdentity(file, &identity); }},
        {Call::GetNameIdentity, [&] { return PlatformGetNameIdentity(a.c_str(), &identity); }},
        {Call::TestCompanion, [&] { return PlatformTestCompanion(file, a.c_str(), c.c_str()); }},
        {Call::CopyBytes,
         [&] {
             Opened const other(c, READ_WRITE, 0);
             SetFilePointer(file, 0, nullptr, 0);
             SetLastError(0); // Windows copies nothing, which is no error
             return PlatformCopyBytes(file, other, 1) == 1 || GetLastError() == 0;
         }},
        {Call::GetFullPathName, [&] { return GetFullPathNameA("a", 300, text, nullptr) != 0; }},
        {Call::HeapAlloc, [&] { return (block = HeapAlloc(GetProcessHeap(), 0, 1)) != nullptr; }},
        {Call::CreateFileMapping,
         [&] {
             mapping = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, 4, 0, 10, nullptr);
             return mapping != nullptr;
         }},
        {Call::MapViewOfFile,
         [&] { return (view = MapViewOfFile(mapping, 2, 0, 0, 10)) != nullptr; }},
        {Call::GetSystemDirectory, [&] { return GetSystemDirectoryA(text, 300) != 0; }},
        {Call::GetTempPath, [&] { return GetTempPathA(300, text) != 0; }},
        {Call::GetDiskFreeSpaceEx,
         [&] { return GetDiskFreeSpaceExA("/", &space, &space, &space); }},
        {Call::DriverCallback,
         [] {
             LPDRVCALLBACK const none = [](HDRVR, UINT, DWORD_PTR, DWORD_PTR, DWORD_PTR) {};
             return DriverCallback(reinterpret_cast<DWORD_PTR>(none), 3, nullptr, 0, 0, 0, 0);
         }},
        {Call::HeapFree,
         [&] { return heap_blocks() == 1 && HeapFree(GetProcessHeap(), 0, block); }},
        {Call::UnmapViewOfFile, [&] { return mapped_views() == 1 && UnmapViewOfFile(view); }},
        {Call::CloseHandle,
         [&] { return CloseHandle(mapping) && open_handles() == 1 && CloseHandle(file); }},
        {Call::MoveFile, [&] { return rename_error(a, b) == 0; }},
        {Call::DeleteFile, [&] { return remove_error(b) == 0; }},
    };
    ASSERT_EQ(rows.size(), static_cast<size_t>(Call::Any));
    for (Row const& row : rows) {
        reset();
        fail(row.call, 1, 4711);
        moved = 77;
        EXPECT_FALSE(row.works()) << static_cast<int>(row.call);
        EXPECT_EQ(GetLastError(), 4711u) << static_cast<int>(row.call);
        EXPECT_EQ(moved, 77u) << static_cast<int>(row.call);
        EXPECT_EQ(changes(), 0u) << static_cast<int>(row.call);
        EXPECT_TRUE(row.works()) << static_cast<int>(row.call);
    }
    EXPECT_EQ(open_handles() + heap_blocks() + mapped_views(), 0u);
    EXPECT_EQ(open_error(b, READ, 0), 2u);
}

struct Stopped {};

TEST_F(PlatformFaults, StopsInFrontOfEveryChange) {
    auto const make_six_changes = [this] {
        HANDLE file = open_file(a, READ_WRITE, 0, 1);
        write_text(file, "12");
        write_text(file, ""); // this and those below that change nothing do not count
        SetFilePointer(file, 1, nullptr, 0);
        SetEndOfFile(file);
        FlushFileBuffers(file);
        CloseHandle(file);
        rename_error(a, b);
        open_error(b, READ, 1);
        open_error(b, READ_WRITE, 0, 2);
        remove_error(b);
    };
    make_six_changes();
    EXPECT_EQ(changes(), 6u);
    set_end_of_process([] { throw Stopped(); });
    std::vector<string> const stateAtStop{"", "a:", "a:12", "a:1", "b:1", "b:"};
    for (unsigned nth = 1; nth <= 6; ++nth) {
        stop_before_change(nth);
        EXPECT_THROW(make_six_changes(), Stopped);
        EXPECT_EQ(open_handles(), nth == 2 || nth == 3 ? 1u : 0u);
        abandon_everything();
        string state;
        for (string const& name : {a, b}) {
            if (open_error(name, READ, 0) == 0) {
                state += name.substr(name.size() - 1) + ":" + text_of(name);
                remove_error(name);
            }
        }
        EXPECT_EQ(state, stateAtStop[nth - 1]);
    }
}

} // namespace
