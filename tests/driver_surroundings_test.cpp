// What others do in the folder of a dictation, by mistake or on purpose: files that are swapped
// while they are open, planted links, markers and directories, readers that wait, other users.

#include "testing/driver_fixture.h"

#include <ctime>
#include <filesystem>
#include <map>
#include <random>
#include <thread>

#include <csignal>
#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr uid_t NOBODY = 65534;

uint32_t crc32(std::string const& bytes) {
    uint32_t nCrc = ~0u;
    for (char const c : bytes) {
        nCrc ^= static_cast<uint8_t>(c);
        for (int nBit = 0; nBit < 8; ++nBit) {
            nCrc = nCrc >> 1 ^ (nCrc % 2 * 0xEDB88320u);
        }
    }
    return ~nCrc;
}

std::string marker(std::string const& sound, std::string const& rebuilt, uint32_t nOldSize,
                   uint32_t nNewSize) {
    std::string behind = little_endian(nOldSize) + little_endian(nNewSize) + std::string(12, '\0') +
                         sound + std::string(260 - sound.size(), '\0') + rebuilt +
                         std::string(260 - rebuilt.size(), '\0');
    return "XKIVCLM1" + little_endian(crc32(behind)) + behind;
}

// Whom the bytes belong to, who may do what, what they are.
using Picture = std::map<std::string, std::string>;

Picture picture_of(std::string const& folder) {
    Picture picture;
    for (auto const& entry : fs::recursive_directory_iterator(folder)) {
        struct stat info = {};
        lstat(entry.path().c_str(), &info);
        std::string& text = picture[entry.path().string().substr(folder.size())];
        text = std::to_string(info.st_mode) + " " + std::to_string(info.st_uid) + " ";
        if (entry.is_symlink()) {
            text += fs::read_symlink(entry.path()).string();
        } else if (entry.is_regular_file()) {
            text += read_file(entry.path().string());
        }
    }
    return picture;
}

class SurroundingsTest : public DriverTest {
protected:
    ~SurroundingsTest() override { clear(); }

    std::string const m_sound = path("a.mp3");
    std::string const m_audio = frames(10);
    std::string const m_other = frames(7, 5);
    std::string const m_edited = m_audio.substr(0, 480) + frames(1, 3) + m_audio.substr(480);

    void clear() const {
        for (std::string const& name : listing()) {
            fs::remove_all(path(name));
        }
    }
    void swap(std::string const& name, std::string const& contents) const {
        write_file(path("new"), contents);
        fs::rename(path("new"), path(name));
    }
    std::string name_ending(std::string const& end) const {
        for (std::string const& name : listing()) {
            if (name.size() > end.size() && name.ends_with(end)) {
                return name;
            }
        }
        return "";
    }
};

TEST_F(SurroundingsTest, TheSoundFileIsSwappedWhileItIsOpen) {
    enum Edit { None, Insert, Append, Adopt };
    enum Swap { Replace, Remove, LinkToIt };
    struct {
        char const* pszName;
        Edit edit;
        Swap swap;
        bool bWaits; // the close, for a reader
        FFDError status;
    } const rows[] = {
        {"replaced", None, Replace, false, 0},
        {"removed", None, Remove, false, 0},
        {"replaced, to be rebuilt", Insert, Replace, false, 29},
        {"replaced, appended", Append, Replace, false, 29},
        {"replaced, adopted", Adopt, Replace, false, 29},
        {"replaced while the close waits", Insert, Replace, true, 29},
        {"removed, to be rebuilt", Insert, Remove, false, 0},
        {"removed while the close waits", Insert, Remove, true, 0},
        {"removed, appended", Append, Remove, false, 0},
        {"moved, with a link", Insert, LinkToIt, false, 0},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.pszName);
        clear();
        write_file(m_sound, m_audio);
        std::string dictation = row.edit == None ? m_audio : m_edited;
        if (row.edit == Adopt) {
            EXPECT_EQ(crash_after([&] {
                          EXPECT_EQ(insert(open(m_sound), 960, frames(1, 3)), 0u);
                          _exit(86);
                      }),
                      86);
        }
        FFDHandle const handle = open(m_sound);
        if (row.edit == Insert) {
            ASSERT_EQ(insert(handle, 480, frames(1, 3)), 0u);
        } else if (row.edit == Append) {
            ASSERT_EQ(insert(handle, 960, frames(1, 3)), 0u);
        }
        if (row.edit == Append || row.edit == Adopt) {
            dictation = m_audio + frames(1, 3);
        }
        auto const swap_it = [&] {
            if (row.swap == Replace) {
                swap("a.mp3", m_other);
            } else if (row.swap == Remove) {
                fs::remove(m_sound);
            } else {
                fs::rename(m_sound, path("b.mp3"));
                fs::create_symlink("b.mp3", m_sound);
            }
        };
        std::thread reader;
        if (row.bWaits) {
            HANDLE const hReader =
                CreateFileA(m_sound.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                            nullptr, OPEN_EXISTING, 0, nullptr);
            reader = std::thread([=] {
                std::this_thread::sleep_for(std::chrono::milliseconds(300));
                swap_it();
                CloseHandle(hReader);
            });
        } else {
            swap_it();
        }
        close(handle, row.status);
        if (reader.joinable()) {
            reader.join();
        }
        EXPECT_EQ(name_ending(".CLM"), "");
        EXPECT_EQ(name_ending(".DIR"), "");
        EXPECT_EQ(exists(path("a.DIR.bad")), row.status != 0);
        std::string const left = name_ending(".MP3");
        EXPECT_EQ(left.empty(), row.status == 0);
        if (!left.empty()) {
            EXPECT_TRUE(same_bytes(read_file(path(left)), dictation));
        }
        if (row.swap == Replace) {
            EXPECT_TRUE(same_bytes(read_file(m_sound), m_other));
        } else if (row.edit == None) {
            EXPECT_FALSE(exists(m_sound));
        } else {
            EXPECT_TRUE(same_bytes(read_file(m_sound), dictation));
        }
    }
}

TEST_F(SurroundingsTest, TheDirFileIsSwappedWhileItIsOpen) {
    struct {
        char const* pszName;
        std::function<void()> swap;
        FFDError close;
    } const rows[] = {
        {"another file", [&] { swap("a.DIR", "a letter"); }, 0},
        {"the same bytes", [&] { swap("a.DIR", read_file(path("a.DIR"))); }, 0},
        {"no file", [&] { fs::remove(path("a.DIR")); }, 0},
        {"a link",
         [&] {
             write_file(path("letter"), "a letter");
             fs::remove(path("a.DIR"));
             fs::create_symlink("letter", path("a.DIR"));
         },
         29},
    };
    for (bool const bEditsOn : {false, true}) {
        for (auto const& row : rows) {
            SCOPED_TRACE(row.pszName);
            clear();
            FFDHandle const handle = open_with(m_sound, m_audio);
            ASSERT_EQ(insert(handle, 480, frames(1, 3)), 0u);
            row.swap();
            std::string const swapped =
                exists(path("a.DIR")) ? read_file(path("a.DIR")) : std::string();
            std::string dictation = m_edited;
            if (bEditsOn) {
                EXPECT_EQ(insert(handle, 0, frames(1, 4)), 0u);
                dictation.insert(0, frames(1, 4));
            }
            close(handle, row.close);
            if (row.close != 0) {
                EXPECT_EQ(read_file(path("a.DIR")), "a letter");
                EXPECT_EQ(exists(path("a.DIR.bad")), false);
                continue;
            }
            EXPECT_TRUE(same_bytes(read_file(m_sound), dictation));
            EXPECT_EQ(name_ending(".DIR"), "");
            if (!swapped.empty()) {
                EXPECT_EQ(read_file(path("a.DIR.bad")), swapped);
            }
        }
    }
}

// What lies under the names of the .DIR file and the marker when the file is opened: it is refused
// with everything as it was, or it is somebody's file and stays.
TEST_F(SurroundingsTest, PlantedFiles) {
    std::string const dir = dir_image({{1, 0, 480}, {1, 480, 960}});
    auto const link_to = [this](char const* pszTarget, char const* pszName) {
        fs::create_symlink(pszTarget, path(pszName));
    };
    auto const owned_by_nobody = [this](char const* pszName, std::string const& bytes) {
        write_file(path(pszName), bytes);
        ASSERT_EQ(chown(path(pszName).c_str(), NOBODY, NOBODY), 0);
        ASSERT_EQ(chmod(folder().c_str(), 01777), 0);
    };
    uint32_t const nSize = static_cast<uint32_t>(m_audio.size());
    struct {
        char const* pszName;
        std::function<void()> plant;
        FFDError status;
        bool bSetAside = false; // by a close that needs the name
    } const rows[] = {
        {"link to a file", [&] { link_to("letter", "a.DIR"); }, 29},
        {"link to a file of zeros", [&] { link_to("zeros", "a.DIR"); }, 29},
        {"link to nothing", [&] { link_to("nothing", "a.DIR"); }, 29},
        {"link to a directory file", [&] { link_to("b.DIR", "a.DIR"); }, 29},
        {"the sound file by another name", [&] { fs::create_hard_link(m_sound, path("a.DIR")); },
         29},
        {"folder", [&] { fs::create_directory(path("a.DIR")); }, 29},
        {"pipe", [&] { mkfifo(path("a.DIR").c_str(), 0600); }, 29},
        {"of another user", [&] { owned_by_nobody("a.DIR", dir); }, 29},
        {"marker that is a link", [&] { link_to("marker", "a.CLM"); }, 29},
        {"marker that is a folder", [&] { fs::create_directory(path("a.CLM")); }, 29},
        {"marker of another user", [&] { owned_by_nobody("a.CLM", read_file(path("marker"))); },
         29},
        {"marker of another sound file",
         [&] { write_file(path("a.CLM"), marker("a.mpg", "1.MP3", nSize, 5)); }, 29},
        {"marker with a linked directory",
         [&] {
             write_file(path("a.CLM"), read_file(path("marker")));
             link_to("b.DIR", "a.DIR");
         },
         29},
        {"marker that names a letter",
         [&] { write_file(path("a.CLM"), marker("a.mp3", "letter", nSize, 8)); }, 0, true},
        {"marker that names the sound file",
         [&] { write_file(path("a.CLM"), marker("1.MP3", "1.MP3", nSize, 8)); }, 0, true},
        {"no marker", [&] { write_file(path("a.CLM"), "shopping list"); }, 0, true},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.pszName);
        clear();
        ASSERT_EQ(chmod(folder().c_str(), 0755), 0);
        write_file(m_sound, m_audio);
        write_file(path("letter"), "a letter");
        write_file(path("zeros"), std::string(8, '\0'));
        write_file(path("b.DIR"), dir);
        write_file(path("1.MP3"), "12345678");
        write_file(path("marker"), marker("a.mp3", "1.MP3", nSize, 8));
        row.plant();
        Picture before = picture_of(folder());
        FFDHandle const handle = open(m_sound);
        EXPECT_EQ(m_status, row.status);
        if (handle != nullptr) {
            ASSERT_EQ(insert(handle, 480, frames(1, 3)), 0u);
            close(handle);
            EXPECT_TRUE(same_bytes(read_file(m_sound), m_edited));
            before["a.mp3"] = picture_of(folder())["a.mp3"];
        }
        if (row.bSetAside) {
            before["a.CLM.bad"] = before["a.CLM"];
            before.erase("a.CLM");
        }
        EXPECT_EQ(picture_of(folder()), before);
    }
}

// A player that tries to open the file as often as it can must not make a close fail.
TEST_F(SurroundingsTest, AReaderThatWaits) {
    std::string const audio = frames(60000); // 5.8 MB
    FFDHandle const handle = open_with(m_sound, audio);
    ASSERT_EQ(erase(handle, 96, 96), 0u);
    ASSERT_EQ(insert(handle, 96, frames(1, 1)), 0u); // the size of before
    pid_t const child = fork();
    if (child == 0) {
        for (;;) {
            HANDLE const hFile =
                CreateFileA(m_sound.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                            nullptr, OPEN_EXISTING, 0, nullptr);
            if (hFile != INVALID_HANDLE_VALUE) {
                usleep(20000);
                CloseHandle(hFile);
                usleep(20000);
            }
        }
    }
    usleep(50000);
    close(handle);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_EQ(listing(), std::vector<std::string>{"a.mp3"});
}

// At no instant of a session, and after a kill at any, may anybody read what he may not read of the
// sound file; whoever may edit that may take over; and a rebuild keeps what there was.
TEST_F(SurroundingsTest, PermissionsGoAlong) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs another user";
    }
    // Version 2; owner rw, user 65534 r, group none, at most rw, others none.
    char const list[] =
        "\2\0\0\0\1\0\6\0\377\377\377\377\2\0\4\0\376\377\0\0\4\0\0\0\377\377\377\377"
        "\20\0\6\0\377\377\377\377\40\0\0\0\377\377\377\377";
    for (mode_t const nUmask : {0u, 077u}) {
        for (mode_t const nMode : {0600u, 0640u, 0664u, 04755u}) {
            for (bool const bList : {false, true}) {
                int nExitCode = 86;
                for (unsigned nChange = 1; nExitCode == 86; ++nChange) {
                    clear();
                    write_file(m_sound, m_audio);
                    ASSERT_EQ(chown(m_sound.c_str(), 1, 2), 0);
                    ASSERT_EQ(chmod(m_sound.c_str(), nMode), 0);
                    if (bList && setxattr(m_sound.c_str(), "system.posix_acl_access", list,
                                          sizeof list - 1, 0) != 0) {
                        break; // no such lists here
                    }
                    struct stat sound = {};
                    ASSERT_EQ(stat(m_sound.c_str(), &sound), 0);
                    nExitCode = crash_after([&] {
                        umask(nUmask);
                        platform_faults::stop_before_change(nChange);
                        FFDHandle const handle = open(m_sound);
                        EXPECT_EQ(insert(handle, 480, frames(1, 3)), 0u);
                        close(handle);
                    });
                    for (std::string const& name : listing()) {
                        SCOPED_TRACE(testing::Message() << name << nUmask << nMode << nChange);
                        struct stat info = {};
                        ASSERT_EQ(stat(path(name).c_str(), &info), 0);
                        EXPECT_EQ(info.st_mode & 07777 & ~sound.st_mode, 0u);
                        if (info.st_size > 0 && (info.st_mode & 077) != 0) {
                            EXPECT_EQ(info.st_gid, 2u);
                        }
                        bool const bRebuilt = name == "a.mp3" && nExitCode == 0;
                        char found[100] = {};
                        ssize_t const nBytes = getxattr(
                            path(name).c_str(), "system.posix_acl_access", found, sizeof found);
                        if (bRebuilt || (name == "a.DIR" && info.st_size > 0)) {
                            EXPECT_EQ(info.st_uid, 1u);
                            EXPECT_EQ(info.st_mode & 0666, sound.st_mode & 0666);
                            EXPECT_EQ(nBytes > 0 ? std::string(found, size_t(nBytes)) : "",
                                      bList ? std::string(list, sizeof list - 1) : "");
                        }
                    }
                }
            }
        }
    }
}

// A process that is not in the group of the sound file gives what it makes to its own group: that
// and all others get what both had.
TEST_F(SurroundingsTest, AGroupThatCanNotBeKept) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs another user";
    }
    ASSERT_EQ(chmod(folder().c_str(), 0777), 0);
    struct {
        mode_t sound;
        mode_t made;
    } const rows[] = {{0660, 0600}, {0664, 0644}, {0604, 0600}, {02777, 0666}};
    for (auto const& row : rows) {
        SCOPED_TRACE(row.sound);
        for (bool const bClose : {false, true}) {
            clear();
            write_file(m_sound, m_audio);
            ASSERT_EQ(chown(m_sound.c_str(), NOBODY, 2), 0);
            ASSERT_EQ(chmod(m_sound.c_str(), row.sound), 0);
            crash_after([&] {
                ASSERT_TRUE(setgroups(0, nullptr) == 0 && setgid(NOBODY) == 0 &&
                            setuid(NOBODY) == 0);
                FFDHandle const handle = open(m_sound);
                EXPECT_EQ(insert(handle, 480, frames(1, 3)), 0u);
                if (bClose) {
                    close(handle);
                }
            });
            struct stat info = {};
            ASSERT_EQ(stat(path(bClose ? "a.mp3" : "a.DIR").c_str(), &info), 0);
            EXPECT_EQ(info.st_gid, NOBODY);
            EXPECT_EQ(info.st_mode & (bClose ? 07666u : 07777u), row.made);
        }
    }
}

TEST_F(SurroundingsTest, NamesOfFilesSetAsideEnd) {
    for (bool const bTimesTaken : {false, true}) {
        clear();
        write_file(m_sound, m_audio);
        write_file(path("a.DIR"), "damage");
        write_file(path("a.DIR.bad"), "");
        for (int nName = 1; nName <= 63; ++nName) {
            write_file(path("a.DIR.bad" + std::to_string(nName)), "");
        }
        time_t const now = time(nullptr);
        for (int nSecond = 0; bTimesTaken && nSecond < 30; ++nSecond) {
            write_file(path("a.DIR.bad" + std::to_string(now + nSecond)), "");
        }
        FFDHandle const handle = open(m_sound);
        EXPECT_EQ(m_status, bTimesTaken ? 29u : 0u);
        EXPECT_EQ(read_file(path("a.DIR")) == "damage", bTimesTaken);
        if (handle != nullptr) {
            close(handle);
        }
    }
}

// Somebody without rights to the victim's files plants what he can under all names that the driver
// uses; the victim opens, edits and closes. Nothing but the dictation's own files has changed, and
// in a folder that is not sticky, where what he has planted counts as those, nothing else.
TEST_F(SurroundingsTest, AnAttackerInTheFolder) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs another user";
    }
    std::mt19937 random(1);
    auto const any = [&random](size_t nCount) { return random() % nCount; };
    char const* const own[] = {"a.DIR", "a.CLM", "1.MP3", "a.DIR.bad", "a.CLM.bad"};
    unsigned anOpened[2] = {};
    for (int nRun = 0; nRun < 400; ++nRun) {
        SCOPED_TRACE(nRun);
        clear();
        fs::create_directory(path("safe"));
        fs::create_directory(path("shared"));
        std::string const sound = path("shared/a.mp3");
        write_file(sound, m_audio);
        for (char const* pszName : {"safe/letter", "shared/contract.pdf"}) {
            write_file(path(pszName), m_audio);
        }
        write_file(path("safe/zeros"), std::string(9, '\0'));
        bool const bSticky = nRun % 2 == 0;
        ASSERT_EQ(chmod(path("shared").c_str(), bSticky ? 01777 : 0777), 0);
        unsigned const nSeed = static_cast<unsigned>(random());
        pid_t const child = fork();
        if (child == 0) {
            std::mt19937 attack(nSeed);
            if (setgid(NOBODY) != 0 || setuid(NOBODY) != 0) {
                _exit(1);
            }
            char const* const targets[] = {"../safe/letter", "../safe/zeros", "contract.pdf",
                                           "a.mp3", "nothing"};
            for (char const* pszName : own) {
                std::string const name = path(std::string("shared/") + pszName);
                std::string const target = targets[attack() % 5];
                std::string const named[] = {"1.MP3", "a.mp3", "contract.pdf", "../safe/letter"};
                uint32_t const nSize =
                    static_cast<uint32_t>(attack() % 2 != 0 ? m_audio.size() : m_other.size());
                std::error_code ignored;
                switch (attack() % 14) {
                case 0:
                    fs::create_symlink(target, name, ignored);
                    break;
                case 1:
                    fs::create_hard_link(path("shared/" + target), name, ignored);
                    break;
                case 2:
                    fs::create_directory(name, ignored);
                    break;
                case 3:
                    write_file(name, dir_image({{1, 0, 480}, {3, 480, 960}}));
                    break;
                case 4:
                case 5:
                    write_file(name, marker("a.mp3", named[attack() % 4], nSize, nSize));
                    break;
                case 6:
                    write_file(name, noise(attack() % 600));
                    break;
                default:
                    break;
                }
            }
            _exit(0);
        }
        int nStatus = 0;
        waitpid(child, &nStatus, 0);
        ASSERT_EQ(nStatus, 0);
        Picture before = picture_of(folder());
        FFDHandle const handle = open(sound);
        if (handle != nullptr) {
            ++anOpened[bSticky];
            EXPECT_TRUE(!bSticky || read_all(handle) == m_audio);
            EXPECT_EQ(insert(handle, static_cast<uint32_t>(any(11) * 96), frames(1, 3)), 0u);
            FFDError const status = driver().Close(handle);
            EXPECT_TRUE(status == 0 || status == 29);
        }
        Picture now = picture_of(folder());
        for (char const* pszOwn : own) {
            if (!bSticky) {
                before.erase(std::string("shared/") + pszOwn);
            }
        }
        if (handle != nullptr) {
            before.erase("shared/a.mp3");
            before.erase("shared/a.DIR");
        }
        for (auto const& [name, text] : before) {
            EXPECT_EQ(now[name], text) << name;
        }
    }
    EXPECT_GT(anOpened[true], 10u);
    EXPECT_GT(anOpened[false], 40u);
}

} // namespace
