// Every instant can be the last: the process ends between any two changes of the disk, in the
// session, in the close, and in the open that clears up behind another crash. What the next open
// for writing finds is known to the byte, and the close behind it leaves a file that plays it.

#include "testing/driver_folder.h"

#include <iostream>

namespace {

struct Step {
    std::function<FFDError(FFDHandle)> run;
    std::string after;    // the dictation in memory behind it
    std::string appended; // to the file
    bool bFlushes;        // the .DIR file follows
    bool bCovered;        // the .DIR file in front of it accounts for the whole file
};

std::vector<Step> session() {
    std::string d = frames(20);
    std::vector<Step> steps;
    bool bCovered = true;
    bool bRestored = false;
    auto const add = [&](std::function<FFDError(FFDHandle)> run, std::string const& appended,
                         bool bFlushes) {
        steps.push_back({std::move(run), d, appended, bFlushes, bCovered});
        bCovered = bCovered && !(bRestored && bFlushes);
    };
    auto const write = [&](FFDMethod method, size_t at, unsigned nSeed) {
        std::string piece = frames(2, nSeed);
        d.replace(at, method == 2 ? piece.size() : 0, piece);
        add(
            [=](FFDHandle h) mutable {
                uint32_t nReached = 0;
                driver().AudioSeek(h, static_cast<uint32_t>(at), &nReached);
                return driver().WriteData(h, method, 192, reinterpret_cast<uint8_t*>(piece.data()));
            },
            piece, true);
    };
    auto const erase = [&](uint32_t at, uint32_t bytes) {
        std::string erased = d.substr(at, bytes);
        d.erase(at, bytes);
        add(
            [=](FFDHandle h) {
                uint32_t nReached = 0;
                driver().AudioSeek(h, at, &nReached);
                return driver().DeleteData(h, bytes);
            },
            "", true);
        return erased;
    };
    auto const store = [&] {
        add([](FFDHandle h) { return driver().StoreActualFileStatus(h); }, "", false);
        return d;
    };
    auto const restore = [&](std::string const& stored) {
        d = stored;
        bRestored = true;
        // Leaves the .DIR file to the next edit, or to the close.
        add([](FFDHandle h) { return driver().RestoreFileStatus(h); }, "", false);
    };
    write(1, 480, 1);
    std::string const erased = erase(960, 192);
    write(1, d.size(), 2);
    write(2, 192, 3);
    d.insert(960, erased);
    add([](FFDHandle h) { return driver().UndoLast(h); }, "", true);
    std::string stored = store();
    write(1, 0, 4); // dropped by the restore
    erase(0, 192);
    restore(stored);
    write(1, 576, 5);
    write(1, 0, 6);
    stored = store();
    erase(96, 288);
    restore(stored);
    add([](FFDHandle h) { return driver().Close(h); }, "", false);
    return steps;
}

struct Found {
    std::string dictation;
    std::string trailing; // what the closed file holds behind it
};

class CrashTest : public FolderTest, public ::testing::WithParamInterface<bool> {
protected:
    // What an open finds in the sound file as the last flush left it (`flushed`), with a piece or a
    // part of it behind the end that no flush followed.
    //
    // The block that reaches to the end of what the directory accounts for grows by the frames
    // found behind it, with a tag between if that stands there. Of a frame that is not whole the
    // bytes count, except that the last four bytes of a file are never searched for a header. If
    // that block is deleted, or if the directory does not account for the whole file (because a tag
    // stands between its blocks, or audio that a restore has dropped), nothing is found.
    Found find_behind(std::string const& flushed, std::string const& sound, bool bCovered,
                      std::string const& piece) const {
        bool const bTagAtEnd = !m_tag.empty() && sound.substr(sound.size() - 128) == m_tag;
        if (!bCovered || (!m_tag.empty() && !bTagAtEnd)) {
            return {flushed, m_tag};
        }
        size_t const nRest = piece.size() % 96;
        size_t const nSeen = nRest < 5 ? piece.size() - nRest : piece.size();
        if (nSeen == 0) {
            return {flushed, m_tag + piece};
        }
        size_t const at = flushed.find(sound.substr(sound.size() - m_tag.size() - 96, 96));
        if (at == std::string::npos) {
            return {flushed, m_tag};
        }
        std::string dictation = flushed;
        return {dictation.insert(at + 96, m_tag + piece.substr(0, nSeen)), piece.substr(nSeen)};
    }

    void expect_found(Found const& found) {
        expect_dictation(found.dictation, m_head + found.dictation + found.trailing);
    }

    bool const m_bTags = GetParam();
    std::string const m_head = m_bTags ? id3v2_tag(70) : "";
    std::string const m_tag = m_bTags ? id3v1_tag() : "";
    Files const m_begin = {{"a.mp3", m_head + frames(20) + m_tag}};
};

INSTANTIATE_TEST_SUITE_P(Tags, CrashTest, ::testing::Bool(),
                         [](auto const& rInfo) { return rInfo.param ? "Tags" : "NoTags"; });

TEST_P(CrashTest, EveryInstantOfASessionCanBeTheLast) {
    std::vector<Step> const steps = session();
    // Without a crash: how many changes each step makes, and what the file is in front of it.
    put(m_begin);
    FFDHandle const handle = open(m_sound);
    std::vector<unsigned> changes;
    std::vector<std::string> sounds;
    for (Step const& step : steps) {
        sounds.push_back(read_file(m_sound));
        platform_faults::reset();
        if (&step == &steps.back()) {
            close(handle);
        } else {
            ASSERT_EQ(step.run(handle), 0u);
            ASSERT_TRUE(same_bytes(read_all(handle), step.after));
        }
        changes.push_back(platform_faults::changes());
    }
    ASSERT_TRUE(same_bytes(read_file(m_sound), m_head + steps.back().after + m_tag));

    unsigned nPoints = 0;
    unsigned nAgain = 0;
    unsigned nTorn = 0;
    std::string flushed = frames(20);
    for (size_t nStep = 0; nStep < steps.size() && !HasFailure(); ++nStep) {
        Step const& step = steps[nStep];
        bool const bClose = nStep + 1 == steps.size();
        for (unsigned nChange = 1; nChange <= changes[nStep] && !HasFailure(); ++nChange) {
            SCOPED_TRACE(testing::Message() << "step " << nStep << ", change " << nChange);
            ++nPoints;
            put(m_begin);
            ASSERT_EQ(crash_after([&] {
                          FFDHandle const h = open(m_sound);
                          for (size_t nDone = 0; nDone <= nStep; ++nDone) {
                              if (nDone == nStep) {
                                  platform_faults::stop_before_change(nChange);
                              }
                              steps[nDone].run(h);
                          }
                      }),
                      86);
            Files const left = files();
            bool const bAppended = !step.appended.empty() && nChange == 2;
            // A close begins with the flush that is due.
            Found found = {bClose && nChange > 1 ? step.after : flushed, m_tag};
            if (bAppended) {
                found = find_behind(flushed, sounds[nStep], step.bCovered, step.appended);
            }
            EXPECT_EQ(crash_after([&] { expect_found(found); }), 0);

            // The recovery and its close are cut off as well.
            bool const bAgain = bAppended || left.count("a.CLM") != 0 || (bClose && nChange == 2);
            int nExitCode = bAgain ? 86 : 0;
            for (unsigned nSecond = 1; nExitCode == 86 && !HasFailure(); ++nSecond) {
                SCOPED_TRACE(testing::Message() << "second crash at " << nSecond);
                put(left);
                nExitCode = crash_after([&] {
                    platform_faults::stop_before_change(nSecond);
                    driver().Close(open(m_sound));
                });
                nAgain += nExitCode == 86;
                expect_found(found);
            }
            // An append that reached the disk in part.
            for (size_t const nBytes : {1u, 4u, 5u, 50u, 95u, 96u, 97u, 100u, 101u, 191u}) {
                if (!bAppended || HasFailure()) {
                    break;
                }
                SCOPED_TRACE(testing::Message() << "torn at " << nBytes);
                ++nTorn;
                put(left);
                std::filesystem::resize_file(m_sound, sounds[nStep].size() + nBytes);
                expect_found(find_behind(flushed, sounds[nStep], step.bCovered,
                                         step.appended.substr(0, nBytes)));
            }
        }
        if (step.bFlushes) {
            flushed = step.after;
        }
    }
    std::cout << nPoints << " crash points, " << nAgain << " second crashes, " << nTorn
              << " torn appends\n";
    RecordProperty("crash_points", static_cast<int>(nPoints));
    RecordProperty("second_crashes", static_cast<int>(nAgain));
    RecordProperty("torn_appends", static_cast<int>(nTorn));
    EXPECT_GT(nPoints, 40u);
    EXPECT_GT(nAgain, 60u);
}

} // namespace
