// Every short session on a disk in memory: after each step the driver and a model must agree; after
// a crash at its end the next open must find the dictation, its undo too; and the rebuilt file must
// hold it. speech_test.cpp has long sessions.
//
// KIV_SESSION_DEPTH sets how many steps the sessions have.

#include "testing/step_source.h"

#include <gtest/gtest.h>

#include <iostream>

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr unsigned TOO_SLOW_FOR_STEPS = 1; // a session takes twenty times as long
#else
constexpr unsigned TOO_SLOW_FOR_STEPS = 0;
#endif

// Of the two ends that a session can have, the close or a crash before it, each comes with every
// other one.
void run_to_end(EverySession& steps, bool bTags, bool bCrash, bool bWholeFrames) {
    Sound const sound{bTags ? id3v2_tag(31) : "", frames(4), bTags ? id3v1_tag() : ""};
    memory_disk::begin({{"/d/a.mp3", sound.file()}});
    Session session("/d/a.mp3", sound);
    steps.again();
    std::string const told = run_session(session, steps);
    if (bCrash && session.is_open() && Session::crash({&session})) {
        session.run({Kind::Undo}, "");
    }
    // With whole frames the file then holds the dictation, exactly.
    std::string const audio = session.is_open() ? session.close() : "";
    session.check(dry::open_handles() == 0, "handles behind the close");
    session.check(!bWholeFrames || audio == session.model().bytes(), "closed file");
    ASSERT_EQ(session.failure(), "") << "after: " << told << (bTags ? "with tags" : "");
}

void run_all(Alphabet const& alphabet, unsigned nDepth) {
    unsigned nEnds = 0;
    for (unsigned nSteps = 0; nSteps <= setting("KIV_SESSION_DEPTH", nDepth); ++nSteps) {
        EverySession steps(alphabet, nSteps);
        unsigned nSessions = 0;
        do {
            for (bool const bTags : {true, false}) {
                run_to_end(steps, bTags, ++nEnds % 2 == 0, alphabet.bFrames);
                if (testing::Test::HasFatalFailure()) {
                    return;
                }
            }
            nSessions += steps.is_whole() ? 2 : 0;
        } while (steps.advance());
        std::cout << "sessions of " << nSteps << " steps: " << nSessions << "\n";
    }
}

// Directly around the borders of blocks, and in between.
TEST(SessionTest, EverySessionOfArbitraryBytes) {
    run_all({false, {0, 1}, {1, 40}, 100}, 2);
}

// Fewer positions and shorter ranges, but more steps.
TEST(SessionTest, EverySessionOfFewPositions) {
    run_all({false, {0}, {40}, 1}, 3 - TOO_SLOW_FOR_STEPS);
}

TEST(SessionTest, EverySessionOfWholeFrames) {
    run_all({true, {0}, {FRAME, 2 * FRAME}, 100}, 3 - TOO_SLOW_FOR_STEPS);
}

} // namespace
