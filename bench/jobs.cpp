// One job of the table in docs/performance.md for each start of the program: side_by_side.py times
// whole processes from outside, and takes the pairs of times that the others print.
//
//     jobs loop FILE                       reads FILE once in blocks of 64 KiB
//     jobs open DRIVER FILE                opens for reading, asks for format and length, closes
//     jobs cut DRIVER FILE SECONDS         opens for writing, deletes so much in the middle, closes
//     jobs edits DRIVER FILE KIND ROUNDS   KIND: insert, overwrite or delete
//     jobs reads DRIVER FILE ROUNDS        reads the dictation in pieces of 4 KiB
//
// The last two do the job through the driver and by plain system calls in turn, and print a line
// for each round: nanoseconds of the driver, then of the plain calls. Of an edit that is the append
// of the audio and its fdatasync, then the .DIR file written, closed and opened again: once with
// the calls in between by which an open claims the file for itself, as a strace of the driver shows
// them, and once without. Of a read that is the same bytes in the same order and pieces, and once
// the pieces as they lie in the file. They end without a close, as a crash does, so that FILE is
// not rebuilt: what they leave behind is the caller's to remove. With JOBS_MEMORY in the
// environment the last line of any job is "peak-bytes N": by how much the memory of the process
// rose at most from the start of main on.
#include "ffd.hpp"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <random>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace {

constexpr size_t kLoopBlock = 65536;
constexpr size_t kReadPiece = 4096;
constexpr size_t kEditBytes = 8000;
constexpr size_t kDirFileBytes = 65536;

using Clock = std::chrono::steady_clock;

long long nanoseconds_since(Clock::time_point begin) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - begin).count();
}

// A field of /proc/self/status, which counts in units of 1024 bytes.
long long memory_bytes(std::string const& field) {
    std::ifstream status("/proc/self/status");
    for (std::string name; status >> name;) {
        if (name == field + ":") {
            long long kib = 0;
            status >> kib;
            return kib * 1024;
        }
        status.ignore(4096, '\n');
    }
    throw std::runtime_error("no " + field + " in /proc/self/status");
}

template <typename Result> Result checked(char const* what, Result result) {
    if (result < 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
    return result;
}

// A descriptor of the plain side.
class PlainFile {
public:
    PlainFile(std::string path, int flags) : m_path(std::move(path)), m_flags(flags) { open(); }
    ~PlainFile() { ::close(m_fd); }
    PlainFile(PlainFile const&) = delete;
    PlainFile& operator=(PlainFile const&) = delete;

    int fd() const { return m_fd; }
    void open() { m_fd = checked("open", ::open(m_path.c_str(), m_flags | O_CLOEXEC, 0600)); }
    void close() { checked("close", ::close(m_fd)); }
    void write(std::span<std::byte const> bytes, off_t offset) {
        if (checked("pwrite", pwrite(m_fd, bytes.data(), bytes.size(), offset)) !=
            static_cast<ssize_t>(bytes.size())) {
            throw std::runtime_error("pwrite: the disk is full");
        }
    }

    // What the driver's platform layer does to claim a file that it has opened: under a lock that
    // one process at a time has, two ranges of lock bytes set, one looked at, and the name looked
    // up again.
    void claim() {
        struct stat status {};
        checked("fstat", fstat(m_fd, &status));
        checked("flock", flock(m_fd, LOCK_EX | LOCK_NB));
        constexpr off_t kFirst = off_t{1} << 62;
        lock(F_OFD_SETLK, F_RDLCK, kFirst, 3);
        lock(F_OFD_SETLK, F_RDLCK, kFirst + 5, 2);
        lock(F_OFD_GETLK, F_WRLCK, kFirst + 2, 4);
        checked("stat", stat(m_path.c_str(), &status));
        checked("flock", flock(m_fd, LOCK_UN));
    }

private:
    void lock(int command, short type, off_t from, off_t bytes) {
        struct flock lock {};
        lock.l_type = type;
        lock.l_whence = SEEK_SET;
        lock.l_start = from;
        lock.l_len = bytes;
        checked("fcntl", fcntl(m_fd, command, &lock));
    }

    std::string m_path;
    int m_flags;
    int m_fd = -1;
};

void loop(std::string const& file) {
    PlainFile const plain(file, O_RDONLY);
    std::vector<std::byte> block(kLoopBlock);
    while (checked("read", read(plain.fd(), block.data(), block.size())) > 0) {
    }
}

void open(std::string const& driver, std::string const& file) {
    ffd::Driver const loaded(driver);
    ffd::File sound(loaded, file, ffd::Access::Read);
    std::printf("%u Hz, %u bytes\n", sound.format().samplingRate, sound.length());
    sound.close();
}

void cut(std::string const& driver, std::string const& file, unsigned seconds) {
    ffd::Driver const loaded(driver);
    ffd::File sound(loaded, file, ffd::Access::ReadWrite);
    sound.seek(sound.length() / 2);
    sound.erase(sound.format().bytesPerSecond * seconds);
    sound.close();
}

// Times the jobs one after the other in each round and prints a line of the times in their order.
// Each begins the round in its turn, since what one leaves in the caches serves the next.
void run_in_turn(int rounds, std::vector<std::function<void()>> const& jobs,
                 std::function<void()> const& before) {
    for (int round = 0; round < rounds; ++round) {
        before();
        std::vector<long long> times(jobs.size());
        for (size_t i = 0; i < jobs.size(); ++i) {
            size_t const turn = (static_cast<size_t>(round) + i) % jobs.size();
            auto const begin = Clock::now();
            jobs[turn]();
            times[turn] = nanoseconds_since(begin);
        }
        for (long long const time : times) {
            std::printf("%lld ", time);
        }
        std::printf("\n");
    }
}

// Never closed, see above.
ffd::File& open_for_good(ffd::Driver const& driver, std::string const& file) {
    return *new ffd::File(driver, file, ffd::Access::ReadWrite);
}

// Bytes of whole frames of the file, as a dictation takes them.
std::vector<std::byte> frames_of(ffd::File& sound) {
    std::vector<std::byte> frames(kEditBytes);
    sound.seek(0);
    if (sound.read(frames) != frames.size()) {
        throw std::runtime_error("the file is too short");
    }
    return frames;
}

void edits(std::string const& driver, std::string const& file, std::string const& kind,
           int rounds) {
    ffd::Driver const& loaded = *new ffd::Driver(driver);
    ffd::File& sound = open_for_good(loaded, file);
    std::vector<std::byte> const frames = frames_of(sound);
    std::vector<std::byte> const directory(kDirFileBytes);

    PlainFile plain(file + ".plain", O_RDWR | O_CREAT);
    PlainFile plainDirectory(file + ".plain.DIR", O_RDWR | O_CREAT);
    plainDirectory.write(directory, 0);
    // As large as the one that the driver appends to.
    off_t const size = sound.file_size();
    for (off_t end = 0; end < size; end += off_t{kDirFileBytes}) {
        plain.write(directory, end);
    }
    checked("fsync", fsync(plain.fd()));

    std::minstd_rand random; // the same places at each start
    auto const edit = [&] {
        if (kind == "insert") {
            sound.insert(frames);
        } else if (kind == "overwrite") {
            sound.overwrite(frames);
        } else if (kind == "delete") {
            sound.erase(kEditBytes);
        } else {
            throw std::runtime_error("no such kind of edit: " + kind);
        }
    };
    auto const plainEdit = [&](bool claims) {
        if (kind != "delete") {
            struct stat status {};
            checked("fstat", fstat(plain.fd(), &status));
            plain.write(frames, status.st_size);
            checked("fdatasync", fdatasync(plain.fd()));
        }
        plainDirectory.write(directory, 0);
        plainDirectory.close();
        plainDirectory.open();
        if (claims) {
            plainDirectory.claim();
        }
    };
    run_in_turn(rounds, {edit, [&] { plainEdit(true); }, [&] { plainEdit(false); }}, [&] {
        sound.seek(static_cast<uint32_t>(random() % (sound.length() - kEditBytes)));
    });
}

struct Range {
    off_t from;
    off_t to;
};

// The live blocks in playing order as file offsets, from the .DIR file beside a sound file whose
// first frame is its first byte: entries of a status byte, three others, and two 32-bit positions.
std::vector<Range> blocks_of(std::filesystem::path file) {
    std::ifstream stream(file.replace_extension(".DIR"), std::ios::binary);
    std::vector<Range> blocks;
    std::array<char, 12> entry{};
    while (stream.read(entry.data(), entry.size()) && entry[0] != 0) {
        std::array<uint32_t, 2> positions{};
        std::memcpy(positions.data(), entry.data() + 4, sizeof positions);
        if (entry[0] == 1) {
            blocks.push_back({off_t{positions[0]}, off_t{positions[1]}});
        }
    }
    return blocks;
}

void reads(std::string const& driver, std::string const& file, int rounds) {
    ffd::Driver const& loaded = *new ffd::Driver(driver);
    ffd::File& sound = open_for_good(loaded, file);
    uint32_t const length = sound.length();
    std::vector<Range> const blocks = blocks_of(file);
    PlainFile const plain(file, O_RDONLY);
    std::vector<std::byte> piece(kReadPiece);
    auto const driverRead = [&] {
        sound.seek(0);
        uint64_t got = 0;
        while (size_t const size = sound.read(piece)) {
            got += size;
        }
        if (got != length) {
            throw std::runtime_error("the dictation ends too early");
        }
    };
    // Pieces of the dictation: one that lies in two blocks takes two calls.
    auto const plainRead = [&] {
        uint64_t got = 0;
        for (Range const& block : blocks) {
            for (off_t offset = block.from; offset < block.to;) {
                off_t const room = static_cast<off_t>(kReadPiece - got % kReadPiece);
                size_t const size = static_cast<size_t>(std::min(room, block.to - offset));
                checked("pread", pread(plain.fd(), piece.data(), size, offset));
                offset += static_cast<off_t>(size);
                got += size;
            }
        }
        if (got != length) {
            throw std::runtime_error("the blocks are not the dictation");
        }
    };
    auto const plainReadInFileOrder = [&] {
        for (off_t offset = 0; offset < off_t{length}; offset += off_t{kReadPiece}) {
            checked("pread", pread(plain.fd(), piece.data(), piece.size(), offset));
        }
    };
    run_in_turn(rounds, {driverRead, plainRead, plainReadInFileOrder}, [] {});
}

void run(std::vector<std::string> const& words) {
    auto const is = [&](char const* job, size_t count) {
        return words.size() == count + 1 && words[0] == job;
    };
    if (is("loop", 1)) {
        loop(words[1]);
    } else if (is("open", 2)) {
        open(words[1], words[2]);
    } else if (is("cut", 3)) {
        cut(words[1], words[2], static_cast<unsigned>(std::stoul(words[3])));
    } else if (is("edits", 4)) {
        edits(words[1], words[2], words[3], std::stoi(words[4]));
    } else if (is("reads", 3)) {
        reads(words[1], words[2], std::stoi(words[3]));
    } else {
        throw std::runtime_error("wrong arguments; see the top of jobs.cpp");
    }
}

} // namespace

int main(int argc, char** argv) {
    try {
        std::vector<std::string> const words(argv + 1, argv + argc);
        bool const memory = std::getenv("JOBS_MEMORY") != nullptr;
        long long const before = memory ? memory_bytes("VmRSS") : 0;
        run(words);
        if (memory) {
            std::printf("peak-bytes %lld\n", memory_bytes("VmHWM") - before);
        }
    } catch (std::exception const& error) {
        std::fprintf(stderr, "jobs: %s\n", error.what());
        return 1;
    }
    std::fflush(stdout);
    _exit(0); // nothing that the driver left open is to be tidied up behind its back
}
