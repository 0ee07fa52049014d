// Several processes that want the same file: share modes, and every order in which their opens,
// edits and closes can meet.

#include "testing/driver_fixture.h"

#include <filesystem>
#include <set>
#include <utility>

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;
using platform_faults::Call;

namespace {

// Run once, in front of the nth call to the platform from now on that opens, closes, removes or
// renames a file.
std::function<void()> g_atCall;
unsigned g_nCallsLeft = 0;

void at_call(Call call) {
    bool const bCounts = call == Call::CreateFile || call == Call::CloseHandle ||
                         call == Call::DeleteFile || call == Call::MoveFile;
    if (bCounts && g_atCall && --g_nCallsLeft == 0) {
        std::exchange(g_atCall, nullptr)();
    }
}

// Another process, which runs a session: up to a pause, if it makes one, and the rest at `finish`.
class Process {
public:
    explicit Process(std::function<void(Process&)> const& session) {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, m_sockets), 0);
        m_child = fork();
        if (m_child == 0) {
            ::close(m_sockets[0]);
            session(*this);
            _exit(::testing::Test::HasFailure() ? 1 : 0);
        }
        ::close(m_sockets[1]);
    }
    ~Process() {
        if (m_child > 0) {
            finish();
        }
    }
    Process(Process const&) = delete;
    Process& operator=(Process const&) = delete;

    void pause() { // called by the session
        char word = 'p';
        EXPECT_EQ(::write(m_sockets[1], &word, 1), 1);
        EXPECT_EQ(::read(m_sockets[1], &word, 1), 0);
    }

    void wait_for_pause() {
        char word = 0;
        EXPECT_EQ(::read(m_sockets[0], &word, 1), 1);
    }

    // The exit code.
    int finish() {
        ::close(m_sockets[0]);
        int nStatus = -1;
        EXPECT_GT(waitpid(std::exchange(m_child, -1), &nStatus, 0), 0);
        return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
    }

private:
    int m_sockets[2] = {};
    pid_t m_child = -1;
};

class ProcessesTest : public DriverTest {
protected:
    ProcessesTest() { platform_faults::watch(at_call); }
    ~ProcessesTest() override { unhook(); }

    std::string const m_sound = path("a.mp3");

    // The file alone in its folder.
    void start() const {
        for (std::string const& name : listing()) {
            fs::remove_all(path(name));
        }
        write_file(m_sound, frames(10));
    }

    // Forgets what was to be run at a call; whether it has been.
    static bool unhook() { return std::exchange(g_atCall, nullptr) == nullptr; }

    // A close that may meet another process, which holds a file: its edits are kept then.
    static void close_in_company(FFDHandle handle) {
        FFDError const status = driver().Close(handle);
        EXPECT_TRUE(status == 0 || status == 29) << status;
    }
};

// Somebody else reads the file, and shares it with everybody, while it is closed.
TEST_F(ProcessesTest, AReaderElsewhereKeepsTheOldFile) {
    write_file(m_sound, frames(10));
    Process reader([&](Process& self) {
        HANDLE const hFile =
            CreateFileA(m_sound.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                        OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
        EXPECT_NE(hFile, INVALID_HANDLE_VALUE);
        self.pause();
    });
    reader.wait_for_pause();
    FFDHandle handle = open(m_sound); // after the fork, so that this handle is here alone
    ASSERT_EQ(insert(handle, 0, frames(1, 3)), 0u);
    close(handle, 29);
    EXPECT_TRUE(exists(path("a.DIR")));
    EXPECT_FALSE(exists(path("a.CLM")));
    EXPECT_TRUE(same_bytes(read_file(m_sound), frames(10) + frames(1, 3)));
    EXPECT_EQ(reader.finish(), 0);
    handle = open(m_sound);
    EXPECT_TRUE(same_bytes(read_all(handle), frames(1, 3) + frames(10)));
    close(handle);
    EXPECT_TRUE(same_bytes(read_file(m_sound), frames(1, 3) + frames(10)));
}

// Each of two processes tries until it has made its inserts, each in a session of its own.
TEST_F(ProcessesTest, TwoProcessesFightForAFile) {
    constexpr unsigned nInserts = 200;
    std::string const audio = frames(10);
    write_file(m_sound, audio);
    auto const fighter = [&](unsigned nFirstSeed) {
        return [this, nFirstSeed](Process&) {
            for (unsigned nDone = 0; nDone < nInserts;) {
                FFDHandle const handle = open(m_sound);
                if (handle == nullptr) {
                    ASSERT_EQ(m_status, 29u);
                    continue;
                }
                EXPECT_EQ(insert(handle, 0, frames(1, nFirstSeed + nDone)), 0u);
                ++nDone;
                close_in_company(handle);
            }
        };
    };
    Process first(fighter(100));
    Process second(fighter(400));
    EXPECT_EQ(first.finish(), 0);
    EXPECT_EQ(second.finish(), 0);
    FFDHandle const handle = open(m_sound);
    ASSERT_EQ(m_status, 0u);
    close(handle);
    std::string const contents = read_file(m_sound);
    std::multiset<std::string> found;
    for (size_t nByte = 0; nByte + audio.size() < contents.size(); nByte += 96) {
        found.insert(contents.substr(nByte, 96));
    }
    std::multiset<std::string> expected;
    for (unsigned n = 0; n < nInserts; ++n) {
        expected.insert(frames(1, 100 + n));
        expected.insert(frames(1, 400 + n));
    }
    EXPECT_TRUE(found == expected) << found.size() << " frames";
    EXPECT_TRUE(contents.ends_with(audio));
}

// While this process opens the file, in front of each of its calls, another one closes it: to the
// end, or up to a crash at each change of the disk. Whatever this one gets to see is the dictation.
TEST_F(ProcessesTest, AnotherProcessClosesDuringAnOpen) {
    std::string const dictation = frames(2, 4) + frames(10).substr(96);
    unsigned nOpened = 0;
    int nExitCode = 86;
    for (unsigned nChange = 1; nExitCode == 86; ++nChange) {
        bool bReached = true;
        for (unsigned nCall = 1; bReached; ++nCall) {
            SCOPED_TRACE(testing::Message() << "change " << nChange << ", call " << nCall);
            start();
            Process closer([&](Process& self) {
                FFDHandle const h = open(m_sound);
                EXPECT_EQ(insert(h, 0, frames(2, 4)), 0u);
                EXPECT_EQ(erase(h, 192, 96), 0u);
                self.pause();
                platform_faults::stop_before_change(nChange);
                close_in_company(h);
            });
            closer.wait_for_pause();
            g_nCallsLeft = nCall;
            g_atCall = [&] { nExitCode = closer.finish(); };
            FFDHandle handle = open(m_sound);
            bReached = unhook();
            if (!bReached) {
                nExitCode = closer.finish();
            }
            if (handle == nullptr) {
                ASSERT_EQ(m_status, 29u);
                handle = open(m_sound);
            } else {
                ++nOpened;
            }
            ASSERT_EQ(m_status, 0u);
            ASSERT_TRUE(same_bytes(read_all(handle), dictation));
            close(handle);
            ASSERT_TRUE(same_bytes(read_file(m_sound), dictation));
        }
    }
    EXPECT_EQ(nExitCode, 0);
    EXPECT_GT(nOpened, 0u);
}

// The other way round: in front of each call of a session, another process tries one of its own.
// It closes its file; or, if it comes during the open, crashes.
TEST_F(ProcessesTest, AnotherProcessOpensDuringASession) {
    struct {
        uint32_t nAt; // 0 for a close with a rebuild, 960 for one without
        bool bCrashes;
        bool bEmptyDirectory; // as left by a crash in front of the first edit
    } const rows[] = {{0, false, false}, {960, false, false}, {0, true, false}, {0, true, true}};
    for (auto const& row : rows) {
        bool bReached = true;
        for (unsigned nCall = 1; bReached; ++nCall) {
            SCOPED_TRACE(testing::Message() << "row " << &row - rows << ", call " << nCall);
            start();
            if (row.bEmptyDirectory) {
                write_file(path("a.DIR"), "");
            }
            std::string other;
            g_nCallsLeft = nCall;
            g_atCall = [&] {
                int const nExitCode = crash_after([&] {
                    FFDHandle const h = open(m_sound);
                    if (h == nullptr) {
                        EXPECT_EQ(m_status, 29u);
                        return;
                    }
                    EXPECT_EQ(insert(h, 96, frames(1, 5)), 0u);
                    if (!row.bCrashes) {
                        close_in_company(h);
                    }
                    _exit(::testing::Test::HasFailure() ? 1 : 86);
                });
                ASSERT_TRUE(nExitCode == 0 || nExitCode == 86) << nExitCode;
                other = nExitCode == 86 ? frames(1, 5) : "";
            };
            FFDHandle handle = open(m_sound);
            bool const bHadIt = handle != nullptr;
            if (row.bCrashes) {
                bReached = unhook();
            }
            if (bHadIt) {
                EXPECT_EQ(insert(handle, row.nAt, frames(1, 4)), 0u);
                EXPECT_EQ(insert(handle, row.nAt, frames(1, 6)), 0u);
                close_in_company(handle);
            }
            if (!row.bCrashes) {
                bReached = unhook();
            }
            handle = open(m_sound);
            ASSERT_EQ(m_status, 0u);
            std::string const found = read_all(handle);
            close(handle);
            EXPECT_TRUE(same_bytes(read_file(m_sound), found));
            // Whichever came first, both wrote into the dictation that the other had left.
            std::string first = frames(10);
            std::string second = frames(10).insert(96, other);
            if (bHadIt) {
                first.insert(row.nAt, frames(1, 6) + frames(1, 4));
                second.insert(row.nAt, frames(1, 6) + frames(1, 4));
            }
            first.insert(96, other);
            ASSERT_TRUE(found == first || found == second) << same_bytes(found, first).message();
        }
    }
}

} // namespace
