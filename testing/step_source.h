// Where the steps of a session come from: every short session in turn, or chance.
#pragma once

#include "testing/driver_session.h"
#include "testing/sound_maker.h"

#include <functional>
#include <random>
#include <set>
#include <sstream>

class StepSource {
public:
    virtual ~StepSource() = default;

    // The next step of a session that has come so far, and what it writes; nothing at its end.
    virtual std::optional<std::pair<Step, std::string>> next(Model const& model) = 0;
};

// Runs a session to its end, and tells its steps.
inline std::string run_session(Session& session, StepSource& source) {
    std::ostringstream told;
    while (auto const step = session.is_open() ? source.next(session.model()) : std::nullopt) {
        told << step->first << " ";
        session.run(step->first, step->second);
    }
    return told.str();
}

constexpr uint32_t FRAME = 96; // of the sound maker

// A piece of audio that no other write of the session gets. It does not end inside a header: what
// is written behind it could make one of another bitrate of that, and no open takes such a file.
inline std::string piece_of(Model const& model, uint32_t nBytes) {
    std::string piece =
        frames(nBytes / FRAME + 2, 1 + model.nWritten).substr(nBytes % FRAME == 0 ? 0 : 4, nBytes);
    std::replace(piece.end() - std::min(3, static_cast<int>(nBytes)), piece.end(), '\xFF', 'x');
    return piece;
}

struct Alphabet {
    bool bFrames;                  // positions and lengths in whole frames
    std::vector<uint32_t> around;  // how far from a border a position may lie
    std::vector<uint32_t> inserts; // lengths
    size_t nReach;                 // at how many of the next positions a range may end
};

// Every session of so many steps, one after the other. After a step that the driver refuses nothing
// goes on.
class EverySession : public StepSource {
public:
    EverySession(Alphabet alphabet, size_t nSteps)
        : m_alphabet(std::move(alphabet)), m_nSteps(nSteps) {}

    std::optional<std::pair<Step, std::string>> next(Model const& model) override {
        if (m_bRefused || m_nNext == m_nSteps) {
            return std::nullopt;
        }
        if (m_nNext == m_path.size()) {
            m_path.push_back(steps_from(model.now));
        }
        Step const& step = m_path[m_nNext++].back();
        std::string const piece = piece_of(model, step.nBytes);
        m_bRefused = Model(model).apply(step, piece) != 0;
        return std::pair{step, piece};
    }

    // Back to the first step of the same session; on another file it has the steps that it had.
    void again() {
        m_nNext = 0;
        m_bRefused = false;
    }

    // On to the next session; false behind the last.
    bool advance() {
        again();
        while (!m_path.empty()) {
            m_path.back().pop_back();
            if (!m_path.back().empty()) {
                break;
            }
            m_path.pop_back();
        }
        return !m_path.empty();
    }

    // Whether the session has as many steps as were asked for.
    bool is_whole() const { return m_path.size() == m_nSteps; }

private:
    // The positions of interest: around the borders of blocks, and in their middle.
    std::vector<uint32_t> positions(Dictation const& dictation) const {
        uint32_t const nLength = dictation.length();
        std::set<uint32_t> found;
        if (!m_alphabet.bFrames) { // the last place where a delete deletes, and the one behind it
            found = {nLength - FRAME, nLength - FRAME + 1};
        }
        uint32_t nBorder = 0;
        for (Run const& run : dictation.runs) {
            if (run.state == Run::Live) {
                uint32_t const nSize = run.live_size();
                uint32_t const nMiddle = m_alphabet.bFrames ? nSize / 2 / FRAME * FRAME : nSize / 2;
                for (uint32_t nAround : m_alphabet.around) {
                    found.insert({nBorder + nAround, nBorder + nSize - nAround});
                }
                found.insert(nBorder + nMiddle);
                nBorder += nSize;
            }
        }
        found.insert({0, nLength});
        return {found.begin(), found.upper_bound(nLength)};
    }

    std::vector<Step> steps_from(Dictation const& dictation) const {
        std::vector<Step> steps{
            {Kind::Undo}, {Kind::Store}, {Kind::Restore}, {Kind::Erase}, {Kind::Insert}};
        std::vector<uint32_t> const all = positions(dictation);
        for (size_t nFirst = 0; nFirst < all.size(); ++nFirst) {
            uint32_t const nAt = all[nFirst];
            for (uint32_t nBytes : m_alphabet.inserts) {
                steps.push_back({Kind::Insert, nAt, nBytes});
            }
            std::vector<uint32_t> ends{dictation.length() + FRAME};
            for (size_t n = nFirst + 1; n < all.size() && n <= nFirst + m_alphabet.nReach; ++n) {
                ends.push_back(all[n]);
            }
            for (uint32_t nEnd : ends) {
                steps.push_back({Kind::Erase, nAt, nEnd - nAt});
                steps.push_back({Kind::Overwrite, nAt, nEnd - nAt});
            }
        }
        return steps;
    }

    Alphabet m_alphabet;
    size_t m_nSteps;
    std::vector<std::vector<Step>> m_path; // each time the last one, then those in front of it
    size_t m_nNext = 0;
    bool m_bRefused = false;
};

// Steps by chance, at positions and of lengths that are multiples of a unit. Now and then a pause:
// the session is to be closed, or its process to end, and may go on behind it.
class RandomSteps : public StepSource {
public:
    enum class Pause { End, Close, Crash };

    RandomSteps(std::mt19937& random, unsigned nSteps, uint32_t nUnit,
                std::function<std::string(Model const&)> piece)
        : m_random(random), m_nSteps(nSteps), m_nUnit(nUnit), m_piece(std::move(piece)) {}

    Pause pause() const { return m_pause; }

    std::optional<std::pair<Step, std::string>> next(Model const& model) override {
        unsigned const nChoice = below(23);
        m_pause = m_nSteps == 0 ? Pause::End : nChoice == 0 ? Pause::Close : Pause::Crash;
        if (m_nSteps == 0 || (--m_nSteps, nChoice < 2)) {
            return std::nullopt;
        }
        Kind const kind = nChoice < 8    ? Kind::Insert
                          : nChoice < 13 ? Kind::Overwrite
                          : nChoice < 19 ? Kind::Erase
                          : nChoice < 21 ? Kind::Undo
                          : nChoice < 22 ? Kind::Store
                                         : Kind::Restore;
        std::string const piece = kind < Kind::Erase ? m_piece(model) : "";
        uint32_t const nBytes = kind < Kind::Erase
                                    ? static_cast<uint32_t>(piece.size())
                                    : below(below(5) == 0 ? 20000 : 3000) / m_nUnit * m_nUnit;
        return std::pair{Step{kind, position(model.now) / m_nUnit * m_nUnit, nBytes}, piece};
    }

private:
    unsigned below(unsigned nLimit) { return static_cast<unsigned>(m_random() % (nLimit + 1)); }

    uint32_t position(Dictation const& now) {
        uint32_t const nLength = now.length();
        if (below(4) == 0) { // near a border
            uint32_t nBorder = 0;
            unsigned const nRun = below(static_cast<unsigned>(now.runs.size()) - 1);
            for (unsigned n = 0; n <= nRun; ++n) {
                nBorder += now.runs[n].live_size();
            }
            return nBorder + below(600) - std::min(nBorder, 300u);
        }
        return below(5) == 0 ? below(1) * nLength : below(nLength);
    }

    std::mt19937& m_random;
    unsigned m_nSteps;
    uint32_t m_nUnit;
    std::function<std::string(Model const&)> m_piece;
    Pause m_pause = Pause::End;
};
