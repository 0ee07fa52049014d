// What the layer promises on Linux beyond single outcomes: between processes and threads, by the
// rights of a user, on full and read-only disks, and about paths.
#include "platform/split_path.h"
#include "tests/platform_support.h"

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <set>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using std::string;

// A process that runs the function and then waits to be killed.
class Child {
public:
    explicit Child(std::function<bool()> const& run) {
        int ready[2];
        EXPECT_EQ(pipe(ready), 0);
        m_process = fork();
        if (m_process == 0) {
            char const answer = run() ? 'y' : 'n';
            static_cast<void>(write(ready[1], &answer, 1) == 1);
            for (;;)
                pause();
        }
        close(ready[1]);
        char answer = 'n';
        EXPECT_EQ(read(ready[0], &answer, 1), 1);
        EXPECT_EQ(answer, 'y');
        close(ready[0]);
    }
    ~Child() { kill_now(); }
    Child(Child const&) = delete;
    Child& operator=(Child const&) = delete;
    void kill_now() {
        if (m_process <= 0)
            return;
        kill(m_process, SIGKILL);
        waitpid(m_process, nullptr, 0);
        m_process = -1;
    }

private:
    pid_t m_process = -1;
};

// Calls that are made as a user without rights of his own.
class Unprivileged {
public:
    Unprivileged() { EXPECT_EQ(seteuid(65534), 0); }
    ~Unprivileged() { EXPECT_EQ(seteuid(0), 0); }
    Unprivileged(Unprivileged const&) = delete;
    Unprivileged& operator=(Unprivileged const&) = delete;
};

TEST(PlatformProcesses, ShareModesHoldAndDieWithTheProcess) {
    ScratchDirectory const scratch;
    string const path = scratch / "a";
    make_file(path, "old");
    for (Sharing const& first : all_sharings()) {
        Child holder(
            [&] { return open_file(path, first.access, first.share) != INVALID_HANDLE_VALUE; });
        for (Sharing const& second : all_sharings())
            EXPECT_EQ(open_error(path, second.access, second.share), expected_error(first, second))
                << describe(first) << " then " << describe(second);
        EXPECT_EQ(error_unless(DeleteFileA(path.c_str())), 32u) << describe(first);
        EXPECT_EQ(error_unless(MoveFileA(path.c_str(), (scratch / "b").c_str())), 32u);
        holder.kill_now();
        EXPECT_EQ(open_error(path, READ_WRITE, 0), 0u) << describe(first);
    }
}

TEST(PlatformProcesses, OneOwnerAtATime) {
    ScratchDirectory const scratch;
    string const path = scratch / "a";
    string const moved = scratch / "b";
    std::atomic<int> owners = 0;
    std::atomic<int> times = 0;
    std::atomic<int> most = 0;
    std::vector<std::set<DWORD>> errors(4);
    auto const compete = [&](std::set<DWORD>& seen) {
        for (int i = 0; i < 500; ++i) {
            HANDLE handle = open_file(path, READ_WRITE, 0, i % 2 == 0 ? 2 : 4);
            if (handle != INVALID_HANDLE_VALUE) {
                int const now = ++owners;
                if (now > most)
                    most = now;
                ++times;
                if (write_text(handle, "x") != 0 || !(--owners, CloseHandle(handle)))
                    seen.insert(1);
            } else {
                seen.insert(GetLastError());
            }
            BOOL const gone =
                i % 3 == 0 ? MoveFileA(path.c_str(), moved.c_str()) : DeleteFileA(path.c_str());
            if (!gone)
                seen.insert(GetLastError());
            DeleteFileA(moved.c_str());
        }
    };
    std::vector<std::thread> threads;
    threads.reserve(errors.size());
    for (std::set<DWORD>& seen : errors)
        threads.emplace_back([&] { compete(seen); });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(most, 1);
    EXPECT_GT(times, 0);
    for (std::set<DWORD> const& seen : errors)
        for (DWORD const error : seen)
            EXPECT_TRUE(error == 2 || error == 32 || error == 183) << error;
}

TEST(PlatformHandles, ManyAtOnceAndUsedByManyThreads) {
    ScratchDirectory const scratch;
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    ASSERT_GE(limit.rlim_cur, 3100u) << "too few descriptors to test with";
    string const path = scratch / "a";
    std::set<HANDLE> handles;
    for (int i = 0; i < 3000; ++i)
        handles.insert(open_file(path, READ_WRITE, 3, 4));
    EXPECT_EQ(handles.size(), 3000u);
    EXPECT_EQ(handles.count(INVALID_HANDLE_VALUE), 0u);
    // Two threads write through one handle: its file pointer loses no step.
    HANDLE shared = *handles.begin();
    auto const append = [shared] {
        for (int i = 0; i < 1000; ++i)
            write_text(shared, "12345");
    };
    std::thread other(append);
    append();
    other.join();
    EXPECT_EQ(GetFileSize(shared, nullptr), 10000u);
    for (HANDLE handle : handles)
        EXPECT_TRUE(CloseHandle(handle));
    EXPECT_FALSE(CloseHandle(shared));
    limit.rlim_cur = 0;
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_EQ(open_error(path, READ, 3), 4u);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

TEST(PlatformRights, DecideAsTheFileSystemDoes) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can take on another user's rights";
    ScratchDirectory const scratch;
    string const closed = scratch / "closed/a";
    string const readable = scratch / "readable";
    std::filesystem::create_directory(scratch / "closed");
    make_file(closed, "old");
    make_file(readable, "old");
    chmod(readable.c_str(), 0644);
    chmod(scratch.path().c_str(), 0755);
    chmod((scratch / "closed").c_str(), 0700);
    {
        Unprivileged const user;
        EXPECT_EQ(open_error(closed, READ, 3), 5u);
        EXPECT_EQ(open_error(readable, READ_WRITE, 3), 5u);
        EXPECT_EQ(open_error(readable, READ, 3, 2), 5u);
        EXPECT_EQ(open_error(scratch / "new", READ_WRITE, 0, 1), 5u);
        EXPECT_EQ(error_unless(DeleteFileA(readable.c_str())), 5u);
        EXPECT_EQ(error_unless(MoveFileA(readable.c_str(), (scratch / "b").c_str())), 5u);
        EXPECT_EQ(open_error(readable, READ, 1), 0u); // read-only descriptors are guarded as well
        HANDLE reader = open_file(readable, READ, 0);
        EXPECT_EQ(open_error(readable, READ, 3), 32u);
        CloseHandle(reader);
    }
    EXPECT_EQ(text_of(readable), "old");
}

TEST(PlatformRights, AreCopiedFromFileToFile) {
    ScratchDirectory const scratch;
    make_file(scratch / "from", "x");
    chmod((scratch / "from").c_str(), 04640);
    if (geteuid() == 0) {
        ASSERT_EQ(chown((scratch / "from").c_str(), 65534, 65534), 0);
        ASSERT_EQ(chmod((scratch / "from").c_str(), 04640), 0);
    }
    HANDLE from = open_file(scratch / "from", READ, 3);
    HANDLE to = open_file(scratch / "to", READ_WRITE, 0, 1);
    EXPECT_TRUE(PlatformCopyPermissions(from, to));
    EXPECT_TRUE(PlatformCopyPermissions(to, to));
    EXPECT_FALSE(PlatformCopyPermissions(to, from));
    CloseHandle(from);
    CloseHandle(to);
    struct stat expected {
    }, got{};
    stat((scratch / "from").c_str(), &expected);
    stat((scratch / "to").c_str(), &got);
    EXPECT_EQ(got.st_mode, expected.st_mode);
    EXPECT_EQ(got.st_uid, expected.st_uid);
    EXPECT_EQ(got.st_gid, expected.st_gid);
}

TEST(PlatformDisk, FullOrReadOnly) {
    ScratchDirectory const scratch;
    string const disk = scratch / "disk";
    std::filesystem::create_directory(disk);
    if (mount("none", disk.c_str(), "tmpfs", 0, "size=64k") != 0)
        GTEST_SKIP() << "a small file system cannot be mounted here: " << strerror(errno);
    string const path = disk + "/a";
    HANDLE file = open_file(path, READ_WRITE, 0, 1);
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
    CloseHandle(file);
    EXPECT_EQ(error_unless(MoveFileA(path.c_str(), (scratch / "a").c_str())), 17u);
    ASSERT_EQ(mount("none", disk.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    EXPECT_EQ(open_error(path, READ, 1), 0u);
    EXPECT_EQ(open_error(path, READ_WRITE, 3), 19u);
    EXPECT_EQ(open_error(disk + "/b", READ_WRITE, 0, 1), 19u);
    EXPECT_EQ(error_unless(DeleteFileA(path.c_str())), 19u);
    EXPECT_EQ(error_unless(MoveFileA(path.c_str(), (disk + "/b").c_str())), 19u);
    umount(disk.c_str());
}

TEST(PlatformNames, OnlyRegularFilesAndTheFileBehindTheName) {
    ScratchDirectory const scratch;
    string const fifo = scratch / "fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    for (DWORD const access : {READ, WRITE, READ_WRITE})
        EXPECT_EQ(open_error(fifo, access, 3), 5u);
    EXPECT_EQ(error_unless(DeleteFileA(fifo.c_str())), 5u);
    EXPECT_EQ(open_error("/dev/null", READ_WRITE, 3), 5u);
    EXPECT_EQ(open_error(scratch / string(300, 'x'), READ_WRITE, 0, 1), 206u);
    // A link and a second name lead to the same file and to the same locks.
    make_file(scratch / "a", "old");
    std::filesystem::create_symlink("a", scratch / "link");
    std::filesystem::create_hard_link(scratch / "a", scratch / "second");
    HANDLE held = open_file(scratch / "a", READ, 1);
    for (char const* const name : {"link", "second"}) {
        EXPECT_EQ(open_error(scratch / name, READ_WRITE, 3), 32u);
        EXPECT_EQ(error_unless(DeleteFileA((scratch / name).c_str())), 32u);
    }
    CloseHandle(held);
    std::filesystem::create_symlink("nowhere", scratch / "dangling");
    EXPECT_NE(open_error(scratch / "dangling", READ_WRITE, 0, 4), 0u);
}

TEST(PlatformNames, DeleteOnCloseTakesItsOwnFileAlone) {
    ScratchDirectory const scratch;
    string const before = std::filesystem::current_path();
    std::filesystem::current_path(scratch.path());
    HANDLE first = open_file("a", READ_WRITE, 7, 1, 0x04000000);
    HANDLE second = open_file("b", READ_WRITE, 7, 1, 0x04000000);
    EXPECT_TRUE(FlushFileBuffers(first));
    std::filesystem::current_path(before);
    std::filesystem::remove(scratch / "b");
    std::ignore = open(((scratch / "b").c_str()), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    CloseHandle(first);
    CloseHandle(second);
    EXPECT_FALSE(std::filesystem::exists(scratch / "a"));
    EXPECT_TRUE(std::filesystem::exists(scratch / "b"));
}

TEST(PlatformPaths, FullPathAndItsSizes) {
    ScratchDirectory const scratch;
    string const before = std::filesystem::current_path();
    std::filesystem::current_path(scratch.path());
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

TEST(PlatformPaths, PlacesOfTheSystem) {
    char const* const old = getenv("TMPDIR");
    string const kept = old == nullptr ? "" : old;
    char buffer[20];
    for (auto const& [value, path] : {std::pair{"", "/tmp/"}, {"/a", "/a/"}, {"/a/", "/a/"}}) {
        setenv("TMPDIR", value, 1);
        EXPECT_EQ(GetTempPathA(20, buffer), strlen(path));
        EXPECT_STREQ(buffer, path);
    }
    unsetenv("TMPDIR");
    EXPECT_EQ(GetTempPathA(5, buffer), 6u);
    EXPECT_EQ(GetTempPathA(6, buffer), 5u);
    EXPECT_STREQ(buffer, "/tmp/");
    if (old != nullptr)
        setenv("TMPDIR", kept.c_str(), 1);
    EXPECT_EQ(GetSystemDirectoryA(buffer, 4), 5u);
    EXPECT_EQ(GetSystemDirectoryA(buffer, 5), 4u);
    EXPECT_STREQ(buffer, "/etc");
}

TEST(PlatformPaths, AreTakenApart) {
    struct Row {
        string path, drive, directory, stem, extension;
    };
    auto const joined = [](PlatformPathParts const& parts) {
        return string(parts.szDrive) + "|" + parts.szDirectory + "|" + parts.szStem + "|" +
               parts.szExtension;
    };
    PlatformPathParts parts{};
    for (auto const& [path, expected] : std::vector<std::pair<string, string>>{
             {"a.mp3", "||a|.mp3"},
             {"/d.x/a", "|/d.x/|a|"},
             {"/d/a.b.mp3", "|/d/|a.b|.mp3"},
             {"d/.mp3", "|d/||.mp3"},
             {"d/", "|d/||"},
             {"a.", "||a|."},
             {"D:\\a\\b.c", "||D:\\a\\b|.c"},
             {"", "|||"},
             {string(254, 'd') + "/" + string(255, 's') + "." + string(254, 'e'),
              "|" + string(254, 'd') + "/|" + string(255, 's') + "|." + string(254, 'e')}}) {
        EXPECT_TRUE(PlatformSplitPath(path.c_str(), &parts)) << path;
        EXPECT_EQ(joined(parts), expected);
    }
    for (string const& path : {string(255, 'd') + "/", string(256, 's'), "." + string(255, 'e')})
        EXPECT_FALSE(PlatformSplitPath(path.c_str(), &parts)) << path.size();
    EXPECT_FALSE(PlatformSplitPath(nullptr, &parts));

    // The rules of the other platform: \x83 begins a character whose second byte is a backslash.
    platform::PathRules const rules{"\\/", true, [](char c) { return c == '\x83'; }};
    for (auto const& [path, expected] :
         std::vector<std::pair<string, string>>{{"D:\\a\\b.mp3", "D:|\\a\\|b|.mp3"},
                                                {"D:b", "D:||b|"},
                                                {"a/b\\c.d", "|a/b\\|c|.d"},
                                                {"\\\x83\\.x", "|\\|\x83\\|.x"},
                                                {"a\x83", "||a\x83|"}}) {
        EXPECT_TRUE(platform::split_path(path.c_str(), &parts, rules)) << path;
        EXPECT_EQ(joined(parts), expected);
    }
    EXPECT_TRUE(PlatformSameFileName("a.mp3", "a.mp3"));
    EXPECT_FALSE(PlatformSameFileName("a.mp3", "A.mp3"));
}

TEST(PlatformCallback, CallsAFunctionWithAllItsArguments) {
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
