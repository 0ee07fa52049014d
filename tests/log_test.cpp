// The built log library through its seven symbols. The environment is read once for a process, so
// each case calls the library in a forked child and looks at what that left behind.
#include "log/xkivlog.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;

std::vector<std::string> lines_of(fs::path const& file) {
    std::ifstream stream(file);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

// What stands behind "place.cpp:7 " in the lines that have it.
std::vector<std::string> messages(fs::path const& file) {
    std::vector<std::string> result;
    for (auto const& line : lines_of(file)) {
        if (auto const at = line.find(":7 "); at != std::string::npos) {
            result.push_back(line.substr(at + 3));
        }
    }
    return result;
}

void one_of_each() {
    LogEntry("M", "place.cpp", 7, "entry");
    LogParam("M", "place.cpp", 7, "param", "%u", 1U);
    LogWarning("M", "place.cpp", 7, "", "warning");
    LogInfo("M", "place.cpp", 7, "info");
    LogValue("M", "place.cpp", 7, "value", "%u", 2U);
    LogError("M", "place.cpp", 7, 3, "error");
}

class LogTest : public testing::Test {
protected:
    LogTest() { fs::create_directory(folder); }
    ~LogTest() override { fs::remove_all(folder); }

    // Runs the body in a child, with XKIVLOG as given or not set, and standard error in a file.
    pid_t start(char const* variable, std::function<void()> const& body) {
        pid_t const child = fork();
        if (child != 0) {
            return child;
        }
        dup2(open(standardError.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600), STDERR_FILENO);
        unsetenv("XKIVLOG");
        if (variable != nullptr) {
            setenv("XKIVLOG", variable, 1);
        }
        fs::current_path(folder);
        body();
        _exit(0);
    }
    void finish(pid_t child) {
        int status = -1;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        ASSERT_EQ(0, status) << testing::PrintToString(lines_of(standardError));
    }
    void run(std::string const& variable, std::function<void()> const& body) {
        finish(start(variable.c_str(), body));
    }
    void run_with_ini(std::string const& content, std::function<void()> const& body) {
        write_ini(content);
        finish(start(nullptr, [&] {
            init();
            body();
        }));
    }
    void init() const { LogInit("M", "place.cpp", 9, (folder.string() + "\\LOG.INI").c_str()); }
    void write_ini(std::string const& content) const {
        std::ofstream(ini, std::ios::binary) << content;
    }
    static std::string ini_text(std::string const& level, fs::path const& place) {
        return "[XKIVLOG]\nLevel=" + level + "\nFile=" + place.string() + "\n";
    }

    fs::path const folder = fs::temp_directory_path() / ("log_test." + std::to_string(getpid()));
    fs::path const log = folder / "trace.log", ini = folder / "LOG.INI";
    fs::path const standardError = folder / "stderr";
    std::string const toLog = "all:" + log.string();
};

TEST_F(LogTest, IsOffUntilSomethingTurnsItOn) {
    for (char const* variable : {static_cast<char const*>(nullptr), "", "off", "off:x.log"}) {
        finish(start(variable, [&] {
            one_of_each();
            LogInit("M", "place.cpp", 7, nullptr);
            init(); // no such file
            one_of_each();
        }));
        EXPECT_THAT(lines_of(standardError), IsEmpty());
    }
    EXPECT_EQ(1, std::distance(fs::directory_iterator(folder), fs::directory_iterator()));
}

TEST_F(LogTest, LevelsHoldOneAnother) {
    std::string const error = "3 (0x00000003) error";
    std::vector<std::pair<std::string, std::vector<std::string>>> const cases{
        {"error", {error}},
        {"Warning", {"warning", error}},
        {"INFO", {"warning", "info", error}},
        {"entry", {"entry", "warning", "info", error}},
        {"param", {"entry", "param = 1", "warning", "info", error}},
        {"value", {"entry", "param = 1", "warning", "info", "value = 2", error}},
        {"all", {"entry", "param = 1", "warning", "info", "value = 2", error}},
    };
    for (auto const& [level, expected] : cases) {
        run(level + ":" + log.string(), one_of_each); // without LogInit
        EXPECT_EQ(expected, messages(log)) << "environment " << level;
        fs::remove(log);
        run_with_ini(ini_text(level, log), one_of_each);
        EXPECT_EQ(expected, messages(log)) << "initialisation file " << level;
        fs::remove(log);
    }
    run("error", one_of_each);
    EXPECT_THAT(messages(standardError), ElementsAre(error));
}

TEST_F(LogTest, LineTellsTimeProcessThreadKindModuleAndPlace) {
    pid_t const child = start(toLog.c_str(), [] {
        LogInit("XKIVFBASE", "/src/MCI/FFDBASE.cpp", 12, "/etc\\XKIVFBASE.INI");
        LogError("XKIVMP3.DLL", "C:\\src\\Kivmp3.cpp", 120, 0xFFFFFFFF, "by\nflush()");
        LogWarning("M", "x.cpp", 1, "first", "second");
        errno = EDOM;
        LogInfo(nullptr, nullptr, 0, nullptr);
        LogParam("M", "x.cpp", 2, nullptr, nullptr);
        _exit(errno == EDOM ? 0 : 1);
    });
    finish(child);
    std::string const number = std::to_string(child); // of the process and of its first thread
    std::string const head =
        "[0-9]{4}(-[0-9]{2}){2}T([0-9]{2}:){2}[0-9]{2}\\.[0-9]{3}Z " + number + ":" + number + " ";
    size_t const nHead = 27 + 2 * number.size();
    std::vector<std::string> found;
    for (auto const& line : lines_of(log)) {
        EXPECT_THAT(line.substr(0, nHead), MatchesRegex(head));
        found.push_back(line.substr(nHead));
    }
    EXPECT_THAT(found,
                ElementsAre("INIT    XKIVFBASE   FFDBASE.cpp:12 /etc\\XKIVFBASE.INI",
                            "ERROR   XKIVMP3.DLL Kivmp3.cpp:120 4294967295 (0xFFFFFFFF) by?flush()",
                            "WARNING M           x.cpp:1 first second",
                            "INFO    (null)      ?:0 (null)",
                            "PARAM   M           x.cpp:2 (null) = (null)"));
}

// The formats and what they make of their values, side by side, one a line.
TEST_F(LogTest, Formats) {
    run(toLog, [] {
        auto const value = [](char const* expect, char const* format, auto given) {
            LogParam("M", "place.cpp", 7, "", "%s", expect);
            LogValue("M", "place.cpp", 7, "", format, given);
        };
        void* const pointer = reinterpret_cast<void*>(uintptr_t{0x12345678ABCD});
        value("-5", "%ld", int32_t{-5});
        value("4000000000", "%lu", uint32_t{4000000000});
        // What a caller's wider value leaves in the upper half is none of it.
        value("-1", "%ld", int64_t{0x5FFFFFFFF});
        value("AB", "%lX", uint64_t{0x7000000AB});
        value("4294967295", "%u", uint32_t{4294967295});
        value("<     ABC>", "<%8X>", 0xABCU);
        value("<0xabc   >", "<%-#8x>", 0xABCU);
        value("<+0042>", "<%+05d>", 42);
        value("<0042>", "<%.4u>", 42U);
        value("x", "%c", 'x');
        value("0x12345678abcd", "%p", pointer);
        value("0x12345678abcd", "%Fp", pointer);
        value("0x0", "%p", static_cast<void*>(nullptr));
        value("/a b/c.mp3", "%s", "/a b/c.mp3");
        value("<   abc>", "<%6s>", "abc");
        value("<ab    >", "<%-6.2s>", "abc");
        value("(null)", "%s", static_cast<char const*>(nullptr));
        value("100% of 7%", "100%% of %u%%", 7U);
        value("1 and %u", "%u and %u", 1U); // one conversion is honoured
        for (char const* unknown : {"%f", "%lld", "%n", "%*d", "%hd", "%ls", "%lp", "%", "%l",
                                    "%999d", "%.999d", "%------d", "plain"}) {
            value(unknown, unknown, 0x1234);
        }
    });
    auto const found = messages(log);
    ASSERT_EQ(64U, found.size());
    for (size_t i = 0; i < found.size(); i += 2) {
        EXPECT_EQ(found[i], found[i + 1]);
    }
}

TEST_F(LogTest, OverlongTextsAreCut) {
    std::string const longText(5000, 'a');
    run(toLog, [&] {
        LogInfo("M", "place.cpp", 7, longText.c_str());
        LogValue("M", "place.cpp", 7, "v", "%s", longText.c_str());
        LogWarning("M", "place.cpp", 7, longText.c_str(), longText.c_str());
        LogParam(longText.c_str(), longText.c_str(), 7, longText.c_str(), longText.c_str());
    });
    auto const found = messages(log);
    ASSERT_EQ(4U, found.size());
    EXPECT_EQ(std::string(1024, 'a') + "...", found[0]);
    EXPECT_EQ("v = " + std::string(1024, 'a') + "...", found[1]);
    for (auto const& line : lines_of(log)) {
        EXPECT_LT(line.size(), 2048U);
        EXPECT_TRUE(line.ends_with("a..."));
    }
}

TEST_F(LogTest, EnvironmentWinsOverInitialisationFile) {
    write_ini(ini_text("all", log));
    for (char const* variable : {"warning", "off", "nonsense"}) {
        run(variable, [&] {
            init();
            one_of_each();
        });
    }
    EXPECT_FALSE(fs::exists(log));
    auto const lines = lines_of(standardError);
    ASSERT_EQ(3U, lines.size()); // warning, error, and one complaint about the last
    EXPECT_EQ("xkivlog: in XKIVLOG: no such level in \"nonsense\"; the log is off", lines[2]);
}

TEST_F(LogTest, UnusablePlacesTurnItOff) {
    fs::path const pipe = folder / "pipe";
    ASSERT_EQ(0, mkfifo(pipe.c_str(), 0600));
    for (fs::path const& place :
         {folder, folder / "missing/trace.log", pipe, fs::path("/" + std::string(5000, 'x'))}) {
        run_with_ini(ini_text("all", place), one_of_each);
        EXPECT_THAT(lines_of(standardError), IsEmpty()) << place;
        run("all:" + place.string(), one_of_each);
        EXPECT_THAT(lines_of(standardError), ElementsAre(HasSubstr("the log is off"))) << place;
        fs::remove(standardError);
    }
}

TEST_F(LogTest, InitialisationFileIsReadWithCare) {
    std::string const file = "File=" + log.string() + "\n";
    std::string const section = "[XKIVLOG]\nLevel=info\n";
    std::vector<std::pair<std::string, bool>> const cases{
        {"\xEF\xBB\xBF; comment\r\n[other]\r\nLevel=off\r\n[xkivlog]\r\n # c\r\n"
         " LEVEL = Info \r\nFile = " +
             log.string() + " \r\n",
         true},
        {"[XKIVLOG]\n" + file + "Level=off\nLevel=info", true},
        {"Level=info\n" + file, false},           // outside the section
        {section + file + "Level=loud\n", false}, // no such level
        {section, false},                         // no place
        {"[XKIVLOG]\nLevel\n=\nLevel=info=\nFile=\n[", false},
        {section + "File=" + std::string("a\0b\n", 4), false},
        {std::string(100000, '\0'), false},
        // The end of what is read falls into the path.
        {section + std::string(65536 - 21 - file.size() + 3, ';') + "\n" + file, false},
    };
    for (size_t i = 0; i < cases.size(); ++i) {
        fs::remove(log);
        run_with_ini(cases[i].first, [] { LogInfo("M", "place.cpp", 7, "info"); });
        EXPECT_EQ(cases[i].second, fs::exists(log)) << "case " << i;
        EXPECT_THAT(lines_of(standardError), IsEmpty());
    }
    for (auto const& entry : fs::directory_iterator(folder)) { // no piece of a path became a file
        EXPECT_THAT((std::vector{log, ini, standardError}), testing::Contains(entry.path()));
    }
}

TEST_F(LogTest, RepeatedInitFollowsChangesAndNothingElse) {
    fs::path const other = folder / "other.log";
    run_with_ini(ini_text("info", log), [&] {
        auto const say = [&](char const* text) {
            init();
            LogInfo("M", "place.cpp", 7, text);
        };
        say("one");
        fs::remove(log); // an unchanged file is not acted on again, so this is not made anew
        say("lost");
        for (std::string const& path : {std::string(), std::string(5000, 'x')}) {
            LogInit("M", "place.cpp", 9, path.c_str());
        }
        LogInit("M", "place.cpp", 9, nullptr);
        if (fs::exists(log)) {
            _exit(1);
        }
        write_ini(ini_text("error", other));
        say("too low");
        LogError("M", "place.cpp", 7, 5, "other");
        write_ini(ini_text("info", log) + "; changed again\n");
        say("two");
        fs::rename(ini, folder / "B.INI");
        say("off");
        LogInit("M", "place.cpp", 9, "B.INI");
        LogInfo("M", "place.cpp", 7, "three");
    });
    EXPECT_THAT(messages(other), ElementsAre("5 (0x00000005) other"));
    EXPECT_THAT(messages(log), ElementsAre("two", "three"));
}

// A reader that is gone or does not read, and a limit on the size of files: lines are lost, and
// nothing else. Neither the signals of the host nor the way in which its own descriptor waits
// change.
TEST_F(LogTest, NeverEndsNorStopsItsHost) {
    auto const into = [](std::function<int(int(&)[2])> const& make, bool gone) {
        int ends[2];
        ASSERT_EQ(0, make(ends));
        dup2(ends[1], STDERR_FILENO);
        close(ends[1]);
        if (gone) {
            close(ends[0]);
        } else {
            dup2(ends[0], STDIN_FILENO);
        }
    };
    auto const pipe_ends = [](int(&ends)[2]) { return pipe(ends); };
    auto const sockets = [](int(&ends)[2]) { return socketpair(AF_UNIX, SOCK_STREAM, 0, ends); };
    std::vector<std::function<void()>> const places{
        [&] { into(pipe_ends, true); },
        [&] { into(pipe_ends, false); },
        [&] { into(sockets, true); },
        [&] { into(sockets, false); },
        [&] {
            rlimit const limit{100000, 100000};
            ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
            dup2(open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600), STDERR_FILENO);
        },
    };
    for (char const* variable : {"all", "no such level"}) { // the complaint goes there, too
        for (size_t i = 0; i < places.size(); ++i) {
            SCOPED_TRACE(i);
            fs::remove(log);
            run(variable, [&] {
                places[i]();
                alarm(10);
                int const flags = fcntl(STDERR_FILENO, F_GETFL);
                std::string const text(1000, 'x');
                for (int n = 0; n < 2000; ++n) {
                    LogInfo("M", "place.cpp", 7, text.c_str());
                }
                sigset_t blocked, pending;
                sigprocmask(SIG_BLOCK, nullptr, &blocked);
                sigpending(&pending);
                for (int const signal : {SIGPIPE, SIGXFSZ}) {
                    if (sigismember(&blocked, signal) || sigismember(&pending, signal)) {
                        _exit(1);
                    }
                }
                if (flags != fcntl(STDERR_FILENO, F_GETFL)) {
                    _exit(2);
                }
                // What a reader comes to read later are whole lines.
                std::string read_back(1 << 22, '\0');
                if (i == 1 || i == 3) {
                    ssize_t const size = read(STDIN_FILENO, &read_back[0], read_back.size());
                    read_back.resize(static_cast<size_t>(std::max<ssize_t>(size, 0)));
                    if (read_back.empty() || read_back.back() != '\n') {
                        _exit(3);
                    }
                }
            });
        }
    }
    EXPECT_LE(fs::file_size(log), 100000U);
}

TEST_F(LogTest, ProcessesAndThreadsAppendWholeLines) {
    write_ini(ini_text("value", log));
    auto const body = [&](char tag) {
        auto const work = [&, text = std::string(900, tag)](int times) {
            for (int i = 0; i < times; ++i) {
                init();
                LogValue("M", "place.cpp", 7, "v", "%s", text.c_str());
            }
        };
        std::array threads{std::thread(work, 100), std::thread(work, 100), std::thread(work, 100)};
        // A child forked in the midst of this can go on logging.
        pid_t const child = fork();
        if (child == 0) {
            work(1);
            _exit(0);
        }
        int status = -1;
        waitpid(child, &status, 0);
        for (auto& thread : threads) {
            thread.join();
        }
        _exit(status == 0 ? 0 : 1);
    };
    pid_t const first = start(nullptr, [&] { body('a'); });
    pid_t const second = start(nullptr, [&] { body('b'); });
    finish(first);
    finish(second);
    std::map<std::string, int> count;
    for (auto const& message : messages(log)) {
        ++count[message];
    }
    EXPECT_THAT(count, ElementsAre(std::pair("v = " + std::string(900, 'a'), 301),
                                   std::pair("v = " + std::string(900, 'b'), 301)));
}

} // namespace
