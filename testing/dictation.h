// The model of a dictation, which is nothing but a list of ranges of what the file holds, and the
// steps that change it.
#pragma once

#include "ffd.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

// A part of the dictation, or of what a delete took out of it, at its place in between.
struct Run {
    uint32_t nBegin, nEnd; // audio positions
    enum { Live, Undoable, Gone } state = Live;

    uint32_t live_size() const { return state == Live ? nEnd - nBegin : 0; }
};

struct Dictation {
    std::vector<Run> runs;
    uint32_t nPosition = 0;
    uint32_t nWritten = 0; // bytes written in all up to this state

    uint32_t length() const {
        uint32_t nSum = 0;
        for (Run const& run : runs) {
            nSum += run.live_size();
        }
        return nSum;
    }

    // The index behind the first so many bytes, with a cut there if need be. On a border it is
    // directly behind the run in front: what is deleted there comes behind.
    size_t place_of(uint32_t nAt) {
        size_t nRun = 0;
        for (; nAt > 0; ++nRun) {
            Run& run = runs.at(nRun);
            if (nAt < run.live_size()) {
                Run const rest{run.nBegin + nAt, run.nEnd};
                run.nEnd = rest.nBegin;
                runs.insert(runs.begin() + static_cast<ptrdiff_t>(nRun) + 1, rest);
                return nRun + 1;
            }
            nAt -= run.live_size();
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

    // Takes bytes out behind the position, for good or so that an undo finds them.
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

    // After a crash: the run that is last in the file, if it is one of the dictation, is made to
    // end where the audio does.
    void take_in(uint32_t nAudioEnd) {
        uint32_t nSum = 0;
        for (Run const& run : runs) {
            nSum += run.nEnd - run.nBegin;
        }
        Run* pLast = nullptr;
        for (Run& run : runs) {
            if (run.nEnd > std::max(nSum, run.nBegin)) {
                return;
            }
            bool const bEnds = run.state == Run::Live && run.nEnd == nSum;
            pLast = bEnds && (pLast == nullptr || run.live_size() > 0) ? &run : pLast;
        }
        if (pLast != nullptr && nSum != nAudioEnd && pLast->nBegin <= nAudioEnd) {
            *pLast =
                pLast->nBegin == nAudioEnd ? Run{0, 0, Run::Gone} : Run{pLast->nBegin, nAudioEnd};
        }
    }

    // What reads deliver: they end where the file does not hold what plays.
    std::string bytes(std::string const& audio) const {
        std::string all;
        for (Run const& run : runs) {
            if (run.live_size() > 0) {
                all += run.nBegin < audio.size() ? audio.substr(run.nBegin, run.live_size()) : "";
                if (run.nEnd > audio.size()) {
                    break;
                }
            }
        }
        return all;
    }

    // Whether there was anything to undo.
    bool end_undo(bool bBringBack) {
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

// What a .DIR file names; nothing if it can be no directory.
inline std::optional<Dictation> dictation_of(std::string image) {
    size_t const nHeld = image.size();
    image.resize(std::max<size_t>(nHeld, 65536));
    Dictation found;
    for (size_t nAt = 0; nAt >= image.size() || image[nAt] != 0; nAt += 12) {
        uint32_t nStatus = 0; // with the reserved bytes
        Run run{0, 0};
        if (nAt + 12 > nHeld) {
            return std::nullopt; // cut, or without an end
        }
        memcpy(&nStatus, &image[nAt], 4);
        memcpy(&run.nBegin, &image[nAt + 4], 4);
        memcpy(&run.nEnd, &image[nAt + 8], 4);
        if ((nStatus != 1 && nStatus != 3 && nStatus != 11) || run.nBegin > run.nEnd ||
            std::any_of(found.runs.begin(), found.runs.end(), [&](Run const& other) {
                return std::max(run.nBegin, other.nBegin) < std::min(run.nEnd, other.nEnd);
            })) {
            return std::nullopt;
        }
        run.state = nStatus == 1 ? Run::Live : nStatus == 3 ? Run::Gone : Run::Undoable;
        found.runs.push_back(run);
    }
    return found;
}

enum class Kind { Insert, Overwrite, Erase, Undo, Store, Restore };

struct Step {
    Kind kind;
    uint32_t nAt = 0;
    uint32_t nBytes = 0;
};

inline std::ostream& operator<<(std::ostream& out, Step const& step) {
    char const* const names[] = {"insert", "overwrite", "erase", "undo", "store", "restore"};
    out << names[static_cast<int>(step.kind)];
    return step.kind < Kind::Undo ? out << "(" << step.nAt << ", " << step.nBytes << ")" : out;
}

struct Model {
    uint32_t nFrame = 0;  // bytes of a frame without padding
    std::string audio;    // what the file holds from the first frame on
    uint32_t nOldEnd = 0; // where its audio ended before the first write
    Dictation now;
    Dictation flushed;     // what a crash leaves
    bool bFlushed = false; // or else the .DIR file is still empty
    std::optional<Dictation> stored;
    uint32_t nWritten = 0; // bytes in all

    std::string bytes() const { return now.bytes(audio); }
    std::string flushed_bytes() const { return flushed.bytes(audio); }

    // The status that the driver must answer.
    FFDError apply(Step const& step, std::string const& piece) {
        if (step.kind < Kind::Undo) {
            now.nPosition = std::min(step.nAt, now.length());
        }
        switch (step.kind) {
        case Kind::Insert:
        case Kind::Overwrite: {
            if (step.nBytes == 0) {
                return 0;
            }
            uint32_t const nBegin = static_cast<uint32_t>(audio.size());
            audio += piece;
            now.insert({nBegin, nBegin + step.nBytes});
            nWritten += step.nBytes;
            now.nWritten += step.nBytes;
            if (step.kind == Kind::Overwrite) {
                now.erase(step.nBytes, false);
            }
            break;
        }
        case Kind::Erase:
            // The difference wraps in a dictation shorter than a frame.
            if (now.nPosition <= now.length() - nFrame && step.nBytes > 0) {
                now.end_undo(false);
                now.erase(step.nBytes, true);
            }
            break;
        case Kind::Undo:
            if (!now.end_undo(true)) {
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
        bFlushed = true;
        return 0;
    }
};
