// The outcomes that must be the same on every platform: share modes, removing and renaming, error
// numbers, the file pointer. Uses the layer and the language alone, so that the same tables can run
// over the platform's own calls.
#include "testing/platform_support.h"

#include <optional>

namespace {

using std::string;
using PlatformOutcomes = PlatformTest;

// Calls are made in the order of the rows.
struct Outcome {
    char const* name;
    DWORD expected;
    DWORD got;
};

void expect_all(std::vector<Outcome> const& outcomes) {
    for (Outcome const& one : outcomes) {
        EXPECT_EQ(one.got, one.expected) << one.name;
    }
}

TEST_F(PlatformOutcomes, ShareModesInOneProcess) {
    make_file(a, "old");
    for (Sharing const& first : all_sharings()) {
        Opened const held(a, first.access, first.share);
        expect_shared(a, first);
    }
    Opened const editor(a, READ_WRITE, 3);
    Opened const directoryFile(b, READ_WRITE, 1, 2);
    expect_all({{"a second editor", 0, open_error(a, READ_WRITE, 3)},
                {"a reader beside an editor", 32, open_error(a, READ, 1)},
                {"a second owner", 32, open_error(b, READ_WRITE, 1)},
                {"a second owner, to empty it", 32, open_error(b, READ_WRITE, 1, 2)},
                {"a look at what is owned", 0, open_error(b, READ, 3)}});
}

TEST_F(PlatformOutcomes, ARefusedOpenLeavesNoTrace) {
    make_file(a, "old");
    {
        Opened const reader(a, READ, 1);
        expect_all({{"create", 32, open_error(a, READ_WRITE, 3, 2)},
                    {"empty", 32, open_error(a, READ_WRITE, 3, 5)},
                    {"delete on close", 32, open_error(a, READ, 0, 3, DELETE_ON_CLOSE)},
                    {"read", 0, open_error(a, READ, 1)}});
        EXPECT_EQ(read_text(reader), "old");
    }
    EXPECT_EQ(open_error(a, READ_WRITE, 0), 0u);
    EXPECT_EQ(text_of(a), "old");
}

TEST_F(PlatformOutcomes, Dispositions) {
    struct Row {
        DWORD disposition, errorOnMissing, errorOnExisting;
        char const* textOfExisting; // afterwards
    };
    for (Row const& row : std::vector<Row>{
             {1, 0, 80, "old"}, {2, 0, 0, ""}, {3, 2, 0, "old"}, {4, 0, 0, "old"}, {5, 2, 0, ""}}) {
        make_file(a, "old");
        EXPECT_EQ(open_error(a, READ_WRITE, 0, row.disposition), row.errorOnExisting);
        EXPECT_EQ(text_of(a), row.textOfExisting) << row.disposition;
        EXPECT_EQ(open_error(b, READ_WRITE, 0, row.disposition), row.errorOnMissing);
        EXPECT_EQ(std::filesystem::exists(b), row.errorOnMissing == 0) << row.disposition;
        EXPECT_EQ(remove_error(b), row.errorOnMissing) << row.disposition;
    }
}

TEST_F(PlatformOutcomes, ErrorNumbersOfOpening) {
    make_file(a, "old");
    string const nowhere = path("none/a");
    expect_all({
        {"missing directory", 3, open_error(nowhere, READ, 0)},
        {"create in a missing directory", 3, open_error(nowhere, READ_WRITE, 0, 1)},
        {"create always in a missing directory", 3, open_error(nowhere, READ_WRITE, 0, 2)},
        {"a file as a directory", 3, open_error(a + "/a", READ, 0)},
        {"empty path", 3, open_error("", READ, 0)},
        {"a directory, to read", 5, open_error(folder.string(), READ, 0)},
        {"a directory, to write", 5, open_error(folder.string(), READ_WRITE, 0)},
        {"disposition 0", 87, open_error(a, READ, 0, 0)},
        {"disposition 6", 87, open_error(a, READ, 0, 6)},
    });
    EXPECT_EQ(text_of(a), "old");
}

TEST_F(PlatformOutcomes, RemovingAndRenaming) {
    make_file(a, "a");
    make_file(b, "b");
    string const c = path("c");
    expect_all({
        {"remove a missing file", 2, remove_error(c)},
        {"remove in a missing directory", 3, remove_error(path("none/a"))},
        {"remove the empty path", 3, remove_error("")},
        {"remove a directory", 5, remove_error(folder.string())},
        {"rename a missing file", 2, rename_error(path("none"), c)},
        {"rename from a missing directory", 3, rename_error(path("none/a"), c)},
        {"rename into a missing directory", 3, rename_error(a, path("none/c"))},
        {"rename onto an existing name", 183, rename_error(a, b)},
    });
    for (Sharing const& sharing : all_sharings()) {
        if (sharing.access == 0) {
            continue;
        }
        Opened const held(a, sharing.access, sharing.share);
        expect_all({{"remove an open file", 32, remove_error(a)},
                    {"rename an open file", 32, rename_error(a, c)},
                    {"rename an open file onto an existing name", 32, rename_error(a, b)}});
    }
    EXPECT_EQ(text_of(a) + text_of(b), "ab");
    expect_all({{"remove", 0, remove_error(b)},
                {"rename", 0, rename_error(a, b)},
                {"the old name is gone", 2, remove_error(a)}});
    EXPECT_EQ(text_of(b), "a");
}

TEST_F(PlatformOutcomes, DeleteOnClose) {
    {
        Opened const probe(a, READ_WRITE, 7, 1, DELETE_ON_CLOSE);
        EXPECT_TRUE(std::filesystem::exists(a));
        EXPECT_EQ(open_error(a, READ, 3), 32u); // does not share removal
    }
    EXPECT_FALSE(std::filesystem::exists(a));
    EXPECT_EQ(open_error(path("none/a"), READ_WRITE, 0, 1, DELETE_ON_CLOSE), 3u);
}

TEST_F(PlatformOutcomes, HandlesThatAreNotOpenAndAccessThatIsNotThere) {
    make_file(a, "old");
    Opened const open(a, READ_WRITE, 3);
    HANDLE closed = open_file(a, READ, 3);
    ASSERT_TRUE(CloseHandle(closed));
    for (HANDLE bad : {closed, HANDLE{}}) {
        expect_all({
            {"close", 6, error_unless(CloseHandle(bad))},
            {"write", 6, write_text(bad, "x")},
            {"seek", 6, error_unless(SetFilePointer(bad, 0, nullptr, 0) != 0xFFFFFFFF)},
            {"size", 6, error_unless(GetFileSize(bad, nullptr) != 0xFFFFFFFF)},
            {"cut", 6, error_unless(SetEndOfFile(bad))},
            {"flush", 6, error_unless(FlushFileBuffers(bad))},
            {"map", 6, error_unless(MapViewOfFile(bad, 2, 0, 0, 1) != nullptr)},
            {"permissions", 6, error_unless(PlatformCopyPermissions(open, bad, false))},
        });
        EXPECT_EQ(read_text(bad), "error 6");
    }
    Opened const reader(a, READ, 3);
    Opened const writer(a, WRITE, 3);
    EXPECT_EQ(read_text(writer), "error 5");
    expect_all({{"write without access", 5, write_text(reader, "x")},
                {"flush without access", 5, error_unless(FlushFileBuffers(reader))}});
    EXPECT_EQ(text_of(a), "old");
}

TEST_F(PlatformOutcomes, FilePointer) {
    struct Row {
        char const* name;
        LONG distance;
        std::optional<LONG> high;
        DWORD method;
        DWORD expected; // the low half
        DWORD error;    // where the low half is 0xFFFFFFFF
        LONG expectedHigh;
    };
    Opened const file(a, READ_WRITE, 0, 1);
    ASSERT_EQ(write_text(file, "0123456789"), 0u);
    constexpr DWORD NONE = 0xFFFFFFFF;
    for (Row const& row : std::vector<Row>{
             {"begin", 4, {}, 0, 4, 0, 0},
             {"back", -3, {}, 1, 1, 0, 0},
             {"in front of the file", -2, {}, 1, NONE, 131, 0},
             {"not moved by a failure", 0, {}, 1, 1, 0, 0},
             {"end", -1, {}, 2, 9, 0, 0},
             {"behind the end", 100, {}, 2, 110, 0, 0},
             {"narrow and negative", -1, {}, 0, NONE, 131, 0},
             {"wide", 5, 1, 0, 5, 0, 1},
             {"wide and back", -6, -1, 1, NONE, 0, 0}, // 4 GiB - 1: no failure
             {"wide in front of the file", 0, -1, 0, NONE, 131, -1},
             {"unknown method", 0, {}, 3, NONE, 87, 0},
         }) {
        LONG high = row.high.value_or(0);
        SetLastError(999);
        EXPECT_EQ(SetFilePointer(file, row.distance, row.high ? &high : nullptr, row.method),
                  row.expected)
            << row.name;
        EXPECT_EQ(GetLastError(), row.expected == NONE ? row.error : 999u) << row.name;
        EXPECT_EQ(high, row.expectedHigh) << row.name;
    }
    SetFilePointer(file, 4, nullptr, 0);
    EXPECT_EQ(read_text(file, 2), "45");
    EXPECT_EQ(write_text(file, "ab"), 0u);
    EXPECT_EQ(read_text(file), "89");
    EXPECT_EQ(read_text(file), ""); // the end of the file is no failure
    SetFilePointer(file, 5, nullptr, 0);
    EXPECT_TRUE(SetEndOfFile(file));
    SetFilePointer(file, 7, nullptr, 0);
    EXPECT_EQ(write_text(file, "x"), 0u);
    SetFilePointer(file, 0, nullptr, 0);
    EXPECT_EQ(read_text(file), string("01234\0\0x", 8));
}

TEST_F(PlatformOutcomes, OffsetsBeyond4GiB) {
    Opened const file(a, READ_WRITE, 0, 1);
    LONG high = 1;
    ASSERT_EQ(SetFilePointer(file, 0x20000000, &high, 0), 0x20000000u);
    ASSERT_EQ(write_text(file, "tail"), 0u);
    DWORD sizeHigh = 0;
    EXPECT_EQ(GetFileSize(file, &sizeHigh), 0x20000004u);
    EXPECT_EQ(sizeHigh, 1u);
    SetFilePointer(file, 0, nullptr, 0);
    EXPECT_EQ(read_text(file, 4), string(4, '\0'));
    high = -1;
    EXPECT_EQ(SetFilePointer(file, -2, &high, 2), 0x20000002u);
    EXPECT_EQ(high, 1);
    EXPECT_EQ(read_text(file), "il");
    high = 0;
    SetFilePointer(file, -1, &high, 0);
    ASSERT_TRUE(SetEndOfFile(file));
    SetLastError(999);
    EXPECT_EQ(GetFileSize(file, nullptr), 0xFFFFFFFFu); // the size itself
    EXPECT_EQ(GetLastError(), 0u);
}

TEST_F(PlatformOutcomes, Mappings) {
    HANDLE mapping = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, 4, 0, 65536, nullptr);
    char* const view = static_cast<char*>(MapViewOfFile(mapping, 2, 0, 0, 65536));
    char* const second = static_cast<char*>(MapViewOfFile(mapping, 2, 0, 0, 0));
    ASSERT_TRUE(view != nullptr && second != nullptr);
    EXPECT_EQ(view[0] | view[65535], 0);
    view[65535] = 'x';
    EXPECT_EQ(second[65535], 'x');
    EXPECT_EQ(error_unless(MapViewOfFile(mapping, 2, 0, 0, 65537) != nullptr), 5u);
    EXPECT_TRUE(UnmapViewOfFile(second));
    EXPECT_FALSE(UnmapViewOfFile(second));
    EXPECT_TRUE(CloseHandle(mapping));
    EXPECT_EQ(error_unless(MapViewOfFile(mapping, 2, 0, 0, 1) != nullptr), 6u);
    EXPECT_EQ(view[65535], 'x'); // a view outlives its mapping
    EXPECT_TRUE(UnmapViewOfFile(view));
    EXPECT_FALSE(UnmapViewOfFile(nullptr));
    EXPECT_EQ(CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, 4, 0, 0, nullptr), nullptr);
    EXPECT_EQ(GetLastError(), 87u);
}

TEST_F(PlatformOutcomes, HeapAndTheRest) {
    auto* const block = static_cast<char*>(HeapAlloc(GetProcessHeap(), 8, 65536));
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(string(block, 65536), string(65536, '\0'));
    EXPECT_TRUE(HeapFree(GetProcessHeap(), 0, block));
    EXPECT_EQ(HeapAlloc(GetProcessHeap(), 0, SIZE_MAX), nullptr);

    UINT const before = SetErrorMode(1);
    EXPECT_EQ(SetErrorMode(before), 1u);

    ULARGE_INTEGER available{}, total{}, free{};
    EXPECT_TRUE(GetDiskFreeSpaceExA(folder.string().c_str(), &available, &total, &free));
    EXPECT_LE(available.QuadPart, free.QuadPart);
    EXPECT_LE(free.QuadPart, total.QuadPart);
    EXPECT_GT(total.QuadPart, 0u);
}

// What the platform does and wine does not.
TEST_F(PlatformOutcomes, WhereWineDiffers) {
    if (KIV_WINE) {
        GTEST_SKIP() << "for Windows itself, and for the Linux layer";
    }
    make_file(a, "old");
    ULARGE_INTEGER free{};
    HANDLE mapping = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, 4, 0, 65536, nullptr);
    {
        Opened const reader(a, READ, 1);
        expect_all({{"to empty it is to write", 32, open_error(a, READ, 3, 2)},
                    {"cut without access", 5, error_unless(SetEndOfFile(reader))}});
    }
    expect_all({
        {"empty without write access", 87, open_error(a, READ, 0, 5)},
        {"an unknown share mode", 87, open_error(a, READ, 8)},
        {"a mapping is no file", 6, error_unless(GetFileSize(mapping, nullptr) != 0xFFFFFFFF)},
        {"free space of a missing directory", 3,
         error_unless(GetDiskFreeSpaceExA(path("none/").c_str(), &free, nullptr, nullptr))},
    });
    EXPECT_TRUE(CloseHandle(mapping));
    EXPECT_EQ(text_of(a), "old");
    Opened const file(a, READ_WRITE, 0);
    LONG high = 1;
    ASSERT_EQ(SetFilePointer(file, 5, &high, 0), 5u);
    for (LONG const distance : {0, 1}) { // the place does not fit into the result
        EXPECT_EQ(error_unless(SetFilePointer(file, distance, nullptr, 1) != 0xFFFFFFFF), 87u);
    }
}

} // namespace
