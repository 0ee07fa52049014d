// The outcomes that must be the same on every platform: share modes, removing and renaming, error
// numbers, the file pointer. Uses the layer and the language alone, so that the same tables can run
// over the platform's own calls.
#include "tests/platform_support.h"

#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <optional>

namespace {

using std::string;

// A handle that closes itself.
class Opened {
public:
    Opened(string const& path, DWORD access, DWORD share, DWORD disposition = 3, DWORD flags = 0)
        : m_handle(open_file(path, access, share, disposition, flags)) {
        EXPECT_NE(m_handle, INVALID_HANDLE_VALUE) << path << ": " << GetLastError();
    }
    ~Opened() { CloseHandle(m_handle); }
    Opened(Opened const&) = delete;
    Opened& operator=(Opened const&) = delete;
    operator HANDLE() const { return m_handle; }

private:
    HANDLE m_handle;
};

struct Case {
    char const* name;
    DWORD expected;
    std::function<DWORD()> run;
};

void expect_all(std::vector<Case> const& cases) {
    for (Case const& one : cases)
        EXPECT_EQ(one.run(), one.expected) << one.name;
}

TEST(PlatformOutcomes, ShareModesInOneProcess) {
    ScratchDirectory const scratch;
    string const path = scratch / "a";
    make_file(path, "old");
    for (Sharing const& first : all_sharings()) {
        Opened const held(path, first.access, first.share);
        for (Sharing const& second : all_sharings())
            EXPECT_EQ(open_error(path, second.access, second.share), expected_error(first, second))
                << describe(first) << " then " << describe(second);
    }
    // The opens of the driver, spelled out: the sound file, and the directory file beside it.
    Opened const editor(path, READ_WRITE, 3);
    Opened const secondEditor(path, READ_WRITE, 3);
    EXPECT_EQ(open_error(path, READ, 1), 32u);
    Opened const directoryFile(scratch / "a.DIR", READ_WRITE, 1, 2);
    EXPECT_EQ(open_error(scratch / "a.DIR", READ_WRITE, 1), 32u);
    EXPECT_EQ(open_error(scratch / "a.DIR", READ_WRITE, 1, 2), 32u);
    EXPECT_EQ(open_error(scratch / "a.DIR", READ, 3), 0u);
}

TEST(PlatformOutcomes, ARefusedOpenLeavesNoTrace) {
    ScratchDirectory const scratch;
    string const path = scratch / "a";
    make_file(path, "old");
    {
        Opened const reader(path, READ, 1);
        EXPECT_EQ(open_error(path, READ_WRITE, 3, 2), 32u);
        EXPECT_EQ(open_error(path, READ_WRITE, 3, 5), 32u);
        EXPECT_EQ(open_error(path, READ, 3, 2), 32u); // to empty it is to write
        EXPECT_EQ(open_error(path, READ, 0, 3, 0x04000000), 32u);
        EXPECT_EQ(read_text(reader), "old");
        EXPECT_EQ(open_error(path, READ, 1), 0u);
    }
    EXPECT_EQ(open_error(path, READ_WRITE, 0), 0u);
    EXPECT_EQ(text_of(path), "old");
}

TEST(PlatformOutcomes, ErrorNumbersOfOpening) {
    ScratchDirectory const scratch;
    string const old = scratch / "old";
    string const missing = scratch / "missing";
    string const noDirectory = scratch / "none/a";
    make_file(old, "old");
    auto const opening = [](string const& path, DWORD access, DWORD disposition, DWORD share = 0) {
        return [=] { return open_error(path, access, share, disposition); };
    };
    expect_all({
        {"existing", 0, opening(old, READ, 3)},
        {"missing", 2, opening(missing, READ, 3)},
        {"missing, to be emptied", 2, opening(missing, READ_WRITE, 5)},
        {"missing directory", 3, opening(noDirectory, READ, 3)},
        {"create in a missing directory", 3, opening(noDirectory, READ_WRITE, 1)},
        {"create always in a missing directory", 3, opening(noDirectory, READ_WRITE, 2)},
        {"a file as a directory", 3, opening(old + "/a", READ, 3)},
        {"empty path", 3, opening("", READ, 3)},
        {"a directory, to read", 5, opening(scratch.path(), READ, 3)},
        {"a directory, to write", 5, opening(scratch.path(), READ_WRITE, 3)},
        {"create new on an existing name", 80, opening(old, READ_WRITE, 1)},
        {"empty without write access", 87, opening(old, READ, 5)},
        {"disposition 0", 87, opening(old, READ, 0)},
        {"disposition 6", 87, opening(old, READ, 6)},
        {"an unknown share mode", 87, opening(old, READ, 3, 8)},
    });
    EXPECT_FALSE(std::filesystem::exists(missing));
    EXPECT_EQ(text_of(old), "old");
}

TEST(PlatformOutcomes, Dispositions) {
    struct Row {
        DWORD disposition;
        std::optional<string> onMissing; // what is there afterwards
        std::optional<string> onExisting;
    };
    ScratchDirectory const scratch;
    for (Row const& row : std::vector<Row>{{1, "", "old"},
                                           {2, "", ""},
                                           {3, std::nullopt, "old"},
                                           {4, "", "old"},
                                           {5, std::nullopt, ""}}) {
        string const name = "d" + std::to_string(row.disposition);
        make_file(scratch / (name + "old"), "old");
        open_error(scratch / name, READ_WRITE, 0, row.disposition);
        open_error(scratch / (name + "old"), READ_WRITE, 0, row.disposition);
        EXPECT_EQ(std::filesystem::exists(scratch / name), row.onMissing.has_value()) << name;
        if (row.onMissing) {
            EXPECT_EQ(text_of(scratch / name), *row.onMissing) << name;
        }
        EXPECT_EQ(text_of(scratch / (name + "old")), *row.onExisting) << name;
    }
}

TEST(PlatformOutcomes, RemovingAndRenaming) {
    ScratchDirectory const scratch;
    string const a = scratch / "a";
    string const b = scratch / "b";
    make_file(a, "a");
    make_file(b, "b");
    auto const removing = [](string const& path) {
        return [=] { return error_unless(DeleteFileA(path.c_str())); };
    };
    auto const renaming = [](string const& from, string const& to) {
        return [=] { return error_unless(MoveFileA(from.c_str(), to.c_str())); };
    };
    std::vector<Case> const refused{
        {"remove a missing file", 2, removing(scratch / "none")},
        {"remove in a missing directory", 3, removing(scratch / "none/a")},
        {"remove the empty path", 3, removing("")},
        {"remove a directory", 5, removing(scratch.path())},
        {"rename a missing file", 2, renaming(scratch / "none", scratch / "c")},
        {"rename from a missing directory", 3, renaming(scratch / "none/a", scratch / "c")},
        {"rename into a missing directory", 3, renaming(a, scratch / "none/c")},
        {"rename onto an existing name", 183, renaming(a, b)},
    };
    expect_all(refused);
    for (Sharing const& sharing : all_sharings()) {
        if (sharing.access == 0)
            continue;
        Opened const held(a, sharing.access, sharing.share);
        expect_all({{"remove an open file", 32, removing(a)},
                    {"rename an open file", 32, renaming(a, scratch / "c")},
                    {"rename an open file onto an existing name", 32, renaming(a, b)}});
    }
    EXPECT_EQ(text_of(a), "a");
    EXPECT_EQ(text_of(b), "b");
    expect_all({{"remove", 0, removing(b)},
                {"rename", 0, renaming(a, b)},
                {"the old name is gone", 2, removing(a)}});
    EXPECT_EQ(text_of(b), "a");
}

TEST(PlatformOutcomes, DeleteOnClose) {
    ScratchDirectory const scratch;
    string const path = scratch / "a";
    {
        Opened const probe(path, READ_WRITE, 7, 1, 0x04000000);
        EXPECT_TRUE(std::filesystem::exists(path));
        EXPECT_EQ(open_error(path, READ, 3), 32u); // does not share removal
    }
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ(open_error(scratch / "none/a", READ_WRITE, 0, 1, 0x04000000), 3u);
}

TEST(PlatformOutcomes, HandlesThatAreNotOpenAndAccessThatIsNotThere) {
    ScratchDirectory const scratch;
    string const path = scratch / "a";
    make_file(path, "old");
    HANDLE closed = open_file(path, READ, 3);
    ASSERT_TRUE(CloseHandle(closed));
    Opened const reused(path, READ_WRITE, 3); // takes the place in the table
    for (HANDLE bad : {closed, HANDLE{}, INVALID_HANDLE_VALUE}) {
        char buffer[1];
        DWORD moved = 0;
        expect_all({
            {"close", 6, [&] { return error_unless(CloseHandle(bad)); }},
            {"read", 6, [&] { return error_unless(ReadFile(bad, buffer, 1, &moved, nullptr)); }},
            {"write", 6, [&] { return error_unless(WriteFile(bad, buffer, 1, &moved, nullptr)); }},
            {"seek", 6,
             [&] { return error_unless(SetFilePointer(bad, 0, nullptr, 0) != 0xFFFFFFFF); }},
            {"size", 6, [&] { return error_unless(GetFileSize(bad, nullptr) != 0xFFFFFFFF); }},
            {"cut", 6, [&] { return error_unless(SetEndOfFile(bad)); }},
            {"flush", 6, [&] { return error_unless(FlushFileBuffers(bad)); }},
            {"map", 6, [&] { return error_unless(MapViewOfFile(bad, 2, 0, 0, 1) != nullptr); }},
            {"permissions", 6, [&] { return error_unless(PlatformCopyPermissions(reused, bad)); }},
        });
    }
    Opened const reader(path, READ, 3);
    Opened const writer(path, WRITE, 3);
    expect_all({
        {"read without access", 5, [&] { return read_text(writer) == "error 5" ? 5u : 0u; }},
        {"write without access", 5, [&] { return write_text(reader, "x"); }},
        {"cut without access", 5, [&] { return error_unless(SetEndOfFile(reader)); }},
        {"flush without access", 5, [&] { return error_unless(FlushFileBuffers(reader)); }},
    });
    EXPECT_EQ(text_of(path), "old");
}

TEST(PlatformOutcomes, FilePointer) {
    struct Row {
        char const* name;
        LONG distance;
        std::optional<LONG> high;
        DWORD method;
        DWORD expected; // the low half
        DWORD error;    // where the low half is 0xFFFFFFFF
        LONG expectedHigh;
    };
    ScratchDirectory const scratch;
    Opened const file(scratch / "a", READ_WRITE, 0, 1);
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
             {"narrow from behind 4 GiB", 0, {}, 1, NONE, 87, 0},
             {"wide and back", -6, -1, 1, NONE, 0, 0}, // 4 GiB - 1: no failure
             {"narrow over 4 GiB", 1, {}, 1, NONE, 87, 0},
             {"wide in front of the file", 0, -1, 0, NONE, 131, -1},
             {"unknown method", 0, {}, 3, NONE, 87, 0},
         }) {
        LONG high = row.high.value_or(0);
        SetLastError(999);
        DWORD const low =
            SetFilePointer(file, row.distance, row.high ? &high : nullptr, row.method);
        EXPECT_EQ(low, row.expected) << row.name;
        EXPECT_EQ(high, row.expectedHigh) << row.name;
        EXPECT_EQ(GetLastError(), row.expected == NONE ? row.error : 999u) << row.name;
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

TEST(PlatformOutcomes, OffsetsBeyond4GiB) {
    ScratchDirectory const scratch;
    Opened const file(scratch / "a", READ_WRITE, 0, 1);
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
    // A size whose low half is 0xFFFFFFFF.
    high = 0;
    SetFilePointer(file, -1, &high, 0);
    ASSERT_TRUE(SetEndOfFile(file));
    SetLastError(999);
    EXPECT_EQ(GetFileSize(file, nullptr), 0xFFFFFFFFu);
    EXPECT_EQ(GetLastError(), 0u);
}

TEST(PlatformOutcomes, Mappings) {
    HANDLE mapping = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, 4, 0, 65536, nullptr);
    ASSERT_NE(mapping, nullptr);
    char* const view = static_cast<char*>(MapViewOfFile(mapping, 2, 0, 0, 65536));
    char* const second = static_cast<char*>(MapViewOfFile(mapping, 2, 0, 0, 0));
    ASSERT_NE(view, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(view[0] | view[65535], 0);
    view[65535] = 'x';
    EXPECT_EQ(second[65535], 'x');
    EXPECT_EQ(error_unless(MapViewOfFile(mapping, 2, 0, 0, 65537) != nullptr), 5u);
    // A mapping is no file.
    EXPECT_EQ(error_unless(GetFileSize(mapping, nullptr) != 0xFFFFFFFF), 6u);
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

TEST(PlatformOutcomes, HeapAndTheRest) {
    auto* const block = static_cast<unsigned char*>(HeapAlloc(GetProcessHeap(), 8, 65536));
    ASSERT_NE(block, nullptr);
    unsigned sum = 0;
    for (int i = 0; i < 65536; ++i)
        sum += block[i];
    EXPECT_EQ(sum, 0u);
    EXPECT_TRUE(HeapFree(GetProcessHeap(), 0, block));
    EXPECT_EQ(HeapAlloc(GetProcessHeap(), 0, SIZE_MAX), nullptr);

    UINT const before = SetErrorMode(1);
    EXPECT_EQ(SetErrorMode(before), 1u);

    ScratchDirectory const scratch;
    ULARGE_INTEGER available{}, total{}, free{};
    EXPECT_TRUE(GetDiskFreeSpaceExA(scratch.path().c_str(), &available, &total, &free));
    EXPECT_LE(available.QuadPart, free.QuadPart);
    EXPECT_LE(free.QuadPart, total.QuadPart);
    EXPECT_GT(total.QuadPart, 0u);
    EXPECT_EQ(
        error_unless(GetDiskFreeSpaceExA((scratch / "none/").c_str(), &free, nullptr, nullptr)),
        3u);
}

} // namespace
