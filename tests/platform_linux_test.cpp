// What the layer promises on Linux beyond single outcomes: between processes and threads, by the
// rights of a user, on full and read-only disks, and about paths.
#include "platform/split_path.h"
#include "testing/platform_support.h"

#include <array>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <set>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using std::string;
using PlatformLinux = PlatformTest;

TEST_F(PlatformLinux, ShareModesHoldBetweenProcessesAndDieWithTheirs) {
    make_file(a, "old");
    for (Sharing const& first : all_sharings()) {
        int ready[2];
        ASSERT_EQ(pipe(ready), 0);
        pid_t const holder = fork();
        if (holder == 0) {
            bool const held = open_file(a, first.access, first.share) != INVALID_HANDLE_VALUE;
            static_cast<void>(write(ready[1], &held, 1) == 1);
            for (;;) {
                pause();
            }
        }
        close(ready[1]);
        bool held = false;
        EXPECT_EQ(read(ready[0], &held, 1), 1);
        close(ready[0]);
        EXPECT_TRUE(held);
        expect_shared(a, first);
        EXPECT_EQ(remove_error(a), 32u);
        EXPECT_EQ(rename_error(a, b), 32u);
        kill(holder, SIGKILL);
        waitpid(holder, nullptr, 0);
        EXPECT_EQ(open_error(a, READ_WRITE, 0), 0u);
    }
}

TEST_F(PlatformLinux, OneOwnerAtATime) {
    std::atomic<int> owners = 0;
    std::atomic<int> times = 0;
    auto const expect_lost_race = [](DWORD error) {
        EXPECT_TRUE(error == 0 || error == 2 || error == 32 || error == 183) << error;
    };
    auto const compete = [&] {
        for (int i = 0; i < 500; ++i) {
            HANDLE handle = open_file(a, READ_WRITE, 0, i % 2 == 0 ? 2 : 4);
            if (handle == INVALID_HANDLE_VALUE) {
                expect_lost_race(GetLastError());
            } else {
                ++times;
                EXPECT_EQ(++owners, 1);
                EXPECT_EQ(write_text(handle, "x"), 0u);
                --owners;
                EXPECT_TRUE(CloseHandle(handle));
            }
            expect_lost_race(i % 3 == 0 ? rename_error(a, b) : remove_error(a));
            remove_error(b);
        }
    };
    std::array threads{std::thread(compete), std::thread(compete), std::thread(compete),
                       std::thread(compete)};
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_GT(times, 0);
}

TEST_F(PlatformLinux, ManyHandlesAtOnceAndOneOfManyThreads) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    auto const allow = [&](rlim_t descriptors) {
        limit.rlim_cur = descriptors;
        setrlimit(RLIMIT_NOFILE, &limit);
    };
    allow(limit.rlim_max);
    ASSERT_GE(limit.rlim_cur, 3100u) << "too few descriptors to test with";
    std::set<HANDLE> handles;
    for (int i = 0; i < 3000; ++i) {
        handles.insert(open_file(a, READ_WRITE, 3, 4));
    }
    EXPECT_EQ(handles.size(), 3000u);
    EXPECT_EQ(handles.count(INVALID_HANDLE_VALUE), 0u);
    // Two threads write through one handle: its file pointer loses no step.
    HANDLE shared = *handles.begin();
    auto const append = [shared] {
        for (int i = 0; i < 1000; ++i) {
            write_text(shared, "12345");
        }
    };
    std::thread other(append);
    append();
    other.join();
    EXPECT_EQ(GetFileSize(shared, nullptr), 10000u);
    for (HANDLE handle : handles) {
        EXPECT_TRUE(CloseHandle(handle));
    }
    EXPECT_FALSE(CloseHandle(shared));
    allow(0);
    EXPECT_EQ(open_error(a, READ, 3), 4u);
    allow(limit.rlim_max);
}

TEST_F(PlatformLinux, RightsDecideAsTheFileSystemDoes) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can take on another user's rights";
    }
    string const closed = path("closed/a");
    std::filesystem::create_directory(path("closed"));
    make_file(closed, "old");
    make_file(a, "old");
    chmod(a.c_str(), 0644);
    chmod(folder.c_str(), 0755);
    chmod(path("closed").c_str(), 0700);
    ASSERT_EQ(seteuid(65534), 0);
    EXPECT_EQ(open_error(closed, READ, 3), 5u);
    EXPECT_EQ(open_error(a, READ_WRITE, 3), 5u);
    EXPECT_EQ(open_error(a, READ, 3, 2), 5u);
    EXPECT_EQ(open_error(b, READ_WRITE, 0, 1), 5u);
    EXPECT_EQ(remove_error(a), 5u);
    EXPECT_EQ(rename_error(a, b), 5u);
    EXPECT_EQ(open_error(a, READ, 1), 0u); // read-only descriptors are guarded as well
    {
        Opened const reader(a, READ, 0);
        EXPECT_EQ(open_error(a, READ, 3), 32u);
    }
    EXPECT_EQ(seteuid(0), 0);
    EXPECT_EQ(text_of(a), "old");
}

TEST_F(PlatformLinux, RightsAreCopiedFromFileToFile) {
    make_file(a, "x");
    EXPECT_TRUE(geteuid() != 0 || chown(a.c_str(), 65534, 65534) == 0);
    ASSERT_EQ(chmod(a.c_str(), 04640), 0);
    Opened const from(a, READ, 3);
    Opened const to(b, READ_WRITE, 0, 1);
    EXPECT_TRUE(PlatformCopyPermissions(from, to, false));
    EXPECT_TRUE(PlatformCopyPermissions(to, to, false));
    EXPECT_FALSE(PlatformCopyPermissions(to, from, false));
    struct stat expected {
    }, got{};
    stat(a.c_str(), &expected);
    stat(b.c_str(), &got);
    EXPECT_EQ(got.st_mode, expected.st_mode);
    EXPECT_EQ(got.st_uid, expected.st_uid);
    EXPECT_EQ(got.st_gid, expected.st_gid);
}

TEST_F(PlatformLinux, BytesAreCopiedBetweenFilePointers) {
    make_file(a, "0123456789");
    Opened const from(a, READ, 3);
    Opened const to(b, READ_WRITE, 0, 1);
    LONG lHigh = 1; // 4 GiB, and 5 bytes more: the pointers do not end with 32 bits
    ASSERT_EQ(SetFilePointer(from, 2, nullptr, 0), 2u);
    ASSERT_EQ(SetFilePointer(to, 5, &lHigh, 0), 5u);
    EXPECT_EQ(PlatformCopyBytes(from, to, 3), 3u);
    EXPECT_EQ(PlatformCopyBytes(from, to, 100), 5u); // the end of the file
    EXPECT_EQ(PlatformCopyBytes(from, to, 100), 0u);
    EXPECT_EQ(SetFilePointer(from, 0, nullptr, 1), 10u);
    lHigh = -1;
    EXPECT_EQ(SetFilePointer(to, -8, &lHigh, 1), 5u);
    char text[9] = "";
    DWORD dwRead = 0;
    EXPECT_TRUE(ReadFile(to, text, 100, &dwRead, nullptr));
    EXPECT_STREQ(text, "23456789");
    // What can't be copied is left to the caller, whose own calls then tell why.
    EXPECT_EQ(PlatformCopyBytes(to, from, 1) + PlatformCopyBytes(to, to, 1), 0u);
    EXPECT_EQ(PlatformCopyBytes(nullptr, to, 1) + PlatformCopyBytes(from, nullptr, 1), 0u);
}

TEST_F(PlatformLinux, DisksThatAreFullOrReadOnly) {
    string const disk = path("disk");
    std::filesystem::create_directory(disk);
    if (mount("none", disk.c_str(), "tmpfs", 0, "size=64k") != 0) {
        GTEST_SKIP() << "a small file system cannot be mounted here: " << strerror(errno);
    }
    string const full = disk + "/a";
    {
        Opened const file(full, READ_WRITE, 0, 1);
        string const tooMuch(100000, 'x');
        DWORD written = 0;
        EXPECT_FALSE(WriteFile(file, tooMuch.data(), 100000, &written, nullptr));
        EXPECT_EQ(GetLastError(), 112u);
        EXPECT_EQ(written, 65536u); // it says how far it came
        ULARGE_INTEGER available{};
        EXPECT_TRUE(GetDiskFreeSpaceExA(disk.c_str(), &available, nullptr, nullptr));
        EXPECT_EQ(available.QuadPart, 0u);
        SetFilePointer(file, 0, nullptr, 0);
        EXPECT_TRUE(SetEndOfFile(file));
        EXPECT_EQ(write_text(file, "short"), 0u);
        EXPECT_TRUE(FlushFileBuffers(file));
    }
    EXPECT_EQ(rename_error(full, a), 17u);
    EXPECT_EQ(mount("none", disk.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    EXPECT_EQ(open_error(full, READ, 1), 0u);
    EXPECT_EQ(open_error(full, READ_WRITE, 3), 19u);
    EXPECT_EQ(open_error(disk + "/b", READ_WRITE, 0, 1), 19u);
    EXPECT_EQ(remove_error(full), 19u);
    EXPECT_EQ(rename_error(full, disk + "/b"), 19u);
    umount(disk.c_str());
}

TEST_F(PlatformLinux, OnlyRegularFilesAndTheFileBehindTheName) {
    string const fifo = path("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    for (DWORD const access : {READ, WRITE, READ_WRITE}) {
        EXPECT_EQ(open_error(fifo, access, 3), 5u);
    }
    EXPECT_EQ(remove_error(fifo), 5u);
    EXPECT_EQ(open_error("/dev/null", READ_WRITE, 3), 5u);
    EXPECT_EQ(open_error(path(string(300, 'x')), READ_WRITE, 0, 1), 206u);
    // A link and a second name lead to the same file and to the same locks.
    make_file(a, "old");
    std::filesystem::create_symlink("a", path("link"));
    std::filesystem::create_hard_link(a, b);
    Opened const held(a, READ, 1);
    for (string const& name : {path("link"), b}) {
        EXPECT_EQ(open_error(name, READ_WRITE, 3), 32u);
        EXPECT_EQ(remove_error(name), 32u);
    }
    std::filesystem::create_symlink("nowhere", path("dangling"));
    EXPECT_NE(open_error(path("dangling"), READ_WRITE, 0, 4), 0u);
}

TEST_F(PlatformLinux, DeleteOnCloseTakesItsOwnFileAlone) {
    string const before = std::filesystem::current_path();
    std::filesystem::current_path(folder);
    {
        Opened const first("a", READ_WRITE, 7, 1, DELETE_ON_CLOSE);
        Opened const second("b", READ_WRITE, 7, 1, DELETE_ON_CLOSE);
        EXPECT_TRUE(FlushFileBuffers(first));
        std::filesystem::current_path(before);
        std::filesystem::remove(b);
        close(creat(b.c_str(), 0600));
    }
    EXPECT_FALSE(std::filesystem::exists(a));
    EXPECT_TRUE(std::filesystem::exists(b));
}

TEST_F(PlatformLinux, FullPathsAndTheirSizes) {
    string const before = std::filesystem::current_path();
    std::filesystem::current_path(folder);
    string const here = std::filesystem::current_path();
    struct Row {
        string path, full, part;
    };
    for (Row const& row : std::vector<Row>{{"a.mp3", here + "/a.mp3", "a.mp3"},
                                           {"./x//./a", here + "/x/a", "a"},
                                           {"x/../a", here + "/x/../a", "a"},
                                           {"x/", here + "/x/", ""},
                                           {".", here, here.substr(here.rfind('/') + 1)},
                                           {"/", "/", ""},
                                           {"//a/./b", "/a/b", "b"}}) {
        char buffer[300];
        char* part = buffer;
        DWORD const length = GetFullPathNameA(row.path.c_str(), 300, buffer, &part);
        EXPECT_EQ(string(buffer, length), row.full);
        EXPECT_EQ(string(part == nullptr ? "" : part), row.part);
        EXPECT_EQ(GetFullPathNameA(row.path.c_str(), length, buffer, &part), length + 1);
        EXPECT_EQ(GetFullPathNameA(row.path.c_str(), length + 1, buffer, nullptr), length);
    }
    char buffer[10];
    EXPECT_EQ(GetFullPathNameA("", 10, buffer, nullptr), 0u);
    EXPECT_EQ(GetFullPathNameA(string(10000, 'x').c_str(), 10, buffer, nullptr), 0u);
    EXPECT_EQ(GetLastError(), 206u);
    std::filesystem::remove(here);
    EXPECT_EQ(GetFullPathNameA("a", 10, buffer, nullptr), 0u);
    EXPECT_EQ(GetLastError(), 3u);
    std::filesystem::current_path(before);
}

TEST_F(PlatformLinux, PlacesOfTheSystem) {
    char buffer[20];
    for (auto const& [value, place] : {std::pair{"", "/tmp/"}, {"/a", "/a/"}, {"/a/", "/a/"}}) {
        setenv("TMPDIR", value, 1);
        EXPECT_EQ(GetTempPathA(20, buffer), strlen(place));
        EXPECT_STREQ(buffer, place);
    }
    unsetenv("TMPDIR");
    EXPECT_EQ(GetTempPathA(5, buffer), 6u);
    EXPECT_EQ(GetTempPathA(6, buffer), 5u);
    EXPECT_STREQ(buffer, "/tmp/");
    EXPECT_EQ(GetSystemDirectoryA(buffer, 4), 5u);
    EXPECT_EQ(GetSystemDirectoryA(buffer, 5), 4u);
    EXPECT_STREQ(buffer, "/etc");
}

TEST_F(PlatformLinux, PathsAreTakenApart) {
    PlatformPathParts parts{};
    auto const joined = [&](bool fits) {
        return fits ? string(parts.szDrive) + "|" + parts.szDirectory + "|" + parts.szStem + "|" +
                          parts.szExtension
                    : "does not fit";
    };
    string const d(254, 'd');
    for (auto const& [path, expected] : std::vector<std::pair<string, string>>{
             {"a.mp3", "||a|.mp3"},
             {"/d.x/a", "|/d.x/|a|"},
             {"/d/a.b.mp3", "|/d/|a.b|.mp3"},
             {"d/.mp3", "|d/||.mp3"},
             {"a.", "||a|."},
             {"D:\\a\\b.c", "||D:\\a\\b|.c"},
             {"", "|||"},
             {d + "/s" + d + "." + d, "|" + d + "/|s" + d + "|." + d},
             {d + "d/", "does not fit"},
             {d + "ss", "does not fit"},
             {"." + d + "e", "does not fit"}}) {
        EXPECT_EQ(joined(PlatformSplitPath(path.c_str(), &parts)), expected);
    }
    EXPECT_FALSE(PlatformSplitPath(nullptr, &parts));
    // The rules of the other platform: \x83 begins a character whose second byte is a backslash.
    platform::PathRules const rules{"\\/", true, [](char c) { return c == '\x83'; }};
    for (auto const& [path, expected] :
         std::vector<std::pair<string, string>>{{"D:\\a\\b.mp3", "D:|\\a\\|b|.mp3"},
                                                {"D:b", "D:||b|"},
                                                {"a/b\\c.d", "|a/b\\|c|.d"},
                                                {"\\\x83\\.x", "|\\|\x83\\|.x"},
                                                {"a\x83", "||a\x83|"}}) {
        EXPECT_EQ(joined(platform::split_path(path.c_str(), &parts, rules)), expected);
    }
    EXPECT_TRUE(PlatformSameFileName("a.mp3", "a.mp3"));
    EXPECT_FALSE(PlatformSameFileName("a.mp3", "A.mp3"));
}

TEST_F(PlatformLinux, CallbacksGetAllTheirArguments) {
    static std::vector<uintptr_t> got;
    LPDRVCALLBACK const function = [](HDRVR device, UINT message, DWORD_PTR user, DWORD_PTR first,
                                      DWORD_PTR second) {
        got = {reinterpret_cast<uintptr_t>(device), message, user, first, second};
    };
    auto const target = reinterpret_cast<DWORD_PTR>(function);
    auto const device = reinterpret_cast<HDRVR>(uintptr_t{7});
    EXPECT_FALSE(DriverCallback(0, 3, device, 1, 2, 3, 4));
    EXPECT_FALSE(DriverCallback(target, 1, device, 1, 2, 3, 4));
    EXPECT_TRUE(got.empty());
    EXPECT_TRUE(DriverCallback(target, 3, device, 1020, ~uintptr_t{0}, 3, 4));
    EXPECT_EQ(got, (std::vector<uintptr_t>{7, 1020, ~uintptr_t{0}, 3, 4}));
}

} // namespace
