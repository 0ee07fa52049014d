// Every short session, and long ones at random, over the platform layer in memory: after each step
// the driver and a model, which is nothing but lists of bytes, must agree on position, length and
// dictation; after a crash at its end the next open must find it, its undo too; and the rebuilt
// file must hold it.
//
// KIV_SESSION_DEPTH sets how many steps the short sessions have, KIV_SESSION_SEEDS how many long
// ones there are.

#include "testing/memory_disk.h"
#include "tests/driver_fixture.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <utility>

namespace {

constexpr char const* SOUND = "/d/a.mp3";
constexpr uint32_t FRAME = 96;

Slots const& slots() {
    static bool const bAttached = DllMain(nullptr, 1, nullptr) != 0;
    EXPECT_TRUE(bAttached);
    return *reinterpret_cast<Slots const*>(FFD_Function_Table);
}

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

// ---- The model ----

// A part of the dictation, or of what the last delete took out of it, at its place in between.
struct Block {
    std::string bytes;
    bool bDeleted;
};

struct Dictation {
    std::vector<Block> blocks;
    uint32_t nPosition = 0;
    size_t nWritten = 0; // bytes written in all up to this state

    std::string bytes() const {
        std::string all;
        for (Block const& block : blocks) {
            all += block.bDeleted ? "" : block.bytes;
        }
        return all;
    }
    uint32_t length() const { return static_cast<uint32_t>(bytes().size()); }

    // The place in the list behind the first so many bytes, with a cut there if need be. On a
    // border it is directly behind the block in front: what is deleted there comes behind.
    size_t place_of(uint32_t nAt) {
        size_t nBlock = 0;
        for (; nAt > 0; ++nBlock) {
            Block& block = blocks.at(nBlock);
            if (block.bDeleted) {
                continue;
            }
            uint32_t const nSize = static_cast<uint32_t>(block.bytes.size());
            if (nAt < nSize) {
                Block const rest{block.bytes.substr(nAt), false};
                block.bytes.resize(nAt);
                blocks.insert(blocks.begin() + static_cast<ptrdiff_t>(nBlock) + 1, rest);
            }
            nAt -= std::min(nAt, nSize);
        }
        return nBlock;
    }

    void insert(std::string const& piece) {
        size_t const nBlock = place_of(nPosition);
        blocks.insert(blocks.begin() + static_cast<ptrdiff_t>(nBlock), {piece, false});
        nPosition += static_cast<uint32_t>(piece.size());
        nWritten += piece.size();
    }

    // Takes bytes out, for good or so that an undo finds them.
    void erase(uint32_t nAt, uint32_t nBytes, bool bUndoable) {
        uint32_t const nEnd = nAt + std::min(nBytes, length() - nAt);
        size_t const nFirst = place_of(nAt);
        size_t const nBehind = place_of(nEnd);
        for (size_t nBlock = nFirst; nBlock < nBehind; ++nBlock) {
            if (!blocks[nBlock].bDeleted && !bUndoable) {
                blocks[nBlock].bytes.clear();
            }
            blocks[nBlock].bDeleted = true;
        }
        std::erase_if(blocks, [](Block const& block) { return block.bytes.empty(); });
    }

    void forget_undo() {
        std::erase_if(blocks, [](Block const& block) { return block.bDeleted; });
    }

    // Whether there was anything to undo.
    bool undo() {
        bool bFound = false;
        for (Block& block : blocks) {
            bFound |= std::exchange(block.bDeleted, false);
        }
        return bFound;
    }
};

enum class Kind { Insert, Overwrite, Erase, Undo, Store, Restore };

struct Step {
    Kind kind;
    uint32_t nAt = 0;
    uint32_t nBytes = 0;
};

std::ostream& operator<<(std::ostream& out, Step const& step) {
    char const* const names[] = {"insert", "overwrite", "erase", "undo", "store", "restore"};
    out << names[static_cast<int>(step.kind)];
    return step.kind < Kind::Undo ? out << "(" << step.nAt << ", " << step.nBytes << ")" : out;
}

struct Model {
    Dictation now;
    Dictation flushed; // what a crash leaves
    std::optional<Dictation> stored;
    size_t nWritten = 0; // bytes written in all

    // A piece of audio that no other write of the session gets. It does not end inside a header:
    // what is written behind it could make one of another bitrate of that, and no open takes such a
    // file.
    std::string next_piece(uint32_t nBytes) const {
        size_t const nFrom = (nWritten + FRAME - 1) / FRAME * FRAME + size_t{4} * FRAME;
        size_t const nSkipped = nBytes % FRAME == 0 ? 0 : 4;
        std::string piece = all_frames().substr(nFrom + nSkipped, nBytes);
        std::replace(piece.end() - std::min(3, static_cast<int>(nBytes)), piece.end(), '\xFF', 'x');
        return piece;
    }

    // The status that the driver must answer.
    FFDError apply(Step const& step) {
        if (step.kind < Kind::Undo) {
            now.nPosition = std::min(step.nAt, now.length());
        }
        switch (step.kind) {
        case Kind::Insert:
        case Kind::Overwrite:
            now.insert(next_piece(step.nBytes));
            nWritten += step.nBytes;
            if (step.kind == Kind::Overwrite) {
                now.erase(now.nPosition, step.nBytes, false);
            }
            break;
        case Kind::Erase:
            // The difference wraps in a dictation shorter than a frame.
            if (now.nPosition <= now.length() - FRAME && step.nBytes > 0) {
                now.forget_undo();
                now.erase(now.nPosition, step.nBytes, true);
            }
            break;
        case Kind::Undo:
            if (!now.undo()) {
                return 24;
            }
            break;
        case Kind::Store:
            stored = now;
            return 0;
        case Kind::Restore:
            now = stored.value_or(now);
            return stored ? 0 : 33;
        }
        flushed = now;
        return 0;
    }
};

// ---- The driver beside the model ----

class Session {
public:
    // With tags, the file has one in front of the audio and one behind it.
    explicit Session(bool bTags) {
        memory_disk::begin();
        if (bTags) {
            m_head = std::string("ID3\3\0\0\0\0\0\x15", 10) + std::string(21, 'h');
            m_tail = "TAG" + std::string(125, 't');
        }
        std::string const audio = all_frames().substr(0, size_t{4} * FRAME);
        memory_disk::put(SOUND, m_head + audio + m_tail);
        begin_with({{{audio, false}}, 0, 0});
    }
    ~Session() {
        if (m_handle != nullptr) {
            slots().Close(m_handle);
        }
    }
    Session(Session const&) = delete;
    Session& operator=(Session const&) = delete;

    Model const& model() const { return m_model; }
    std::string const& failure() const { return m_failure; }

    void run(Step const& step) {
        if (m_handle != nullptr) {
            FFDError const status = perform(step, m_model.next_piece(step.nBytes));
            check(m_model.apply(step) == status, "status");
            compare();
        }
    }

    // The process ends without a close, and the next one opens the file. False if what it finds
    // can't be told: a write that a restore dropped has lost its place, and comes back somewhere.
    bool crash() {
        if (m_model.flushed.nWritten != m_model.nWritten) {
            return false;
        }
        memory_disk::Files const files = memory_disk::left_by_crash();
        slots().Close(m_handle);
        memory_disk::begin(files);
        Dictation found = m_model.flushed;
        found.nPosition = 0;
        begin_with(found);
        return true;
    }

    // With whole frames the file then holds the dictation, exactly.
    void close(bool bFrames) {
        if (m_handle == nullptr) {
            return;
        }
        check(slots().Close(m_handle) == 0, "status of the close");
        m_handle = nullptr;
        check(dry::names() == std::vector<std::string>{SOUND}, "files behind the close");
        std::string const file = memory_disk::get(SOUND);
        check(file.starts_with(m_head) && file.ends_with(m_tail), "tags of the closed file");
        check(!bFrames || file == m_head + m_model.now.bytes() + m_tail, "closed file");
        check(dry::open_handles() == 0, "handles behind the close");
    }

    // A new session on the file that the close left.
    void reopen() {
        Dictation const found{{{m_model.now.bytes(), false}}, 0, m_model.nWritten};
        begin_with(found);
    }

private:
    void begin_with(Dictation const& dictation) {
        FFDCallbackParams callback = {};
        callback.hDriver = this;
        FFDError status = 0;
        m_handle = slots().CreateFile(SOUND, 2, 2, nullptr, callback, &status, nullptr);
        m_model = {dictation, dictation, std::nullopt, dictation.nWritten};
        if (m_handle != nullptr) {
            compare();
        } else {
            check(false, "open");
        }
    }

    FFDError perform(Step const& step, std::string piece) {
        uint32_t nReached = 0;
        if (step.kind < Kind::Undo) {
            slots().AudioSeek(m_handle, step.nAt, &nReached);
        }
        switch (step.kind) {
        case Kind::Insert:
        case Kind::Overwrite:
            return slots().WriteData(m_handle, step.kind == Kind::Insert ? 1 : 2, step.nBytes,
                                     reinterpret_cast<uint8_t*>(piece.data()));
        case Kind::Erase:
            return slots().DeleteData(m_handle, step.nBytes);
        case Kind::Undo:
            return slots().UndoLast(m_handle);
        case Kind::Store:
            return slots().StoreActualFileStatus(m_handle);
        default:
            return slots().RestoreFileStatus(m_handle);
        }
    }

    void compare() {
        std::string const expected = m_model.now.bytes();
        uint32_t const nLength = static_cast<uint32_t>(expected.size());
        uint32_t nFound = 0;
        slots().GetCurrentPos(m_handle, &nFound);
        check(nFound == m_model.now.nPosition, "position");
        slots().AudioSeek(m_handle, 0xFFFFFFFF, &nFound);
        check(nFound == nLength, "length");
        slots().GetSoundDataLength(m_handle, &nFound);
        // Of 4 bytes each; the division can lose one.
        check(nLength - nFound < 8, "length from whole milliseconds");
        if (nLength > 0) {
            // Whole, and in parts that meet at each place in turn.
            uint32_t const nCut = ++m_nReads % nLength;
            check(read(0, nLength) == expected, "dictation");
            check(read(nCut, nLength) == expected.substr(nCut), "rest of the dictation");
            check(read(nCut / 2, 2) == expected.substr(nCut / 2, 2), "two bytes");
        }
        slots().AudioSeek(m_handle, m_model.now.nPosition, &nFound);
    }

    std::string read(uint32_t nFrom, uint32_t nBytes) {
        uint32_t nReached = 0;
        FFDReadHandle* pReadHandle = nullptr;
        slots().AudioSeek(m_handle, nFrom, &nReached);
        slots().GetSizeOfData(m_handle, nBytes, &pReadHandle);
        std::string bytes(pReadHandle->RealSizeInBytes, '\0');
        FFDError const status =
            slots().ReadData(m_handle, pReadHandle, pReadHandle->RealSizeInBytes,
                             reinterpret_cast<uint8_t*>(bytes.data()));
        return status == 0 ? bytes : "no bytes, status " + std::to_string(status);
    }

    void check(bool bGood, char const* pszWhat) {
        if (!bGood && m_failure.empty()) {
            m_failure = pszWhat;
        }
    }

    std::string m_head;
    std::string m_tail;
    FFDHandle m_handle = nullptr;
    Model m_model;
    std::string m_failure; // the first thing that went wrong
    static uint32_t m_nReads;
};

uint32_t Session::m_nReads = 0;

// ---- Every short session ----

unsigned setting(char const* pszName, unsigned nDefault) {
    char const* const pszValue = getenv(pszName);
    return pszValue == nullptr ? nDefault : static_cast<unsigned>(atoi(pszValue));
}

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
    for (Block const& block : dictation.blocks) {
        if (!block.bDeleted) {
            uint32_t const nSize = static_cast<uint32_t>(block.bytes.size());
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
            Session session(bTags);
            for (Step const& step : m_steps) {
                session.run(step);
            }
            reached = session.model();
            ++m_counts[m_steps.size()];
            // Of the two ends that a session can have, each comes with every other one.
            if (++m_nEnds % 2 == 0 && session.crash()) {
                session.run({Kind::Undo});
            }
            session.close(m_alphabet.bFrames);
            if (!session.failure().empty()) {
                return tell(session, bTags);
            }
        }
        if (!bGoesOn || m_steps.size() + 1 == m_counts.size()) {
            return true;
        }
        for (Step const& step : steps_from(reached.now, m_alphabet)) {
            m_steps.push_back(step);
            bool const bGood = run(Model(reached).apply(step) == 0);
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

// ---- Long sessions ----

TEST(SessionTest, LongSessionsWithCrashes) {
    unsigned const nSeeds = setting("KIV_SESSION_SEEDS", 400);
    for (unsigned nSeed = 0; nSeed < nSeeds; ++nSeed) {
        std::mt19937 random(nSeed);
        bool const bFrames = nSeed % 2 != 0;
        uint32_t const nUnit = bFrames ? FRAME : 1;
        auto const below = [&](size_t nLimit) {
            return static_cast<uint32_t>(random() % (nLimit + 1)) / nUnit * nUnit;
        };
        Session session(nSeed % 4 < 2);
        std::ostringstream text;
        for (unsigned nStep = 0; nStep < 120 && session.failure().empty(); ++nStep) {
            unsigned const nChoice = static_cast<unsigned>(random() % 40);
            if (nChoice == 0) {
                text << (session.crash() ? "crash " : "");
                continue;
            }
            if (nChoice == 1 && bFrames && session.model().now.length() > 0) {
                session.close(true);
                session.reopen();
                text << "reopen ";
                continue;
            }
            Kind const kinds[] = {Kind::Insert, Kind::Overwrite, Kind::Erase,  Kind::Insert,
                                  Kind::Undo,   Kind::Store,     Kind::Restore};
            Kind const kind = kinds[nChoice % 7];
            Step const step{kind, below(session.model().now.length()), nUnit + below(300)};
            text << step << " ";
            session.run(step);
        }
        session.close(bFrames);
        ASSERT_EQ(session.failure(), "") << "seed " << nSeed << ": " << text.str();
    }
}

} // namespace
