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
    std::string dictation;
    std::string closedSound;
    std::vector<std::string> names;

    explicit Recovery(memory_disk::Files const& files, bool bRecorded = false) {
        memory_disk::begin(files);
        if (bRecorded) {
            power_cut::record();
        }
        FFDHandle handle = open_sound(SOUND, 2, opened);
        sound = memory_disk::get(SOUND);
        if (handle == nullptr) {
            return;
        }
        uint32_t const nLength = seek(handle, 0xFFFFFFFF);
        seek(handle, 0);
        FFDError status = 0;
        dictation = nLength == 0 ? "" : read_on(handle, nLength, status);
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

#if defined(__SANITIZE_ADDRESS__)
constexpr unsigned STEPS = 1; // a session takes twenty times as long
#else
constexpr unsigned STEPS = 2;
#endif

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

} // namespace
