// A session on a disk in memory, and beside it the model of its dictation: after each step both
// must agree on status, position, length and dictation.
#pragma once

#include "testing/dictation.h"
#include "testing/driver_calls.h"
#include "testing/memory_disk.h"
#include "testing/power_cut.h"

#include <cstdlib>
#include <utility>

#if defined(__SANITIZE_ADDRESS__)
constexpr unsigned TOO_SLOW_FOR_STEPS = 1; // a session takes twenty times as long
#else
constexpr unsigned TOO_SLOW_FOR_STEPS = 0;
#endif

inline unsigned setting(char const* pszName, unsigned nDefault) {
    char const* const pszValue = getenv(pszName);
    return pszValue == nullptr ? nDefault : static_cast<unsigned>(atoi(pszValue));
}

struct Sound {
    std::string head, audio, tail; // audio: whole frames
    uint32_t nFrame = 96;          // bytes of one without padding

    std::string file() const { return head + audio + tail; }
};

class Session {
public:
    // Opens a file that is on the disk.
    Session(std::string path, Sound sound) : m_path(std::move(path)), m_sound(std::move(sound)) {
        reopen(m_sound.audio);
        note();
    }
    ~Session() {
        if (m_handle != nullptr) {
            driver().Close(m_handle);
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
            note();
        }
    }

    // Of a session that is recorded: how many changes of the disk there were after each step, and
    // the model then.
    std::vector<std::pair<size_t, Model>> const& notes() const { return m_notes; }

    // The process ends without a close of its sessions, and the next one opens their files. False
    // if what it finds can't be told: a write that a restore dropped has lost its place, and comes
    // back somewhere.
    static bool crash(std::vector<Session*> sessions) {
        std::erase_if(sessions, [](Session const* pSession) { return !pSession->is_open(); });
        if (std::any_of(sessions.begin(), sessions.end(), [](Session const* pSession) {
                return pSession->m_model.flushed.nWritten != pSession->m_model.nWritten;
            })) {
            return false;
        }
        memory_disk::Files const files = memory_disk::left_by_crash();
        for (Session* const pSession : sessions) {
            driver().Close(pSession->m_handle);
        }
        memory_disk::begin(files);
        for (Session* const pSession : sessions) {
            pSession->m_model.now = pSession->m_model.flushed;
            pSession->m_model.now.nPosition = 0;
            pSession->m_model.stored.reset();
            pSession->open();
        }
        return true;
    }

    // The audio of the closed file.
    std::string close() {
        check(driver().Close(m_handle) == 0, "status of the close");
        check(driver().Close(m_handle) == FFD_INVALID_HANDLE, "status of a second close");
        m_handle = nullptr;
        std::string const stem = m_path.substr(0, m_path.rfind('.'));
        for (std::string const& name : dry::names()) {
            check(name == m_path || !name.starts_with(stem), "files behind the close");
        }
        std::string const file = memory_disk::get(m_path);
        size_t const nAround = m_sound.head.size() + m_sound.tail.size();
        bool const bTags = file.size() >= nAround && file.starts_with(m_sound.head) &&
                           file.ends_with(m_sound.tail);
        check(bTags, "tags of the closed file");
        return bTags ? file.substr(m_sound.head.size(), file.size() - nAround) : "";
    }

    // The next session on a file that a close left with this audio.
    void reopen(std::string const& audio) {
        uint32_t const nEnd = static_cast<uint32_t>(audio.size());
        Dictation const found{{{0, nEnd}}};
        m_model = {m_sound.nFrame, audio + m_sound.tail, nEnd, found, found,
                   false,          std::nullopt,         0};
        open();
    }

    // Opens the closed file and closes it again. There may be no frame in it.
    void look_inside() {
        FFDError status = 0;
        m_handle = open_sound(m_path, 2, status);
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
    void note() {
        if (power_cut::is_recording()) {
            m_notes.emplace_back(power_cut::changes(), m_model);
        }
    }

    void open() {
        FFDError status = 0;
        m_handle = open_sound(m_path, 2, status);
        check(status == 0, "open: " + std::to_string(status));
        if (m_handle != nullptr) {
            compare();
        }
    }

    FFDError perform(Step const& step, std::string const& piece) {
        if (step.kind < Kind::Undo) {
            seek(m_handle, step.nAt);
        }
        switch (step.kind) {
        case Kind::Insert:
            return write_at(m_handle, FFD_METHOD_INSERT, piece);
        case Kind::Overwrite:
            return write_at(m_handle, FFD_METHOD_OVERWRITE, piece);
        case Kind::Erase:
            return driver().DeleteData(m_handle, step.nBytes);
        case Kind::Undo:
            return driver().UndoLast(m_handle);
        case Kind::Store:
            return driver().StoreActualFileStatus(m_handle);
        default:
            return driver().RestoreFileStatus(m_handle);
        }
    }

    void compare() {
        std::string const expected = m_model.bytes();
        uint32_t const nLength = static_cast<uint32_t>(expected.size());
        uint32_t nFound = 0;
        check(position(m_handle) == m_model.now.nPosition, "position");
        check(seek(m_handle, 0xFFFFFFFF) == nLength, "length");
        driver().GetSoundDataLength(m_handle, &nFound);
        // Of up to 16 bytes each; the division can lose one.
        check(nLength - nFound < 32, "length from whole milliseconds");
        if (nLength > 0) {
            // Whole, and in parts that meet at each place in turn.
            uint32_t const nCut = ++m_nReads * 251 % nLength;
            check(read(0, nLength) == expected, "dictation");
            check(read(nCut, nLength) == expected.substr(nCut), "rest of the dictation");
            check(read(nCut / 2, 2) == expected.substr(nCut / 2, 2), "two bytes");
        }
        seek(m_handle, m_model.now.nPosition);
        driver().GetDictationFileSize(m_handle, &nFound);
        check(nFound == m_sound.head.size() + m_model.audio.size(), "size of the file");
        check(memory_disk::get(m_path.substr(0, m_path.rfind('.')) + ".DIR") == directory(),
              "directory on the disk");
    }

    std::string directory() const {
        std::vector<Entry> entries;
        for (Run const& run : m_model.flushed.runs) {
            uint32_t const nStatus = run.state == Run::Live ? 1 : run.state == Run::Gone ? 3 : 11;
            entries.push_back({nStatus, run.nBegin, run.nEnd});
        }
        return m_model.bFlushed ? dir_image(entries) : "";
    }

    std::string read(uint32_t nFrom, uint32_t nBytes) {
        FFDError status = 0;
        seek(m_handle, nFrom);
        std::string const bytes = read_on(m_handle, nBytes, status);
        return status == 0 ? bytes : "no bytes, status " + std::to_string(status);
    }

    std::string const m_path;
    Sound const m_sound;
    uint32_t m_nReads = 0;
    std::vector<std::pair<size_t, Model>> m_notes;
    FFDHandle m_handle = nullptr;
    Model m_model;
    std::string m_failure;
};
