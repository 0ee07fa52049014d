// Every instant can be the last: the process ends, or the power goes, in front of any change that a
// session makes to the disk, and in front of any that the next open and its close make. What the
// next open for writing finds after the process has ended is known to the byte. After a loss of
// power some of what was not flushed is there, and the test counts what becomes of the dictation;
// but all audio that was flushed is in the file, it opens, nothing plays that is not in it, and a
// close that has come as far as its marker keeps every edit.
//
// KIV_CRASH_SESSIONS sets how many random sessions there are, KIV_CRASH_CUTS how often the power
// goes in front of each change.

#include "testing/step_source.h"

#include <gtest/gtest.h>

#include <iostream>
#include <map>

namespace {

std::string const SOUND = "/d/a.mp3";
std::string const DIRECTORY = "/d/a.DIR";

std::string with_bit(std::string bytes, size_t nBit) {
    bytes[nBit / 8] = static_cast<char>(bytes[nBit / 8] ^ 1 << nBit % 8);
    return bytes;
}

bool is_temporary(std::string const& name) {
    return name.ends_with(".MP3");
}

// Of a record, whether a change of this kind to files with such an end came in a range of changes.
bool happened(power_cut::Record const& record, size_t nFrom, size_t nBehind, int kind,
              std::string const& end) {
    auto const begin = record.changes.begin();
    return std::any_of(begin + static_cast<ptrdiff_t>(std::min(nFrom, nBehind)),
                       begin + static_cast<ptrdiff_t>(nBehind), [&](auto const& change) {
                           return change.kind == kind && change.name.ends_with(end);
                       });
}

// What the next open for writing, its close and the open after it make of some files.
struct Recovery {
    FFDError opened = 0;
    FFDError closed = 0;
    FFDError again = 0;
    std::string sound; // when it was open
    uint32_t nLength = 0;
    std::string dictation;
    std::vector<std::string> openNames; // of all files, after the open
    std::string closedSound;
    std::vector<std::string> names;

    explicit Recovery(memory_disk::Files const& files, bool bRecorded = false) {
        memory_disk::begin(files);
        if (bRecorded) {
            power_cut::record();
        }
        FFDHandle handle = open_sound(SOUND, 2, opened);
        openNames = dry::names();
        sound = memory_disk::has(SOUND) ? memory_disk::get(SOUND) : "";
        if (handle == nullptr) {
            return;
        }
        nLength = length(handle);
        FFDError status = 0;
        uint32_t const nHeld = static_cast<uint32_t>(sound.size());
        dictation = nLength == 0 ? "" : read_on(handle, std::min(nLength, nHeld), status);
        closed = status != 0 ? status : driver().Close(handle);
        names = dry::names();
        closedSound = memory_disk::get(SOUND);
        handle = open_sound(SOUND, 1, again);
        if (handle != nullptr) {
            driver().Close(handle);
        }
    }

    // Whether the dictation is made of parts of the file.
    bool plays_the_file_only() const {
        for (size_t nAt = 0; nAt < dictation.size();) {
            std::string const begin = dictation.substr(nAt, 16);
            size_t const nFound = sound.find(begin);
            if (nFound == std::string::npos) {
                return false;
            }
            size_t nSame = begin.size();
            while (nAt + nSame < dictation.size() && nFound + nSame < sound.size() &&
                   dictation[nAt + nSame] == sound[nFound + nSame]) {
                ++nSame;
            }
            nAt += nSame;
        }
        return true;
    }
};

class Crashes {
public:
    // Runs a session to its close, and then stops it everywhere.
    void run(StepSource& steps, bool bTags, unsigned nPowerCuts) {
        Sound const sound{bTags ? id3v2_tag(31) : "", frames(8), bTags ? id3v1_tag() : ""};
        m_head = sound.head;
        m_tail = sound.tail;
        memory_disk::begin({{SOUND, sound.file()}});
        power_cut::record();
        Session session(SOUND, sound);
        SCOPED_TRACE(run_session(session, steps) + (bTags ? "with tags" : ""));
        m_notes = session.notes();
        m_closed = m_head + session.close() + m_tail;
        m_record = power_cut::take();
        ASSERT_EQ(session.failure(), "");
        ++m_nSessions;
        for (size_t nChange = 0; nChange <= m_record.changes.size(); ++nChange) {
            for (unsigned nSeed = 0; nSeed <= nPowerCuts; ++nSeed) {
                // Each time and at each place something else is lost.
                unsigned const nLost = nSeed < 2 ? nSeed : 2 + m_nStops;
                SCOPED_TRACE(testing::Message() << "change " << nChange << ", seed " << nLost);
                ++m_nStops;
                stop(nChange, nLost);
                if (testing::Test::HasFailure()) {
                    return;
                }
            }
        }
    }

    void tell() const {
        std::cout << m_nSessions << " sessions, " << m_nStops << " stops, " << m_nSecondStops
                  << " second stops\n";
        for (auto const& [what, nTimes] : m_tally) {
            std::cout << nTimes << " " << what << "\n";
        }
    }

private:
    void stop(size_t nChange, unsigned nSeed) {
        size_t nStep = m_notes.size() - 1; // the last that was done
        while (nStep > 0 && m_notes[nStep].first > nChange) {
            --nStep;
        }
        memory_disk::Files const left = m_record.left(nChange, nSeed);
        bool const bSecond = nChange % 5 == m_nStops % 5;
        Recovery const found(left, bSecond);
        power_cut::Record const second = bSecond ? power_cut::take() : power_cut::Record();
        std::optional<std::string> const expected = expect(nStep, nChange, nSeed);
        judge(found, nStep, nSeed, expected, m_closed);
        note(found, nStep, nChange, nSeed);
        for (size_t n = 0; n < second.changes.size() && !testing::Test::HasFailure(); ++n) {
            SCOPED_TRACE(testing::Message() << "second stop at " << n);
            ++m_nSecondStops;
            judge(Recovery(second.left(n, nSeed)), nStep, nSeed,
                  nSeed == 0 ? found.dictation : expected, found.closedSound);
        }
    }

    // The dictation, where it is known: with all edits whose directory was written, and at the end
    // of the file what no directory knows.
    std::optional<std::string> expect(size_t nStep, size_t nChange, unsigned nSeed) const {
        auto const& [nDone, done] = m_notes[nStep];
        auto const now = [&, nDone = nDone](int kind, char const* pszEnd) {
            return happened(m_record, nDone, nChange, kind, pszEnd);
        };
        bool const bCloses = nStep + 1 == m_notes.size();
        bool const bAppended = now(power_cut::Change::Written, ".mp3");
        Model left = bAppended ? m_notes[nStep + 1].second : done;
        left.flushed = !now(power_cut::Change::Written, ".DIR") && nSeed == 0 ? done.flushed
                       : bCloses                                              ? done.now
                                 : m_notes[nStep + 1].second.flushed;
        uint32_t const nEnd =
            left.nWritten > 0 ? static_cast<uint32_t>(left.audio.size()) : left.nOldEnd;
        if (nSeed > 0 || !now(power_cut::Change::Removed, ".mp3")) {
            left.flushed.take_in(nEnd);
        }
        std::string const dictation = left.flushed_bytes();
        bool const bKnown =
            nSeed == 0 || (dictation == done.bytes() && now(power_cut::Change::Flushed, ".CLM"));
        return bKnown ? std::optional(dictation) : std::nullopt;
    }

    void judge(Recovery const& found, size_t nStep, unsigned nSeed,
               std::optional<std::string> const& expected, std::string const& finished) const {
        // A close that all audio was deleted before has left no frame.
        bool const bFinished = found.sound == finished || found.sound == m_closed;
        if (found.opened == 9 && bFinished && found.sound == m_head + m_tail) {
            return;
        }
        ASSERT_EQ(found.opened, 0u);
        EXPECT_TRUE(bFinished || found.sound.starts_with(m_head + m_notes[nStep].second.audio));
        EXPECT_TRUE(found.plays_the_file_only());
        EXPECT_EQ(found.closed, 0u);
        EXPECT_TRUE(found.again == 0 || (found.again == 9 && found.dictation.size() < FRAME));
        for (std::string const& name : found.names) {
            EXPECT_TRUE(name == SOUND || is_temporary(name) ||
                        (nSeed > 0 && !name.ends_with(".DIR")))
                << name;
        }
        if (expected) {
            EXPECT_TRUE(found.dictation == *expected);
            bool const bTail = m_tail.empty() || expected->find(m_tail) == std::string::npos;
            EXPECT_TRUE(found.closedSound == m_head + *expected + (bTail ? m_tail : ""));
        }
    }

    // Counts what has become of the dictation of the last step that was done, or of the next.
    void note(Recovery const& found, size_t nStep, size_t nChange, unsigned nSeed) {
        Model const& done = m_notes[nStep].second;
        Model const& next = m_notes[std::min(nStep + 1, m_notes.size() - 1)].second;
        bool const bCloses = nStep + 1 == m_notes.size() && nChange > m_notes[nStep].first;
        bool const bMarked = happened(m_record, 0, nChange, power_cut::Change::Flushed, ".CLM");
        auto const plays = [&](std::string const& bytes) {
            return found.dictation.find(bytes) != std::string::npos;
        };
        auto const count = [&](bool bSo, char const* pszWhat) {
            std::string const stop = nSeed == 0 ? "process ends in a " : "power goes in a ";
            m_tally[stop +
                    (bMarked   ? "close with its marker: "
                     : bCloses ? "close: "
                               : "session: ") +
                    pszWhat] += bSo;
        };
        bool const bThere = found.dictation == done.bytes() || found.dictation == next.bytes();
        count(true, "stops");
        count(!bThere, "not every edit there");
        count(!bThere &&
                  std::any_of(m_notes.begin(), m_notes.end(),
                              [&](auto const& at) { return at.second.bytes() == found.dictation; }),
              "of these as after an earlier edit");
        count(!m_tail.empty() && plays(m_tail), "plays the tag inside");
        count(plays(std::string(64, '\0')), "plays sectors that never came");
        bool bAllPlays = true;
        for (Run const& run : done.now.runs) {
            for (uint32_t n = 0; n < run.live_size(); n += FRAME) {
                bAllPlays = bAllPlays && plays(done.audio.substr(run.nBegin + n + 4, FRAME - 4));
            }
        }
        count(!bAllPlays, "audio does not play");
    }

    std::string m_head, m_tail, m_closed;
    std::vector<std::pair<size_t, Model>> m_notes;
    power_cut::Record m_record;
    unsigned m_nSessions = 0;
    unsigned m_nStops = 0;
    unsigned m_nSecondStops = 0;
    std::map<std::string, unsigned> m_tally;
};

constexpr unsigned STEPS = 2 - TOO_SLOW_FOR_STEPS;

TEST(CrashTest, EveryShortSessionAndRandomOnes) {
    unsigned const nCuts = setting("KIV_CRASH_CUTS", 2);
    Crashes crashes;
    for (size_t nSteps = 0; nSteps <= STEPS; ++nSteps) {
        EverySession steps({true, {0}, {2 * FRAME}, 1}, nSteps);
        do {
            for (bool const bTags : {true, false}) {
                steps.again();
                crashes.run(steps, bTags, nCuts);
            }
        } while (steps.advance() && !HasFailure());
    }
    for (unsigned n = 0; n < setting("KIV_CRASH_SESSIONS", STEPS * 75) && !HasFailure(); ++n) {
        std::mt19937 random(n);
        RandomSteps steps(random, 1 + n % 10, FRAME, [&](Model const& model) {
            return piece_of(model, FRAME * (1 + static_cast<uint32_t>(random() % 8)));
        });
        crashes.run(steps, n % 2 != 0, nCuts);
    }
    crashes.tell();
}

// A .DIR file that a crash has torn, that a disk has spoilt or that comes from elsewhere: what
// can't be whole is set aside, and what is taken over plays what it names and takes every edit.
class SpoiltDirectoryTest : public testing::Test {
protected:
    ~SpoiltDirectoryTest() override {
        std::cout << m_nTried << " directories, " << m_nAside << " set aside\n";
    }

    void expect_judged(std::string const& audio, std::string const& image) {
        memory_disk::Files const files{{SOUND, audio}, {DIRECTORY, image}};
        std::optional<Dictation> expected = dictation_of(image);
        bool const bAside = !expected;
        uint32_t const nHeld = static_cast<uint32_t>(audio.size());
        if (bAside || expected->runs.empty() ||
            (expected->runs.size() == 1 && expected->runs[0].nEnd == 0)) {
            expected = Dictation{{{0, nHeld}}};
        }
        expected->take_in(nHeld);
        ++m_nTried;
        m_nAside += bAside;
        Recovery const found(files);
        ASSERT_EQ(found.opened, 0u);
        EXPECT_EQ(found.nLength, expected->length());
        EXPECT_TRUE(found.dictation == expected->bytes(audio));
        EXPECT_EQ(found.closed, 0u);
        EXPECT_EQ(found.names.size(), bAside ? 2u : 1u);
        EXPECT_TRUE(!bAside || memory_disk::get(DIRECTORY + ".bad") == image);

        memory_disk::begin(files);
        FFDError status = 0;
        FFDHandle const handle = open_sound(SOUND, 2, status);
        EXPECT_EQ(driver().UndoLast(handle), expected->end_undo(true) ? 0u : 24u);
        EXPECT_EQ(insert(handle, found.nLength / 2, frames(1, 3)), 0u);
        EXPECT_EQ(insert(handle, 0, frames(2, 4)), 0u);
        EXPECT_EQ(erase(handle, 96, 96), 0u);
        EXPECT_EQ(driver().UndoLast(handle), 0u);
        // A write drops what the file does not hold.
        if (expected->bytes(audio).size() == expected->length()) {
            EXPECT_EQ(length(handle), expected->length() + 288);
        }
        seek(handle, 0);
        EXPECT_TRUE(read_on(handle, 192, status) == frames(2, 4));
        EXPECT_EQ(driver().Close(handle), 0u);
        EXPECT_TRUE(memory_disk::get(SOUND).starts_with(frames(2, 4)));
    }

    unsigned m_nTried = 0;
    unsigned m_nAside = 0;
};

TEST_F(SpoiltDirectoryTest, MixesOfTwo) {
    std::function<FFDError(FFDHandle)> const edits[] = {
        [](FFDHandle h) { return insert(h, 60 * 96, frames(1, 1)); },
        [](FFDHandle h) { return insert(h, 90 * 96 + 48, frames(1, 2)); },
        [](FFDHandle h) { return overwrite(h, 70 * 96 + 10, frames(2, 3)); },
        [](FFDHandle h) { return erase(h, 40 * 96, 60 * 96); },
        [](FFDHandle h) { return driver().UndoLast(h); },
    };
    // 160 blocks of one frame each, the last frame first.
    std::vector<Entry> entries;
    for (uint32_t nFrame = 160; nFrame-- > 0;) {
        entries.push_back({1, nFrame * 96, nFrame * 96 + 96});
    }
    memory_disk::Files files{{SOUND, frames(160)}, {DIRECTORY, dir_image(entries)}};
    for (auto const& edit : edits) {
        memory_disk::begin(files);
        power_cut::record();
        FFDError status = 0;
        FFDHandle const handle = open_sound(SOUND, 2, status);
        ASSERT_EQ(edit(handle), 0u);
        power_cut::Record const record = power_cut::take();
        files = memory_disk::left_by_crash();
        driver().Close(handle);
        for (unsigned n = 0; n < record.changes.size() * 100 && !HasFailure(); ++n) {
            SCOPED_TRACE(n);
            expect_judged(files[SOUND], record.left(n / 100 + 1, 2 + n)[DIRECTORY]);
        }
    }
    EXPECT_GT(m_nAside, m_nTried / 50);
}

TEST_F(SpoiltDirectoryTest, EveryLengthEveryBitAndAnythingElse) {
    std::string const audio = frames(30);
    std::string const image = dir_image({{1, 2000, 2880},
                                         {3, 1000, 1500},
                                         {11, 0, 600},
                                         {1, 600, 1000},
                                         {1, 1500, 2000},
                                         {11, 2880, 2880}});
    for (size_t nBytes = 0; nBytes <= 65536 && !HasFailure(); nBytes += nBytes < 300 ? 1 : 512) {
        SCOPED_TRACE(nBytes);
        expect_judged(audio, image.substr(0, nBytes));
    }
    for (size_t nBit = 0; nBit < size_t{65536} * 8 && !HasFailure();
         nBit += nBit < 700 ? 1 : 32749) {
        SCOPED_TRACE(nBit);
        expect_judged(audio, with_bit(image, nBit));
    }
    std::mt19937 random(4711);
    auto const one_of = [&](std::initializer_list<uint32_t> values) {
        return values.begin()[random() % values.size()];
    };
    for (unsigned nRound = 0; nRound < 3000 && !HasFailure(); ++nRound) {
        SCOPED_TRACE(nRound);
        std::vector<Entry> any;
        uint32_t nEnd = 0;
        for (size_t nEntries = random() % 12; nEntries > 0; --nEntries) {
            uint32_t const nStart = nEnd + one_of({0, 0, 0, 1, 96, 4000});
            nEnd = nStart + one_of({0, 1, 95, 96, 500, 1500});
            any.push_back({one_of({1, 1, 1, 1, 3, 11}), nStart, nEnd});
        }
        std::shuffle(any.begin(), any.end(), random);
        if (!any.empty() && random() % 3 == 0) { // something that is wrong, as a rule
            Entry& entry = any[random() % any.size()];
            (random() % 2 == 0 ? entry.nStartpos : entry.nEndpos) =
                one_of({0, 96, 2880, 0x7FFFFFFF, 0xFFFFFFFF});
            entry.nStatus = one_of({1, 3, 11, 0, 2, 5, 9, 257, 0x80000001});
        }
        expect_judged(audio, dir_image(any, one_of({65536, 65536, 12, 70, 144, 65537, 131072})));
    }
    EXPECT_GT(m_nAside, m_nTried / 20);
    EXPECT_LT(m_nAside, m_nTried / 2);
}

// Beside the old file, and where only the rebuilt one is left.
TEST(SpoiltMarkerTest, DecidesNothing) {
    std::string const audio = frames(10);
    std::string const dictation = frames(1, 3) + audio;
    memory_disk::begin({{SOUND, audio}});
    power_cut::record();
    FFDError status = 0;
    FFDHandle const handle = open_sound(SOUND, 2, status);
    ASSERT_EQ(write_at(handle, 1, frames(1, 3)), 0u);
    ASSERT_EQ(driver().Close(handle), 0u);
    power_cut::Record const record = power_cut::take();
    unsigned nStates = 0;
    unsigned nTried = 0;
    for (size_t nChange = 0; nChange < record.changes.size(); ++nChange) {
        memory_disk::Files files = record.left(nChange, 0);
        std::string const marker = files["/d/a.CLM"];
        std::string const rebuilt = files.begin()->first;
        if (marker.size() != 552 || !is_temporary(rebuilt)) {
            continue;
        }
        ++nStates;
        bool const bOldFile = files.contains(SOUND);
        auto const expect_kept = [&](std::string const& damaged) {
            files["/d/a.CLM"] = damaged;
            Recovery const found(files);
            bool const bZeros = damaged.find_first_not_of('\0') == std::string::npos;
            // A file that does not even begin like a marker is somebody's.
            bool const bForeign =
                damaged.size() > 552 ||
                (!bZeros && damaged.compare(0, 8, marker, 0, std::min<size_t>(8, damaged.size())));
            auto const has = [&](std::string const& name) {
                return std::count(found.openNames.begin(), found.openNames.end(), name) == 1;
            };
            EXPECT_EQ(has("/d/a.CLM"), bForeign);
            EXPECT_EQ(has("/d/a.CLM.bad"), !bForeign && !damaged.empty());
            EXPECT_EQ(found.opened == 0, bOldFile);
            EXPECT_TRUE(!bOldFile || found.sound == audio + frames(1, 3));
            EXPECT_TRUE(!bOldFile || found.dictation == dictation);
            EXPECT_TRUE(has(rebuilt) && memory_disk::get(rebuilt) == dictation);
            nTried += 1;
        };
        for (size_t nBytes = 0; nBytes < 552; ++nBytes) {
            expect_kept(marker.substr(0, nBytes));
        }
        for (size_t nBit = 0; nBit < size_t{552} * 8 && !testing::Test::HasFailure(); nBit += 5) {
            SCOPED_TRACE(nBit);
            expect_kept(with_bit(marker, nBit));
        }
        for (std::string const& damaged : {marker.substr(0, 300) + std::string(252, '\0'),
                                           std::string(552, '\0'), marker + '\0', noise(552)}) {
            expect_kept(damaged);
        }
    }
    EXPECT_GE(nStates, 2u);
    std::cout << nTried << " markers\n";
}

} // namespace
