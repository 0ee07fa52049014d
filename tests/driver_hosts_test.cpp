// Hosts as they come: with a child that only lives on, with closed standard streams, with a limit
// on the size of files. All on the library as it ships, in a process of its own.
#include "testing/driver_fixture.h"

#include <gmock/gmock.h>

#include <csignal>
#include <functional>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

using ::testing::ElementsAre;

namespace {

class HostsTest : public DriverTest {
protected:
    HostsTest() {
        write_file(m_sound, frames(20));
        m_library = dlopen(KIV_BUILD_DIR "/libxkivmp3.so", RTLD_NOW | RTLD_LOCAL);
        slots = static_cast<Slots const*>(dlsym(m_library, "FFD_Function_Table"));
    }
    ~HostsTest() override { dlclose(m_library); }

    FFDHandle open_shipped(FFDDesiredAccess access, FFDError* pStatus) {
        return slots->CreateFile(m_sound.c_str(), access, 2, nullptr, m_callback, pStatus, nullptr);
    }

    void* m_library = nullptr;
    Slots const* slots = nullptr; // of the library as it ships
    std::string const m_sound = path("a.mp3");
    std::string m_frame = frames(1, 2);
    uint8_t* m_bytes = reinterpret_cast<uint8_t*>(m_frame.data());
};

// A child that has the library's memory and, at its fork, its descriptors.
pid_t fork_a_child(std::function<void()> const& life = [] {}) {
    pid_t const child = fork();
    if (child == 0) {
        life();
        pause();
        _exit(0);
    }
    return child;
}

void end(pid_t child) {
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

TEST_F(HostsTest, AForkedChildKeepsNothing) {
    for (bool const bKilled : {false, true}) {
        write_file(m_sound, frames(20));
        int pipeEnds[2];
        int goOn[2];
        ASSERT_EQ(pipe(pipeEnds) + pipe(goOn), 0);
        EXPECT_EQ(crash_after([&] {
                      FFDError status = 1;
                      FFDHandle const handle = open_shipped(2, &status);
                      ASSERT_EQ(status, 0u);
                      EXPECT_EQ(slots->WriteData(handle, 1, 96, m_bytes), 0u);
                      // The child may even use the handle, when its parent is no more: it is none.
                      pid_t const child = fork_a_child([&] {
                          char told = 'y';
                          EXPECT_EQ(::write(pipeEnds[1], &told, 1), 1);
                          EXPECT_EQ(::read(goOn[0], &told, 1), 1);
                          bool const bNone = slots->DeleteData(handle, 96) == 2 &&
                                             slots->UndoLast(handle) == 2 &&
                                             slots->StoreActualFileStatus(handle) == 2 &&
                                             slots->WriteData(handle, 1, 96, m_bytes) == 2 &&
                                             slots->Close(handle) == 2;
                          told = bNone ? 'y' : 'n';
                          EXPECT_EQ(::write(pipeEnds[1], &told, 1), 1);
                      });
                      char told = 0;
                      ASSERT_EQ(::read(pipeEnds[0], &told, 1), 1);
                      EXPECT_EQ(told, 'y');
                      ASSERT_EQ(::write(pipeEnds[1], &child, sizeof child), ssize_t{sizeof child});
                      EXPECT_EQ(slots->WriteData(handle, 1, 96, m_bytes), 0u);
                      EXPECT_EQ(read_file(path("a.DIR")).substr(0, 12),
                                std::string("\1\0\0\0\200\7\0\0\100\10\0\0", 12));
                      if (!bKilled) {
                          EXPECT_EQ(slots->Close(handle), 0u);
                      }
                  }),
                  0);
        pid_t child = 0;
        ASSERT_EQ(::read(pipeEnds[0], &child, sizeof child), ssize_t{sizeof child});
        char told = 'y';
        EXPECT_EQ(::write(goOn[1], &told, 1), 1);
        EXPECT_EQ(::read(pipeEnds[0], &told, 1), 1);
        EXPECT_EQ(told, 'y');
        EXPECT_EQ(listing().size(), bKilled ? 2u : 1u);
        FFDHandle const handle = open(m_sound);
        ASSERT_NE(handle, nullptr) << m_status;
        EXPECT_TRUE(same_bytes(read_all(handle), m_frame + m_frame + frames(20)));
        close(handle);
        kill(child, SIGKILL);
        for (int const fd : {pipeEnds[0], pipeEnds[1], goOn[0], goOn[1]}) {
            ::close(fd);
        }
    }
}

// What watches the forks goes with the library.
TEST_F(HostsTest, AForkAfterTheLibraryIsUnloaded) {
    EXPECT_EQ(crash_after([&] {
                  FFDError status = 1;
                  FFDHandle const handle = open_shipped(1, &status);
                  EXPECT_EQ(slots->Close(handle), 0u);
                  EXPECT_EQ(dlclose(m_library), 0);
                  ASSERT_EQ(dlopen(KIV_BUILD_DIR "/libxkivmp3.so", RTLD_NOW | RTLD_NOLOAD),
                            nullptr);
                  end(fork_a_child());
              }),
              0);
}

TEST_F(HostsTest, ClosedStandardStreams) {
    EXPECT_EQ(crash_after([&] {
                  for (int nStream = 0; nStream < 3; ++nStream) {
                      ::close(nStream);
                  }
                  auto const print = [] {
                      for (int nStream = 0; nStream < 3; ++nStream) {
                          if (::write(nStream, "printed", 7) >= 0) {
                              _exit(2);
                          }
                      }
                  };
                  FFDError status = 1;
                  FFDHandle const handle = open_shipped(2, &status);
                  print();
                  FFDError nSum = status + slots->StoreActualFileStatus(handle);
                  print();
                  nSum += slots->WriteData(handle, 1, 96, m_bytes);
                  print();
                  nSum += slots->Close(handle); // in front of all: a rebuild
                  print();
                  _exit(nSum == 0 ? 0 : 3);
              }),
              0);
    EXPECT_TRUE(same_bytes(read_file(m_sound), m_frame + frames(20)));
    EXPECT_THAT(listing(), ElementsAre("a.mp3"));
}

// A limit is a full disk: what does not fit under it is refused, and nothing is lost.
TEST_F(HostsTest, ALimitOnTheSizeOfFiles) {
    struct Row {
        rlim_t nLimit;
        FFDError write, close; // an insert of one frame in front, then a close
    };
    // 20 frames are 1920 bytes, one more 2016; a .DIR file has 65536.
    for (Row const& row : {Row{0, 29, 0}, Row{2015, 29, 0}, Row{65535, 0, 0}, Row{65536, 0, 0}}) {
        write_file(m_sound, frames(20));
        EXPECT_EQ(crash_after([&] {
                      struct rlimit limit {};
                      getrlimit(RLIMIT_FSIZE, &limit);
                      limit.rlim_cur = row.nLimit;
                      setrlimit(RLIMIT_FSIZE, &limit);
                      FFDError status = 1;
                      FFDHandle const reader = open_shipped(1, &status);
                      EXPECT_EQ(status, 0u);
                      EXPECT_EQ(slots->Close(reader), 0u);
                      FFDHandle const handle = open_shipped(2, &status);
                      EXPECT_EQ(status, 0u);
                      EXPECT_EQ(slots->WriteData(handle, 1, 96, m_bytes), row.write);
                      EXPECT_EQ(slots->Close(handle), row.close);
                  }),
                  0)
            << row.nLimit;
        EXPECT_TRUE(same_bytes(read_file(m_sound), (row.write == 0 ? m_frame : "") + frames(20)))
            << row.nLimit;
        EXPECT_THAT(listing(), ElementsAre("a.mp3"));
    }
}

} // namespace
