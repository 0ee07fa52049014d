// Random sessions over real speech, judged by what a user holds in the end: the closed file is the
// head, whole frames of one kind and bitrate, and the trailing bytes; it opens again; each frame
// that no edit touched is in it, in order, and of what was deleted nothing but frames at borders.
// The frames are told by a parser of this file's own and, for some, counted by another program.
//
// KIV_SPEECH_SESSIONS sets how many sessions of each kind there are, KIV_SPEECH_FIRST the seed of
// the first, KIV_SPEECH_COUNTED after how many closes another program counts once.

#include "testing/memory_disk.h"
#include "tests/driver_fixture.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <sstream>

#include <unistd.h>

namespace {

constexpr char const* SOUND = "/d/a.mp3";

using Frames = std::vector<std::string>;

// ---- Frames ----

// What all frames of a file have in common: sync, version, layer, bitrate and sampling rate.
uint32_t kind_of(char const* pHeader) {
    auto const byte = [&](int n) { return static_cast<uint32_t>(pHeader[n]) & 0xFF; };
    return byte(0) << 16 | (byte(1) & 0xFE) << 8 | (byte(2) & 0xFC);
}

// The bytes of a Layer III frame by its header; 0 for anything else.
size_t frame_bytes(std::string const& bytes, size_t nAt) {
    if (nAt + 4 > bytes.size() || (kind_of(&bytes[nAt]) & 0xFFE600) != 0xFFE200) {
        return 0;
    }
    static constexpr unsigned anRates[] = {44100, 48000, 32000};
    unsigned const nVersion = static_cast<unsigned>(bytes[nAt + 1]) >> 3 & 3;
    unsigned const nBitrate = static_cast<unsigned>(bytes[nAt + 2]) >> 4 & 15;
    unsigned const nRate = static_cast<unsigned>(bytes[nAt + 2]) >> 2 & 3;
    if (nVersion == 1 || nBitrate == 0 || nBitrate == 15 || nRate == 3) {
        return 0;
    }
    unsigned nKilobits = 0; // grows in steps that double after each fourth, from the fifth on
    for (unsigned n = 0; n < nBitrate; ++n) {
        nKilobits += nVersion == 3 ? (n == 0 ? 32 : 8u << (n - 1) / 4) : (n < 8 ? 8 : 16);
    }
    unsigned const nSamples = nVersion == 3 ? 1152 : 576;
    unsigned const nHertz = anRates[nRate] >> (nVersion == 3 ? 0 : nVersion == 2 ? 1 : 2);
    return nSamples * nKilobits * 125 / nHertz + (static_cast<unsigned>(bytes[nAt + 2]) >> 1 & 1);
}

// Nothing if the bytes are anything but whole frames of one kind and bitrate.
std::optional<Frames> parse(std::string const& audio) {
    Frames frames;
    for (size_t nAt = 0; nAt < audio.size(); nAt += frames.back().size()) {
        size_t const nBytes = frame_bytes(audio, nAt);
        if (nBytes == 0 || nAt + nBytes > audio.size() ||
            kind_of(&audio[nAt]) != kind_of(audio.data())) {
            return std::nullopt;
        }
        frames.push_back(audio.substr(nAt, nBytes));
    }
    return frames;
}

struct Sample {
    std::string head, tail;
    Frames frames;  // of the file to edit
    Frames inserts; // of another one of the same format

    Sample(std::string const& name, std::string const& insert, size_t nHead, size_t nTail) {
        std::string const file = read(name);
        head = file.substr(0, nHead);
        tail = file.substr(file.size() - nTail);
        frames = parse(file.substr(nHead, file.size() - nHead - nTail)).value();
        inserts = parse(read(insert)).value();
    }

private:
    static std::string read(std::string const& name) {
        std::ifstream in(KIV_SAMPLES_DIR "/" + name + ".mp3", std::ios::binary);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }
};

std::vector<Sample> const& samples() {
    static std::vector<Sample> const all = {
        {"speech-22k-mono-tagged", "insert-22k-mono", 202, 128},
        {"speech-44k-stereo", "insert-44k-stereo", 0, 0},
        {"speech-16k-mono", "insert-16k-mono", 0, 0},
        {"speech-32k-mono", "insert-32k-mono", 140, 0},
        {"speech-11k-mono", "insert-11k-mono", 0, 128},
        {"speech-8k-stereo", "insert-8k-stereo", 0, 0},
    };
    return all;
}

// ---- The model: which bytes of the file play, in which order ----

struct Run {
    uint32_t nBegin, nEnd; // audio positions
    enum { Live, Undoable, Gone } state = Live;
};

struct Dictation {
    std::vector<Run> runs;
    uint32_t nPosition = 0;
    uint32_t nFileEnd = 0; // audio position behind all that was written up to this state

    uint32_t length() const {
        uint32_t nSum = 0;
        for (Run const& run : runs) {
            nSum += run.state == Run::Live ? run.nEnd - run.nBegin : 0;
        }
        return nSum;
    }

    // The index behind the first so many bytes that play, with a cut there if need be; on a border
    // directly behind the run in front.
    size_t place_of(uint32_t nAt) {
        size_t nRun = 0;
        for (; nAt > 0; ++nRun) {
            Run& run = runs.at(nRun);
            uint32_t const nSize = run.nEnd - run.nBegin;
            if (run.state == Run::Live && nAt < nSize) {
                Run const rest{run.nBegin + nAt, run.nEnd};
                run.nEnd = rest.nBegin;
                runs.insert(runs.begin() + static_cast<ptrdiff_t>(nRun) + 1, rest);
                return nRun + 1;
            }
            nAt -= run.state == Run::Live ? nSize : 0;
        }
        return nRun;
    }

    void insert(Run const& run) {
        size_t const nRun = place_of(nPosition);
        if (nRun > 0 && runs[nRun - 1].nEnd == run.nBegin && runs[nRun - 1].state == Run::Live) {
            runs[nRun - 1].nEnd = run.nEnd;
        } else {
            runs.insert(runs.begin() + static_cast<ptrdiff_t>(nRun), run);
        }
        nPosition += run.nEnd - run.nBegin;
    }

    void erase(uint32_t nBytes, bool bUndoable) {
        uint32_t const nEnd = nPosition + std::min(nBytes, length() - nPosition);
        size_t const nFirst = place_of(nPosition);
        size_t const nBehind = place_of(nEnd);
        for (size_t nRun = nFirst; nRun < nBehind; ++nRun) {
            if (runs[nRun].state == Run::Live) {
                runs[nRun].state = bUndoable ? Run::Undoable : Run::Gone;
            }
        }
    }

    bool change_undoable(bool bBringBack) {
        bool bFound = false;
        for (Run& run : runs) {
            if (run.state == Run::Undoable) {
                run.state = bBringBack ? Run::Live : Run::Gone;
                bFound = true;
            }
        }
        return bFound;
    }
};

// ---- A session ----

Slots const& slots() {
    static bool const bAttached = DllMain(nullptr, 1, nullptr) != 0;
    EXPECT_TRUE(bAttached);
    return *reinterpret_cast<Slots const*>(FFD_Function_Table);
}

unsigned setting(char const* pszName, unsigned nDefault) {
    char const* const pszValue = getenv(pszName);
    return pszValue == nullptr ? nDefault : static_cast<unsigned>(atoi(pszValue));
}

std::string join(Frames const& frames) {
    std::string all;
    for (std::string const& frame : frames) {
        all += frame;
    }
    return all;
}

class Session {
public:
    Session(unsigned nSeed, bool bWholeFrames)
        : m_random(nSeed), m_sample(samples()[nSeed % samples().size()]),
          m_bWholeFrames(bWholeFrames) {
        memory_disk::begin();
        // A part of the sample, so that edits and borders meet often.
        unsigned const nFirst = below(static_cast<unsigned>(m_sample.frames.size()) / 2);
        auto const begin = m_sample.frames.begin() + nFirst;
        begin_with(
            {begin, begin + 4 + below(static_cast<unsigned>(m_sample.frames.end() - begin) - 4)});
        memory_disk::put(SOUND, m_sample.head + join(m_frames) + m_sample.tail);
        open();
    }
    ~Session() {
        if (m_handle != nullptr) {
            slots().Close(m_handle);
        }
    }
    Session(Session const&) = delete;
    Session& operator=(Session const&) = delete;

    bool run() {
        for (unsigned nSteps = 3 + below(25); nSteps > 0 && m_handle != nullptr; --nSteps) {
            step();
        }
        if (m_handle != nullptr) {
            close();
        }
        return m_failure.empty();
    }

    std::string const& failure() const { return m_failure; }
    std::string told() const { return m_told.str(); }

private:
    unsigned below(unsigned nLimit) { return static_cast<unsigned>(m_random() % (nLimit + 1)); }

    // The model of a file that was closed, or never opened.
    void begin_with(Frames frames) {
        m_frames = std::move(frames);
        m_starts.clear();
        m_nFileEnd = 0;
        for (std::string const& frame : m_frames) {
            m_starts.push_back(m_nFileEnd);
            m_nFileEnd += static_cast<uint32_t>(frame.size());
        }
        m_now.runs = {{0, m_nFileEnd}};
        m_nFileEnd += static_cast<uint32_t>(m_sample.tail.size());
        m_now.nFileEnd = m_nFileEnd;
        m_flushed = m_now;
    }

    void open() {
        FFDCallbackParams callback = {};
        callback.hDriver = this;
        FFDError status = 0;
        m_handle = slots().CreateFile(SOUND, 2, 2, nullptr, callback, &status, nullptr);
        m_stored.reset();
        // Pieces that are no frames may leave nothing that begins with one.
        check(status == 0 || (!m_bWholeFrames && (status == 9 || status == 26)),
              "open: " + std::to_string(status));
        compare_length();
    }

    void step() {
        unsigned const nChoice = below(23);
        if (nChoice == 0) {
            m_told << "close ";
            close();
        } else if (nChoice == 1 && !m_bDropped) { // what then comes back is anybody's guess
            m_told << "crash ";
            crash();
        } else if (nChoice < 13) {
            write(nChoice < 8);
        } else if (nChoice < 19) {
            erase();
        } else if (nChoice < 21) {
            m_told << "undo ";
            bool const bFound = m_now.change_undoable(true);
            answer(slots().UndoLast(m_handle), bFound ? 0 : 24);
            m_flushed = bFound ? m_now : m_flushed;
        } else if (nChoice == 21) {
            m_told << "store ";
            answer(slots().StoreActualFileStatus(m_handle), 0);
            m_stored = m_now;
        } else {
            m_told << "restore ";
            answer(slots().RestoreFileStatus(m_handle), m_stored ? 0 : 33);
            // What was written in between has no entry any more, and a crash may bring it back.
            m_bDropped |= m_stored && m_stored->nFileEnd != m_nFileEnd;
            m_now = m_stored.value_or(m_now);
        }
        if (m_handle != nullptr) {
            compare_length();
        }
    }

    void seek_anywhere() {
        uint32_t nLength = 0;
        slots().AudioSeek(m_handle, 0xFFFFFFFF, &nLength);
        uint32_t nAt = below(5) == 0 ? below(1) * nLength : below(nLength);
        if (below(4) == 0 && m_bWholeFrames) { // near a border
            uint32_t nBorder = 0;
            unsigned const nRun = below(static_cast<unsigned>(m_now.runs.size()) - 1);
            for (unsigned n = 0; n <= nRun; ++n) {
                Run const& run = m_now.runs[n];
                nBorder += run.state == Run::Live ? run.nEnd - run.nBegin : 0;
            }
            nAt = nBorder + below(600) - std::min(nBorder, 300u);
        }
        slots().AudioSeek(m_handle, nAt, &m_now.nPosition);
        m_told << m_now.nPosition;
    }

    void write(bool bInsert) {
        m_told << (bInsert ? "insert(" : "overwrite(");
        seek_anywhere();
        Frames const& all = m_sample.inserts;
        unsigned const nFirst = below(static_cast<unsigned>(all.size()) - 1);
        unsigned const nMost = static_cast<unsigned>(all.size()) - nFirst;
        auto const begin = all.begin() + nFirst;
        Frames const frames{begin, begin + std::min(nMost, 1 + below(below(3) == 0 ? 40 : 6))};
        std::string bytes = join(frames);
        if (!m_bWholeFrames) {
            bytes = bytes.substr(below(300) % bytes.size());
            bytes.resize(1 + below(static_cast<unsigned>(bytes.size()) - 1));
        }
        uint32_t const nBytes = static_cast<uint32_t>(bytes.size());
        m_told << "+" << nBytes << ") ";
        answer(slots().WriteData(m_handle, bInsert ? 1 : 2, nBytes,
                                 reinterpret_cast<uint8_t*>(bytes.data())),
               0);
        if (!m_bWholeFrames) {
            return;
        }
        uint32_t nStart = m_nFileEnd;
        for (std::string const& frame : frames) {
            m_frames.push_back(frame);
            m_starts.push_back(nStart);
            nStart += static_cast<uint32_t>(frame.size());
        }
        m_now.insert({m_nFileEnd, m_nFileEnd + nBytes});
        m_nFileEnd += nBytes;
        m_now.nFileEnd = m_nFileEnd;
        if (!bInsert) {
            m_now.erase(nBytes, false);
        }
        m_flushed = m_now;
    }

    void erase() {
        m_told << "delete(";
        seek_anywhere();
        uint32_t const nBytes = below(below(5) == 0 ? 20000 : 3000);
        m_told << "-" << nBytes << ") ";
        answer(slots().DeleteData(m_handle, nBytes), 0);
        uint32_t const nFrame = shortest_frame();
        // The difference wraps in a dictation shorter than a frame.
        if (m_bWholeFrames && nBytes > 0 && m_now.nPosition <= m_now.length() - nFrame) {
            m_now.change_undoable(false);
            m_now.erase(nBytes, true);
        }
        m_flushed = m_now; // what deletes nothing is flushed, too
    }

    uint32_t shortest_frame() const {
        size_t nFrame = m_sample.frames[0].size();
        return static_cast<uint32_t>(nFrame -
                                     (static_cast<unsigned>(m_sample.frames[0][2]) >> 1 & 1));
    }

    void crash() {
        memory_disk::Files const files = memory_disk::left_by_crash();
        slots().Close(m_handle);
        memory_disk::begin(files);
        m_now = m_flushed;
        open();
    }

    void close() {
        answer(slots().Close(m_handle), 0);
        m_handle = nullptr;
        check(dry::names() == std::vector<std::string>{SOUND}, "files of the close");
        if (m_bWholeFrames && m_failure.empty()) {
            judge(memory_disk::get(SOUND));
        } else if (m_failure.empty()) {
            open();
        }
    }

    void judge(std::string const& file) {
        std::string const& head = m_sample.head;
        std::string const& tail = m_sample.tail;
        if (!file.starts_with(head) || file.size() < head.size() + tail.size() ||
            !file.ends_with(tail)) {
            return check(false, "head or trailing bytes");
        }
        std::optional<Frames> frames =
            parse(file.substr(head.size(), file.size() - head.size() - tail.size()));
        if (!frames || (!frames->empty() &&
                        kind_of(frames->at(0).data()) != kind_of(m_sample.frames[0].data()))) {
            return check(false, "a broken frame");
        }
        check(holds_dictation(*frames), "frames of the dictation");
        static unsigned nCloses = 0;
        static unsigned const nCounted = setting("KIV_SPEECH_COUNTED", 400);
        if (++nCloses % nCounted == 0 && !frames->empty()) {
            check(count_elsewhere(file) == frames->size(), "count of another program");
        }
        if (!frames->empty()) {
            begin_with(*frames);
            m_bDropped = false;
            open();
        }
    }

    // Whether a file's frames are those of the runs in their order: of each run all that lie in it,
    // and perhaps the one that its begin cuts, and two at its end.
    bool holds_dictation(Frames const& found) const {
        std::set<size_t> reached{0}; // how many frames the runs so far may be
        for (Run const& run : m_now.runs) {
            if (run.state != Run::Live) {
                continue;
            }
            size_t nFirst = 0; // that lies in the run
            while (nFirst < m_starts.size() && m_starts[nFirst] < run.nBegin) {
                ++nFirst;
            }
            size_t nBehind = nFirst;
            while (nBehind < m_starts.size() &&
                   m_starts[nBehind] + m_frames[nBehind].size() <= run.nEnd) {
                ++nBehind;
            }
            std::set<size_t> next;
            for (size_t const nBefore : reached) {
                for (size_t nFrom = nFirst - (nFirst > 0 ? 1 : 0); nFrom <= nFirst; ++nFrom) {
                    size_t nAt = nBefore;
                    for (size_t nFrame = nFrom;; ++nFrame, ++nAt) {
                        if (nFrame >= nBehind) {
                            next.insert(nAt);
                        }
                        if (nFrame == std::min(nBehind + 2, m_frames.size()) ||
                            nAt == found.size() || found[nAt] != m_frames[nFrame]) {
                            break;
                        }
                    }
                }
            }
            reached = next;
        }
        return reached.contains(found.size());
    }

    static size_t count_elsewhere(std::string const& file) {
        std::string const path =
            (std::filesystem::temp_directory_path() / ("kiv-speech-" + std::to_string(getpid())))
                .string();
        std::ofstream(path, std::ios::binary) << file;
        std::string const command = "ffprobe -v error -f mp3 -count_packets -show_entries "
                                    "stream=nb_read_packets -of csv=p=0 " +
                                    path;
        size_t nCount = 0;
        if (FILE* const pPipe = popen(command.c_str(), "r")) {
            EXPECT_EQ(fscanf(pPipe, "%zu", &nCount), 1);
            pclose(pPipe);
        }
        std::filesystem::remove(path);
        return nCount;
    }

    void compare_length() {
        if (m_handle != nullptr && m_bWholeFrames) {
            uint32_t nLength = 0;
            slots().AudioSeek(m_handle, 0xFFFFFFFF, &nLength);
            check(nLength == m_now.length(), "length");
        }
    }

    void answer(FFDError status, FFDError expected) {
        check(status == expected || !m_bWholeFrames, "status " + std::to_string(status));
    }

    void check(bool bGood, std::string const& what) {
        if (!bGood && m_failure.empty()) {
            m_failure = what;
        }
    }

    std::mt19937 m_random;
    Sample const& m_sample;
    bool const m_bWholeFrames;
    Frames m_frames;                // that the file holds, in its order
    std::vector<uint32_t> m_starts; // and their audio positions
    uint32_t m_nFileEnd = 0;        // likewise
    Dictation m_now;
    Dictation m_flushed; // what a crash leaves
    std::optional<Dictation> m_stored;
    bool m_bDropped = false; // audio was written that no entry names
    FFDHandle m_handle = nullptr;
    std::ostringstream m_told;
    std::string m_failure; // the first
};

void run_sessions(bool bWholeFrames) {
    unsigned const nFirst = setting("KIV_SPEECH_FIRST", 0);
    unsigned const nSessions = setting("KIV_SPEECH_SESSIONS", 1500);
    std::map<std::string, unsigned> failures;
    for (unsigned nSeed = nFirst; nSeed < nFirst + nSessions; ++nSeed) {
        Session session(nSeed, bWholeFrames);
        if (!session.run() && failures[session.failure()]++ == 0) {
            ADD_FAILURE() << session.failure() << ", seed " << nSeed << ": " << session.told();
        }
    }
    for (auto const& [what, nTimes] : failures) {
        ADD_FAILURE() << what << ": " << nTimes << " of " << nSessions << " sessions";
    }
}

TEST(SpeechTest, WholeFramesStayWholeFrames) {
    run_sessions(true);
}

// Where pieces cut frames, the walk of an open lands inside frames and must not take their bytes
// for a header.
TEST(SpeechTest, PiecesThatCutFramesOpenAgain) {
    run_sessions(false);
}

} // namespace
