// The parts of the driver one by one, without a process around them: the walk over the frames, the
// operations of the edit directory, reading, and the rebuild. Files are in a folder of their own
// under TMPDIR, made of frames that no encoder has made; side_by_side.py has real speech.
#include "log/xkivlog.h"
#include "MCI/KIVMP3/CKivDirFile.h"
#include "testing/driver_calls.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

constexpr uint32_t kFrameBytes = 417; // MPEG 1, 128 kbit/s, 44100 Hz, without padding
constexpr uint32_t kPieceBytes = 4096;

void check(FFDError status, char const* what) {
    if (status != FFD_NOERROR) {
        std::fprintf(stderr, "%s: status %llu\n", what, static_cast<unsigned long long>(status));
        std::exit(1);
    }
}

// The folder of this run and the one sound file in it.
class Folder {
public:
    Folder() {
        std::string pattern = (std::filesystem::temp_directory_path() / "inside-XXXXXX").string();
        m_path = mkdtemp(pattern.data());
    }
    ~Folder() { std::filesystem::remove_all(m_path); }
    Folder(Folder const&) = delete;
    Folder& operator=(Folder const&) = delete;

    std::string sound() const { return (m_path / "a.mp3").string(); }

    // So many frames, cut into blocks that play in an order of their own; one block: no .DIR file.
    void put(uint32_t frames, uint32_t blocks) const {
        std::string frame("\xFF\xFB\x90\xC0", 4);
        frame.resize(kFrameBytes, 'x');
        std::ofstream stream(sound(), std::ios::binary);
        for (uint32_t i = 0; i < frames; ++i) {
            stream << frame;
        }
        std::filesystem::remove(m_path / "a.DIR");
        if (blocks > 1) {
            std::vector<DirEntry> const entries = shuffled(frames * kFrameBytes, blocks);
            std::string bytes(reinterpret_cast<char const*>(entries.data()),
                              entries.size() * sizeof(DirEntry));
            bytes.resize(DIR_FILE_SIZE);
            std::ofstream(m_path / "a.DIR", std::ios::binary) << bytes;
        }
    }

    static std::vector<DirEntry> shuffled(uint32_t bytes, uint32_t blocks) {
        std::vector<DirEntry> entries(blocks);
        for (uint32_t i = 0; i < blocks; ++i) {
            uint32_t const block = i ^ (blocks > 1 && i < blocks / 2 * 2 ? 1 : 0);
            auto const cut = [&](uint64_t n) { return static_cast<DWORD>(n * bytes / blocks); };
            entries[i].Status = DIR_STATUS_LIVE;
            entries[i].Startpos = cut(block);
            entries[i].Endpos = cut(block + 1);
        }
        return entries;
    }

private:
    std::filesystem::path m_path;
};

FFDHandle open_in(Folder const& folder, FFDDesiredAccess access) {
    FFDError status = FFD_NOERROR;
    FFDHandle const handle = open_sound(folder.sound(), access, status);
    check(status, "open");
    return handle;
}

void close_sound(FFDHandle handle) {
    check(driver().Close(handle), "close");
}

void Walk(benchmark::State& state) {
    Folder const folder;
    uint32_t const frames = static_cast<uint32_t>(state.range(0));
    folder.put(frames, 1);
    for ([[maybe_unused]] auto _ : state) {
        close_sound(open_in(folder, FFD_ACCESS_READ));
    }
    state.SetBytesProcessed(state.iterations() * int64_t{frames} * kFrameBytes);
    state.SetItemsProcessed(state.iterations() * int64_t{frames});
}
BENCHMARK(Walk)->Arg(1000)->Arg(10000)->Arg(150000)->Unit(benchmark::kMillisecond);

// A directory in memory alone.
class Directory {
public:
    explicit Directory(uint32_t blocks)
        : m_entries(Folder::shuffled(blocks * kPieceBytes, blocks)) {
        m_entries.resize(DIR_FILE_SIZE / sizeof(DirEntry) + 1);
        m_dirFile.create_directory_file("", FFD_OPEN_EXISTING, FFD_ACCESS_READ);
        reset();
    }
    ~Directory() { m_dirFile.close_dir_memory_mapping(); }
    Directory(Directory const&) = delete;
    Directory& operator=(Directory const&) = delete;

    void reset() {
        m_dirFile.replace_entries(m_entries.data());
        m_dirFile.ascertain_data_length();
    }
    CKivDirFile& operator*() { return m_dirFile; }
    CKivDirFile* operator->() { return &m_dirFile; }

private:
    std::vector<DirEntry> m_entries;
    CKivDirFile m_dirFile;
};

// A position that is another one each time, all over the dictation.
DWORD next_position(DWORD& seed, DWORD length) {
    seed = seed * 1664525u + 1013904223u;
    return static_cast<DWORD>(uint64_t{seed} * length >> 32);
}

template <typename Next> void look_up(benchmark::State& state, Next next) {
    Directory directory(static_cast<uint32_t>(state.range(0)));
    DWORD const length = directory->get_data_length();
    DWORD start = 0;
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(directory->get_dir_entry(next(length), &start));
    }
}

void Lookup(benchmark::State& state) {
    look_up(state, [seed = DWORD{1}](DWORD length) mutable { return next_position(seed, length); });
}
BENCHMARK(Lookup)->Arg(1)->Arg(100)->Arg(5000);

void LookupOnwards(benchmark::State& state) {
    look_up(state, [position = DWORD{0}](DWORD length) mutable {
        return position = (position + kPieceBytes / 2) % length;
    });
}
BENCHMARK(LookupOnwards)->Arg(1)->Arg(100)->Arg(5000);

// The directory's part of a delete and of an insert, without the flush.
template <typename Edit> void edit_directory(benchmark::State& state, Edit edit) {
    constexpr int kEdits = 50; // each adds two entries at most
    Directory directory(static_cast<uint32_t>(state.range(0)));
    DWORD seed = 1;
    for ([[maybe_unused]] auto _ : state) {
        state.PauseTiming();
        directory.reset();
        state.ResumeTiming();
        for (int i = 0; i < kEdits; ++i) {
            edit(*directory, next_position(seed, directory->get_data_length()));
        }
    }
    state.SetItemsProcessed(state.iterations() * kEdits);
}

void Delete(benchmark::State& state) {
    edit_directory(state, [](CKivDirFile& directory, DWORD position) {
        directory.delete_data(1000, position, 1);
    });
}
BENCHMARK(Delete)->Arg(100)->Arg(5000);

void Insert(benchmark::State& state) {
    DirEntry entry = {};
    entry.Status = DIR_STATUS_LIVE;
    entry.Startpos = 0x40000000;
    entry.Endpos = entry.Startpos + 1;
    edit_directory(state, [&](CKivDirFile& directory, DWORD position) {
        directory.insert_data(&entry, directory.plan_insert(position, entry.Startpos, 1, false));
        directory.ascertain_data_length();
    });
}
BENCHMARK(Insert)->Arg(100)->Arg(5000);

void Read(benchmark::State& state) {
    Folder const folder;
    constexpr uint32_t kFrames = 20000;
    folder.put(kFrames, static_cast<uint32_t>(state.range(0)));
    FFDHandle const handle = open_in(folder, FFD_ACCESS_READWRITE);
    std::vector<uint8_t> piece(kPieceBytes);
    for ([[maybe_unused]] auto _ : state) {
        seek(handle, 0);
        FFDReadHandle* range = nullptr;
        while (driver().GetSizeOfData(handle, kPieceBytes, &range) == FFD_NOERROR &&
               range->RealSizeInBytes > 0) {
            check(driver().ReadData(handle, range, kPieceBytes, piece.data()), "read");
        }
    }
    state.SetBytesProcessed(state.iterations() * int64_t{kFrames} * kFrameBytes);
    close_sound(handle);
}
BENCHMARK(Read)->Arg(1)->Arg(100)->Arg(5000)->Unit(benchmark::kMillisecond);

void Rebuild(benchmark::State& state) {
    Folder const folder;
    constexpr uint32_t kFrames = 20000;
    for ([[maybe_unused]] auto _ : state) {
        state.PauseTiming();
        folder.put(kFrames, static_cast<uint32_t>(state.range(0)));
        FFDHandle const handle = open_in(folder, FFD_ACCESS_READWRITE);
        state.ResumeTiming();
        close_sound(handle);
    }
    state.SetBytesProcessed(state.iterations() * int64_t{kFrames} * kFrameBytes);
}
BENCHMARK(Rebuild)->Arg(2)->Arg(100)->Arg(5000)->Unit(benchmark::kMillisecond)->UseRealTime();

// A trace call with the log off, as a library in place of the own one would get it.
void TraceCall(benchmark::State& state) {
    for ([[maybe_unused]] auto _ : state) {
        LogValue("XKIVMP3.DLL", __FILE__, __LINE__, "name", "%lu", 1u);
    }
}
BENCHMARK(TraceCall);

} // namespace

BENCHMARK_MAIN();
