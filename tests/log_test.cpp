// The built log library through its seven symbols. The environment is read once for a process, so
// each case calls the library in a forked child and looks at what that left behind.
#include "log/xkivlog.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <string>
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

std::vector<std::string> lines_of(fs::path const& file) {
    std::ifstream stream(file);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

// What stands behind "place.cpp:7 ".
std::string message(std::string const& line) {
    auto const at = line.find(":7 ");
    return at == std::string::npos ? "no place in: " + line : line.substr(at + 3);
}

class LogTest : public testing::Test {
protected:
    void SetUp() override {
        std::string pattern = fs::temp_directory_path() / "log_test.XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(pattern.data()));
        folder = pattern;
        log = folder / "trace.log";
        ini = folder / "LOG.INI";
        standardError = folder / "stderr";
    }
    void TearDown() override { fs::remove_all(folder); }

    // Runs the body in a child, with XKIVLOG as given or not set, and standard error in a file.
    pid_t start(char const* variable, std::function<void()> const& body) {
        pid_t const child = fork();
        if (child != 0)
            return child;
        int const error = open(standardError.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        dup2(error, STDERR_FILENO);
        if (variable != nullptr)
            setenv("XKIVLOG", variable, 1);
        else
            unsetenv("XKIVLOG");
        body();
        _exit(0);
    }
    void finish(pid_t child) {
        int status = -1;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
            << status << testing::PrintToString(lines_of(standardError));
    }
    void run(char const* variable, std::function<void()> const& body) {
        finish(start(variable, body));
    }
    std::string to_log(std::string const& level) const { return level + ":" + log.string(); }

    void write_ini(std::string const& content) const {
        std::ofstream(ini, std::ios::binary) << content;
    }
    std::string ini_text(std::string const& level) const {
        return "[XKIVLOG]\nLevel=" + level + "\nFile=" + log.string() + "\n";
    }

    fs::path folder, log, ini, standardError;
};

void one_of_each() {
    LogEntry("M", "place.cpp", 7, "entry");
    LogParam("M", "place.cpp", 7, "param", "%u", 1U);
    LogWarning("M", "place.cpp", 7, "", "warning");
    LogInfo("M", "place.cpp", 7, "info");
    LogValue("M", "place.cpp", 7, "value", "%u", 2U);
    LogError("M", "place.cpp", 7, 3, "error");
}

std::vector<std::string> messages(fs::path const& file) {
    std::vector<std::string> result;
    for (auto const& line : lines_of(file))
        result.push_back(message(line));
    return result;
}

TEST_F(LogTest, IsOffUntilSomethingTurnsItOn) {
    for (char const* variable : {static_cast<char const*>(nullptr), "", "off", "off:x.log"}) {
        run(variable, [&] {
            fs::current_path(folder);
            one_of_each();
            LogInit("M", "place.cpp", 7, nullptr);
            LogInit("M", "place.cpp", 7, ini.c_str()); // no such file
            one_of_each();
        });
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
        fs::remove(log);
        run(to_log(level).c_str(), one_of_each); // without LogInit
        EXPECT_EQ(expected, messages(log)) << "environment " << level;
        fs::remove(log);
        write_ini(ini_text(level));
        run(nullptr, [&] {
            LogInit("M", "place.cpp", 8, ini.c_str());
            one_of_each();
        });
        auto found = messages(log);
        std::erase_if(found, [](auto const& text) { return text.starts_with("no place"); });
        EXPECT_EQ(expected, found) << "initialisation file " << level;
    }
    run("error", one_of_each);
    EXPECT_THAT(messages(standardError), ElementsAre(error));
}

TEST_F(LogTest, LineTellsTimeProcessThreadKindModuleAndPlace) {
    pid_t const child = start(to_log("all").c_str(), [] {
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
    std::vector<std::string> found;
    for (auto line : lines_of(log)) {
        for (size_t i = 0; i < line.find('Z'); ++i)
            line[i] = line[i] >= '0' && line[i] <= '9' ? '9' : line[i];
        std::string const head = "9999-99-99T99:99:99.999Z " + number + ":" + number + " ";
        ASSERT_THAT(line, testing::StartsWith(head));
        found.push_back(line.substr(head.size()));
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
    run(to_log("all").c_str(), [] {
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
                                    "%999d", "%.999d", "%------d", "plain"})
            value(unknown, unknown, 0x1234);
    });
    auto const found = messages(log);
    ASSERT_EQ(64U, found.size());
    for (size_t i = 0; i < found.size(); i += 2)
        EXPECT_EQ(found[i], found[i + 1]);
}

TEST_F(LogTest, OverlongTextsAreCut) {
    std::string const longText(5000, 'a');
    run(to_log("all").c_str(), [&] {
        LogInfo("M", "place.cpp", 7, longText.c_str());
        LogValue("M", "place.cpp", 7, "v", "%s", longText.c_str());
        LogWarning("M", "place.cpp", 7, longText.c_str(), longText.c_str());
        LogParam(longText.c_str(), longText.c_str(), 7, longText.c_str(), longText.c_str());
    });
    auto const found = lines_of(log);
    ASSERT_EQ(4U, found.size());
    EXPECT_EQ(std::string(1024, 'a') + "...", message(found[0]));
    EXPECT_EQ("v = " + std::string(1024, 'a') + "...", message(found[1]));
    for (auto const& line : found) {
        EXPECT_LT(line.size(), 2048U);
        EXPECT_TRUE(line.ends_with("a..."));
    }
}

TEST_F(LogTest, EnvironmentWinsOverInitialisationFile) {
    write_ini(ini_text("all"));
    for (char const* variable : {"warning", "off", "nonsense"})
        run(variable, [&] {
            LogInit("M", "place.cpp", 7, ini.c_str());
            one_of_each();
        });
    EXPECT_FALSE(fs::exists(log));
    auto const lines = lines_of(standardError);
    ASSERT_EQ(3U, lines.size()); // warning, error, and one complaint about the last
    EXPECT_EQ("xkivlog: in XKIVLOG: no such level in \"nonsense\"; the log is off", lines[2]);
}

TEST_F(LogTest, UnusablePlacesTurnItOff) {
    fs::path const pipe = folder / "pipe";
    ASSERT_EQ(0, mkfifo(pipe.c_str(), 0600));
    std::vector<std::string> const places{folder, folder / "missing/trace.log", pipe,
                                          "/" + std::string(5000, 'x')};
    for (auto const& place : places) {
        fs::remove(standardError);
        run(("all:" + place).c_str(), one_of_each);
        auto const lines = lines_of(standardError);
        ASSERT_EQ(1U, lines.size()) << place;
        EXPECT_THAT(lines[0], HasSubstr("the log is off"));

        write_ini("[XKIVLOG]\nLevel=all\nFile=" + place + "\n");
        fs::remove(standardError);
        run(nullptr, [&] {
            LogInit("M", "place.cpp", 7, ini.c_str());
            one_of_each();
        });
        EXPECT_THAT(lines_of(standardError), IsEmpty()) << place;
    }
}

TEST_F(LogTest, InitialisationFileIsReadWithCareAndBackslashes) {
    std::string const file = "File=" + log.string();
    std::vector<std::pair<std::string, bool>> const cases{
        {"\xEF\xBB\xBF; comment\r\n[other]\r\nLevel=off\r\n[xkivlog]\r\n # c\r\n LEVEL = Info "
         "\r\n" +
             file + "\r\n",
         true},
        {"[XKIVLOG]\n" + file + "\nLevel=off\nLevel=info", true},
        {"Level=info\n" + file + "\n", false},                        // outside the section
        {"[XKIVLOG]\n" + file + "\nLevel=info\nLevel=loud\n", false}, // no such level
        {"[XKIVLOG]\nLevel=info\n", false},                           // no place
        {"[XKIVLOG]\nLevel\n=\nLevel=info=\nFile=\n[", false},
        {"[XKIVLOG]\nLevel=info\nFile=" + std::string("a\0b\n", 4), false},
        {std::string(100000, '\0'), false},
        // The end of what is read falls into the path.
        {"[XKIVLOG]\nLevel=info\n" + std::string(65536 - 22 - file.size() + 3, ';') + "\n" + file +
             "\n",
         false},
    };
    std::string const path = folder.string() + "\\LOG.INI";
    for (size_t i = 0; i < cases.size(); ++i) {
        fs::remove(log);
        write_ini(cases[i].first);
        run(nullptr, [&] {
            fs::current_path(folder);
            LogInit("M", "place.cpp", 7, path.c_str());
            LogInfo("M", "place.cpp", 7, "info");
        });
        EXPECT_EQ(cases[i].second, fs::exists(log)) << "case " << i;
        EXPECT_THAT(lines_of(standardError), IsEmpty());
    }
    for (auto const& entry : fs::directory_iterator(folder)) // no piece of a path became a file
        EXPECT_THAT((std::vector<fs::path>{log, ini, standardError}),
                    testing::Contains(entry.path()));
}

TEST_F(LogTest, RepeatedInitFollowsChangesAndNothingElse) {
    fs::path const other = folder / "other.log";
    run(nullptr, [&] {
        auto const init = [&](fs::path const& path, char const* text) {
            LogInit("M", "place.cpp", 7, path.c_str());
            LogInfo("M", "place.cpp", 7, text);
        };
        write_ini(ini_text("info"));
        init(ini, "one");
        fs::remove(log); // an unchanged file is not acted on again, so this is not made anew
        init(ini, "lost");
        LogInit("M", "place.cpp", 7, nullptr);
        LogInit("M", "place.cpp", 7, "");
        LogInit("M", "place.cpp", 7, std::string(5000, 'x').c_str());
        if (fs::exists(log))
            _exit(1);
        write_ini("[XKIVLOG]\nLevel=error\nFile=" + other.string() + "\n");
        init(ini, "too low");
        LogError("M", "place.cpp", 7, 5, "other");
        write_ini(ini_text("info") + "; changed again\n");
        init(ini, "two");
        fs::remove(ini);
        init(ini, "off");
        std::ofstream(folder / "B.INI") << ini_text("info");
        init(folder / "B.INI", "three");
    });
    EXPECT_THAT(messages(other), ElementsAre("5 (0x00000005) other"));
    EXPECT_THAT(messages(log), ElementsAre("two", "three"));
}

TEST_F(LogTest, ProcessesAndThreadsAppendWholeLines) {
    write_ini(ini_text("value"));
    auto const body = [&](char tag) {
        std::string const text(900, tag);
        auto const work = [&] {
            for (int i = 0; i < 100; ++i) {
                LogInit("M", "place.cpp", 9, ini.c_str());
                LogValue("M", "place.cpp", 7, "v", "%s", text.c_str());
            }
        };
        std::array<std::thread, 3> threads{std::thread(work), std::thread(work), std::thread(work)};
        // A child forked in the midst of this can go on logging.
        pid_t const child = fork();
        if (child == 0) {
            LogInit("M", "place.cpp", 9, ini.c_str());
            LogValue("M", "place.cpp", 7, "v", "%s", text.c_str());
            _exit(0);
        }
        int status = -1;
        waitpid(child, &status, 0);
        for (auto& thread : threads)
            thread.join();
        _exit(status == 0 ? 0 : 1);
    };
    std::array<pid_t, 2> const children{start(nullptr, [&] { body('a'); }),
                                        start(nullptr, [&] { body('b'); })};
    for (pid_t const child : children)
        finish(child);
    std::map<std::string, int> count;
    for (auto const& line : lines_of(log))
        if (line.find(" VALUE ") != std::string::npos)
            ++count[message(line)];
    EXPECT_THAT(count, ElementsAre(std::pair("v = " + std::string(900, 'a'), 301),
                                   std::pair("v = " + std::string(900, 'b'), 301)));
}

} // namespace
