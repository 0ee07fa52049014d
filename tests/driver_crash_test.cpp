// Every instant can be the last, on the real disk: a process of its own ends between any two
// changes of the disk, in a session, in its close, and in the open that clears up after another
// crash. crash_test knows for many sessions what is found then; here the system underneath is the
// true one.

#include "testing/driver_folder.h"

#include <algorithm>
#include <iostream>

namespace {

using Step = std::function<FFDError(FFDHandle)>;

class RealCrashTest : public FolderTest, public ::testing::WithParamInterface<bool> {
protected:
    std::vector<Step> const m_steps = {
        [](FFDHandle h) { return insert(h, 480, frames(2, 1)); },
        [](FFDHandle h) { return erase(h, 960, 192); },
        [](FFDHandle h) { return insert(h, length(h), frames(2, 2)); },
        [](FFDHandle h) { return overwrite(h, 192, frames(2, 3)); },
        [](FFDHandle h) { return driver().UndoLast(h); },
        [](FFDHandle h) { return insert(h, 0, frames(2, 4)); },
    };

    // What the next open for writing finds. The close after it leaves a file that plays it, alone.
    std::string recover() {
        FFDHandle const handle = open(m_sound);
        EXPECT_NE(handle, nullptr) << m_status;
        if (handle == nullptr) {
            return "";
        }
        std::string const dictation = read_all(handle);
        remove_files_of_the_clock();
        close(handle);
        bool const bTag = m_tag.empty() || dictation.find(m_tag) == std::string::npos;
        std::string const closed = read_file(m_sound);
        EXPECT_TRUE(closed.starts_with(m_head + dictation));
        // Of a frame that is not whole the end may stay behind the audio.
        EXPECT_TRUE(closed.size() - m_head.size() - dictation.size() <
                    (bTag ? m_tag.size() : 0) + 96);
        EXPECT_EQ(listing(), std::vector<std::string>{"a.mp3"});
        return dictation;
    }

    // Whether all of a dictation is there, and bytes at no more than one place of it: those of an
    // append that no directory knows.
    static bool holds(std::string const& found, std::string const& dictation) {
        auto const front =
            std::mismatch(dictation.begin(), dictation.end(), found.begin(), found.end());
        auto const back =
            std::mismatch(dictation.rbegin(), dictation.rend(), found.rbegin(), found.rend());
        return front.first - dictation.begin() + (back.first - dictation.rbegin()) >=
               static_cast<ptrdiff_t>(dictation.size());
    }

    std::string const m_head = GetParam() ? id3v2_tag(70) : "";
    std::string const m_tag = GetParam() ? id3v1_tag() : "";
    Files const m_begin = {{"a.mp3", m_head + frames(20) + m_tag}};
};

INSTANTIATE_TEST_SUITE_P(Tags, RealCrashTest, ::testing::Bool(),
                         [](auto const& rInfo) { return rInfo.param ? "Tags" : "NoTags"; });

TEST_P(RealCrashTest, EveryInstantOfASessionCanBeTheLast) {
    // Without a crash: the dictation after each step, and how many changes there were by then.
    put(m_begin);
    FFDHandle const handle = open(m_sound);
    platform_faults::reset();
    std::vector<std::string> dictations{read_all(handle)};
    std::vector<unsigned> changes{0};
    for (Step const& step : m_steps) {
        ASSERT_EQ(step(handle), 0u);
        dictations.push_back(read_all(handle));
        changes.push_back(platform_faults::changes());
    }
    close(handle);

    unsigned nPoints = 0;
    unsigned nAgain = 0;
    unsigned nTorn = 0;
    size_t nDone = 0; // steps
    for (int nExitCode = 86; nExitCode == 86 && !HasFailure(); ++nPoints) {
        unsigned const nChange = nPoints + 1;
        SCOPED_TRACE(nChange);
        put(m_begin);
        nExitCode = crash_after([&] {
            FFDHandle const h = open(m_sound);
            platform_faults::stop_before_change(nChange);
            for (Step const& step : m_steps) {
                step(h);
            }
            driver().Close(h);
        });
        while (nDone + 1 < changes.size() && changes[nDone + 1] < nChange) {
            ++nDone;
        }
        Files const left = files();
        std::string const found = recover();
        EXPECT_TRUE(holds(found, dictations[nDone]));
        int nSecond = nPoints % 2 == 0 ? 86 : 0;
        for (unsigned nStop = 1; nSecond == 86 && !HasFailure(); ++nStop) {
            put(left);
            nSecond = crash_after([&] {
                platform_faults::stop_before_change(nStop);
                driver().Close(open(m_sound));
            });
            ++nAgain;
            EXPECT_TRUE(same_bytes(recover(), found)) << "second crash at " << nStop;
        }
        // An append that reached the disk in part.
        bool const bAppended = nDone + 1 < changes.size() && nChange == changes[nDone] + 2 &&
                               found != dictations[nDone];
        for (size_t const nBytes : {1u, 4u, 5u, 50u, 95u, 96u, 97u, 100u, 101u, 191u}) {
            if (bAppended && !HasFailure()) {
                ++nTorn;
                put(left);
                std::filesystem::resize_file(m_sound, left.at("a.mp3").size() - 192 + nBytes);
                EXPECT_TRUE(holds(recover(), dictations[nDone])) << "torn at " << nBytes;
            }
        }
    }
    std::cout << nPoints << " crash points, " << nAgain << " second crashes, " << nTorn
              << " torn appends\n";
    EXPECT_GT(nPoints, 20u);
    EXPECT_GT(nAgain, 20u);
    EXPECT_GT(nTorn, 0u);
}

} // namespace
