// A session on a disk in memory, and beside it a model, which is nothing but a list of ranges of
// what the file holds: after each step both must agree on status, position, length and dictation.
#pragma once

#include "testing/driver_fixture.h"
#include "testing/memory_disk.h"

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

inline unsigned setting(char const* pszName, unsigned nDefault) {
    char const* const pszValue = getenv(pszName);
    return pszValue == nullptr ? nDefault : static_cast<unsigned>(atoi(pszValue));
}

// ---- The model ----

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
    Dictation flushed; // what a crash leaves
    std::optional<Dictation> stored;
    uint32_t nWritten = 0; // bytes in all

    std::string bytes() const {
        std::string all;
        for (Run const& run : now.runs) {
            all += audio.substr(run.nBegin, run.live_size());
        }
        return all;
    }

    // The status that the driver must answer.
    FFDError apply(Step const& step, std::string const& piece) {
        if (step.kind < Kind::Undo) {
            now.nPosition = std::min(step.nAt, now.length());
        }
        switch (step.kind) {
        case Kind::Insert:
        case Kind::Overwrite: {
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
        return 0;
    }
};

// ---- The driver beside the model ----

class Session {
public:
    static constexpr char const* SOUND = "/d/a.mp3";

    // A file with a head and a tail around its audio, opened.
    Session(std::string head, std::string const& audio, std::string tail, uint32_t nFrame)
        : m_head(std::move(head)), m_tail(std::move(tail)), m_nFrame(nFrame) {
        memory_disk::begin();
        memory_disk::put(SOUND, m_head + audio + m_tail);
        reopen(audio);
    }
    ~Session() {
        if (m_handle != nullptr) {
            slots().Close(m_handle);
        }
    }
    Session(Session const&) = delete;
    Session& operator=(Session const&) = delete;

    Model const& model() const { return m_model; }
    std::string const& failure() const { return m_failure; } // the first thing that went wrong
    bool is_open() const { return m_handle != nullptr; }

    void run(Step const& step, std::string const& piece) {
        if (m_handle != nullptr) {
            FFDError const status = perform(step, piece);
            check(m_model.apply(step, piece) == status, "status");
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
        m_model.now = m_model.flushed;
        m_model.now.nPosition = 0;
        m_model.stored.reset();
        open();
        return true;
    }

    // The audio of the closed file.
    std::string close() {
        check(slots().Close(m_handle) == 0, "status of the close");
        m_handle = nullptr;
        check(dry::names() == std::vector<std::string>{SOUND}, "files behind the close");
        check(dry::open_handles() == 0, "handles behind the close");
        std::string const file = memory_disk::get(SOUND);
        size_t const nAround = m_head.size() + m_tail.size();
        bool const bTags =
            file.size() >= nAround && file.starts_with(m_head) && file.ends_with(m_tail);
        check(bTags, "tags of the closed file");
        return bTags ? file.substr(m_head.size(), file.size() - nAround) : "";
    }

    // The next session on a file that a close left with this audio.
    void reopen(std::string const& audio) {
        uint32_t const nEnd = static_cast<uint32_t>(audio.size());
        Dictation const found{{{0, nEnd}}};
        m_model = {m_nFrame, audio + m_tail, nEnd, found, found, std::nullopt, 0};
        open();
    }

    // Opens the closed file and closes it again. There may be no frame in it.
    void look_inside() {
        FFDError const status = create();
        check(status == 0 || status == 9 || status == 26, "open: " + std::to_string(status));
        if (m_handle != nullptr) {
            close();
        }
    }

    void check(bool bGood, std::string const& what) {
        if (!bGood && m_failure.empty()) {
            m_failure = what;
        }
    }

private:
    static Slots const& slots() {
        static bool const bAttached = DllMain(nullptr, 1, nullptr) != 0;
        EXPECT_TRUE(bAttached);
        return *reinterpret_cast<Slots const*>(FFD_Function_Table);
    }

    FFDError create() {
        FFDCallbackParams callback = {};
        callback.hDriver = this;
        FFDError status = 0;
        m_handle = slots().CreateFile(SOUND, 2, 2, nullptr, callback, &status, nullptr);
        return status;
    }

    void open() {
        FFDError const status = create();
        check(status == 0, "open: " + std::to_string(status));
        if (m_handle != nullptr) {
            compare();
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
        std::string const expected = m_model.bytes();
        uint32_t const nLength = static_cast<uint32_t>(expected.size());
        uint32_t nFound = 0;
        slots().GetCurrentPos(m_handle, &nFound);
        check(nFound == m_model.now.nPosition, "position");
        slots().AudioSeek(m_handle, 0xFFFFFFFF, &nFound);
        check(nFound == nLength, "length");
        slots().GetSoundDataLength(m_handle, &nFound);
        // Of up to 16 bytes each; the division can lose one.
        check(nLength - nFound < 32, "length from whole milliseconds");
        if (nLength > 0) {
            // Whole, and in parts that meet at each place in turn.
            static uint32_t nReads = 0;
            uint32_t const nCut = ++nReads % nLength;
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

    std::string const m_head;
    std::string const m_tail;
    uint32_t const m_nFrame;
    FFDHandle m_handle = nullptr;
    Model m_model;
    std::string m_failure;
};
