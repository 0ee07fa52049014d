#include "Diagnosis.h"

#include "console/Files.h"
#include "console/Printable.h"
#include "console/System.h"
#include "host/Beside.h"
#include "host/Obstacle.h"
#include "MCI/KIVMP3/ClockName.h"
#include "MCI/KIVMP3/INTERNAL.h"

#include <algorithm>

namespace ffdhost {

namespace {

namespace fs = std::filesystem;

// The names that a close or an open gives, in the folder of the sound file.
void look_around(Diagnosis& diagnosis) {
    fs::path const folder = fs::absolute(diagnosis.file).parent_path();
    fs::path const own = fs::path(diagnosis.file).filename();
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
        fs::path const name = entry->path().filename();
        if (CClockName::is_name(name.string().c_str(), REBUILT_FILE_EXTENSION, false) &&
            !same_file_name(name, own)) {
            diagnosis.copies.push_back(beside(diagnosis.file, "").replace_filename(name));
        }
        bool const aside = KIVMP3_is_aside_extension(name.extension().string().c_str());
        for (auto const companion : {dir_file_of, marker_file_of}) {
            if (aside && same_file_name(name.stem(), companion(diagnosis.file).filename())) {
                diagnosis.setAside.push_back(beside(diagnosis.file, "").replace_filename(name));
            }
        }
    }
    std::sort(diagnosis.copies.begin(), diagnosis.copies.end());
    std::sort(diagnosis.setAside.begin(), diagnosis.setAside.end());
}

void ask_loaded_driver(Diagnosis& diagnosis, Driver const& driver) {
    try {
        SoundFile sound(driver, diagnosis.next.soundNow, Access::Read);
        diagnosis.readLength = sound.length();
        sound.close();
        diagnosis.readStatus = FFD_NOERROR;
    } catch (Failure const& failure) {
        diagnosis.readStatus = failure.status();
    }
}

// A file that can't be read is of interest only if something tells of it.
void refuse_without_traces(std::string const& file) {
    std::error_code error;
    bool const hasTraces =
        !fs::exists(file, error) && (fs::exists(fs::symlink_status(dir_file_of(file), error)) ||
                                     fs::exists(fs::symlink_status(marker_file_of(file), error)));
    if (auto const why = why_unreadable("check", file); why && !hasTraces) {
        throw *why;
    }
}

// Collects the findings, in the order of their gravity.
class Findings {
public:
    explicit Findings(Diagnosis& diagnosis) : m_diagnosis(diagnosis), m_next(diagnosis.next) {}

    void collect();

private:
    void refused();
    void marker();
    void directory();
    void close();
    void others();
    void frames();
    void disagreement();

    void attention(std::string const& code, std::string const& text, std::string const& advice) {
        m_diagnosis.findings.push_back({true, code, text, advice});
    }
    void note(std::string const& code, std::string const& text, std::string const& advice) {
        m_diagnosis.findings.push_back({false, code, text, advice});
    }
    std::string recover() const {
        return "Run: ffdhost recover --copy -- " + shell_word(m_diagnosis.file);
    }

    Diagnosis& m_diagnosis;
    NextOpen const& m_next;
};

void Findings::collect() {
    if (m_next.inUse) {
        attention("in_use",
                  "another program has the file open, so that what lies beside it is at work",
                  "Close that program, or wait for it, and check again.");
        return;
    }
    refused();
    marker();
    directory();
    close();
    others();
    frames();
    disagreement();
    std::stable_partition(m_diagnosis.findings.begin(), m_diagnosis.findings.end(),
                          [](Finding const& finding) { return finding.attention; });
}

void Findings::refused() {
    if (m_next.status == FFD_NOERROR) {
        return;
    }
    StatusText const status = status_text(m_next.status);
    std::string detail;
    std::string advice = m_next.forbidden
                             ? "Change the permissions, or copy the file, with what lies "
                               "beside it, to a place of your own."
                             : status.advice;
    if (m_next.walk && m_next.walk->framesOfBitrate.size() > 1) {
        detail = "; " + difference_text(*m_next.walk->firstDifferent);
    }
    if (!m_next.walk && m_next.directory == DirState::Taken) {
        detail = "; its .DIR file holds edits";
        advice = "Find the file that the .DIR file belongs to and put it back under this name. "
                 "Delete nothing.";
    }
    attention("refused",
              "an open for writing fails: " + m_next.reason + detail + status_suffix(m_next.status),
              advice);
}

void Findings::marker() {
    if (!m_next.marker) {
        return;
    }
    if (m_next.marker->settled) {
        attention("close_interrupted",
                  "a close was interrupted at its very end; the next open for writing settles it",
                  "Delete and rename nothing before. " + recover());
    } else if (m_next.marker->goes) {
        attention(
            "marker_not_whole",
            m_next.marker->path.string() +
                (m_next.marker->size == 0 ? " is empty" : " is not whole, or of another file") +
                ": a close was interrupted before it had changed anything",
            recover());
    } else if (m_next.status == FFD_NOERROR) {
        note("marker_foreign", m_next.marker->path.string() + " is no close marker",
             "It is left alone until a close needs its name.");
    }
}

void Findings::directory() {
    std::string const name = dir_file_of(m_diagnosis.file).string();
    if (m_next.directory == DirState::Damaged) {
        attention("directory_damaged",
                  name + " is damaged (" + m_next.directoryFault +
                      "): it is set aside, and the audio plays in the order of the file",
                  "No audio is lost, but edit the dictation again; keep the file that is set aside "
                  "for whoever looks into the cause. " +
                      recover());
    }
    if (m_next.status == FFD_NOERROR && m_next.close.after.status != FFD_NOERROR) {
        attention(
            "close_spoils",
            "the close leaves a file that can't be opened again: " + m_next.close.after.reason,
            "If nobody has deleted the whole dictation, copy the file and its .DIR file "
            "elsewhere before anybody opens it for writing, and send them to the developers.");
    }
    if (m_next.unnamedBytes > 0) {
        attention("audio_not_named",
                  bytes_text(m_next.unnamedBytes) +
                      " of the file are named by no edit, and the close leaves them out",
                  "The .DIR file is torn, of another file, or older than the last write. Keep a "
                  "copy before anybody opens the file for writing: 'ffdhost recover --copy' does.");
    }
    if (m_next.missingBytes > 0) {
        attention("audio_missing",
                  bytes_text(m_next.missingBytes) + " that the edits name are not in the file",
                  "Find out whether the sound file was replaced or cut since the crash. What the "
                  "file does not hold is left out.");
    }
    if (m_next.directory == DirState::Repaired) {
        attention("edits_waiting",
                  "edits are waiting in " + name +
                      "; they are taken over and repaired: " + m_next.repair,
                  "Listen to the end of the last edit afterwards. " + recover());
    }
    if (m_next.directory == DirState::Taken && (m_next.status == FFD_NOERROR || m_next.forbidden)) {
        attention("edits_waiting",
                  "edits are waiting in " + name + "; the next open for writing takes them over",
                  "Keep both files together until then. " + recover());
    }
    if (m_next.directory == DirState::Empty) {
        note("directory_empty",
             name + " names no edit: an open for writing was refused, or crashed before it had one",
             "The next open for writing makes it anew. Audio that was appended plays at the end.");
    }
}

void Findings::close() {
    if (m_next.status == FFD_NOERROR && m_next.close.status != FFD_NOERROR) {
        StatusText const status = status_text(m_next.close.status);
        attention("close_refused",
                  "the close after an open for writing fails with " + std::string(status.name) +
                      " (" + std::to_string(m_next.close.status) + "): " +
                      (m_next.close.status == FFD_ERR_NOT_ENOUGH_DSPACE
                           ? "it needs " + bytes_text(m_next.close.neededBytes) +
                                 " of disk space, " + std::to_string(m_next.close.freeBytes) +
                                 " are free"
                           : "no file can be made in the folder"),
                  status.advice);
    }
}

void Findings::others() {
    for (fs::path const& path : m_diagnosis.setAside) {
        if (same_file_name(path.stem().extension(), ".DIR")) {
            attention("set_aside_earlier",
                      path.string() + " was set aside at an earlier open: the order of edits in "
                                      "front of that was lost, no audio",
                      "Ask whether the dictation was edited again since. Move the file out of the "
                      "folder, and keep it for whoever looks into the cause.");
        } else {
            note("marker_set_aside_earlier", path.string() + " was set aside at an earlier open",
                 "It may be deleted.");
        }
    }
    for (fs::path const& path : m_diagnosis.copies) {
        bool const named = std::find(m_next.touched.begin(), m_next.touched.end(),
                                     path.filename().string()) != m_next.touched.end();
        if (!named) {
            note("copy_left",
                 path.string() + " has the name of a copy that a close makes, of this file or of "
                                 "another in the folder",
                 "Once every file of the folder with a .DIR or .CLM file is recovered and right, "
                 "it may be deleted. Until then keep it.");
        }
    }
}

void Findings::frames() {
    if (!m_next.walk || m_next.walk->frames == 0) {
        return;
    }
    FrameWalk const& walk = *m_next.walk;
    // What an edit has appended may stand behind a tag, or end within a frame.
    bool const edited =
        m_next.directory == DirState::Taken || m_next.directory == DirState::Repaired;
    auto const found = [&](bool grave, char const* code, std::string const& text,
                           char const* advice) {
        grave ? attention(code, text, advice) : note(code, text, advice);
    };
    if (walk.cut) {
        found(!edited, "last_frame_cut", "the last frame is cut off: " + cut_text(*walk.cut),
              "The end of the recording is missing: the file was cut in a transfer, or its "
              "recorder crashed. Compare its size with that of the original.");
    }
    bool const tagBeforeEdits = edited && walk.gaps == 1 && walk.firstGap->kind == "ID3v1 tag";
    if (walk.gaps > 0 && !tagBeforeEdits) {
        found(!edited, "bytes_between_frames",
              "bytes that are no frames stand between frames: " + gap_text(walk),
              "The driver counts them as audio and players skip them. If the file sounds wrong "
              "there, encode it anew.");
    }
    bool const sameBitrate = walk.framesOfBitrate.size() == 1;
    if (walk.firstDifferent && sameBitrate) {
        found(walk.firstDifferent->differences[0].what != "channels", "frames_differ",
              std::to_string(walk.differentFrames) + " of the frames differ, first " +
                  difference_text(*walk.firstDifferent),
              "The file was put together from different recordings. If it sounds wrong there, "
              "encode it anew.");
    }
    if (walk.format.layer != 3) {
        note("not_layer_3", "the frames are not of Layer III, and the driver measures them as such",
             "Encode the file anew as MP3.");
    }
    if (walk.is_info_frame_wrong() && !edited) {
        note("info_frame_stale",
             "the info frame is wrong: the file has " + std::to_string(walk.frames - 1) +
                 " frames behind it, " + bytes_text(walk.audio_length()) + " with it",
             "Players may show a wrong length, or stop early. The audio is right. Run: ffdhost "
             "recover --info-frame -- " +
                 shell_word(m_diagnosis.file));
    }
}

// What is foretold is the work of the driver that this program was built with. The one that is
// loaded may be another.
void Findings::disagreement() {
    if (!m_diagnosis.readStatus) {
        return;
    }
    bool const works = *m_diagnosis.readStatus == FFD_NOERROR;
    bool const sameLength = !works || m_diagnosis.readLength == m_next.walk->audio_length();
    if (*m_diagnosis.readStatus != m_next.status || !sameLength) {
        attention("disagreement",
                  "the driver that is loaded comes to another result: " +
                      std::string(status_text(*m_diagnosis.readStatus).name) +
                      (works ? ", " + bytes_text(*m_diagnosis.readLength) : ""),
                  "Check again while no other program is at work on the file, with the driver that "
                  "belongs to this program. If it stays, send the file to the developers.");
    }
}

} // namespace

bool Diagnosis::needs_attention() const {
    return !findings.empty() && findings.front().attention;
}

bool Diagnosis::has_work() const {
    return !next.steps.empty() || (next.directory != DirState::None);
}

std::string Diagnosis::verdict_code() const {
    return needs_attention() ? findings.front().code : "sound";
}

std::string Diagnosis::verdict() const {
    auto const grave = std::count_if(findings.begin(), findings.end(),
                                     [](Finding const& finding) { return finding.attention; });
    if (grave == 0) {
        return findings.empty() ? "sound" : "sound, see the notes";
    }
    return findings.front().text +
           (grave > 1 ? "; and " + std::to_string(grave - 1) + " more" : "");
}

Diagnosis diagnose(Driver const& driver, std::string const& file) {
    refuse_without_traces(file);
    Diagnosis diagnosis;
    diagnosis.file = file;
    diagnosis.next = foretell_open(file);
    NextOpen const& next = diagnosis.next;
    if (next.walk && next.status != FFD_FILE_IO_ERROR && next.status != FFD_INVALID_PATH) {
        ask_loaded_driver(diagnosis, driver);
    }
    if (next.walk && next.walk->frames > 0) {
        InputFile const sound(next.soundNow);
        diagnosis.inFront = regions_in_front(sound, next.walk->firstFrameOffset);
        diagnosis.behind = regions_behind(sound, next.walk->fileSize, next.walk->audioEndOffset);
    }
    look_around(diagnosis);
    Findings(diagnosis).collect();
    return diagnosis;
}

} // namespace ffdhost
