#include "support.h"

#include "console/Printable.h"
#include "console/System.h"
#include "Diagnosis.h"
#include "KeepCopy.h"

#include <algorithm>
#include <memory>

namespace ffdhost {

namespace {

namespace fs = std::filesystem;

// Everything that a recovery may change.
std::vector<std::string> names_to_keep(Diagnosis const& diagnosis) {
    std::vector<std::string> names = {fs::path(diagnosis.file).filename().string(),
                                      dir_file_of(diagnosis.file).filename().string(),
                                      marker_file_of(diagnosis.file).filename().string()};
    for (std::string const& name : diagnosis.next.touched) {
        if (std::find(names.begin(), names.end(), name) == names.end()) {
            names.push_back(name);
        }
    }
    return names;
}

// Why an open for writing and a close are not even tried: they would fail, and an open that fails
// can leave an empty .DIR file; or they would remove audio that is nowhere else.
std::optional<Failure> obstacle(Diagnosis const& diagnosis, RecoverOptions const& options) {
    NextOpen const& next = diagnosis.next;
    if (next.inUse) {
        return Failure("recover", diagnosis.file, next.status, "it is in use by another program",
                       "Close the other program and try again; nothing was changed.");
    }
    if (next.status != FFD_NOERROR) {
        return Failure("recover", diagnosis.file, next.status, next.reason,
                       std::string(status_text(next.status).advice) + " Nothing was changed.");
    }
    if (options.infoFrame && (!next.steps.empty() || (next.directory != DirState::None &&
                                                      next.directory != DirState::Empty))) {
        return Failure("recover", diagnosis.file, FFD_ERROR_ACCESS_DENIED, diagnosis.verdict(),
                       "Take what a crash has left over first. Run: ffdhost recover --copy -- " +
                           shell_word(diagnosis.file));
    }
    if (next.close.status != FFD_NOERROR) {
        return Failure("recover", diagnosis.file, next.close.status,
                       std::string(status_text(next.close.status).meaning),
                       std::string(status_text(next.close.status).advice) +
                           " Nothing was changed.");
    }
    if ((next.unnamedBytes > 0 || next.close.after.status != FFD_NOERROR) && !options.copy) {
        return Failure("recover", diagnosis.file, FFD_DIRECTORY_MISMATCH,
                       "the close would leave out audio that may be wanted, or spoil the file",
                       "See 'ffdhost check', and use --copy. Nothing was changed.");
    }
    return std::nullopt;
}

class Recovery {
public:
    Recovery(Driver const& driver, std::string const& file, bool json)
        : m_driver(driver), m_file(file), m_json(json),
          m_before(diagnose(driver, file)), m_document{{"command", "recover"},
                                                       {"ok", false},
                                                       {"file", file}} {}

    Outcome run(RecoverOptions const& options);

private:
    void open_and_close();
    Outcome failed(Failure const& failure);
    void say(std::string const& name, std::string const& value) const {
        if (!m_json) {
            print_line(name, value);
        }
    }

    Driver const& m_driver;
    std::string const m_file;
    bool const m_json;
    Diagnosis const m_before;
    Json m_document;
};

Outcome Recovery::run(RecoverOptions const& options) {
    m_document["before"] = diagnosis_json(m_before);
    m_document["copy"] = nullptr;
    say("Before", m_before.verdict());
    if (std::optional<Failure> const reason = obstacle(m_before, options)) {
        return failed(*reason);
    }
    if (!(options.infoFrame ? m_before.next.walk->is_info_frame_wrong() : m_before.has_work())) {
        say("Recovery", "nothing to do");
        m_document["ok"] = true;
        return {m_document, 0};
    }
    if (!m_json && !options.infoFrame) {
        print_plan(m_before.next);
    }
    try {
        if (options.copy) {
            m_document["copy"] = Json::array();
            for (fs::path const& path : keep_copy(m_file, names_to_keep(m_before))) {
                say(m_document["copy"].empty() ? "Copy kept" : "", path.string());
                m_document["copy"].push_back(path.string());
            }
        }
        options.infoFrame ? mend_info_frame(m_file, *m_before.next.walk) : open_and_close();
    } catch (Failure const& failure) {
        return failed(failure);
    }
    Diagnosis const after = diagnose(m_driver, m_file);
    if (options.infoFrame && after.next.walk && after.next.walk->infoFrame) {
        FrameWalk const& walk = *after.next.walk;
        say("Info frame",
            info_frame_text(info_frame_json(*walk.infoFrame, walk.is_info_frame_wrong()), m_file));
    }
    m_document["after"] = diagnosis_json(after);
    m_document["ok"] = true;
    if (Json const& length = m_document["after"]["next_open"]["dictation"];
        m_document.contains("closed") && !length.is_null()) {
        say("Closed", length_text(length)); // the close went to whole frames
    }
    say("After", after.verdict());
    return {m_document, 0};
}

void Recovery::open_and_close() {
    tell_when_interrupted("\nffdhost: interrupted: the next open for writing of " +
                          printable(m_file) + " goes on from here\n");
    std::unique_ptr<SoundFile> sound;
    {
        Waiting const waiting("opening");
        sound = std::make_unique<SoundFile>(m_driver, m_file, Access::ReadWrite);
    }
    uint32_t const rate = sound->wave_format().bytesPerSecond;
    uint32_t const length = sound->length();
    m_document["dictation"] = length_json(length, rate);
    say("Opened", length_text(length, rate));
    if (length != m_before.next.dictationLength) {
        print_warning("the dictation is not as long as expected: keep what was kept of the file, "
                      "and report it");
    }
    {
        Waiting const waiting("closing");
        sound->close();
    }
    tell_when_interrupted("");
    m_document["closed"] = status_json(FFD_NOERROR);
}

Outcome Recovery::failed(Failure const& failure) {
    m_document["failure"] = failure_json(failure);
    if (!m_json) {
        print_failure(failure);
    }
    return {m_document, kExitFailed};
}

} // namespace

Outcome run_recover(Driver const& driver, std::string const& file, RecoverOptions const& options,
                    bool json) {
    return Recovery(driver, file, json).run(options);
}

std::vector<std::string> names_to_keep(std::string const& file) {
    fs::path const marker = marker_file_of(file);
    std::error_code error;
    if (fs::exists(marker, error)) {
        throw Failure("backup", file, FFD_ERROR_ACCESS_DENIED,
                      "a close was interrupted, so that the dictation may have another name",
                      "End it first, with a copy. Run: ffdhost recover --copy -- " +
                          shell_word(file));
    }
    return {fs::path(file).filename().string(), dir_file_of(file).filename().string()};
}

void keep_backup(std::string const& file, bool json) {
    for (fs::path const& path : keep_copy(file, names_to_keep(file))) {
        if (!json) {
            print_line("Kept", path.string());
        }
    }
}

} // namespace ffdhost
