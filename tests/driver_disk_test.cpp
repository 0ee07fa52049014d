// Disks and permissions as they are: a disk that runs full, files and folders that can't be
// written.

#include "testing/driver_fixture.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <map>

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;
using ::testing::ElementsAre;

namespace {

// A disk of so many KiB in a folder; gone with the object.
class SmallDisk {
public:
    SmallDisk(std::string folder, unsigned nKib) : m_folder(std::move(folder)) {
        fs::create_directory(m_folder);
        m_bMounted = mount("none", m_folder.c_str(), "tmpfs", 0, options(nKib).c_str()) == 0;
    }
    ~SmallDisk() {
        if (m_bMounted) {
            umount2(m_folder.c_str(), MNT_DETACH);
        }
    }
    SmallDisk(SmallDisk const&) = delete;
    SmallDisk& operator=(SmallDisk const&) = delete;

    bool mounted() const { return m_bMounted; }
    void resize(unsigned nKib) {
        ASSERT_EQ(mount("none", m_folder.c_str(), "tmpfs", MS_REMOUNT, options(nKib).c_str()), 0);
    }

private:
    static std::string options(unsigned nKib) { return "size=" + std::to_string(nKib) + "k"; }
    std::string m_folder;
    bool m_bMounted = false;
};

// Ordinary rights, also where the tests run as root.
class OrdinaryUser {
public:
    OrdinaryUser() {
        if (geteuid() == 0) {
            EXPECT_EQ(seteuid(65534), 0);
        }
    }
    ~OrdinaryUser() {
        if (getuid() == 0) {
            EXPECT_EQ(seteuid(0), 0);
        }
    }
    OrdinaryUser(OrdinaryUser const&) = delete;
    OrdinaryUser& operator=(OrdinaryUser const&) = delete;
};

class DiskTest : public DriverTest {};

TEST_F(DiskTest, ADiskThatRunsFull) {
    SmallDisk disk(path("disk"), 400);
    if (!disk.mounted()) {
        GTEST_SKIP() << "no right to mount a small disk";
    }
    std::string const sound = path("disk/a.mp3");
    std::string const audio = frames(1000); // 96,000 bytes, and 64 KiB for the directory
    FFDHandle handle = open_with(sound, audio);
    std::string dictation = audio;
    FFDError status = 0;
    for (unsigned nPiece = 0; nPiece < 30; ++nPiece) {
        std::string const piece = frames(100, nPiece);
        uint32_t const nAt = nPiece * 480;
        uint64_t const nFileBytes = fs::file_size(sound);
        status = nPiece % 2 != 0 ? overwrite(handle, nAt, piece) : insert(handle, nAt, piece);
        if (status != 0) {
            EXPECT_EQ(fs::file_size(sound), nFileBytes); // cut back
            EXPECT_EQ(position(handle), nAt);
            break;
        }
        dictation.replace(nAt, nPiece % 2 != 0 ? piece.size() : 0, piece);
    }
    EXPECT_EQ(status, 29u);
    EXPECT_TRUE(same_bytes(read_all(handle), dictation));
    ASSERT_EQ(erase(handle, 960, 9600), 0u); // needs no room
    dictation.erase(960, 9600);
    close(handle, 6);
    EXPECT_TRUE(exists(path("disk/a.DIR")));

    // With room again the next open finds everything.
    disk.resize(2000);
    handle = open(sound);
    ASSERT_EQ(m_status, 0u);
    EXPECT_TRUE(same_bytes(read_all(handle), dictation));
    close(handle);
    EXPECT_TRUE(same_bytes(read_file(sound), dictation));
    EXPECT_FALSE(exists(path("disk/a.DIR")));
}

// From no room for the copy to room for everything: whatever the status, every edit is there, and
// no finished copy fills the disk for good.
TEST_F(DiskTest, ACloseOnADiskThatIsNearlyFull) {
    SmallDisk disk(path("disk"), 1000);
    if (!disk.mounted()) {
        GTEST_SKIP() << "no right to mount a small disk";
    }
    std::string const sound = path("disk/a.mp3");
    std::string const filler = path("disk/filler");
    std::string const dictation = frames(1, 3) + frames(1300); // 124,896 bytes
    std::map<FFDError, unsigned> seen;
    for (unsigned nPages = 0; nPages < 48; ++nPages) {
        SCOPED_TRACE(nPages);
        FFDHandle handle = open_with(sound, frames(1300));
        ASSERT_EQ(insert(handle, 0, frames(1, 3)), 0u);
        write_file(filler, "");
        fs::resize_file(filler, fs::space(path("disk")).available - uint64_t{nPages} * 4096);
        write_file(filler, std::string(fs::file_size(filler), 'x'));
        FFDError const status = driver().Close(handle);
        ++seen[status];
        fs::remove(filler);
        std::string names;
        for (auto const& entry : fs::directory_iterator(path("disk"))) {
            names += entry.path().extension();
        }
        EXPECT_EQ(names.size(), status == 0 ? 4u : 8u) << names; // with the .DIR file
        handle = open(sound);
        EXPECT_TRUE(same_bytes(read_all(handle), dictation));
        close(handle);
        EXPECT_TRUE(same_bytes(read_file(sound), dictation));
    }
    EXPECT_EQ(seen.size(), 2u); // 0 and 6
    EXPECT_GT(seen[0], 10u);
    EXPECT_GT(seen[6], 10u);
}

TEST_F(DiskTest, AFolderThatIsShutWhileAFileIsOpen) {
    ASSERT_EQ(chmod(folder().c_str(), 0777), 0);
    std::string const audio = frames(10);
    std::string const sound = path("a.mp3");
    OrdinaryUser const user;
    fs::create_directory(path("sub"));
    std::string const inside = path("sub/a.mp3");
    FFDHandle handle = open_with(inside, audio);
    ASSERT_EQ(insert(handle, 0, frames(1, 3)), 0u);
    ASSERT_EQ(chmod(path("sub").c_str(), 0555), 0);
    ASSERT_EQ(insert(handle, 0, frames(1, 4)), 0u); // the .DIR file is there already
    close(handle, 29);
    ASSERT_EQ(chmod(path("sub").c_str(), 0755), 0);
    handle = open(inside);
    EXPECT_TRUE(same_bytes(read_all(handle), frames(1, 4) + frames(1, 3) + audio));
    close(handle);
    EXPECT_TRUE(same_bytes(read_file(inside), frames(1, 4) + frames(1, 3) + audio));
}

// Whatever the umask, and wherever the host goes meanwhile.
TEST_F(DiskTest, WhatIsMadeOfTheClockIsPrivateAndGoes) {
    auto const mode_of = [this](char const* pszExtension) {
        for (std::string const& name : listing()) {
            struct stat info = {};
            if (name.find(pszExtension) == 10 && stat(path(name).c_str(), &info) == 0) {
                return info.st_mode & 07777;
            }
        }
        return 0u;
    };
    std::string const sound = path("a.mp3");
    mode_t const old = umask(0);
    write_file(sound, frames(10));
    chmod(sound.c_str(), 0640);
    fs::path const before = fs::current_path();
    fs::current_path(folder());
    set_temp_directory(".");
    FFDHandle handle = open(sound);
    EXPECT_EQ(erase(handle, 96, 96), 0u);
    EXPECT_EQ(driver().StoreActualFileStatus(handle), 0u);
    EXPECT_EQ(mode_of(".csf"), 0600u);
    fs::current_path("/");
    close(handle);
    EXPECT_THAT(listing(), ElementsAre("a.mp3"));
    EXPECT_EQ(crash_after([&] {
                  handle = open(sound);
                  EXPECT_EQ(erase(handle, 96, 96), 0u);
                  platform_faults::stop_before_change(4); // in the midst of the copy
                  close(handle);
              }),
              86);
    EXPECT_EQ(mode_of(".MP3"), 0640u);
    umask(old);
    fs::current_path(before);
}

TEST_F(DiskTest, TheRebuiltFileIsAFileOfItsOwnWithTheOldPermissions) {
    std::string const sound = path("a.mp3");
    std::string const audio = frames(10);
    write_file(path("real.mp3"), audio);
    ASSERT_EQ(chmod(path("real.mp3").c_str(), 0604), 0);
    fs::create_symlink("real.mp3", sound);
    FFDHandle const handle = open(sound);
    ASSERT_EQ(insert(handle, 0, frames(1, 3)), 0u);
    close(handle);
    struct stat info = {};
    ASSERT_EQ(lstat(sound.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0604u);
    EXPECT_TRUE(S_ISREG(info.st_mode));
    EXPECT_TRUE(same_bytes(read_file(sound), frames(1, 3) + audio));
    EXPECT_TRUE(same_bytes(read_file(path("real.mp3")), audio + frames(1, 3)));
}

} // namespace
