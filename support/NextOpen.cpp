#include "NextOpen.h"

#include "console/Status.h"
#include "console/System.h"
#include "host/Beside.h"

#include <algorithm>

namespace ffdhost {

namespace {

namespace fs = std::filesystem;

constexpr size_t kLongestPath = 259; // bytes
constexpr uint64_t kLargestOffset = 0xFFFFFFFF;

// Where the driver would give up; the steps so far are done.
struct Refusal {
    FFDError status;
    std::string reason;
};

// The name that the driver gives a file it sets aside.
fs::path aside_name(fs::path const& path) {
    fs::path name = path;
    name += ".bad";
    std::error_code error;
    for (int number = 1; fs::exists(fs::symlink_status(name, error)); ++number) {
        name = path;
        name += ".bad" + std::to_string(number);
    }
    return name;
}

// Follows the driver through an open for writing.
class Prediction {
public:
    explicit Prediction(std::string const& soundFile)
        : m_soundFile(soundFile), m_present(soundFile), m_dirFile(dir_file_of(soundFile)),
          m_folder(fs::absolute(soundFile).parent_path()) {}

    NextOpen run();

private:
    void check_path() const;
    void finish_interrupted_close();
    void settle(Marker const& marker);
    void look_at_directory();
    void check_access() const;
    void reconcile();
    bool fit_block(uint64_t held, uint64_t named);
    void account_for_bytes(uint64_t held);
    void predict_close();

    std::vector<Extent> rebuilt_file() const;
    void copy_block(Block const& block, std::vector<Extent>& extents) const;
    std::string rebuild_reason() const;
    void remove(fs::path const& file, std::string const& reason);
    void rename(fs::path const& file, fs::path const& newName, std::string const& reason);
    void drop_directory(bool keep, std::string const& reason);

    std::string const m_soundFile;
    fs::path m_present; // what will be the sound file, under its present name
    fs::path const m_dirFile;
    fs::path const m_folder;
    bool m_directoryGone = false;
    Extent m_trailing = {0, 0}; // with a directory taken over: bytes that are no audio
    std::optional<DirMap> m_taken;
    NextOpen m_next;
};

NextOpen Prediction::run() {
    try {
        check_path();
        finish_interrupted_close();
        look_at_directory();
        if (!size_of_file(m_present)) {
            throw Refusal{FFD_FILE_IO_ERROR, "the sound file does not exist"};
        }
        m_next.walk = walk_frames(m_present.string());
        check_access();
        if (m_next.walk->status != FFD_NOERROR) {
            throw Refusal{m_next.walk->status, m_next.walk->reason};
        }
        reconcile();
        predict_close();
    } catch (Refusal const& refusal) {
        m_next.status = refusal.status;
        m_next.reason = refusal.reason;
    } catch (Failure const& failure) {
        if (failure.status() != FFD_FILE_IO_ERROR) {
            throw;
        }
        m_next.status = failure.status();
        m_next.reason = failure.file() + ": " + failure.what();
    }
    return std::move(m_next);
}

void Prediction::check_path() const {
    fs::path const name = fs::path(m_soundFile).filename();
    std::string const text = name.string();
    size_t const dot = text.rfind('.');
    std::string const extension = dot == std::string::npos ? "" : text.substr(dot);
    if (text.empty() || dot == 0) {
        throw Refusal{FFD_INVALID_PATH, "the path has no file name"};
    }
    if (same_file_name(extension, ".DIR") || same_file_name(extension, ".CLM")) {
        throw Refusal{FFD_INVALID_PATH, "a " + extension + " file can't be a sound file"};
    }
    for (fs::path const& path :
         {fs::path(m_soundFile), m_folder / name, m_folder / m_dirFile.filename()}) {
        if (path.string().size() > kLongestPath) {
            throw Refusal{FFD_INVALID_PATH,
                          "the path, or that of the .DIR file, is longer than 259 characters"};
        }
    }
}

void Prediction::remove(fs::path const& file, std::string const& reason) {
    m_next.steps.push_back({Step::Action::Remove, file, "", reason});
}

void Prediction::rename(fs::path const& file, fs::path const& newName, std::string const& reason) {
    m_next.steps.push_back({Step::Action::Rename, file, newName, reason});
}

void Prediction::drop_directory(bool keep, std::string const& reason) {
    if (!size_of_file(m_dirFile)) {
        return;
    }
    m_directoryGone = true;
    if (keep) {
        rename(m_dirFile, aside_name(m_dirFile), reason);
    } else {
        remove(m_dirFile, reason);
    }
}

void Prediction::finish_interrupted_close() {
    m_next.marker = read_marker(m_soundFile);
    if (!m_next.marker) {
        return;
    }
    Marker const& marker = *m_next.marker;
    if (!may_write(marker.path)) {
        throw Refusal{FFD_FILE_IO_ERROR, "the close marker can't be written to"};
    }
    if (marker.whole) {
        settle(marker);
        remove(marker.path, "the close it tells of is settled then");
    } else if (marker.size == 0) {
        remove(marker.path, "it is empty: its close had removed nothing yet");
    } else {
        rename(marker.path, aside_name(marker.path),
               "it is not whole, or of another file: its close had removed nothing yet");
    }
}

// Where the interrupted close had come to.
void Prediction::settle(Marker const& marker) {
    std::optional<uint64_t> const sound = size_of_file(marker.soundFile);
    std::optional<uint64_t> const rebuilt = size_of_file(marker.rebuiltFile);
    if (sound && rebuilt) {
        if (*sound != marker.oldSize) {
            drop_directory(true, "the sound file was replaced since the close was interrupted, "
                                 "and the directory belongs to the one before");
        } else if (*rebuilt == marker.newSize) {
            remove(marker.rebuiltFile,
                   "the interrupted close had not removed the old file yet: the dictation is still "
                   "the sound file with its directory");
        }
    } else if (rebuilt && *rebuilt == marker.newSize) {
        rename(marker.rebuiltFile, marker.soundFile,
               "it is the finished dictation, to which the interrupted close did not give its name "
               "any more");
        drop_directory(false, "it describes the file before the close");
        if (same_file_name(marker.soundFile.filename(), fs::path(m_soundFile).filename())) {
            m_present = marker.rebuiltFile;
        }
    } else if (sound && marker.is_rebuilt(marker.soundFile, *sound)) {
        drop_directory(false, "the interrupted close had come to its end but for this file, which "
                              "describes the file before it");
    } else if (sound && *sound != marker.oldSize) {
        drop_directory(true, "the sound file is neither the one before the interrupted close nor "
                             "the one behind it, and the directory belongs to the one before");
    } else if (!sound) {
        throw Refusal{FFD_FILE_IO_ERROR, "a close was interrupted, and neither the sound file " +
                                             marker.soundFile.filename().string() +
                                             " nor the whole rebuilt file " +
                                             marker.rebuiltFile.filename().string() + " is there"};
    }
}

void Prediction::look_at_directory() {
    std::optional<uint64_t> const size = size_of_file(m_dirFile);
    m_next.directorySize = size.value_or(0);
    if (m_directoryGone) {
        m_next.directory = DirState::Gone;
    }
    if (!size || m_directoryGone) {
        std::error_code error;
        if (fs::exists(m_folder, error) && !may_write(m_folder)) {
            throw Refusal{FFD_FILE_IO_ERROR, "no file can be made in the folder"};
        }
        return;
    }
    if (!may_write(m_dirFile)) {
        throw Refusal{FFD_FILE_IO_ERROR, "the .DIR file can't be written to"};
    }
    try {
        m_taken = read_dir_file(m_dirFile);
        m_next.directory = m_taken ? DirState::Taken : DirState::Empty;
    } catch (Failure const& failure) {
        if (failure.status() != FFD_DIRECTORY_MISMATCH) {
            throw;
        }
        m_next.directory = DirState::Damaged;
        std::string const words = failure.what();
        m_next.directoryFault = words.substr(words.find(": ") + 2); // which say that it is damaged
        rename(m_dirFile, aside_name(m_dirFile), "it is damaged, " + m_next.directoryFault);
    }
}

void Prediction::check_access() const {
    if (!may_write(m_present)) {
        throw Refusal{FFD_FILE_IO_ERROR, "the sound file can't be written to"};
    }
}

void Prediction::reconcile() {
    FrameWalk const& walk = *m_next.walk;
    if (!m_taken) {
        m_next.map = one_block(static_cast<uint32_t>(walk.audio_length()));
        return;
    }
    m_next.map = *m_taken;
    uint64_t named = 0;
    for (Block const& block : m_taken->blocks) {
        named += block.size();
    }
    // No block gets shorter while its bytes are in the file, and none reaches behind its end.
    uint64_t const held = walk.held();
    uint64_t const audio =
        held >= named ? std::clamp(walk.audio_length(), named, held) : walk.audio_length();
    if (audio != named && fit_block(audio, named)) {
        m_next.directory = DirState::Repaired;
    }
    account_for_bytes(held);
}

// Fits the live block that ends where the directory does to the audio of the file. False if no
// block changes.
bool Prediction::fit_block(uint64_t audio, uint64_t named) {
    Block* highest = nullptr;
    for (Block& block : m_next.map.blocks) {
        if (block.size() > 0 && block.audioTo > named) {
            return false;
        }
        if (block.live() && block.audioTo == named && (highest == nullptr || block.size() > 0)) {
            highest = &block;
        }
    }
    if (highest == nullptr || highest->audioFrom > audio) {
        return false;
    }
    uint64_t const before = highest->size();
    if (highest->audioFrom < audio) {
        highest->audioTo = static_cast<uint32_t>(audio);
        m_next.repair = "the block at audio position " + std::to_string(highest->audioFrom) +
                        " has " + std::to_string(highest->size()) + " bytes instead of " +
                        std::to_string(before);
    } else {
        m_next.repair = "the block of " + std::to_string(before) + " bytes at audio position " +
                        std::to_string(highest->audioFrom) +
                        " is dropped: the file holds nothing of it";
        *highest = {BlockState::Deleted, 0, 0, highest->dictationFrom};
    }
    m_next.map.dictationLength = 0;
    for (Block& block : m_next.map.blocks) {
        block.dictationFrom = m_next.map.dictationLength;
        m_next.map.dictationLength += block.live() ? block.size() : 0;
    }
    return true;
}

void Prediction::account_for_bytes(uint64_t held) {
    std::vector<Block> blocks = m_next.map.blocks;
    std::erase_if(blocks, [](Block const& block) { return block.size() == 0; });
    std::sort(blocks.begin(), blocks.end(), [](Block const& left, Block const& right) {
        return left.audioFrom < right.audioFrom;
    });
    blocks.push_back({BlockState::Live, 0xFFFFFFFF, 0xFFFFFFFF, 0}); // behind any other
    uint64_t named = 0;
    bool first = true;
    for (Block const& block : blocks) {
        uint64_t const gapEnd = std::min<uint64_t>(block.audioFrom, held);
        uint64_t unnamed = gapEnd > named ? gapEnd - named : 0;
        if (unnamed > 0 && first) {
            // Up to the next frame it is what stood behind the audio, such as a tag, and is kept.
            uint64_t const from = m_next.walk->firstFrameOffset + named;
            std::optional<uint64_t> const frame = find_next_frame(*m_next.walk, from);
            uint64_t const kept = frame ? std::min(*frame - from, unnamed) : unnamed;
            unnamed -= kept;
            m_trailing = {from, kept};
            first = false;
        }
        m_next.unnamedBytes += unnamed;
        named = std::max<uint64_t>(named, block.audioTo);
        if (block.live() && block.size() > 0 && block.audioTo > held) {
            m_next.missingBytes += block.audioTo - std::max<uint64_t>(block.audioFrom, held);
        }
    }
}

std::string Prediction::rebuild_reason() const {
    uint64_t end = 0;
    for (Block const& block : m_next.map.blocks) {
        if (!block.live()) {
            return "parts were deleted";
        }
        if (block.audioFrom != end) {
            return "its blocks do not play as they lie in the file";
        }
        end = block.audioTo;
    }
    if (end < m_next.walk->held()) {
        return m_taken ? "the file holds bytes behind the last block"
                       : "bytes stand behind the audio; the file stays the same";
    }
    return "";
}

// What a rebuild copies: what stands in front of the audio, the blocks, what trails it.
std::vector<Extent> Prediction::rebuilt_file() const {
    FrameWalk const& walk = *m_next.walk;
    std::vector<Extent> extents = {{0, walk.firstFrameOffset}};
    for (Block const& block : m_next.map.blocks) {
        if (block.live() && block.size() >= walk.first->format().wave.frameSize) {
            copy_block(block, extents);
        }
    }
    extents.push_back(m_trailing);
    for (Extent& extent : extents) {
        uint64_t const there =
            walk.fileSize > extent.fileOffset ? walk.fileSize - extent.fileOffset : 0;
        extent.size = std::min(extent.size, there);
    }
    return extents;
}

// A block moves forward so that it begins with a frame, and on to the end of the frame that its end
// has cut.
void Prediction::copy_block(Block const& block, std::vector<Extent>& extents) const {
    FrameWalk const& walk = *m_next.walk;
    uint64_t const audioLimit = m_trailing.size > 0 ? m_trailing.fileOffset : kLargestOffset;
    uint64_t const wanted = walk.firstFrameOffset + block.audioFrom;
    uint64_t const limit = wanted < audioLimit
                               ? std::max(audioLimit, walk.firstFrameOffset + block.audioTo)
                               : kLargestOffset + 1;
    std::optional<uint64_t> const start = find_frame_to_cut_at(walk, wanted);
    if (!start || *start >= limit) {
        return;
    }
    uint64_t const size = std::min<uint64_t>(block.size(), limit - *start);
    extents.push_back({*start, size});
    uint64_t const end = *start + size;
    if (block.audioTo == walk.audio_length() || end >= limit) {
        return;
    }
    if (std::optional<uint64_t> const next = find_frame_to_cut_at(walk, end)) {
        extents.back().size += std::min(*next - end, limit - end);
    }
}

void Prediction::predict_close() {
    NextClose& close = m_next.close;
    close.reason = rebuild_reason();
    close.after = *m_next.walk;
    close.rebuilds = !close.reason.empty();
    std::error_code error;
    fs::space_info const space = fs::space(m_folder, error);
    close.freeBytes = error ? 0 : space.available;
    if (!close.rebuilds) {
        return;
    }
    if (m_taken) {
        close.after = walk_frames(m_present.string(), rebuilt_file());
    }
    if (m_next.walk->fileSize > close.freeBytes) {
        close.status = FFD_ERR_NOT_ENOUGH_DSPACE;
    } else if (!may_write(m_folder)) {
        close.status = FFD_FILE_IO_ERROR;
    }
}

} // namespace

NextOpen predict_open(std::string const& soundFile) {
    return Prediction(soundFile).run();
}

} // namespace ffdhost
