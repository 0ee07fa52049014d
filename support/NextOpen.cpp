#include "NextOpen.h"

#include "console/Output.h"
#include "console/System.h"
#include "DryDriver.h"
#include "host/Beside.h"
#include "host/Obstacle.h"
#include "host/SoundFile.h"
#include "MCI/KIVMP3/CKivDirFile.h"
#include "platform/dry_platform.h"
#include "TraceListener.h"

#include <algorithm>
#include <array>

namespace ffdhost {

namespace {

namespace fs = std::filesystem;

constexpr size_t kMostNewBytes = 64; // that are shown of a part

// Enough for any rebuild.
constexpr uint64_t kPlenty = uint64_t{1} << 62;

char const* words_of_error(DWORD error) {
    struct Row {
        DWORD error;
        char const* words;
    };
    static constexpr Row kRows[] = {
        {ERROR_PATH_NOT_FOUND, "its folder does not exist"},
        {ERROR_TOO_MANY_OPEN_FILES, "too many files are open"},
        {ERROR_ACCESS_DENIED, "permission denied"},
        {ERROR_NOT_ENOUGH_MEMORY, "there is no memory"},
        {ERROR_WRITE_PROTECT, "the medium is write-protected"},
        {ERROR_SHARING_VIOLATION, "another program has it open"},
        {ERROR_DISK_FULL, "the disk is full"},
        {ERROR_FILENAME_EXCED_RANGE, "the name is too long"},
    };
    auto const found = std::find_if(std::begin(kRows), std::end(kRows),
                                    [&](Row const& row) { return row.error == error; });
    return found != std::end(kRows) ? found->words : "the system refuses it";
}

// One open for writing, and its close, on the disk that only pretends.
class Rehearsal {
public:
    Rehearsal(std::string const& soundFile, bool allPermitted)
        : m_soundFile(soundFile), m_dirFile(dir_file_of(soundFile)),
          m_listener([this](uint64_t fileOffset, uint64_t end, FrameCounter::Header const& header) {
              count_frame(fileOffset, end, header);
          }),
          m_dry(m_listener), m_allPermitted(allPermitted) {
        dry::pretend_permissions(allPermitted);
    }

    NextOpen run();

private:
    void look_beside();
    void open();
    void tell_of_open();
    void tell_of_directory();
    void tell_of_repair();
    void tell_of_failure(Failure const& failure);
    void close();
    void rehearse_with_space();
    void tell_of_close();
    void tell_of_closed_file();
    bool stays_same(dry::Contents const& closed) const;
    void account_for_bytes();
    void count_frame(uint64_t fileOffset, uint64_t end, FrameCounter::Header const& header);
    dry::Contents const* sound() const { return dry::find(m_soundFile); }
    fs::path shown(std::string const& path) const {
        return beside(m_soundFile, "").replace_filename(fs::path(path).filename());
    }
    bool changed(fs::path const& file, dry::Change::Kind kind) const;

    std::string const m_soundFile;
    fs::path const m_dirFile;
    TraceListener m_listener;
    DryDriver m_dry;
    bool const m_allPermitted;
    std::unique_ptr<SoundFile> m_opened;
    dry::Contents const* m_walked = nullptr; // the sound file, while the open walks over it
    dry::Contents m_before;                  // when the open is done
    FrameCounter m_counter;
    std::unique_ptr<Progress> m_progress;
    uint64_t m_shown = 0; // file offset that the progress has come to
    NextOpen m_next;
};

NextOpen Rehearsal::run() {
    look_beside();
    open();
    tell_of_open();
    if (m_next.status == FFD_NOERROR) {
        m_next.dictationLength = m_opened->length();
        m_next.bytesPerSecond = m_opened->wave_format().bytesPerSecond;
        close();
        tell_of_close();
        account_for_bytes();
    }
    for (dry::Change const& change : dry::changes()) {
        if (change.bReal) {
            m_next.touched.push_back(fs::path(change.file).filename().string());
        }
    }
    return std::move(m_next);
}

void Rehearsal::look_beside() {
    if (dry::Contents const* const directory = dry::find(m_dirFile.string())) {
        m_next.directorySize = directory->size();
        m_next.directory = directory->size() == 0 ? DirState::Empty : DirState::Taken;
    } else if (std::error_code error; fs::is_regular_file(fs::symlink_status(m_dirFile, error))) {
        m_next.directorySize = fs::file_size(m_dirFile, error);
        m_next.directory = DirState::Hidden;
    }
    fs::path const marker = marker_file_of(m_soundFile);
    if (dry::Contents const* const contents = dry::find(marker.string())) {
        m_next.marker = Marker{marker, contents->size(), false, false};
    }
}

void Rehearsal::count_frame(uint64_t fileOffset, uint64_t end, FrameCounter::Header const& header) {
    if (m_walked == nullptr) {
        m_walked = sound();
        m_progress = std::make_unique<Progress>("checking", m_walked->size());
    }
    if (fileOffset - m_shown >= kPieceSize) {
        m_progress->advance(fileOffset - m_shown);
        m_shown = fileOffset;
    }
    m_counter.add(*m_walked, fileOffset, end, header);
}

void Rehearsal::open() {
    try {
        m_opened = std::make_unique<SoundFile>(m_dry.driver(), m_soundFile, Access::ReadWrite);
    } catch (Failure const& failure) {
        tell_of_failure(failure);
    }
    m_progress.reset();
}

void Rehearsal::tell_of_failure(Failure const& failure) {
    m_next.status = failure.status();
    m_next.reason = m_listener.reason_of(failure.status());
    if (!m_next.reason.empty()) {
        return;
    }
    std::vector<dry::Failure> const& failures = dry::failures();
    if (failure.status() != FFD_FILE_IO_ERROR) {
        m_next.reason = status_text(failure.status()).meaning;
    } else if (!failures.empty()) {
        dry::Failure const& last = failures.back();
        m_next.inUse = last.dwError == ERROR_SHARING_VIOLATION;
        m_next.forbidden =
            last.dwError == ERROR_ACCESS_DENIED || last.dwError == ERROR_WRITE_PROTECT;
        std::error_code error;
        auto const status = fs::symlink_status(last.file, error);
        std::string const name = shown(last.file).string();
        if (m_next.forbidden && !fs::exists(status)) {
            m_next.reason = "permission denied: " + name + " may not be made, and edits need it";
        } else {
            m_next.forbidden = m_next.forbidden && fs::is_regular_file(status);
            m_next.reason =
                name + ": " +
                (fs::exists(status) && !fs::is_regular_file(status) ? "it is no regular file"
                                                                    : words_of_error(last.dwError));
        }
    } else if (!m_listener.last_error().empty()) {
        m_next.reason = m_listener.last_error();
    } else {
        std::error_code error;
        m_next.reason =
            fs::exists(m_soundFile, error) ? failure.what() : "the sound file does not exist";
    }
}

bool Rehearsal::changed(fs::path const& file, dry::Change::Kind kind) const {
    return std::any_of(m_next.steps.begin(), m_next.steps.end(), [&](Step const& step) {
        bool const renames = step.action == Step::Action::Rename;
        return renames == (kind == dry::Change::Kind::Renamed) && step.file == file;
    });
}

void Rehearsal::tell_of_open() {
    auto const& changes = dry::changes();
    for (size_t i = 0; i < changes.size(); ++i) {
        dry::Change const& change = changes[i];
        bool const renames = change.kind == dry::Change::Kind::Renamed;
        if (change.bReal && (renames || change.kind == dry::Change::Kind::Removed)) {
            m_next.steps.push_back(
                {renames ? Step::Action::Rename : Step::Action::Remove, shown(change.file),
                 renames ? shown(change.newName) : fs::path(), m_listener.reason_of_change(i)});
        }
    }
    if (m_next.marker) {
        bool const removed = changed(m_next.marker->path, dry::Change::Kind::Removed);
        m_next.marker->goes = removed || changed(m_next.marker->path, dry::Change::Kind::Renamed);
        m_next.marker->settled = m_listener.settles_close() || (removed && m_next.marker->size > 0);
    }
    tell_of_directory();
    if (dry::Contents const* const file = sound()) {
        std::string const name = file->runs().empty() ? "" : file->runs()[0].pSource->path();
        m_next.soundNow = name.empty() ? m_soundFile : shown(name).string();
        m_next.walk = m_counter.finish(*file);
        m_before = *file;
    }
}

void Rehearsal::tell_of_directory() {
    if (m_next.directory == DirState::None || m_next.directory == DirState::Hidden) {
        return;
    }
    m_next.directoryFault = m_listener.fault_of_directory();
    if (!m_next.directoryFault.empty()) {
        m_next.directory = DirState::Damaged;
    } else if (changed(m_dirFile, dry::Change::Kind::Removed) ||
               changed(m_dirFile, dry::Change::Kind::Renamed)) {
        m_next.directory = DirState::Gone;
    } else if (m_next.status == FFD_NOERROR && m_listener.entries_found().empty()) {
        m_next.directory = DirState::Empty;
    }
}

void Rehearsal::close() {
    std::error_code error;
    fs::space_info const space = fs::space(fs::absolute(m_soundFile).parent_path(), error);
    m_next.close.freeBytes = error ? 0 : space.available;
    try {
        m_opened->close();
    } catch (Failure const& failure) {
        m_next.close.status = failure.status();
    }
    m_opened.reset();
    tell_of_repair();
}

// The entries are traced before an open fits one to the file, and as the close finds them.
void Rehearsal::tell_of_repair() {
    auto const& found = m_listener.entries_found();
    auto const& closed = m_listener.entries_closed();
    if (m_next.directory != DirState::Taken || found.size() != closed.size()) {
        return;
    }
    auto const [before, after] = std::mismatch(found.begin(), found.end(), closed.begin());
    if (before == found.end()) {
        return;
    }
    m_next.directory = DirState::Repaired;
    std::string const size = std::to_string(before->audioTo - before->audioFrom);
    std::string const place = " at audio position " + std::to_string(before->audioFrom);
    m_next.repair = after->status == before->status
                        ? "the block" + place + " has " +
                              std::to_string(after->audioTo - after->audioFrom) +
                              " bytes instead of " + size
                        : "the block of " + size + " bytes" + place +
                              " is dropped: the file holds nothing of it";
}

void Rehearsal::tell_of_close() {
    m_next.close.reason = m_listener.reason_of_rebuild();
    m_next.close.rebuilds = !m_next.close.reason.empty();
    m_next.close.neededBytes = m_listener.needed_bytes();
    if (m_next.close.status == FFD_ERR_NOT_ENOUGH_DSPACE) {
        rehearse_with_space();
    }
    tell_of_closed_file();
}

// The closed file is of interest, too, if only the space for it is missing.
void Rehearsal::rehearse_with_space() {
    dry::start(dry::Disk::Real);
    dry::pretend_permissions(m_allPermitted);
    dry::listen(nullptr);
    dry::pretend_free_bytes(kPlenty);
    try {
        SoundFile again(m_dry.driver(), m_soundFile, Access::ReadWrite);
        again.close();
    } catch (Failure const&) {
        return; // then there is none
    }
}

void Rehearsal::tell_of_closed_file() {
    ClosedFile& after = m_next.close.after;
    dry::Contents const* const file = sound();
    if (file == nullptr) {
        after.status = FFD_FILE_IO_ERROR;
        return;
    }
    after.size = file->size();
    std::vector<dry::Run> const& runs = file->runs();
    for (size_t i = 0; i < runs.size() && i < kMostRows; ++i) {
        dry::Run const& run = runs[i];
        Part part{"", run.ullSourceOffset, file->end_of(i) - run.ullFileOffset, {}};
        if (run.pSource != nullptr && !run.pSource->path().empty()) {
            part.file = shown(run.pSource->path()).string();
        } else if (run.pSource != nullptr && part.size <= kMostNewBytes) {
            part.bytes.resize(static_cast<size_t>(part.size));
            run.pSource->read(run.ullSourceOffset, part.bytes.data(), part.bytes.size());
        }
        after.parts.push_back(std::move(part));
    }
    after.moreParts = runs.size() - after.parts.size();
    if (m_next.close.rebuilds && stays_same(*file)) {
        m_next.close.reason += "; the file stays the same";
    }

    TraceListener listener;
    dry::listen(&listener);
    try {
        SoundFile closed(m_dry.driver(), m_soundFile, Access::Read);
        after.dictationLength = closed.length();
        after.bytesPerSecond = closed.wave_format().bytesPerSecond;
        closed.close();
    } catch (Failure const& failure) {
        after.status = failure.status();
        after.reason = listener.reason_of(failure.status());
        if (after.reason.empty()) {
            after.reason = status_text(failure.status()).meaning;
        }
    }
    dry::listen(&m_listener);
}

// Whether each part of the closed file stands where it stood before, or is the same there.
bool Rehearsal::stays_same(dry::Contents const& closed) const {
    std::vector<dry::Run> const& runs = closed.runs();
    bool same = closed.size() == m_before.size();
    for (size_t i = 0; same && i < runs.size(); ++i) {
        dry::Run const& run = runs[i];
        uint64_t const size = closed.end_of(i) - run.ullFileOffset;
        same =
            run.pSource == m_before.runs()[0].pSource && run.ullSourceOffset == run.ullFileOffset;
        if (!same && size <= kMostNewBytes) { // such as a frame header
            std::array<uint8_t, kMostNewBytes> before{};
            std::array<uint8_t, kMostNewBytes> after{};
            DWORD read = 0;
            auto const count = static_cast<DWORD>(size);
            same = m_before.read(run.ullFileOffset, before.data(), count, read) == NO_ERROR &&
                   closed.read(run.ullFileOffset, after.data(), count, read) == NO_ERROR &&
                   before == after;
        }
    }
    return same;
}

// What no entry names is no part of the dictation. Nor is it lost if the closed file has it: a tag
// that trails the audio, the rest of a frame that a cut has left.
void Rehearsal::account_for_bytes() {
    struct Range {
        uint64_t from;
        uint64_t to;
    };
    std::vector<Range> kept;
    uint64_t const first = m_next.walk->firstFrameOffset;
    uint64_t const end = m_next.walk->fileSize;
    for (TracedEntry const& entry : m_listener.entries_closed()) {
        uint64_t const from = first + entry.audioFrom;
        uint64_t const to = first + entry.audioTo;
        bool const takenOver = !m_listener.entries_found().empty();
        bool const deleted = DirEntry{static_cast<BYTE>(entry.status), {}, 0, 0}.is_deleted();
        if (takenOver && !deleted && to > end) {
            m_next.missingBytes += to - std::max(from, end);
        }
        kept.push_back({from, to});
    }
    if (dry::Contents const* const closed = sound()) {
        std::vector<dry::Run> const& runs = closed->runs();
        for (size_t i = 0; i < runs.size(); ++i) {
            if (runs[i].pSource != nullptr && shown(runs[i].pSource->path()) == m_next.soundNow) {
                kept.push_back(
                    {runs[i].ullSourceOffset,
                     runs[i].ullSourceOffset + closed->end_of(i) - runs[i].ullFileOffset});
            }
        }
    }
    std::sort(kept.begin(), kept.end(),
              [](Range const& left, Range const& right) { return left.from < right.from; });
    uint64_t named = first;
    for (Range const& range : kept) {
        if (range.from > named) {
            m_next.unnamedBytes += std::min(range.from, end) - std::min(named, end);
        }
        named = std::max(named, range.to);
    }
    m_next.unnamedBytes += end - std::min(named, end);
}

} // namespace

NextOpen foretell_open(std::string const& soundFile) {
    NextOpen next = Rehearsal(soundFile, false).run();
    while (next.inUse && await_free(soundFile)) {
        next = Rehearsal(soundFile, false).run();
    }
    if (!next.forbidden) {
        return next;
    }
    NextOpen permitted = Rehearsal(soundFile, true).run();
    permitted.status = next.status;
    permitted.reason = next.reason;
    permitted.steps = next.steps;
    permitted.touched = next.touched;
    permitted.inUse = false;
    permitted.forbidden = true;
    return permitted;
}

} // namespace ffdhost
