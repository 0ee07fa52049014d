// Every short session on a disk in memory: after each step the driver and a model must agree; after
// a crash at its end the next open must find the dictation, its undo too; and the rebuilt file must
// hold it. speech_test.cpp has long sessions.
//
// And one session on a disk that is full from any byte on.
//
// KIV_SESSION_DEPTH sets how many steps the sessions have, KIV_ROOM_STEP how many bytes more room
// each disk has than the one before.

#include "testing/step_source.h"

#include <gtest/gtest.h>

#include <iostream>
#include <map>

namespace {

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

// Opens the sound file, edits it as far as there is room, and closes it. The dictation then.
std::string edit_and_close(std::string dictation, std::map<FFDError, unsigned>& seen) {
    FFDError status = 0;
    FFDHandle const handle = open_sound("/d/a.mp3", 2, status);
    ++seen[status];
    for (unsigned nPiece = 0; handle != nullptr && nPiece < 4; ++nPiece) {
        std::string const piece = frames(15, nPiece + 3);
        seek(handle, nPiece * 480);
        status = write_at(handle, 1 + nPiece % 2, piece);
        ++seen[status];
        if (status == 0) {
            dictation.replace(nPiece * 480, nPiece % 2 != 0 ? piece.size() : 0, piece);
        }
    }
    ++seen[1000 + driver().Close(handle)]; // told apart from the others
    return dictation;
}

// Whatever the statuses: with room again all that was answered is there, and the close goes well.
TEST(FullDiskTest, ADiskThatIsFullFromAnyByteOn) {
    Sound const sound{id3v2_tag(31), frames(300), id3v1_tag()};
    unsigned const nStep = setting("KIV_ROOM_STEP", TOO_SLOW_FOR_STEPS != 0 ? 31 : 7);
    std::map<FFDError, unsigned> seen;
    for (uint64_t ullRoom = 0; ullRoom <= 128 * 1024; ullRoom += nStep) {
        SCOPED_TRACE(ullRoom);
        memory_disk::begin({{"/d/a.mp3", sound.file()}});
        power_cut::set_room(ullRoom);
        std::string const dictation = edit_and_close(sound.audio, seen);
        power_cut::set_room(std::nullopt);
        // The first directory found no room for its entries: the edits were in memory only, as the
        // failed close has told, and the new audio is not taken back.
        if (memory_disk::has("/d/a.DIR") && memory_disk::get("/d/a.DIR").size() < 24) {
            ASSERT_TRUE(memory_disk::get("/d/a.mp3").starts_with(sound.file()));
            continue;
        }
        FFDError status = 0;
        FFDHandle const handle = open_sound("/d/a.mp3", 2, status);
        ASSERT_EQ(status, 0u);
        ASSERT_TRUE(read_on(handle, 100000, status) == dictation);
        ASSERT_EQ(driver().Close(handle), 0u);
        ASSERT_TRUE(memory_disk::get("/d/a.mp3") == sound.head + dictation + sound.tail);
        ASSERT_FALSE(memory_disk::has("/d/a.DIR"));
    }
    EXPECT_EQ(seen.count(1000 + 6) + seen.count(1000 + 29) + seen.count(1000), 3u);
}

} // namespace
