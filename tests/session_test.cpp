// Every short session on a disk in memory: after each step the driver and a model must agree; after
// a crash at its end the next open must find the dictation, its undo too; and the rebuilt file must
// hold it. speech_test.cpp has long sessions.
//
// KIV_SESSION_DEPTH sets how many steps the sessions have.

#include "testing/driver_session.h"

#include <iostream>
#include <random>
#include <set>
#include <sstream>

namespace {

constexpr uint32_t FRAME = 96;

// ---- Bytes ----

// Audio without end, none of it like another part: frames of 96 bytes (MPEG 2, mono, 24000 Hz, 32
// kbit/s). No 0xFF is in it but those of the headers.
std::string const& all_frames() {
    static std::string const all = [] {
        std::string bytes;
        std::mt19937 random(1);
        while (bytes.size() < size_t{FRAME} * 4096) {
            bytes += bytes.size() % FRAME == 0 ? std::string("\xFF\xF3\x44\xC0", 4)
                                               : std::string(1, static_cast<char>(random() % 255));
        }
        return bytes;
    }();
    return all;
}

// A piece of audio that no other write of the session gets. It does not end inside a header: what
// is written behind it could make one of another bitrate of that, and no open takes such a file.
std::string next_piece(Model const& model, uint32_t nBytes) {
    size_t const nFrom = (size_t{model.nWritten} + FRAME - 1) / FRAME * FRAME + size_t{4} * FRAME;
    size_t const nSkipped = nBytes % FRAME == 0 ? 0 : 4;
    std::string piece = all_frames().substr(nFrom + nSkipped, nBytes);
    std::replace(piece.end() - std::min(3, static_cast<int>(nBytes)), piece.end(), '\xFF', 'x');
    return piece;
}

// ---- Every short session ----

struct Alphabet {
    bool bFrames;                  // positions and lengths in whole frames
    std::vector<uint32_t> around;  // how far from a border a position may lie
    std::vector<uint32_t> inserts; // lengths
    size_t nReach;                 // at how many of the next positions a range may end
};

// The positions of interest: around the borders of blocks, and in their middle.
std::vector<uint32_t> positions(Dictation const& dictation, Alphabet const& alphabet) {
    uint32_t const nLength = dictation.length();
    std::set<uint32_t> found;
    if (!alphabet.bFrames) { // the last place where a delete deletes, and the one behind it
        found = {nLength - FRAME, nLength - FRAME + 1};
    }
    uint32_t nBorder = 0;
    for (Run const& run : dictation.runs) {
        if (run.state == Run::Live) {
            uint32_t const nSize = run.live_size();
            uint32_t const nMiddle = alphabet.bFrames ? nSize / 2 / FRAME * FRAME : nSize / 2;
            for (uint32_t nAround : alphabet.around) {
                found.insert({nBorder + nAround, nBorder + nSize - nAround});
            }
            found.insert(nBorder + nMiddle);
            nBorder += nSize;
        }
    }
    found.insert({0, nLength});
    return {found.begin(), found.upper_bound(nLength)};
}

std::vector<Step> steps_from(Dictation const& dictation, Alphabet const& alphabet) {
    std::vector<Step> steps{{Kind::Undo}, {Kind::Store}, {Kind::Restore}, {Kind::Erase, 0, 0}};
    std::vector<uint32_t> const all = positions(dictation, alphabet);
    for (size_t nFirst = 0; nFirst < all.size(); ++nFirst) {
        uint32_t const nAt = all[nFirst];
        for (uint32_t nBytes : alphabet.inserts) {
            steps.push_back({Kind::Insert, nAt, nBytes});
        }
        std::vector<uint32_t> ends{dictation.length() + FRAME};
        for (size_t n = nFirst + 1; n < all.size() && n <= nFirst + alphabet.nReach; ++n) {
            ends.push_back(all[n]);
        }
        for (uint32_t nEnd : ends) {
            steps.push_back({Kind::Erase, nAt, nEnd - nAt});
            steps.push_back({Kind::Overwrite, nAt, nEnd - nAt});
        }
    }
    return steps;
}

class Enumeration {
public:
    Enumeration(Alphabet alphabet, unsigned nDepth)
        : m_alphabet(std::move(alphabet)), m_counts(nDepth + 1) {}

    // Sessions, by their number of steps.
    std::vector<unsigned> const& counts() const { return m_counts; }

    // Runs the session so far, and all that go on from it; false with the first that fails. Behind
    // a step that the driver refuses nothing goes on.
    bool run(bool bGoesOn = true) {
        Model reached;
        for (bool const bTags : {false, true}) {
            std::string const head = "ID3\3" + std::string(5, '\0') + "\x15" + std::string(21, 'h');
            Session session(bTags ? head : "", all_frames().substr(0, size_t{4} * FRAME),
                            bTags ? "TAG" + std::string(125, 't') : "", FRAME);
            for (Step const& step : m_steps) {
                session.run(step, next_piece(session.model(), step.nBytes));
            }
            reached = session.model();
            ++m_counts[m_steps.size()];
            // Of the two ends that a session can have, each comes with every other one.
            if (++m_nEnds % 2 == 0 && session.crash()) {
                session.run({Kind::Undo}, "");
            }
            // With whole frames the file then holds the dictation, exactly.
            std::string const audio = session.is_open() ? session.close() : "";
            session.check(!m_alphabet.bFrames || audio == session.model().bytes(), "closed file");
            if (!session.failure().empty()) {
                return tell(session, bTags);
            }
        }
        if (!bGoesOn || m_steps.size() + 1 == m_counts.size()) {
            return true;
        }
        for (Step const& step : steps_from(reached.now, m_alphabet)) {
            m_steps.push_back(step);
            bool const bGood =
                run(Model(reached).apply(step, next_piece(reached, step.nBytes)) == 0);
            m_steps.pop_back();
            if (!bGood) {
                return false;
            }
        }
        return true;
    }

private:
    bool tell(Session const& session, bool bTags) const {
        std::ostringstream text;
        for (Step const& step : m_steps) {
            text << step << " ";
        }
        ADD_FAILURE() << session.failure() << " after: " << text.str()
                      << (bTags ? "with tags" : "");
        return false;
    }

    Alphabet m_alphabet;
    std::vector<Step> m_steps;
    std::vector<unsigned> m_counts;
    unsigned m_nEnds = 0;
};

#if defined(__SANITIZE_ADDRESS__)
constexpr unsigned TOO_SLOW_FOR_STEPS = 1; // a session takes twenty times as long
#else
constexpr unsigned TOO_SLOW_FOR_STEPS = 0;
#endif

void run_all(Alphabet const& alphabet, unsigned nDepth) {
    Enumeration all(alphabet, setting("KIV_SESSION_DEPTH", nDepth));
    EXPECT_TRUE(all.run());
    for (size_t nStep = 0; nStep < all.counts().size(); ++nStep) {
        std::cout << "sessions of " << nStep << " steps: " << all.counts()[nStep] << "\n";
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
