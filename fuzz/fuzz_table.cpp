// Sessions on two files at a time, whose steps are decoded from the input and compared with a model
// each; a crash may come between any two steps. Where a session cuts at whole frames only, the file
// that its close leaves is compared with the model too.
#include "fuzz/support.h"
#include "testing/sound_maker.h"
#include "testing/step_source.h"

namespace {

constexpr uint8_t CRASH = 255;

// A byte says which file and what, most of them another a number.
class InputSteps : public StepSource {
public:
    explicit InputSteps(fuzz::Input& input) : m_input(input) {}

    // Nothing if what comes is no step, or one of another file: it waits.
    std::optional<std::pair<Step, std::string>> next(Model const& model) override {
        while (peek() != CRASH && peek_file() == m_nFile && peek_action() % 15 != 0) {
            unsigned const nAction = peek_action();
            m_oWaiting.reset();
            uint32_t const nValue = m_input.byte();
            uint32_t const nFrames = nValue * fuzz::FRAME;
            uint32_t const nAt = m_oSeek.value_or(model.now.nPosition);
            m_oSeek.reset();
            if (nAction <= 3) {
                m_oSeek = nAction == 1 ? nValue * 7 : nFrames;
            } else if (nAction <= 7) {
                m_abWholeFrames[m_nFile] = m_abWholeFrames[m_nFile] && nAction <= 5;
                return step({nAction % 2 == 0 ? Kind::Insert : Kind::Overwrite, nAt},
                            nAction <= 5 ? fuzz::frames(nValue % 4) : fuzz::noise(nValue));
            } else if (nAction <= 11) {
                return step({Kind::Erase, nAt, nAction <= 9 ? nValue * 3 : nFrames});
            } else {
                return step({nAction == 12   ? Kind::Undo
                             : nAction == 13 ? Kind::Store
                                             : Kind::Restore});
            }
        }
        return std::nullopt;
    }

    bool is_empty() const { return m_input.empty() && !m_oWaiting; }
    uint8_t peek() {
        if (!m_oWaiting) {
            m_oWaiting = m_input.byte();
        }
        return *m_oWaiting;
    }
    unsigned peek_file() { return peek() / 16 % 2; }
    unsigned peek_action() { return peek() % 16; }
    void pass() { m_oWaiting.reset(); }

    // From here on steps are those of this file.
    void turn_to(unsigned nFile) {
        m_nFile = nFile;
        m_oSeek.reset();
    }

    bool m_abWholeFrames[2] = {true, true}; // all cuts since the open

private:
    std::pair<Step, std::string> step(Step step, std::string const& piece = "") {
        step.nBytes += static_cast<uint32_t>(piece.size());
        bool& bWhole = m_abWholeFrames[m_nFile];
        bWhole = bWhole && (step.nBytes == 0 ||
                            (step.nAt % fuzz::FRAME == 0 && step.nBytes % fuzz::FRAME == 0));
        return {step, piece};
    }

    fuzz::Input& m_input;
    std::optional<uint8_t> m_oWaiting;
    std::optional<uint32_t> m_oSeek;
    unsigned m_nFile = 0;
};

struct File {
    std::string path;
    Sound sound;
    std::string audio; // as long as it is closed
    Session session;

    File(std::string const& name, Sound const& newSound)
        : path("/d/" + name + ".mp3"), sound(newSound), session(put(path, sound), sound) {}

    static std::string const& put(std::string const& path, Sound const& sound) {
        memory_disk::put(path, sound.file());
        return path;
    }

    void check() const {
        if (!session.failure().empty()) {
            fuzz::fail(session.failure().c_str(), __FILE__, __LINE__);
        }
    }

    void close(bool bWholeFrames) {
        audio = session.close();
        check();
        REQUIRE(!bWholeFrames || audio == session.model().bytes());
        if (!bWholeFrames || audio.empty()) {
            put(path, sound);
            audio = sound.audio;
        }
    }

    // Two readers share a file; nobody else does, and neither edits.
    void read_only() const {
        FFDError status = 0;
        FFDHandle const handle = fuzz::open(path, FFD_ACCESS_READ, status);
        REQUIRE(handle != nullptr && read_on(handle, 0xFFFFFFFF, status) == audio);
        REQUIRE(write_at(handle, FFD_METHOD_INSERT, "x") == FFD_ERROR_READ_ONLY);
        REQUIRE(driver().DeleteData(handle, 1) == FFD_ERROR_READ_ONLY);
        REQUIRE(driver().UndoLast(handle) == FFD_ERROR_READ_ONLY);
        REQUIRE(driver().StoreActualFileStatus(handle) == FFD_ERROR_READ_ONLY);
        REQUIRE(driver().RestoreFileStatus(handle) == FFD_ERROR_READ_ONLY);
        FFDHandle const second = fuzz::open(path, FFD_ACCESS_READ, status);
        REQUIRE(second != nullptr && driver().Close(second) == FFD_NOERROR);
        REQUIRE(fuzz::open(path, FFD_ACCESS_READWRITE, status) == nullptr);
        REQUIRE(driver().Close(handle) == FFD_NOERROR);
    }
};

// What is not a step of an open file.
void act(InputSteps& steps, File& file, bool& bWholeFrames) {
    unsigned const nAction = steps.peek_action();
    if (file.session.is_open() && nAction % 15 != 0) {
        return;
    }
    steps.pass();
    FFDError status = 0;
    if (!file.session.is_open() && nAction % 4 == 0) {
        file.read_only();
    } else if (!file.session.is_open()) {
        file.session.reopen(file.audio);
        bWholeFrames = true;
    } else if (nAction == 0) {
        file.close(bWholeFrames);
    } else {
        REQUIRE(fuzz::open(file.path, FFD_ACCESS_READ, status) == nullptr);
        REQUIRE(fuzz::open(file.path, FFD_ACCESS_READWRITE, status) == nullptr);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* pbyData, size_t nBytes) {
    fuzz::start();
    fuzz::Input input(pbyData, nBytes);
    {
        File files[] = {{"plain", {"", fuzz::frames(6), ""}},
                        {"tagged", {fuzz::head(), fuzz::frames(6), id3v1_tag()}}};
        InputSteps steps(input);
        while (!steps.is_empty()) {
            if (steps.peek() == CRASH) {
                steps.pass();
                Session::crash({&files[0].session, &files[1].session});
                continue;
            }
            unsigned const nFile = steps.peek_file();
            steps.turn_to(nFile);
            act(steps, files[nFile], steps.m_abWholeFrames[nFile]);
            run_session(files[nFile].session, steps);
            files[0].check();
            files[1].check();
        }
        for (unsigned const nFile : {0u, 1u}) {
            if (files[nFile].session.is_open()) {
                files[nFile].close(steps.m_abWholeFrames[nFile]);
            }
        }
    }
    fuzz::finish();
    return 0;
}
