// Sessions on several files, decoded from the input and compared after each step with a model that
// holds the dictation byte by byte; a crash may come between any two steps. Where a session cuts at
// whole frames only, the file that its close leaves is compared with the model too.
#include "fuzz/support.h"

#include <algorithm>
#include <functional>
#include <optional>
#include <utility>

namespace {

enum class State : uint8_t { Live, Undoable, Deleted };

// The dictation, with what was deleted at its place between the rest.
struct Dictation {
    std::string bytes;
    std::vector<State> states;
    uint32_t nPosition = 0;

    explicit Dictation(std::string const& audio)
        : bytes(audio), states(audio.size(), State::Live) {}

    std::string text() const {
        std::string live;
        for (size_t nByte = 0; nByte < bytes.size(); ++nByte) {
            live.append(states[nByte] == State::Live ? 1 : 0, bytes[nByte]);
        }
        return live;
    }

    // Where the position lies among all bytes: directly behind the live one in front of it, so in
    // front of what was deleted there.
    size_t place() const {
        size_t nByte = 0;
        for (uint32_t nLeft = nPosition; nLeft > 0; ++nByte) {
            nLeft -= states[nByte] == State::Live ? 1 : 0;
        }
        return nByte;
    }

    void insert(std::string const& audio) {
        size_t const nByte = place();
        bytes.insert(nByte, audio);
        states.insert(states.begin() + static_cast<ptrdiff_t>(nByte), audio.size(), State::Live);
        nPosition += static_cast<uint32_t>(audio.size());
    }

    void erase(size_t nBytes, State state) {
        for (size_t nByte = place(); nByte < bytes.size() && nBytes > 0; ++nByte) {
            if (states[nByte] == State::Live) {
                states[nByte] = state;
                --nBytes;
            }
        }
    }

    bool has_marks() const {
        return std::find(states.begin(), states.end(), State::Undoable) != states.end();
    }
    void change_marks(State to) { std::replace(states.begin(), states.end(), State::Undoable, to); }
};

class File {
public:
    File(std::string const& name, std::string head, std::string tag)
        : m_path("/d/" + name + ".mp3"), m_head(std::move(head)), m_tag(std::move(tag)),
          m_dictation("") {
        renew();
    }

    FFDHandle handle() const { return m_handle; }
    bool has_restored() const { return m_handle != nullptr && m_bRestored; }

    void step(unsigned nAction, fuzz::Input& input) {
        if (m_handle == nullptr) {
            open(nAction % 4 == 0 ? FFD_ACCESS_READ : FFD_ACCESS_READWRITE);
        } else if (nAction == 0) {
            close();
        } else {
            act(nAction, input);
        }
        check();
    }

    void close() {
        FFDHandle const handle = std::exchange(m_handle, nullptr);
        if (handle == nullptr) {
            return;
        }
        REQUIRE(fuzz::close(handle) == FFD_NOERROR);
        REQUIRE(fuzz::close(handle) == FFD_INVALID_HANDLE);
        if (m_access == FFD_ACCESS_READ) {
            return;
        }
        REQUIRE(!memory_disk::has(m_path.substr(0, m_path.size() - 3) + "DIR"));
        std::string const closed = memory_disk::get(m_path);
        REQUIRE(closed.starts_with(m_head) && closed.ends_with(m_tag));
        REQUIRE(!m_bWholeFrames || closed == m_head + m_dictation.text() + m_tag);
        m_dictation = Dictation(m_dictation.text());
        if (!m_bWholeFrames || m_dictation.bytes.empty()) {
            renew();
        }
    }

    // After a crash the files are there as they were. A new process opens this one if it was being
    // edited, and finds it so.
    void recover() {
        if (std::exchange(m_handle, nullptr) != nullptr && m_access == FFD_ACCESS_READWRITE) {
            bool const bWholeFrames = m_bWholeFrames;
            open(m_access);
            m_bWholeFrames = bWholeFrames;
            check();
        }
    }

private:
    void renew() {
        m_dictation = Dictation(fuzz::frames(6));
        memory_disk::put(m_path, m_head + m_dictation.bytes + m_tag);
    }

    void open(FFDDesiredAccess access) {
        FFDError status = 0;
        m_handle = fuzz::open(m_path, access, status);
        REQUIRE(status == FFD_NOERROR);
        m_access = access;
        m_dictation.nPosition = 0;
        m_stored.reset();
        m_bRestored = false;
        m_bWholeFrames = true;
    }

    // A second handle: two readers share a file, nobody else does.
    void open_again(FFDDesiredAccess access) {
        FFDError status = 0;
        FFDHandle const second = fuzz::open(m_path, access, status);
        bool const bShared = access == FFD_ACCESS_READ && m_access == FFD_ACCESS_READ;
        REQUIRE(status == (bShared ? FFD_NOERROR : FFD_FILE_IO_ERROR));
        REQUIRE(!bShared || fuzz::close(second) == FFD_NOERROR);
    }

    void act(unsigned nAction, fuzz::Input& input) {
        uint32_t const nValue = input.byte();
        uint32_t const nFrames = nValue * fuzz::FRAME;
        FFDMethod const method = nAction % 2 == 0 ? FFD_METHOD_INSERT : FFD_METHOD_OVERWRITE;
        switch (nAction) {
        case 1:
            return seek(nValue * 7);
        case 2:
        case 3:
            return seek(nFrames);
        case 4:
        case 5:
            return write(method, fuzz::frames(nValue % 4));
        case 6:
        case 7:
            m_bWholeFrames = false;
            return write(method, fuzz::noise(nValue));
        case 8:
            return read(nValue * 5);
        case 9:
            return erase(nValue * 3);
        case 10:
        case 11:
            return erase(nFrames);
        case 12:
            if (edited(fuzz::call(m_handle, FFD_SLOT_UNDO_LAST),
                       m_dictation.has_marks() ? FFD_NOERROR : FFD_NOTHING_TO_UNDO)) {
                m_dictation.change_marks(State::Live);
            }
            return;
        case 13:
            if (edited(fuzz::call(m_handle, FFD_SLOT_STORE_ACTUAL_FILE_STATUS))) {
                m_stored = m_dictation;
            }
            return;
        case 14:
            if (edited(fuzz::call(m_handle, FFD_SLOT_RESTORE_FILE_STATUS),
                       m_stored ? FFD_NOERROR : FFD_NO_STORED_FILE_STATUS)) {
                m_dictation = *m_stored;
                m_bRestored = true;
            }
            return;
        default:
            return open_again(nValue % 2 == 0 ? FFD_ACCESS_READ : FFD_ACCESS_READWRITE);
        }
    }

    uint32_t length() const { return static_cast<uint32_t>(m_dictation.text().size()); }

    void seek(uint32_t nPosition) {
        m_dictation.nPosition = std::min(nPosition, length());
        REQUIRE(fuzz::seek(m_handle, nPosition) == m_dictation.nPosition);
    }

    void read(uint32_t nBytes) {
        FFDError status = 0;
        std::string const bytes = fuzz::read(m_handle, nBytes, status);
        REQUIRE(status == (length() == 0 ? FFD_INTERNAL_ERROR : FFD_NOERROR));
        REQUIRE(bytes == m_dictation.text().substr(m_dictation.nPosition, nBytes));
        m_dictation.nPosition += static_cast<uint32_t>(bytes.size());
    }

    // Whether an edit went through, after its status has been found to be the right one.
    bool edited(FFDError status, FFDError expected = FFD_NOERROR) const {
        REQUIRE(status == (m_access == FFD_ACCESS_READ ? FFD_ERROR_READ_ONLY : expected));
        return status == FFD_NOERROR;
    }

    void note_cut(size_t nBytes) {
        m_bWholeFrames =
            m_bWholeFrames && m_dictation.nPosition % fuzz::FRAME == 0 && nBytes % fuzz::FRAME == 0;
    }

    void write(FFDMethod method, std::string const& bytes) {
        if (edited(fuzz::write(m_handle, method, bytes)) && !bytes.empty()) {
            note_cut(bytes.size());
            m_dictation.insert(bytes);
            m_dictation.erase(method == FFD_METHOD_OVERWRITE ? bytes.size() : 0, State::Deleted);
        }
    }

    void erase(uint32_t nBytes) {
        // Nothing goes at less than a frame from the end, but in a dictation shorter than a frame.
        bool const bPasses = m_dictation.nPosition <= length() - fuzz::FRAME;
        if (edited(fuzz::erase(m_handle, nBytes)) && bPasses && nBytes > 0) {
            note_cut(nBytes);
            m_dictation.change_marks(State::Deleted);
            m_dictation.erase(nBytes, State::Undoable);
        }
    }

    void check() {
        if (m_handle == nullptr) {
            return;
        }
        uint32_t nValue = 0;
        uint32_t const nPosition = m_dictation.nPosition;
        REQUIRE(fuzz::position(m_handle) == nPosition);
        REQUIRE(fuzz::slot<FFDGetDictationFileSizeProc>(1)(m_handle, &nValue) == FFD_NOERROR);
        REQUIRE(memory_disk::get(m_path).size() == nValue);
        REQUIRE(fuzz::slot<FFDGetSoundDataLengthProc>(7)(m_handle, &nValue) == FFD_NOERROR);
        REQUIRE(length() - nValue < 8); // cut to milliseconds of 4 bytes each way
        seek(0);
        read(0xFFFFFFFF);
        seek(nPosition);
    }

    std::string m_path;
    std::string m_head;
    std::string m_tag;
    FFDHandle m_handle = nullptr;
    FFDDesiredAccess m_access = 0;
    Dictation m_dictation;
    std::optional<Dictation> m_stored;
    bool m_bRestored = false; // the .DIR file may not know of it, and what it dropped comes back
    bool m_bWholeFrames = true;
};

// Everything as it is after the process has died: the files alone are left.
void crash(std::vector<File>& files) {
    if (std::any_of(files.begin(), files.end(), std::mem_fn(&File::has_restored))) {
        return;
    }
    memory_disk::Files const left = memory_disk::left_by_crash();
    for (File const& file : files) {
        REQUIRE(file.handle() == nullptr || fuzz::close(file.handle()) == FFD_NOERROR);
    }
    memory_disk::begin(left);
    std::for_each(files.begin(), files.end(), std::mem_fn(&File::recover));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* pbyData, size_t nBytes) {
    fuzz::start();
    fuzz::Input input(pbyData, nBytes);
    std::vector<File> files;
    files.emplace_back("plain", "", "");
    files.emplace_back("tagged", fuzz::head(), fuzz::tag());
    while (!input.empty()) {
        unsigned const nStep = input.byte();
        if (nStep == 255) {
            crash(files);
        } else {
            files[nStep / 16 % 2].step(nStep % 16, input);
        }
    }
    std::for_each(files.begin(), files.end(), std::mem_fn(&File::close));
    fuzz::finish();
    return 0;
}
